// Replays every file of the given folders (or single files) through the fuzz target,
// so that inputs that once broke a parser stay covered by the ordinary test run.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int replay_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot open %s\n", path.c_str());
        return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the input's size lets the sanitizers catch reads past its end.
    std::vector<uint8_t> exact(bytes);
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return 0;
}

int main(int argc, char** argv) {
    int failures = 0;
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat st;
        if (stat(argv[i], &st) != 0) continue;  // a target without a corpus yet
        if (!S_ISDIR(st.st_mode)) {
            failures += replay_file(argv[i]);
            ++count;
            continue;
        }
        DIR* dir = opendir(argv[i]);
        if (!dir) continue;
        while (struct dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            failures += replay_file(std::string(argv[i]) + "/" + entry->d_name);
            ++count;
        }
        closedir(dir);
    }
    std::printf("replayed %zu inputs\n", count);
    return failures ? 1 : 0;
}
