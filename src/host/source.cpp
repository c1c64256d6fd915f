#include "host/source.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/client_id.h"
#include "utils/logger.h"
#include "utils/number_parse.h"

namespace {

// Lines of spec files are looked at in pieces of this many characters; of a longer line
// only the first piece gives a source.
constexpr size_t kLinePiece = 1023;

void copy_cut(char* target, size_t size, const char* text) {
    std::memset(target, 0, size);
    if (text) std::memcpy(target, text, strnlen(text, size - 1));
}

bool add_new(obx_source_array_t* array, const char* id, const char* spec) {
    if (array->count >= OBX_SOURCE_ARRAY_MAX) {
        OBX_LOG_ERR("[source] Too many sources in %s: at most %d", spec, OBX_SOURCE_ARRAY_MAX);
        return false;
    }
    obx_source_t* source = obx_source_create(id, "");
    if (!source || !obx_source_array_add(array, source)) {
        obx_source_destroy(source);
        OBX_LOG_ERR("[source] Failed to allocate memory");
        return false;
    }
    return true;
}

// Reads `file` line by line and hands the first piece of each line, without its line
// end, as a C text to `take`; `piece_seen` gets every piece whole, NUL bytes included.
// False when reading fails or `take` refuses.
template <class Take, class See>
bool for_each_line(FILE* file, const char* path, Take&& take, See&& piece_seen) {
    char piece[kLinePiece + 1];
    size_t length = 0;
    bool first_piece = true;
    for (int c; (c = getc_unlocked(file)) != EOF;) {
        if (c != '\n') piece[length++] = static_cast<char>(c);
        if (c != '\n' && length < kLinePiece) continue;
        piece[length] = '\0';
        piece_seen(piece, length);
        if (first_piece) {
            piece[std::strcspn(piece, "\r")] = '\0';
            if (!take(piece)) return false;
        }
        first_piece = c == '\n';
        length = 0;
    }
    if (length > 0) {
        piece[length] = '\0';
        piece_seen(piece, length);
        if (first_piece) {
            piece[std::strcspn(piece, "\r")] = '\0';
            if (!take(piece)) return false;
        }
    }
    if (std::ferror(file)) {
        OBX_LOG_ERR("[source] Failed to read file %s: %s", path, std::strerror(errno));
        return false;
    }
    return true;
}

bool holds_node_marker(const char* piece, size_t length) {
    for (size_t i = 0; i + 1 < length; ++i)
        if ((piece[i] == 'H' || piece[i] == 'S') && piece[i + 1] == '-') return true;
    return false;
}

// A node list names hosts "H-..." and switches "S-..." somewhere in its lines.
int file_is_fabprobe(const char* path) {
    FILE* file = std::fopen(path, "r");
    if (!file) {
        OBX_LOG_ERR("[source] Failed to open file: %s", path);
        return -1;
    }
    bool found = false;
    const bool read = for_each_line(
        file, path, [](const char*) { return true; },
        [&](const char* piece, size_t length) { found = found || holds_node_marker(piece, length); });
    std::fclose(file);
    return read ? found : -1;
}

// Each line with a word in round brackets gives that word; other lines give nothing.
bool read_fabprobe(obx_source_array_t* array, const char* path) {
    FILE* file = std::fopen(path, "r");
    if (!file) {
        OBX_LOG_ERR("[source] Failed to open fabprobe file: %s", path);
        return false;
    }
    const bool ok = for_each_line(file, path, [&](char* line) {
        char* open = std::strchr(line, '(');
        char* close = open ? std::strchr(open + 1, ')') : nullptr;
        if (!close) return true;
        *close = '\0';
        return add_new(array, open + 1, path);
    }, [](const char*, size_t) {});
    std::fclose(file);
    return ok;
}

bool read_text_file(obx_source_array_t* array, const char* path) {
    FILE* file = std::fopen(path, "r");
    if (!file) {
        OBX_LOG_ERR("[source] Failed to open text file: %s", path);
        return false;
    }
    const bool ok = for_each_line(
        file, path, [&](char* line) { return line[0] == '\0' || add_new(array, line, path); },
        [](const char*, size_t) {});
    std::fclose(file);
    return ok;
}

// A number of the range forms: the whole text, and within 32 signed bits.
bool read_bound(const char* text, size_t length, int32_t* out) {
    char digits[32];
    if (length == 0 || length >= sizeof(digits)) return false;
    std::memcpy(digits, text, length);
    digits[length] = '\0';
    long value = 0;
    if (!obx_str_to_long(digits, &value) || value < INT32_MIN || value > INT32_MAX) return false;
    *out = static_cast<int32_t>(value);
    return true;
}

bool invalid(const char* text) {
    OBX_LOG_ERR("[source] Invalid source format: %s", text);
    return false;
}

bool read_range(obx_source_array_t* array, const char* text) {
    const char* dash = std::strchr(text, '-');
    const char* open = std::strchr(text, '[');
    const char* close = std::strchr(text, ']');
    char name[OBX_SOURCE_ID_SIZE];
    int32_t first = 1, last = 0;
    bool named = false;
    if (dash && open && close) {
        // name[a-b]: the dash counts inside the brackets, and nothing may follow them.
        dash = std::strchr(open + 1, '-');
        if (!dash || dash > close || close[1] != '\0' || !read_bound(open + 1, dash - open - 1, &first) ||
            !read_bound(dash + 1, close - dash - 1, &last))
            return invalid(text);
        char given[OBX_SOURCE_ID_SIZE];
        std::snprintf(given, sizeof(given), "%.*s", static_cast<int>(open - text), text);
        if (!obx_source_default_id(name, given)) return false;
        named = true;
    } else if (open || close) {
        return invalid(text);
    } else if (dash) {
        if (dash == text || dash[1] == '\0' || !read_bound(text, dash - text, &first) ||
            !read_bound(dash + 1, std::strlen(dash + 1), &last))
            return invalid(text);
    } else if (!read_bound(text, std::strlen(text), &last)) {
        invalid(text);
        OBX_LOG_ERR("[source] '%s' is no file, and no count, range a-b or name[a-b] either", text);
        return false;
    }
    if (first > last) return invalid(text);
    if (static_cast<int64_t>(last) - first + 1 > OBX_SOURCE_ARRAY_MAX) {
        OBX_LOG_ERR("[source] Too many sources in %s: at most %d", text, OBX_SOURCE_ARRAY_MAX);
        return false;
    }
    if (!named && !obx_source_default_id(name, nullptr)) return false;
    char id[OBX_SOURCE_ID_SIZE + 16];
    for (int64_t number = first; number <= last; ++number) {
        std::snprintf(id, sizeof(id), "%s_%d", name, static_cast<int>(number));
        if (!add_new(array, id, text)) return false;
    }
    return true;
}

}  // namespace

