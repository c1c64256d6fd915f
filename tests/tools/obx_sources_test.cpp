#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"

using obx_test::run_obx;

TEST(ObxSources, ListsTheSourcesOfASpecification) {
    obx_test::TempDir dir;
    std::ofstream(dir.file("nodes")) << "H-0002c903 (cn01) 1\nH-0002c904 (cn02) 1\n";
    const obx_test::ProcessOptions host{{"OBX_HOST_NAME=h"}, ""};
    const struct { std::vector<std::string> args; int status; const char* out; } rows[] = {
        {{"2"}, 0, "h_1\nh_2\n"},
        {{"--tag", "ib", "node[9-10]"}, 0, "node_9:ib\nnode_10:ib\n"},
        {{dir.file("nodes"), "-j"}, 0, "[\n  {\"source_id\": \"cn01\", \"source_tag\": \"\"},\n  {\"source_id\": \"cn02\", \"source_tag\": \"\"}\n]\n"},
        {{"-j", "-t", "a\"b", "x[1-1]"}, 0, "[\n  {\"source_id\": \"x_1\", \"source_tag\": \"a\\\"b\"}\n]\n"},
        {{"2-1"}, 1, ""},
        {{}, 2, ""},
        {{"1", "2"}, 2, ""},
        {{"-t", "sixteen-letters!", "1"}, 2, ""},
    };
    for (const auto& row : rows) {
        std::vector<std::string> args{"sources"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const auto result = run_obx(args, host);
        EXPECT_EQ(result.exit_status, row.status) << args.back();
        EXPECT_EQ(result.out, row.out) << args.back();
    }
    const auto piped = run_obx({"sources", "-"}, host, "H-01 (cn07) x\nH-02 (cn08) y\n");
    EXPECT_EQ(piped.exit_status, 0) << piped.err;
    EXPECT_EQ(piped.out, "cn07\ncn08\n");
    const auto refused = run_obx({"sources", "2-1"});
    EXPECT_NE(refused.err.find("[error] [source] Invalid source format: 2-1\n"), std::string::npos) << refused.err;
    EXPECT_EQ(run_obx({"sources", "-t", "sixteen-letters!", "1"}).err,
              "obx sources: tag 'sixteen-letters!' is longer than 15 characters\nTry 'obx sources --help'.\n");
}
