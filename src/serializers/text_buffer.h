// A growing byte buffer for output text whose storage outlives the records written into
// it: after the first records it no longer allocates. Running out of memory throws
// std::bad_alloc, which the writers using it turn into a failed record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace obx {
namespace data {

class TextBuffer {
public:
    TextBuffer() = default;
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;
    ~TextBuffer() { std::free(data_); }

    const char* data() const { return data_ ? data_ : ""; }
    size_t size() const { return size_; }
    // Drops what lies behind `size` (a record that failed, a record printed).
    void truncate(size_t size) { size_ = size < size_ ? size : size_; }

    // Room for `length` more bytes at the end: write there, then commit the end.
    char* room(size_t length)
    {
        if (capacity_ - size_ < length) grow(length);
        return data_ + size_;
    }
    void commit(char* end) { size_ = static_cast<size_t>(end - data_); }

    void put(char c)
    {
        *room(1) = c;
        ++size_;
    }
    void write(const char* bytes, size_t length)
    {
        if (length == 0) return;
        std::memcpy(room(length), bytes, length);
        size_ += length;
    }
    // Copies bytes that are already in the buffer to its end.
    void repeat(size_t begin, size_t length)
    {
        if (length == 0) return;
        char* target = room(length);  // may move the storage: take the source after it
        std::memcpy(target, data_ + begin, length);
        size_ += length;
    }
    void blanks(size_t count)
    {
        if (count == 0) return;
        std::memset(room(count), ' ', count);
        size_ += count;
    }

private:
    void grow(size_t length)
    {
        size_t wanted = capacity_ ? capacity_ : 4096;
        while (wanted - size_ < length) {
            if (wanted > (SIZE_MAX >> 1)) throw std::bad_alloc();
            wanted *= 2;
        }
        char* larger = static_cast<char*>(std::realloc(data_, wanted));
        if (!larger) throw std::bad_alloc();
        data_ = larger;
        capacity_ = wanted;
    }

    char* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

}  // namespace data
}  // namespace obx