bool obx_source_default_id(char buffer[OBX_SOURCE_ID_SIZE], const char* id) {
    std::memset(buffer, 0, OBX_SOURCE_ID_SIZE);
    if (!id || !*id) id = std::getenv("OBX_SOURCE_ID");
    if (id) {
        copy_cut(buffer, OBX_SOURCE_ID_SIZE, id);
        return true;
    }
    if (!obx_get_host_name(buffer, OBX_SOURCE_ID_SIZE)) {
        OBX_LOG_ERR("[source] Failed to get host name: %s", std::strerror(errno));
        std::memset(buffer, 0, OBX_SOURCE_ID_SIZE);
        return false;
    }
    return true;
}

obx_source_t* obx_source_create(const char* id, const char* tag) {
    auto* source = static_cast<obx_source_t*>(std::malloc(sizeof(obx_source_t)));
    if (!source) return nullptr;
    copy_cut(source->source_id, sizeof(source->source_id), id);
    copy_cut(source->source_tag, sizeof(source->source_tag), tag);
    return source;
}

obx_source_t* obx_source_create_local(const char* tag) {
    char id[OBX_SOURCE_ID_SIZE];
    if (!obx_source_default_id(id, nullptr)) return nullptr;
    return obx_source_create(id, tag);
}

void obx_source_destroy(obx_source_t* source) { std::free(source); }

