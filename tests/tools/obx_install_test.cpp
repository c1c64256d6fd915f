// Installs the build into a staging folder (DESTDIR and a prefix), then builds the example
// collector against the installed files, once through pkg-config and once through
// find_package, runs it and reads its data with the installed obx_read.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"

namespace {

obx_test::ProcessResult shell(const std::string& script, const std::vector<std::string>& environment = {}) {
    obx_test::ProcessOptions options;
    options.environment = environment;
    return obx_test::run_program("/bin/sh", {"-c", script}, options);
}

std::string quoted(const std::string& text) { return "'" + text + "'"; }

const char* const kExpectedSamples =
    "{\"timestamp\":1700000000000000,\"cpu\":0,\"load\":0.25}\n"
    "{\"timestamp\":1700000001000000,\"cpu\":1,\"load\":0.5}\n"
    "{\"timestamp\":1700000002000000,\"cpu\":0,\"load\":0.75}\n";

}  // namespace

TEST(ObxInstall, CollectorBuildsAgainstTheInstalledLibraryAndObxReadReadsItsData) {
    obx_test::TempDir dir;
    const std::string stage = dir.file("stage"), prefix = "/opt/obx", root = stage + prefix;
    const std::string libdir = root + "/" + OBX_INSTALL_LIBDIR;
    const auto installed = shell(std::string(OBX_CMAKE_COMMAND) + " --install " + quoted(OBX_BUILD_DIR) + " --prefix " + prefix,
                                 {"DESTDIR=" + stage});
    ASSERT_EQ(installed.exit_status, 0) << installed.out << installed.err;

    for (const std::string file :
         {"bin/obx_read", "bin/obx", "include/obx/utils/logger.h", "include/obx/data/format/data_file_format.h",
          "include/obx/host/source.h", "share/man/man1/obx_read.1", "share/man/man1/obx.1"})
        EXPECT_TRUE(std::filesystem::is_regular_file(root + "/" + file)) << file;
    for (const std::string file : {"libobx.a", "pkgconfig/obx.pc", "cmake/obx/obxConfig.cmake", "cmake/obx/obxConfigVersion.cmake"})
        EXPECT_TRUE(std::filesystem::is_regular_file(libdir + "/" + file)) << file;
    EXPECT_FALSE(std::filesystem::exists(root + "/include/obx/tools"));  // the tools' code is no part of the library

    const auto version = obx_test::run_program(root + "/bin/obx", {"--version"});
    EXPECT_EQ(version.out, "obx, Ombrix data companion 1.22.1\n");

    const std::string source = std::string(OBX_SOURCE_DIR) + "/examples/collector";
    const std::string flags = OBX_EXTRA_FLAGS;
    const struct { const char* how; std::string build; std::string program; } roads[] = {
        {"pkg-config",
         std::string(OBX_CXX_COMPILER) + " -std=c++17 " + flags + " " + quoted(source + "/collector.cpp") +
             " $(pkg-config --cflags --libs obx) -o " + quoted(dir.file("collector_pc")),
         dir.file("collector_pc")},
        {"find_package",
         std::string(OBX_CMAKE_COMMAND) + " -S " + quoted(source) + " -B " + quoted(dir.file("cmake_build")) +
             " -DCMAKE_PREFIX_PATH=" + quoted(root) + " -DCMAKE_CXX_FLAGS=" + quoted(flags) + " -DCMAKE_EXE_LINKER_FLAGS=" +
             quoted(flags) + " > /dev/null && " + OBX_CMAKE_COMMAND + " --build " + quoted(dir.file("cmake_build")) + " > /dev/null",
         dir.file("cmake_build/collector")},
    };
    for (const auto& road : roads) {
        const auto built = shell(road.build, {"PKG_CONFIG_PATH=" + libdir + "/pkgconfig"});
        ASSERT_EQ(built.exit_status, 0) << road.how << "\n" << road.build << "\n" << built.out << built.err;
        const std::string out = dir.file(std::string("out_") + road.how);
        const auto ran = obx_test::run_program(road.program, {out, "3"}, {{"OBX_HOST_NAME=box"}, ""});
        ASSERT_EQ(ran.exit_status, 0) << road.how << ran.err;
        EXPECT_EQ(ran.out, "wrote 3 samples below " + out + "/data\n");
        // The data writer's default path: date, source, tag and first time.
        const std::string file = out + "/data/2023/1114/box/cpu_1700000000000000.bin";
        EXPECT_TRUE(std::filesystem::is_regular_file(file)) << road.how;
        const auto read = obx_test::run_program(root + "/bin/obx_read", {"-f", "ndjson", "-d", out + "/data"});
        EXPECT_EQ(read.exit_status, 0) << road.how << read.err;
        EXPECT_EQ(read.out, kExpectedSamples) << road.how;
    }
}
