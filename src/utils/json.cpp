// JSON layer over Jansson. Jansson holds the values and parses; the printing, the
// template check and the dotted set are ours, so that the text (and the schema ids
// hashed over it) stays byte for byte the one the schema files were written with.
#include "utils/json.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <openssl/evp.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/number_format.h"

namespace {

// Parsing stops at 2048 levels; a value built in code that goes deeper (or loops back
// on itself) is refused rather than recursed into without end.
constexpr int kMaxNesting = 4096;

// Parson's escaping of '/', on until the program turns it off.
bool g_escape_slashes = true;

// Escape letter of each byte: 0 copies the byte, 'u' writes \u00xx, '/' depends on
// the slash switch, anything else is written after a backslash.
struct EscapeTable {
    char letter[256];
    constexpr EscapeTable() : letter() {
        for (int c = 0; c < 0x20; ++c) letter[c] = 'u';
        letter[static_cast<unsigned char>('\b')] = 'b';
        letter[static_cast<unsigned char>('\f')] = 'f';
        letter[static_cast<unsigned char>('\n')] = 'n';
        letter[static_cast<unsigned char>('\r')] = 'r';
        letter[static_cast<unsigned char>('\t')] = 't';
        letter[static_cast<unsigned char>('"')] = '"';
        letter[static_cast<unsigned char>('\\')] = '\\';
        letter[static_cast<unsigned char>('/')] = '/';
    }
};
constexpr EscapeTable kEscape;

constexpr char kHexLower[] = "0123456789abcdef";

// The six JSON kinds; Jansson splits number and boolean in two each.
enum class Kind { Null, String, Number, Object, Array, Boolean, None };

Kind kind_of(const json_t* value)
{
    switch (json_typeof(value)) {
    case JSON_NULL: return Kind::Null;
    case JSON_STRING: return Kind::String;
    case JSON_INTEGER:
    case JSON_REAL: return Kind::Number;
    case JSON_OBJECT: return Kind::Object;
    case JSON_ARRAY: return Kind::Array;
    case JSON_TRUE:
    case JSON_FALSE: return Kind::Boolean;
    }
    return Kind::None;
}

void append_indent(std::string& out, int depth)
{
    if (depth > 0) out.append(static_cast<size_t>(depth) * 4, ' ');
}

bool append_value(std::string& out, const json_t* value, bool pretty, int depth, int nesting)
{
    if (!value || nesting > kMaxNesting) return false;
    json_t* mutable_value = const_cast<json_t*>(value);  // Jansson's readers are not const
    switch (json_typeof(value)) {
    case JSON_NULL:
        out.append("null", 4);
        return true;
    case JSON_TRUE:
        out.append("true", 4);
        return true;
    case JSON_FALSE:
        out.append("false", 5);
        return true;
    case JSON_STRING:
        obx_json_append_string(out, json_string_value(value), json_string_length(value));
        return true;
    case JSON_INTEGER:
        // Every number is a double in the text, also one that was made as an integer.
        obx_json_append_number(out, static_cast<double>(json_integer_value(value)));
        return true;
    case JSON_REAL:
        obx_json_append_number(out, json_real_value(value));
        return true;
    case JSON_ARRAY: {
        size_t count = json_array_size(value);
        if (count == 0) {
            out.append("[]", 2);
            return true;
        }
        out.push_back('[');
        if (pretty) out.push_back('\n');
        for (size_t i = 0; i < count; ++i) {
            if (pretty) append_indent(out, depth + 1);
            if (!append_value(out, json_array_get(value, i), pretty, depth + 1, nesting + 1)) return false;
            if (i + 1 < count) out.push_back(',');
            if (pretty) out.push_back('\n');
        }
        if (pretty) append_indent(out, depth);
        out.push_back(']');
        return true;
    }
    case JSON_OBJECT: {
        void* iter = json_object_iter(mutable_value);
        if (!iter) {
            out.append("{}", 2);
            return true;
        }
        out.push_back('{');
        if (pretty) out.push_back('\n');
        while (iter) {
            if (pretty) append_indent(out, depth + 1);
            obx_json_append_string(out, json_object_iter_key(iter), json_object_iter_key_len(iter));
            out.push_back(':');
            if (pretty) out.push_back(' ');
            if (!append_value(out, json_object_iter_value(iter), pretty, depth + 1, nesting + 1)) return false;
            iter = json_object_iter_next(mutable_value, iter);
            if (iter) out.push_back(',');
            if (pretty) out.push_back('\n');
        }
        if (pretty) append_indent(out, depth);
        out.push_back('}');
        return true;
    }
    }
    return false;
}

char* serialize(const json_t* value, bool pretty)
{
    std::string text;
    if (!obx_json_append_value(text, value, pretty, 0)) return nullptr;
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) return nullptr;
    std::memcpy(copy, text.data(), text.size() + 1);
    return copy;
}