void obx_source_copy(obx_source_t* target, const obx_source_t* source) {
    if (target && source && target != source) std::memcpy(target, source, sizeof(*target));
}

int obx_source_compare(const obx_source_t* a, const obx_source_t* b) {
    const int by_id = std::strcmp(a->source_id, b->source_id);
    return by_id != 0 ? by_id : std::strcmp(a->source_tag, b->source_tag);
}

bool obx_source_to_text(const obx_source_t* source, char* buffer, size_t size) {
    const size_t id_length = strnlen(source->source_id, sizeof(source->source_id));
    const size_t tag_length = strnlen(source->source_tag, sizeof(source->source_tag));
    if (!buffer || id_length + tag_length + 2 > size) {
        OBX_LOG_DBG("[source] buffer too small for source %.*s:%.*s (got %zu)", static_cast<int>(id_length),
                    source->source_id, static_cast<int>(tag_length), source->source_tag, size);
        return false;
    }
    std::snprintf(buffer, size, "%.*s:%.*s", static_cast<int>(id_length), source->source_id,
                  static_cast<int>(tag_length), source->source_tag);
    return true;
}

obx_source_array_t* obx_source_array_create(void) {
    return static_cast<obx_source_array_t*>(std::calloc(1, sizeof(obx_source_array_t)));
}

void obx_source_array_destroy(obx_source_array_t* array) {
    if (!array) return;
    for (uint16_t i = 0; i < array->count; ++i) obx_source_destroy(array->sources[i]);
    std::free(array->sources);
    std::free(array);
}

bool obx_source_array_add(obx_source_array_t* array, obx_source_t* source) {
    if (!array || !source || array->count >= OBX_SOURCE_ARRAY_MAX) return false;
    if (array->count == array->capacity) {
        const size_t grown = array->capacity ? 2u * array->capacity : 8u;
        const uint16_t capacity = static_cast<uint16_t>(grown > OBX_SOURCE_ARRAY_MAX ? OBX_SOURCE_ARRAY_MAX : grown);
        auto* sources = static_cast<obx_source_t**>(std::realloc(array->sources, capacity * sizeof(obx_source_t*)));
        if (!sources) return false;
        array->sources = sources;
        array->capacity = capacity;
    }
    array->sources[array->count++] = source;
    return true;
}

int obx_source_array_find(const obx_source_array_t* array, const obx_source_t* source) {
    if (!array || !source) return -1;
    for (uint16_t i = 0; i < array->count; ++i)
        if (array->sources[i] == source) return i;
    return -1;
}

obx_source_array_t* obx_source_array_local(const char* tag) {
    obx_source_array_t* array = obx_source_array_create();
    obx_source_t* source = array ? obx_source_create_local(tag) : nullptr;
    if (!source || !obx_source_array_add(array, source)) {
        obx_source_destroy(source);
        obx_source_array_destroy(array);
        return nullptr;
    }
    return array;
}

void obx_source_array_log(const obx_source_array_t* array, const char* label) {
    if (!array) return;
    for (uint16_t i = 0; i < array->count; ++i)
        OBX_LOG_DBG("%s[%zu] = %s", label ? label : "", static_cast<size_t>(i), array->sources[i]->source_id);
}

obx_source_array_t* obx_source_array_from_spec(const char* text) {
    if (!text) {
        OBX_LOG_ERR("[source] Invalid source format: %s", "(none)");
        return nullptr;
    }
    obx_source_array_t* array = obx_source_array_create();
    if (!array) {
        OBX_LOG_ERR("[source] Failed to allocate memory");
        return nullptr;
    }
    bool ok = false;
    struct stat status;
    if (stat(text, &status) != 0) {
        ok = read_range(array, text);
    } else if (!S_ISREG(status.st_mode)) {
        // A device or pipe may never end.
        OBX_LOG_ERR("[source] Failed to open file: %s (not a regular file)", text);
    } else {
        const int fabprobe = file_is_fabprobe(text);
        if (fabprobe >= 0) ok = fabprobe ? read_fabprobe(array, text) : read_text_file(array, text);
    }
    if (!ok) {
        obx_source_array_destroy(array);
        return nullptr;
    }
    return array;
}
