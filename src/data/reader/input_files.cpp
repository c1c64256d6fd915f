#include "data/reader/input_files.h"

#include <dirent.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

// Paths built while walking folders are limited as a PATH_MAX buffer would limit them.
static const size_t kPathLimit = 4096;

char* obx_read_find_folder_upwards(const char* path, const char* folder_name, int levels)
{
    if (!path || !folder_name) return nullptr;
    // dirname may write into its argument, so it only ever sees private copies.
    std::string directory = path;
    directory = dirname(&directory[0]);
    for (int level = 0; level < levels; ++level) {
        if (directory == "/") break;  // the root is never searched
        const std::string candidate = directory + "/" + folder_name;
        if (candidate.size() >= kPathLimit) break;
        if (access(candidate.c_str(), F_OK) == 0) return strdup(candidate.c_str());
        std::string parent = directory;
        directory = dirname(&parent[0]);
    }
    return nullptr;
}

bool obx_read_collect_directory(obx_string_array_t** files, const char* path)
{
    DIR* directory = opendir(path);
    if (!directory) {
        std::fprintf(stderr, "Failed to open directory '%s': %s\n", path, std::strerror(errno));
        return false;
    }
    bool ok = true;
    while (struct dirent* entry = readdir(directory)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const std::string entry_path = std::string(path) + "/" + entry->d_name;
        if (entry_path.size() >= kPathLimit) {
            // A link cycle ends here too: each round makes the path longer.
            std::fprintf(stderr, "Path '%s' is too long\n", entry_path.c_str());
            ok = false;
            break;
        }
        struct stat info;
        if (stat(entry_path.c_str(), &info) != 0) {
            std::fprintf(stderr, "Failed to stat path '%s': %s\n", entry_path.c_str(), std::strerror(errno));
            ok = false;
            break;
        }
        if (S_ISREG(info.st_mode)) {
            if (!obx_string_array_append(files, entry_path.c_str())) {
                std::fprintf(stderr, "Failed appending '%s' to the list of counters: %s\n", entry_path.c_str(),
                             std::strerror(errno));
                ok = false;
                break;
            }
        } else if (S_ISDIR(info.st_mode)) {
            if (!obx_read_collect_directory(files, entry_path.c_str())) {
                ok = false;
                break;
            }
        }
    }
    closedir(directory);
    return ok;
}
