// Captures what is written to file descriptor 2 (and so to stderr) while the object
// lives, for tests of the logger's stderr and file sinks.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

namespace obx_test {

class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        file_ = std::tmpfile();
        saved_ = dup(2);
        if (file_ && saved_ >= 0) dup2(fileno(file_), 2);
    }
    ~StderrCapture() { finish(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Stops capturing (once) and returns everything written so far.
    std::string finish() {
        if (saved_ >= 0) {
            std::fflush(stderr);
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
            if (file_) {
                std::rewind(file_);
                char buffer[4096];
                size_t n;
                while ((n = std::fread(buffer, 1, sizeof(buffer), file_)) > 0) text_.append(buffer, n);
                std::fclose(file_);
                file_ = nullptr;
            }
        }
        return text_;
    }

private:
    std::FILE* file_ = nullptr;
    int saved_ = -1;
    std::string text_;
};

// Splits captured text into lines, dropping the newlines.
inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// The text of a logged line behind its time prefix, or "<bad prefix>" when the line
// does not start with "[YYYY-MM-DD HH:MM:SS.mmm] ".
inline std::string strip_log_prefix(const std::string& line) {
    static const std::regex prefix(R"(^\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\] )");
    std::smatch match;
    if (!std::regex_search(line, match, prefix)) return "<bad prefix>";
    return match.suffix();
}

}  // namespace obx_test
