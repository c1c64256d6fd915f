// Posting line protocol to InfluxDB's /write endpoint through libcurl, in batches, with a
// bounded retry on connection failures and server errors.
#pragma once

#include <cstdint>
#include <string>

struct InfluxTarget {
    std::string url;        // http://host:port, without a path
    std::string database;
    std::string user, password, retention_policy;  // empty: not sent
    std::string precision = "ns";
    unsigned retries = 4;   // after the first attempt; waits of 0.5, 1, 2, 4 ... seconds
};

class InfluxHttpWriter {
public:
    explicit InfluxHttpWriter(InfluxTarget target);
    ~InfluxHttpWriter();
    InfluxHttpWriter(const InfluxHttpWriter&) = delete;
    InfluxHttpWriter& operator=(const InfluxHttpWriter&) = delete;

    // Posts `points` lines (each ending in a newline). False once a batch failed for good;
    // error() then says why, in the server's words where it gave any.
    bool post(const std::string& lines, uint64_t points);
    uint64_t written() const { return written_; }
    const std::string& error() const { return error_; }

private:
    InfluxTarget target_;
    std::string endpoint_;
    void* curl_ = nullptr;
    uint64_t written_ = 0;
    std::string error_;
};
