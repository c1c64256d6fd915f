// obx influx: a point per record, written out by hand for a small file, and the whole of
// an obx gen folder taken in by a real InfluxDB on loopback and counted back.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "fixtures/cntx_builder.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using namespace obx_test;

namespace {

const ProcessOptions kHost{{"OBX_HOST_NAME=h"}, ""};

Bytes faithful_record() { return ByteWriter().f64(0.1).f64(NAN).u64(~0ull).u8(1).u8(2).fixed("a\"b\\c", 8).i32(-3).take(); }

// A file of three event types (one with a time of its own, one without, one with all
// that the specified rendering would lose), a counters block and a CNTX block.
void write_small_file(SchemaFolder& schemas, const std::string& path) {
    EventSchemaDoc events("influx");
    events.type("stamped", {{"time", "timestamp"}, {"v", "uint8_t"}}).type("plain", {{"v", "int16_t"}});
    // What the specified rendering would lose: full floats, a NaN (left out), an unsigned
    // value past the signed range, a numeric array, quotes and backslashes, a blank in a key.
    events.type("faithful", {{"d", "double"}, {"n", "double"}, {"u", "uint64_t"}, {"a", "uint8_t", 2}, {"s", "char", 8}, {"x y", "int"}});
    CountersSchemaDoc counters;
    counters.group("NODE", 1, std::string("node")).counter("load", "FP64").counter("up", "UINT64");
    FileHeaderFields head;
    head.block_size = 512;
    head.event_schema_ids = {SchemaFolder::hex(schemas.add(events))};
    head.counters_schema_id = SchemaFolder::hex(schemas.add(counters.json().get()));
    const uint64_t t = 1700000000000000ull;
    const Bytes stamped = event_block(0, 0, 2, ByteWriter().u64(t + 5).u8(1).u64(t + 9).u8(2).take(), t);
    const Bytes plain = concat({event_block(0, 1, 2, ByteWriter().i16(-1).i16(2).take(), t), event_block(0, 1, 1, ByteWriter().i16(3).take(), t),
                                event_block(0, 2, 1, faithful_record(), t)});
    write_file(path, data_file(head, {concat({stamped, plain}), counters_block(t + 1000000, ByteWriter().f64(0.5).u64(7).take()),
                                                 example_block()}));
}

}  // namespace