bool validate(const json_t* json_template, const json_t* value, int nesting)
{
    if (!json_template || !value || nesting > kMaxNesting) return false;
    Kind template_kind = kind_of(json_template);
    if (template_kind == Kind::Null) return true;
    if (template_kind != kind_of(value)) return false;
    switch (template_kind) {
    case Kind::Array: {
        // Only the first template element counts; it is the pattern of every element.
        if (json_array_size(json_template) == 0) return true;
        const json_t* pattern = json_array_get(json_template, 0);
        for (size_t i = 0; i < json_array_size(value); ++i) {
            if (!validate(pattern, json_array_get(value, i), nesting + 1)) return false;
        }
        return true;
    }
    case Kind::Object: {
        size_t count = json_object_size(json_template);
        if (count == 0) return true;
        if (json_object_size(value) < count) return false;
        json_t* mutable_template = const_cast<json_t*>(json_template);
        for (void* iter = json_object_iter(mutable_template); iter;
             iter = json_object_iter_next(mutable_template, iter)) {
            const json_t* member = json_object_getn(value, json_object_iter_key(iter), json_object_iter_key_len(iter));
            if (!member || !validate(json_object_iter_value(iter), member, nesting + 1)) return false;
        }
        return true;
    }
    default:
        return true;
    }
}

// Where the string escaper writes: a growing std::string, or a buffer known to be
// large enough.
struct StringSink {
    std::string& out;
    void put(char c) { out.push_back(c); }
    void write(const char* text, size_t length) { out.append(text, length); }
};
struct RawSink {
    char* end;
    void put(char c) { *end++ = c; }
    void write(const char* text, size_t length)
    {
        std::memcpy(end, text, length);
        end += length;
    }
};

// The one string escaper: runs of plain bytes are copied whole.
template <class Sink>
void escape_string(Sink& sink, const char* text, size_t length)
{
    if (!text) length = 0;
    const bool escape_slashes = g_escape_slashes;
    sink.put('"');
    size_t run_start = 0;
    for (size_t i = 0; i < length; ++i) {
        unsigned char byte = static_cast<unsigned char>(text[i]);
        char letter = kEscape.letter[byte];
        if (letter == 0 || (letter == '/' && !escape_slashes)) continue;
        sink.write(text + run_start, i - run_start);
        run_start = i + 1;
        if (letter == 'u') {
            const char escaped[6] = {'\\', 'u', '0', '0', kHexLower[byte >> 4], kHexLower[byte & 0x0f]};
            sink.write(escaped, 6);
        } else {
            const char escaped[2] = {'\\', letter};
            sink.write(escaped, 2);
        }
    }
    if (length > run_start) sink.write(text + run_start, length - run_start);
    sink.put('"');
}

}  // namespace

json_t* obx_json_parse_buffer(const char* text, size_t length)
{
    if (!text) return nullptr;
    // Editors on some systems put a byte order mark in front of a schema file.
    if (length >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0) {
        text += 3;
        length -= 3;
    }
    // Jansson takes a NUL byte at the very end for the end of the text; a raw NUL is
    // never JSON, wherever it stands.
    if (std::memchr(text, '\0', length)) return nullptr;
    json_error_t error;
    return json_loadb(text, length,
                      JSON_DECODE_INT_AS_REAL | JSON_REJECT_DUPLICATES | JSON_DECODE_ANY | JSON_ALLOW_NUL, &error);
}

