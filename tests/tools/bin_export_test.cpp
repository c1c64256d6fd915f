// obx_read -f bin as a separate process: pages of several sources, stored gzip and snappy,
// come out as plain data files below the output folder, one stream per source and tag,
// and read back to the same records.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "fixtures/cntx_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"
#include "fixtures/written_files.h"

using namespace obx_test;

namespace {

constexpr uint64_t T0 = 1700000000000000ull, S = 1000000ull;

FrameFields frame(Codec codec, const std::string& source, const std::string& tag, uint64_t first) {
    FrameFields f;
    f.codec = codec, f.source_id = source, f.source_tag = tag, f.first_timestamp = first, f.last_timestamp = first + S / 2;
    return f;
}

TEST(BinExport, PagesBecomeFilesPerSourceAndReadBack) {
    SchemaFolder schemas;
    const SchemaId raw_id = schemas.add(EventSchemaDoc("bx").type("x", {{"x", "uint32_t"}}));
    const std::string id = SchemaFolder::hex(raw_id);
    SchemasBlockFields ids;
    ids.ids = {id};
    // Each page starts with its schemas block, so the files it goes to name the schema.
    auto page = [&](uint32_t a, uint32_t b) {
        return concat({schemas_block(ids), event_block(0, 0, 2, ByteWriter().u32(a).u32(b).take(), T0)});
    };
    const Bytes unknown = blob_block(T0, Bytes{'h', 'i'});
    FileHeaderFields head;
    head.block_size = 4096;
    head.event_schema_ids = {id};
    TempDir data, out;
    const std::string input = data.file("in.bin");
    write_file(input, data_file(head, {concat({page_frame(page(1, 2), frame(Codec::gzip, "A", "ta", T0)),
                                               page_frame(page(3, 4), frame(Codec::snappy, "B", "tb", T0 + S)),
                                               page_frame(unknown, frame(Codec::gzip, "C", "", T0))}),
                                       concat({page_frame(page(5, 6), frame(Codec::snappy, "A", "ta", T0 + 2 * S))})}));

    const ProcessResult r = run_obx_read({"-s", schemas.path(), "-f", "bin", "--output-dir", out.path(), input},
                                         ProcessOptions{{"TZ=UTC"}, ""});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    // The unknown page is shown and skipped: its header's first line (version, page size 742).
    EXPECT_EQ(r.out.substr(0, 71), "01 16 01 00 00 00 00 00  E6 02 00 00 00 00 00 00  |  ................ \n");
    EXPECT_NE(r.err.find("[data_writer] Unrecognized type of data page. Cannot save to file."), std::string::npos);

    const auto files = read_written_files(out.path());
    std::vector<std::string> names;
    for (const auto& f : files) names.push_back(f.first);
    ASSERT_EQ(names, (std::vector<std::string>{"2023/1114/A/ta_1700000000000000.bin", "2023/1114/B/tb_1700000001000000.bin"}));
    const WrittenFile& a = files.at(names[0]);
    EXPECT_EQ(a.source_id, "A");
    EXPECT_EQ(a.source_tag, "ta");
    EXPECT_EQ(a.first_timestamp, T0);
    EXPECT_EQ(a.last_timestamp, T0 + 2 * S + S / 2);
    EXPECT_EQ(a.block_size, 280u);  // a whole decompressed page is one block
    EXPECT_EQ(a.file_size, 256u + 2 * 280u);
    EXPECT_EQ(a.size_on_disk, a.file_size);
    EXPECT_EQ(a.body, concat({page(1, 2), page(5, 6)}));
    EXPECT_EQ(a.event_schema_ids, concat({Bytes(raw_id.begin(), raw_id.end()), Bytes(6 * 16, 0)}));
    EXPECT_EQ(files.at(names[1]).body, page(3, 4));

    // Read back, the files give the records the pages held.
    const ProcessResult back = run_obx_read({"-s", schemas.path(), "-f", "ndjson", out.file(names[0]), out.file(names[1])});
    EXPECT_EQ(back.exit_status, 0) << back.err;
    EXPECT_EQ(back.out, "{\"x\":1}\n{\"x\":2}\n{\"x\":5}\n{\"x\":6}\n{\"x\":3}\n{\"x\":4}\n");
}

TEST(BinExport, CntxFirstAndChangingPageSizes) {
    TempDir data, out, schemas;
    FileHeaderFields head;
    head.block_size = 8192;
    const Bytes metrics = example_block();
    const Bytes small = event_block(0, 0, 1, Bytes(4, 1), T0), large = event_block(0, 0, 2, Bytes(8, 2), T0);
    const std::string input = data.file("in.bin");
    write_file(input, data_file(head, {concat({page_frame(metrics, frame(Codec::snappy, "M", "", T0)),
                                               page_frame(small, frame(Codec::gzip, "D", "", T0)),
                                               page_frame(large, frame(Codec::gzip, "D", "", T0 + S))})}));
    const ProcessResult r = run_obx_read({"-s", schemas.path(), "-f", "bin", "--output-dir", out.path(), input});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const auto files = read_written_files(out.path());
    std::vector<std::string> names;
    for (const auto& f : files) names.push_back(f.first);
    // A page of another size leaves the file; its own first time names the next one.
    ASSERT_EQ(names, (std::vector<std::string>{"2023/1114/D/1700000000000000.bin", "2023/1114/D/1700000001000000.bin",
                                               "2023/1114/M/1700000000000000.bin"}));
    EXPECT_EQ(files.at(names[0]).body, small);
    EXPECT_EQ(files.at(names[0]).block_size, small.size());
    EXPECT_EQ(files.at(names[1]).body, large);
    EXPECT_EQ(files.at(names[2]).body, metrics);
    // The metrics come back as they went in (labels in the order of a map, not checked here).
    const ProcessResult back = run_obx_read({"-s", schemas.path(), "-f", "ndjson", out.file(names[2])},
                                            ProcessOptions{{"TZ=UTC"}, ""});
    EXPECT_EQ(back.exit_status, 0) << back.err;
    const std::string head_text = R"({"timestamp":1700000001000000,"@timestamp":"2023-11-14 22:13:21.000","labels":)";
    const std::string tail_text = R"(,"metrics":[{"tx_bytes":250}]})" "\n";
    ASSERT_GT(back.out.size(), head_text.size() + tail_text.size());
    EXPECT_EQ(back.out.substr(0, head_text.size()), head_text);
    EXPECT_EQ(back.out.substr(back.out.size() - tail_text.size()), tail_text);
}

TEST(BinExport, GeneratedFilesOfManyPagesReadBackTheSame) {
    TempDir gen, out;
    const ProcessResult made = run_obx({"gen", "--out", gen.path(), "--sources", "node[1-2]", "--seconds", "30",
                                        "--compress", "gzip"});
    ASSERT_EQ(made.exit_status, 0) << made.err;
    const ProcessResult r = run_obx_read({"-s", gen.file("schema"), "-d", gen.file("data"), "-f", "bin", "--output-dir", out.path()});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    size_t lines = 0;
    for (const char* kind : {"events", "metrics"}) {
        for (const char* node : {"node_1", "node_2"}) {
            const std::string name = std::string("/2023/1114/") + node + "/" + kind + "_1700000000000000.bin";
            const ProcessOptions utc{{"TZ=UTC"}, ""};
            const ProcessResult before = run_obx_read({"-s", gen.file("schema"), "-f", "ndjson", gen.file("data") + name}, utc);
            const ProcessResult after = run_obx_read({"-s", gen.file("schema"), "-f", "ndjson", out.path() + name}, utc);
            EXPECT_EQ(after.exit_status, 0) << name << after.err;
            EXPECT_EQ(after.out, before.out) << name;
            lines += static_cast<size_t>(std::count(after.out.begin(), after.out.end(), '\n'));
        }
    }
    EXPECT_GT(lines, 1000u);
}

TEST(BinExport, BlockedFolderLosesOnlyItsStreamAndSaysSoOnce) {
    TempDir data, out, schemas;
    FileHeaderFields head;
    head.block_size = 4096;
    const Bytes a1 = event_block(0, 0, 1, Bytes(4, 1), T0), a2 = event_block(0, 0, 1, Bytes(4, 2), T0 + S);
    const Bytes b1 = event_block(0, 0, 1, Bytes(4, 3), T0), b2 = event_block(0, 0, 1, Bytes(4, 4), T0 + S);
    const std::string input = data.file("in.bin");
    write_file(input, data_file(head, {concat({page_frame(a1, frame(Codec::gzip, "A", "", T0)),
                                               page_frame(b1, frame(Codec::gzip, "B", "", T0)),
                                               page_frame(b2, frame(Codec::snappy, "B", "", T0 + S)),
                                               page_frame(a2, frame(Codec::snappy, "A", "", T0 + S))})}));
    // A plain file stands where the folder of stream B must go.
    std::filesystem::create_directories(out.file("2023/1114"));
    write_file(out.file("2023/1114/B"), Bytes{1});
    const ProcessResult r = run_obx_read({"-s", schemas.path(), "-f", "bin", "--output-dir", out.path(), input});
    EXPECT_EQ(r.exit_status, 0) << r.err;  // a lost page is not a failed input
    const std::string lost = "[data_file] Failed to create data file " + out.file("2023/1114/B/1700000000000000.bin");
    size_t said = 0;
    for (size_t at = r.err.find(lost); at != std::string::npos; at = r.err.find(lost, at + 1)) ++said;
    EXPECT_EQ(said, 1u) << r.err;

    std::vector<std::string> entries;
    for (const auto& e : std::filesystem::recursive_directory_iterator(out.path()))
        if (e.is_regular_file()) entries.push_back(e.path().string().substr(out.path().size() + 1));
    std::sort(entries.begin(), entries.end());
    ASSERT_EQ(entries, (std::vector<std::string>{"2023/1114/A/1700000000000000.bin", "2023/1114/B"}));
    const WrittenFile a = read_written_file(out.file(entries[0]));
    EXPECT_EQ(a.first_timestamp, T0);
    EXPECT_EQ(a.last_timestamp, T0 + S + S / 2);
    EXPECT_EQ(a.file_size, 256u + 2 * a1.size());
    EXPECT_EQ(a.size_on_disk, a.file_size);
    EXPECT_EQ(a.body, concat({a1, a2}));
}

TEST(BinExport, OutputFolderMustExist) {
    TempDir data;
    const ProcessResult r = run_obx_read({"-f", "bin", "--output-dir", data.file("missing"), "-s", data.path(), data.file("x")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("Output folder '" + data.file("missing") + "' does not exits\n"), std::string::npos) << r.err;
}

}  // namespace
