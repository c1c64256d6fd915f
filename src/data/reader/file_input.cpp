#include "data/reader/file_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <isa-l/igzip_lib.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "data/format/fast_inflate.h"

namespace {

constexpr size_t kInputSize = 1u << 20;
// zlib inflates up to 16 KiB beyond what a read asks for, and may meet damage there: the
// fast path hands bytes out only once it has inflated well beyond them (or to the end),
// so that a damaged stream falls back to zlib no later than zlib would have failed.
constexpr size_t kLookahead = 64u << 10;

enum class Mode { Start, Plain, Fast, Zlib };

}  // namespace

struct obx_file_input_t {
    std::string path;
    int fd = -1;
    Mode mode = Mode::Start;
    gzFile zfile = nullptr;
    bool eof = false;
    int error = 0;  // errno of a failed read of the fast or plain path

    std::vector<uint8_t> in;
    size_t in_pos = 0, in_len = 0;
    bool input_done = false;  // the file has no more bytes
    std::unique_ptr<inflate_state> state;
    bool in_member = false;
    std::vector<uint8_t> pending;  // inflated, not handed out yet: pending[pending_pos..]
    size_t pending_pos = 0;
    bool stream_done = false;      // every member inflated and checked, and no bytes follow
    // The sizes of earlier reads, run-length coded: zlib is given the same reads again, so
    // that it stands where it would have stood.
    std::vector<std::pair<unsigned, uint64_t>> reads;

    size_t available() const { return in_len - in_pos; }
    const uint8_t* next() const { return in.data() + in_pos; }

    // Makes at least `want` bytes available unless the file ends first; false on a read error.
    bool fill(size_t want) {
        if (in_pos > 0) {
            std::memmove(in.data(), in.data() + in_pos, available());
            in_len -= in_pos;
            in_pos = 0;
        }
        while (in_len < want && !input_done) {
            const ssize_t got = ::read(fd, in.data() + in_len, in.size() - in_len);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) {
                error = errno;
                return false;
            }
            if (got == 0) input_done = true;
            in_len += static_cast<size_t>(got);
        }
        return true;
    }

    int read_plain(uint8_t* buffer, size_t length) {
        size_t done = std::min(length, available());
        std::memcpy(buffer, next(), done);
        in_pos += done;
        while (done < length && !input_done) {
            const ssize_t got = ::read(fd, buffer + done, length - done);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) {
                error = errno;
                return -1;
            }
            if (got == 0) input_done = true;
            done += static_cast<size_t>(got);
        }
        if (done < length) eof = true;
        return static_cast<int>(done);
    }

    // Inflates the next step of the stream into `pending`; false when zlib must take over.
    bool inflate_step() {
        if (!in_member) {
            if (!fill(OBX_GZIP_PLAIN_HEADER_SIZE)) return false;
            if (available() == 0 && input_done) {
                stream_done = true;
                return true;
            }
            if (!obx_gzip_header_is_plain(next(), available())) return false;  // trailing bytes, odd headers
            in_pos += OBX_GZIP_PLAIN_HEADER_SIZE;
            isal_inflate_init(state.get());
            state->crc_flag = ISAL_GZIP_NO_HDR_VER;  // the member's CRC and length are checked
            in_member = true;
        }
        if (available() == 0 && !fill(1)) return false;
        constexpr size_t kStep = 256u << 10;
        if (pending_pos > 0 && pending_pos >= pending.size() / 2) {
            pending.erase(pending.begin(), pending.begin() + static_cast<long>(pending_pos));
            pending_pos = 0;
        }
        const size_t before = pending.size();
        pending.resize(before + kStep);
        const uint32_t offered = static_cast<uint32_t>(std::min<size_t>(available(), UINT32_MAX));
        state->next_in = const_cast<uint8_t*>(next());
        state->avail_in = offered;
        state->next_out = pending.data() + before;
        state->avail_out = static_cast<uint32_t>(kStep);
        const int result = isal_inflate(state.get());
        const size_t consumed = offered - state->avail_in, produced = kStep - state->avail_out;
        pending.resize(before + produced);
        in_pos += consumed;
        if (result < 0) return false;
        if (state->block_state == ISAL_BLOCK_FINISH) {
            in_member = false;
            return true;
        }
        return !(consumed == 0 && produced == 0 && available() == 0 && input_done);  // cut short: zlib tells how
    }

    // The whole request by ISA-L, or -2 when zlib must answer it.
    int read_fast(uint8_t* buffer, size_t length) {
        while (!stream_done && pending.size() - pending_pos < length + kLookahead)
            if (!inflate_step()) return -2;
        const size_t done = std::min(length, pending.size() - pending_pos);
        std::memcpy(buffer, pending.data() + pending_pos, done);
        pending_pos += done;
        if (done < length) eof = true;
        return static_cast<int>(done);
    }

    // From here on zlib reads: the file anew, through the same reads as were made so far.
    bool switch_to_zlib() {
        mode = Mode::Zlib;
        if (fd >= 0) ::close(fd);
        fd = -1;
        in.clear();
        in.shrink_to_fit();
        state.reset();
        errno = 0;
        zfile = gzopen(path.c_str(), "rb");
        if (!zfile) {
            error = errno ? errno : EIO;
            return false;
        }
        unsigned largest = 0;
        for (const auto& run : reads) largest = std::max(largest, run.first);
        std::vector<uint8_t> scratch(largest);
        for (const auto& run : reads)
            for (uint64_t i = 0; i < run.second; ++i)
                if (gzread(zfile, scratch.data(), run.first) != static_cast<int>(run.first))
                    return true;  // zlib ends sooner: the next read meets the same end or error
        return true;
    }
};

