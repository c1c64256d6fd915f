#include "tools/influx_http.h"

#include <curl/curl.h>
#include <jansson.h>

#include <chrono>
#include <thread>
#include <utility>

#include "utils/json.h"

namespace {

size_t keep_body(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

// InfluxDB answers errors as {"error": "..."}; anything else is shown as it came.
std::string server_words(const std::string& body) {
    json_t* value = obx_json_parse_buffer(body.data(), body.size());
    const char* text = value ? obx_json_object_get_string(value, "error") : nullptr;
    std::string words = text ? text : body;
    json_decref(value);
    while (!words.empty() && (words.back() == '\n' || words.back() == '\r')) words.pop_back();
    return words;
}

}  // namespace

InfluxHttpWriter::InfluxHttpWriter(InfluxTarget target) : target_(std::move(target)) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    curl_ = curl_easy_init();
    CURL* curl = static_cast<CURL*>(curl_);
    if (!curl) return;
    const auto escaped = [curl](const std::string& text) {
        char* part = curl_easy_escape(curl, text.c_str(), static_cast<int>(text.size()));
        std::string result = part ? part : "";
        curl_free(part);
        return result;
    };
    endpoint_ = target_.url;
    while (!endpoint_.empty() && endpoint_.back() == '/') endpoint_.pop_back();
    endpoint_ += "/write?db=" + escaped(target_.database) + "&precision=" + escaped(target_.precision);
    if (!target_.retention_policy.empty()) endpoint_ += "&rp=" + escaped(target_.retention_policy);
}

InfluxHttpWriter::~InfluxHttpWriter() {
    curl_easy_cleanup(static_cast<CURL*>(curl_));
    curl_global_cleanup();
}

bool InfluxHttpWriter::post(const std::string& lines, uint64_t points) {
    CURL* curl = static_cast<CURL*>(curl_);
    if (!curl) {
        error_ = "libcurl could not be set up";
        return false;
    }
    if (!error_.empty()) return false;
    if (points == 0) return true;
    std::chrono::milliseconds wait(500);
    for (unsigned attempt = 0;; ++attempt) {
        std::string body;
        curl_easy_reset(curl);
        curl_easy_setopt(curl, CURLOPT_URL, endpoint_.c_str());
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, lines.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(lines.size()));
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, keep_body);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        if (!target_.user.empty()) {
            curl_easy_setopt(curl, CURLOPT_USERNAME, target_.user.c_str());
            curl_easy_setopt(curl, CURLOPT_PASSWORD, target_.password.c_str());
        }
        const CURLcode result = curl_easy_perform(curl);
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        if (result == CURLE_OK && status / 100 == 2) {
            written_ += points;
            return true;
        }
        if (result == CURLE_OK && status / 100 == 4) {  // the server will not take these: no retry
            error_ = "InfluxDB refused the write (HTTP " + std::to_string(status) + "): " + server_words(body);
            return false;
        }
        const std::string why = result != CURLE_OK ? curl_easy_strerror(result)
                                                   : "HTTP " + std::to_string(status) + ": " + server_words(body);
        if (attempt >= target_.retries) {
            error_ = "the write to " + target_.url + " failed after " + std::to_string(attempt + 1) +
                     (attempt ? " attempts: " : " attempt: ") + why;
            return false;
        }
        std::this_thread::sleep_for(wait);
        wait *= 2;
    }
}
