// Captures what is written to file descriptor 2 (and so to stderr) while the object
// lives, for tests of the logger's stderr and file sinks.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace obx_test {

class StderrCapture {
public:
    StderrCapture() : file_(std::tmpfile()), saved_(dup(2)) {
        std::fflush(stderr);
        if (file_) dup2(fileno(file_), 2);
    }
    ~StderrCapture() { finish(); }

    // Stops capturing and returns everything written since the start (once; later calls give "").
    std::string finish() {
        std::string text;
        if (!file_) return text;
        std::fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        std::rewind(file_);
        for (int c; (c = std::fgetc(file_)) != EOF;) text.push_back(static_cast<char>(c));
        std::fclose(file_);
        file_ = nullptr;
        return text;
    }

private:
    std::FILE* file_;
    int saved_;
};

// The lines of logged text, each without its "[YYYY-MM-DD HH:MM:SS.mmm] " time prefix;
// a line that lacks the prefix is kept whole behind "<bad prefix>".
inline std::vector<std::string> log_texts(const std::string& text) {
    static const std::regex prefix(R"(^\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\] )");
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        lines.push_back(std::regex_search(line, match, prefix) ? match.suffix().str() : "<bad prefix>" + line);
    }
    return lines;
}

}  // namespace obx_test
