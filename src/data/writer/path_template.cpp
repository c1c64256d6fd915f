#include "data/writer/path_template.h"

#include <boost/date_time/gregorian/gregorian.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <locale>
#include <sstream>

#include "utils/logger.h"

// 9999-12-31 23:59:59 UTC, the last second the date library can name.
static const uint64_t kLastCalendarSecond = 253402300799ull;

std::string obx_template_expand(const std::string& text, const obx_template_keys_t& keys)
{
    std::string result;
    result.reserve(text.size());
    size_t position = 0;
    for (;;) {
        const size_t open = text.find("{{", position);
        if (open == std::string::npos) break;
        const size_t close = text.find("}}", open);
        if (close == std::string::npos) break;
        result.append(text, position, open - position);
        const std::string key = text.substr(open + 2, close - open - 2);
        position = close + 2;
        const auto found = keys.find(key);
        if (found != keys.end())
            result += found->second;
        else
            result.append("{{").append(key).append("}}");
    }
    result.append(text, position, std::string::npos);
    return result;
}

void obx_template_apply_hash(const std::string& source_id, std::string& text)
{
    const size_t start = text.find("{{hash");
    if (start == std::string::npos) return;
    const size_t close = text.find("}}", start);
    const size_t length = close == std::string::npos ? text.size() - start : close + 2 - start;

    // "{{hash%d}}": blanks, a sign and digits, as the scanf conversion takes them.
    const char* digits = text.c_str() + start + 6;
    char* end = nullptr;
    const long long read = std::strtoll(digits, &end, 10);
    if (end == digits) {
        OBX_LOG_ERR("path_template expects {{hash[num]}}, '[num]' - a positive integer, actually received %.*s",
                    static_cast<int>(length), text.c_str() + start);
        return;
    }
    const int num = static_cast<int>(read);
    const uint64_t divisor = static_cast<uint64_t>(static_cast<int64_t>(num));
    if (divisor == 0) {
        // No folder can be computed, and the process ends here: said straight to stderr,
        // whatever the log level, where a division would have ended it without a word.
        std::fprintf(stderr, "path_template %.*s: the number of hash folders must not be 0, ending the process\n",
                     static_cast<int>(length), text.c_str() + start);
        std::fflush(stderr);
        std::abort();
    }
    uint64_t result = 0;
    bool have_number = false;
    if (source_id.compare(0, 2, "0x") == 0) {
        const char* hex = source_id.c_str() + 2;
        char* hex_end = nullptr;
        const unsigned long value = std::strtoul(hex, &hex_end, 16);
        if (hex_end != hex) {
            result = value % divisor;
            have_number = true;
        } else {
            OBX_LOG_ERR("Failed to read %s as guid number", source_id.c_str());
        }
    }
    if (!have_number) {
        int64_t sum = 0;
        for (char c : source_id) sum += static_cast<signed char>(c);
        result = static_cast<uint64_t>(sum) % divisor;
    }
    text.replace(start, length, std::to_string(static_cast<int>(result)));
}

std::string obx_template_apply_time(const std::string& text, const std::string& source_id, uint64_t first_timestamp)
{
    if (first_timestamp == 0) return text;
    // Past 9999-12-31 the calendar wraps around instead of failing: not a regular time.
    if (first_timestamp / 1000000u > kLastCalendarSecond) return text;
    namespace pt = boost::posix_time;
    pt::ptime time;
    try {
        time = pt::ptime(boost::gregorian::date(1970, 1, 1),
                         pt::seconds(static_cast<long>(first_timestamp / 1000000u)) +
                             pt::milliseconds(static_cast<long>(first_timestamp / 1000u % 1000u)));
    } catch (const std::exception&) {
        return text;  // past the calendar's range: not a regular time
    }
    if (time.is_special()) return text;

    static const obx_template_keys_t date_keys = {{"year", "%Y"}, {"month", "%m"},  {"day", "%d"},
                                                  {"hour", "%H"}, {"minute", "%M"}, {"second", "%S"}};
    std::string path = obx_template_expand(text, date_keys);
    obx_template_apply_hash(source_id, path);
    std::ostringstream formatted;
    formatted.imbue(std::locale(std::locale::classic(), new pt::time_facet(path.c_str())));
    formatted << time;
    return formatted.str();
}