json_t* obx_json_parse_string(const char* text)
{
    if (!text) return nullptr;
    return obx_json_parse_buffer(text, std::strlen(text));
}

json_t* obx_json_parse_file(const char* path)
{
    if (!path) return nullptr;
    // Not blocking on a FIFO, and never reading a device or an endless file into memory.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info = {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > OBX_JSON_MAX_FILE_SIZE) {
        const int reason = S_ISDIR(info.st_mode) ? EISDIR : S_ISREG(info.st_mode) ? EFBIG : EINVAL;
        close(fd);
        errno = reason;
        return nullptr;
    }
    FILE* file = fdopen(fd, "rb");
    if (!file) {
        close(fd);
        return nullptr;
    }
    std::string text;
    char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) {
        text.append(chunk, got);
        if (text.size() > OBX_JSON_MAX_FILE_SIZE) break;  // grew while being read
    }
    bool failed = std::ferror(file) != 0;  // a directory opens but does not read
    std::fclose(file);
    if (failed) return nullptr;
    if (text.size() > OBX_JSON_MAX_FILE_SIZE) {
        errno = EFBIG;
        return nullptr;
    }
    return obx_json_parse_buffer(text.data(), text.size());
}

char* obx_json_serialize_to_string(const json_t* value) { return serialize(value, false); }

char* obx_json_serialize_to_string_pretty(const json_t* value) { return serialize(value, true); }

void obx_json_free_serialized_string(char* text) { std::free(text); }

void obx_json_set_escape_slashes(int escape) { g_escape_slashes = escape != 0; }

bool obx_json_escape_slashes(void) { return g_escape_slashes; }

// Rules, in order: a null template takes anything; otherwise the JSON kinds must be
// equal; a template string, number or boolean takes any value of its kind; an empty
// template object or array takes any object or array; a template array checks every
// element of the value against its own first element; a template object wants at
// least as many members in the value, and each of its keys present there and passing
// that key's template. Extra keys and key order do not matter.
bool obx_json_validate(const json_t* json_template, const json_t* value)
{
    return validate(json_template, value, 0);
}

json_t* obx_json_number(double number)
{
    if (!std::isfinite(number)) return nullptr;
    return json_real(number);
}

json_t* obx_json_string(const char* text)
{
    if (!text) return nullptr;
    return json_stringn(text, std::strlen(text));
}

json_t* obx_json_stringn(const char* text, size_t length)
{
    if (!text) return nullptr;
    return json_stringn(text, length);  // checks UTF-8; NUL bytes are kept by length
}

bool obx_json_object_set(json_t* object, const char* key, json_t* value)
{
    if (!json_is_object(object) || !key || !value || object == value) {
        json_decref(value);
        return false;
    }
    // Jansson replaces an existing member where it stands, and frees `value` on failure.
    return json_object_set_new(object, key, value) == 0;
}

bool obx_json_object_set_string(json_t* object, const char* key, const char* text)
{
    return obx_json_object_set(object, key, obx_json_string(text));
}

bool obx_json_object_set_number(json_t* object, const char* key, double number)
{
    return obx_json_object_set(object, key, obx_json_number(number));
}

bool obx_json_array_append(json_t* array, json_t* value)
{
    if (!json_is_array(array) || !value || array == value) {
        json_decref(value);
        return false;
    }
    return json_array_append_new(array, value) == 0;
}