obx_file_input_t* obx_file_input_open(const char* path)
{
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    auto* input = new (std::nothrow) obx_file_input_t;
    if (!input) {
        ::close(fd);
        errno = ENOMEM;
        return nullptr;
    }
    input->path = path;
    input->fd = fd;
    // A pipe or a device cannot be read a second time: zlib reads it from the start.
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        input->mode = Mode::Zlib;
        input->zfile = gzdopen(fd, "rb");
        input->fd = -1;
        if (!input->zfile) {
            ::close(fd);
            delete input;
            errno = ENOMEM;
            return nullptr;
        }
    }
    return input;
}

void obx_file_input_close(obx_file_input_t* input)
{
    if (!input) return;
    if (input->fd >= 0) ::close(input->fd);
    if (input->zfile) gzclose(input->zfile);
    delete input;
}

int obx_file_input_read(obx_file_input_t* input, void* buffer, unsigned length)
{
    if (!input || !buffer) return -1;
    uint8_t* out = static_cast<uint8_t*>(buffer);
    if (input->mode == Mode::Start) {
        try {
            input->in.resize(kInputSize);
        } catch (const std::bad_alloc&) {
            input->mode = Mode::Zlib;
        }
        if (input->mode == Mode::Start) {
            // Two bytes tell gzip from plain, as zlib decides; an odd start is zlib's to read.
            if (!input->fill(OBX_GZIP_PLAIN_HEADER_SIZE)) return -1;
            const bool gzip = input->available() >= 2 && input->next()[0] == 0x1f && input->next()[1] == 0x8b;
            if (!gzip && input->available() >= 2) {
                input->mode = Mode::Plain;
            } else if (gzip && obx_gzip_header_is_plain(input->next(), input->available())) {
                input->state.reset(new (std::nothrow) inflate_state);
                input->mode = input->state ? Mode::Fast : Mode::Zlib;
            } else {
                input->mode = Mode::Zlib;
            }
        }
        if (input->mode == Mode::Zlib && !input->switch_to_zlib()) return -1;
    }
    int got = -1;
    switch (input->mode) {
        case Mode::Plain: got = input->read_plain(out, length); break;
        case Mode::Fast:
            got = input->read_fast(out, length);
            if (got == -2) {
                input->eof = false;
                input->pending = std::vector<uint8_t>();
                if (!input->switch_to_zlib()) return -1;
                got = gzread(input->zfile, out, length);
            }
            break;
        default: got = gzread(input->zfile, out, length); break;
    }
    if (input->mode == Mode::Fast) {
        if (!input->reads.empty() && input->reads.back().first == length)
            ++input->reads.back().second;
        else
            input->reads.emplace_back(length, 1);
    }
    return got;
}

bool obx_file_input_failed(obx_file_input_t* input, int got)
{
    if (!input) return true;
    if (input->mode != Mode::Zlib || !input->zfile) return got < 0;
    int code = Z_OK;
    gzerror(input->zfile, &code);
    return got < 0 || code != Z_OK;
}

const char* obx_file_input_error(obx_file_input_t* input)
{
    if (!input) return std::strerror(EINVAL);
    if (input->mode != Mode::Zlib || !input->zfile) return std::strerror(input->error ? input->error : errno);
    int code = Z_OK;
    const char* text = gzerror(input->zfile, &code);
    if (code == Z_ERRNO || !text || text[0] == '\0') return std::strerror(errno);
    // zlib puts the path in front of its text.
    const std::string& path = input->path;
    if (std::strncmp(text, path.c_str(), path.size()) == 0 && std::strncmp(text + path.size(), ": ", 2) == 0)
        return text + path.size() + 2;
    return text;
}

bool obx_file_input_eof(obx_file_input_t* input)
{
    if (!input) return true;
    if (input->mode == Mode::Zlib) return input->zfile && gzeof(input->zfile);
    return input->eof;
}