// Events with a time of their own and without (block time, then one nanosecond per event
// of the same type and time), counters measurements, CNTX samples with their labels, and
// the precision asked for.
TEST(ObxInflux, APointPerRecord) {
    SchemaFolder schemas;
    TempDir data;
    write_small_file(schemas, data.file("f.bin"));
    const std::string tags = ",source_id=node01,source_tag=tag ";
    const std::string expected =
        "stamped" + tags + "time_=1700000000000005i,v=1i 1700000000000005000\n"
        "stamped" + tags + "time_=1700000000000009i,v=2i 1700000000000009000\n"
        "plain" + tags + "v=-1i 1700000000000000000\n"
        "plain" + tags + "v=2i 1700000000000000001\n"
        "plain" + tags + "v=3i 1700000000000000002\n"
        "faithful" + tags + "d=0.10000000000000001,u=1.8446744073709552e+19,a.0=1i,a.1=2i,s=\"a\\\"b\\\\c\",x\\ y=-3i 1700000000000000000\n"
        "node_counters" + tags + "load=0.5,up=7i 1700000001000000000\n"
        "rx_bytes,device=hca0,port=1,site=lab,source_id=node01,source_tag=tag value=100i 1700000000000000000\n"
        "tx_bytes,device=hca0,port=1,site=lab,source_id=node01,source_tag=tag value=200i 1700000000000000000\n"
        "tx_bytes,device=hca0,port=p2,site=lab,source_id=node01,source_tag=tag value=250i 1700000001000000000\n";
    const ProcessResult ns = run_obx({"influx", "-s", schemas.path(), data.file("f.bin")});
    EXPECT_EQ(ns.exit_status, 0) << ns.err;
    EXPECT_EQ(ns.out, expected);
    // "-" reads standard input, plain or gzip-wrapped, through a pipe.
    const std::string bytes = read_file_bytes(data.file("f.bin"));
    for (const std::string& input : {bytes, [&] { const Bytes b(bytes.begin(), bytes.end()); const Bytes z = gzip_compress(b); return std::string(z.begin(), z.end()); }()}) {
        const ProcessResult piped = run_obx({"influx", "-s", schemas.path(), "-"}, ProcessOptions(), input);
        EXPECT_EQ(piped.exit_status, 0) << piped.err;
        EXPECT_EQ(piped.out, expected);
    }
    const ProcessResult ms = run_obx({"influx", "--precision", "ms", "-s", schemas.path(), data.file("f.bin")});
    EXPECT_EQ(ms.out.substr(0, ms.out.find('\n')), "stamped" + tags + "time_=1700000000000005i,v=1i 1700000000000");

    const ProcessResult unpaired = run_obx({"influx", "--url", "http://127.0.0.1:1", data.file("f.bin")});
    EXPECT_EQ(unpaired.exit_status, 2);
    EXPECT_EQ(unpaired.err, "obx influx: --url and --db go together\nTry 'obx influx --help'.\n");
    const ProcessResult bad = run_obx({"influx", "--precision", "h", data.file("f.bin")});
    EXPECT_EQ(bad.exit_status, 2);
    EXPECT_EQ(bad.err, "obx influx: --precision 'h' is not ns, us, ms or s\nTry 'obx influx --help'.\n");
    const ProcessResult missing = run_obx({"influx", "-s", schemas.path(), data.file("none.bin")});
    EXPECT_EQ(missing.exit_status, 1);
    EXPECT_EQ(missing.out, "");
    // Without its schemas a file is told about, not walked.
    TempDir empty;
    const ProcessResult no_schemas = run_obx({"influx", "-s", empty.path(), data.file("f.bin")});
    EXPECT_EQ(no_schemas.exit_status, 1);
    EXPECT_EQ(no_schemas.out, "");
    EXPECT_NE(no_schemas.err.find("Failed processing file " + data.file("f.bin") + ": Failed to load type system\n"), std::string::npos) << no_schemas.err;
}

namespace {

// A free loopback port, as the kernel gives one out.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    close(fd);
    return ntohs(address.sin_port);
}

// influxd on loopback with its own folder; stopped by its pid.
class InfluxServer {
public:
    explicit InfluxServer(const std::string& folder) {
        port_ = free_port();
        const int meta_port = free_port();
        const std::string config = folder + "/influxdb.conf";
        std::ofstream(config) << "reporting-disabled = true\nbind-address = \"127.0.0.1:" << meta_port << "\"\n"
                              << "[meta]\n  dir = \"" << folder << "/meta\"\n"
                              << "[data]\n  dir = \"" << folder << "/data\"\n  wal-dir = \"" << folder << "/wal\"\n"
                              << "[http]\n  bind-address = \"127.0.0.1:" << port_ << "\"\n  log-enabled = false\n";
        pid_ = fork();
        if (pid_ == 0) {
            std::freopen((folder + "/influxd.log").c_str(), "w", stderr);
            std::freopen("/dev/null", "w", stdout);
            execlp("influxd", "influxd", "-config", config.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // Up to 30 s for the first answer to /ping.
        for (int i = 0; i < 300 && !ready_; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            ready_ = curl({"-o", "/dev/null", "-w", "%{http_code}", url("/ping")}).out == "204";
        }
    }
    ~InfluxServer() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    bool ready() const { return ready_; }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    static ProcessResult curl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"-s", "-S", "--max-time", "60"});
        return run_program("/usr/bin/curl", arguments);
    }
    // The one number of a query that gives one value.
    std::string query(const std::string& q, const std::string& db = "obx") const {
        const ProcessResult r = curl({"-G", url("/query"), "--data-urlencode", "db=" + db, "--data-urlencode", "q=" + q});
        const JsonPtr answer = json_parse(r.out);
        const json_t* values = answer ? json_object_get(json_array_get(json_object_get(json_array_get(json_object_get(answer.get(), "results"), 0), "series"), 0), "values") : nullptr;
        return values ? json_text(json_array_get(json_array_get(values, 0), 1)) : "<" + r.out + r.err + ">";
    }