bool obx_json_object_dotset_value(json_t* object, const char* dotted_name, json_t* value)
{
    if (!json_is_object(object) || !dotted_name || !value) {
        json_decref(value);
        return false;
    }
    // Follow the inner objects that are already there.
    json_t* parent = object;
    const char* name = dotted_name;
    const char* dot;
    while ((dot = std::strchr(name, '.')) != nullptr) {
        json_t* inner = json_object_getn(parent, name, static_cast<size_t>(dot - name));
        if (!inner) break;
        if (!json_is_object(inner)) {
            json_decref(value);
            return false;
        }
        parent = inner;
        name = dot + 1;
    }
    if (!dot) return obx_json_object_set(parent, name, value);

    // Build the missing part apart and hang it in at the end, so that a failure on
    // the way leaves the original untouched.
    json_t* branch = json_object();
    if (!branch) {
        json_decref(value);
        return false;
    }
    json_t* tip = branch;
    const char* rest = dot + 1;
    const char* next;
    while ((next = std::strchr(rest, '.')) != nullptr) {
        json_t* inner = json_object();
        if (!inner || json_object_setn_new(tip, rest, static_cast<size_t>(next - rest), inner) != 0) {
            json_decref(branch);
            json_decref(value);
            return false;
        }
        tip = inner;
        rest = next + 1;
    }
    if (!obx_json_object_set(tip, rest, value)) {
        json_decref(branch);
        return false;
    }
    return json_object_setn_new(parent, name, static_cast<size_t>(dot - name), branch) == 0;  // frees on failure
}

bool obx_json_object_dotset_string(json_t* object, const char* dotted_name, const char* text)
{
    return obx_json_object_dotset_value(object, dotted_name, obx_json_string(text));
}

const char* obx_json_object_get_string(const json_t* object, const char* key)
{
    if (!json_is_object(object) || !key) return nullptr;
    const json_t* member = json_object_get(object, key);
    return json_is_string(member) ? json_string_value(member) : nullptr;
}

double obx_json_object_get_number(const json_t* object, const char* key)
{
    if (!json_is_object(object) || !key) return 0;
    return json_number_value(json_object_get(object, key));
}

json_t* obx_json_object_get_array(const json_t* object, const char* key)
{
    if (!json_is_object(object) || !key) return nullptr;
    json_t* member = json_object_get(object, key);
    return json_is_array(member) ? member : nullptr;
}

bool obx_json_md5(unsigned char digest[16], const json_t* value)
{
    if (!digest) return false;
    std::string text;
    if (!obx_json_append_value(text, value, true, 0)) return false;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (!context) return false;
    unsigned char result[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    bool ok = EVP_DigestInit_ex(context, EVP_md5(), nullptr) == 1 &&
              EVP_DigestUpdate(context, text.data(), text.size()) == 1 &&
              EVP_DigestFinal_ex(context, result, &length) == 1 && length == 16;
    EVP_MD_CTX_free(context);
    if (ok) std::memcpy(digest, result, 16);
    return ok;
}

bool obx_json_md5_hex(char text[33], const json_t* value)
{
    if (!text) return false;
    unsigned char digest[16];
    if (!obx_json_md5(digest, value)) return false;
    for (int i = 0; i < 16; ++i) {
        text[2 * i] = kHexLower[digest[i] >> 4];
        text[2 * i + 1] = kHexLower[digest[i] & 0x0f];
    }
    text[32] = '\0';
    return true;
}

size_t obx_json_format_number(char* out, double number) { return obx_format_g17(out, number); }

size_t obx_json_format_int64(char* out, int64_t number)
{
    constexpr int64_t kExact = int64_t{1} << 53;
    if (number > -kExact && number < kExact) return obx_format_i64(out, number);
    return obx_format_g17(out, static_cast<double>(number));
}

size_t obx_json_format_uint64(char* out, uint64_t number)
{
    if (number < (uint64_t{1} << 53)) return obx_format_u64(out, number);
    return obx_format_g17(out, static_cast<double>(number));
}

void obx_json_append_number(std::string& out, double number)
{
    char buffer[32];
    size_t length = obx_json_format_number(buffer, number);
    out.append(buffer, length);
}

void obx_json_append_string(std::string& out, const char* text, size_t length)
{
    StringSink sink{out};
    escape_string(sink, text, length);
}

char* obx_json_write_string(char* out, const char* text, size_t length)
{
    RawSink sink{out};
    escape_string(sink, text, length);
    return sink.end;
}

bool obx_json_append_value(std::string& out, const json_t* value, bool pretty, int depth)
{
    size_t original_size = out.size();
    if (!append_value(out, value, pretty, depth < 0 ? 0 : depth, 0)) {
        out.resize(original_size);
        return false;
    }
    return true;
}