private:
    pid_t pid_ = -1;
    int port_ = 0;
    bool ready_ = false;
};

}  // namespace

// Every event, counters measurement and metric sample of an obx gen folder arrives as a
// point of its own: the counts InfluxDB gives back are the counts obx gen wrote.
TEST(ObxInflux, EveryRecordArrivesInARealInfluxDb) {
    if (access("/usr/bin/influxd", X_OK) != 0 || access("/usr/bin/curl", X_OK) != 0) {
        GTEST_SKIP() << "influxd or curl is not installed here (make deps installs them)";
    }
    TempDir dir;
    const ProcessResult gen = run_obx({"-v", "4", "gen", "-s", "node[1-2]", "-n", "20", "-r", "10", "-c", "gzip", "-j", "-o", dir.file("gen")}, kHost);
    ASSERT_EQ(gen.exit_status, 0) << gen.err;
    const ProcessResult lines = run_obx({"influx", "-s", dir.file("gen/schema"), "-d", dir.file("gen/data")});
    ASSERT_EQ(lines.exit_status, 0) << lines.err;
    std::ofstream(dir.file("points.lp")) << lines.out;

    std::filesystem::create_directories(dir.file("influx"));
    InfluxServer server(dir.file("influx"));
    ASSERT_TRUE(server.ready()) << "influxd did not answer; see " << dir.file("influx/influxd.log");
    ASSERT_EQ(InfluxServer::curl({"-X", "POST", server.url("/query"), "--data-urlencode", "q=CREATE DATABASE obx"}).exit_status, 0);
    const ProcessResult written = InfluxServer::curl({"-o", "/dev/null", "-w", "%{http_code}", "-X", "POST", server.url("/write?db=obx&precision=ns"),
                                                      "--data-binary", "@" + dir.file("points.lp")});
    ASSERT_EQ(written.out, "204") << written.err;

    // Per source and second: 6 cpu samples, 3 port samples, 1 job end, a counters block
    // (a node and a CPU measurement each); a CNTX block every ten seconds with 2 ports of
    // 4 metrics.
    const struct { const char* query; const char* count; } counts[] = {
        {"SELECT count(time_) FROM cpu_sample", "240"}, {"SELECT count(rx_bytes) FROM port_sample", "120"},
        {"SELECT count(\"user\") FROM job_end", "40"}, {"SELECT count(uptime) FROM node_counters", "40"},
        {"SELECT count(user_ticks) FROM cpu_counters", "40"}, {"SELECT count(value) FROM port_rcv_data", "8"},
        {"SELECT count(value) FROM link_downed WHERE port = '2'", "4"},
        {"SELECT first(uptime) FROM node_counters WHERE source_id = 'node_1'", "86401"},
    };
    for (const auto& c : counts) EXPECT_EQ(server.query(c.query), c.count) << c.query;

    // The bundled examples: every record a point of its own, by the direct route.
    ASSERT_EQ(InfluxServer::curl({"-X", "POST", server.url("/query"), "--data-urlencode", "q=CREATE DATABASE examples"}).exit_status, 0);
    const std::string examples = std::string(OBX_SOURCE_DIR) + "/examples";
    const ProcessResult example_lines = run_obx({"influx", "-s", examples + "/schema", "-d", examples + "/data"});
    const ProcessResult example_posted = run_obx({"influx", "-s", examples + "/schema", "-d", examples + "/data", "--url", server.url(""), "--db", "examples"});
    EXPECT_EQ(example_posted.exit_status, 0) << example_posted.err;
    EXPECT_EQ(server.query("SELECT count(rx_bytes) FROM port_sample", "examples"), "36");  // 4 sources x 3 s x 3
    EXPECT_EQ(server.query("SELECT count(value) FROM port_xmit_data", "examples"), "8");  // 4 sources x 2 ports
    EXPECT_EQ(example_posted.err, "obx influx: " + std::to_string(std::count(example_lines.out.begin(), example_lines.out.end(), '\n')) +
                                      " points written to " + server.url("") + ", database examples\n");

    // Texts, keys and full floats come back as they went in.
    SchemaFolder schemas;
    write_small_file(schemas, dir.file("small.bin"));
    const ProcessResult small = run_obx({"influx", "-s", schemas.path(), dir.file("small.bin")});
    ASSERT_EQ(small.exit_status, 0) << small.err;
    std::ofstream(dir.file("small.lp")) << small.out;
    ASSERT_EQ(InfluxServer::curl({"-o", "/dev/null", "-w", "%{http_code}", "-X", "POST", server.url("/write?db=obx"),
                                  "--data-binary", "@" + dir.file("small.lp")}).out, "204");
    EXPECT_EQ(server.query("SELECT s FROM faithful"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(server.query("SELECT \"x y\" FROM faithful"), "-3");
    EXPECT_EQ(server.query("SELECT d FROM faithful"), "0.10000000000000001");  // the double 0.1, as printed here
    EXPECT_EQ(server.query("SELECT count(v) FROM plain"), "3");

    // The same gen folder posted by obx influx itself, in batches of 100.
    ASSERT_EQ(InfluxServer::curl({"-X", "POST", server.url("/query"), "--data-urlencode", "q=CREATE DATABASE direct"}).exit_status, 0);
    const ProcessResult posted = run_obx({"influx", "-s", dir.file("gen/schema"), "-d", dir.file("gen/data"), "--url", server.url(""),
                                          "--db", "direct", "--batch", "100"});
    const size_t points = static_cast<size_t>(std::count(lines.out.begin(), lines.out.end(), '\n'));
    EXPECT_EQ(posted.exit_status, 0) << posted.err;
    EXPECT_EQ(posted.err, "obx influx: " + std::to_string(points) + " points written to " + server.url("") + ", database direct\n");
    EXPECT_EQ(posted.out, "");
    for (const auto& c : counts) EXPECT_EQ(server.query(std::string(c.query), "direct"), c.count) << c.query;

    // Refusals are not retried and say the server's words; a server that is not there is
    // tried a bounded number of times. Each tells how many points went in first.
    ASSERT_EQ(InfluxServer::curl({"-X", "POST", server.url("/query"), "--data-urlencode", "q=CREATE DATABASE conflict"}).exit_status, 0);
    ASSERT_EQ(InfluxServer::curl({"-o", "/dev/null", "-w", "%{http_code}", "-X", "POST", server.url("/write?db=conflict"),
                                  "--data-binary", "plain v=1.5 1700000000000000000"}).out, "204");  // v a float in that shard
    const struct { std::vector<std::string> args; std::string err_start; } failures[] = {
        {{"--url", server.url(""), "--db", "nosuch"}, "obx influx: InfluxDB refused the write (HTTP 404): database not found: \"nosuch\"; 0 points were written before\n"},
        {{"--url", server.url(""), "--db", "conflict", "--batch", "1"}, "obx influx: InfluxDB refused the write (HTTP 400): partial write: field type conflict"},
        {{"--url", "http://127.0.0.1:" + std::to_string(free_port()), "--db", "obx", "--retries", "1"},
         "obx influx: the write to http://127.0.0.1:"},
    };
    for (const auto& f : failures) {
        std::vector<std::string> args = {"influx", "-s", schemas.path(), dir.file("small.bin")};
        args.insert(args.end(), f.args.begin(), f.args.end());
        const ProcessResult r = run_obx(args);
        EXPECT_EQ(r.exit_status, 1);
        const std::string last = r.err.substr(r.err.rfind("obx influx: "));
        EXPECT_EQ(last.substr(0, f.err_start.size()), f.err_start) << r.err;
    }
}
