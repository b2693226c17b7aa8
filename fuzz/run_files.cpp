// Runs the inputs of a fuzz target that are named on the command line, files and folders of files,
// so that every compiler's build can run them. Prints what it saw on the standard error.

#define _FILE_OFFSET_BITS 64

#include <dirent.h>

#include <algorithm>
#include <cstdio>

#include "files.h"
#include "watch.h"

namespace {

// In the order of their names: a failure shows the same way again. Of the C library alone, whose calls the memory
// sanitizer knows.
std::vector<std::string> files_of(const std::vector<std::string> &arguments)
{
    std::vector<std::string> files;
    for (const std::string &path : arguments) {
        DIR *const folder = opendir(path.c_str());
        if (folder == nullptr) {
            files.push_back(path);
            continue;
        }
        while (const dirent *entry = readdir(folder))
            if (entry->d_name[0] != '.') files.push_back(path + "/" + entry->d_name);
        closedir(folder);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> files = files_of({argv + 1, argv + argc});
    if (files.empty()) {
        fprintf(stderr, "no inputs\n");
        return 2;
    }
    // What the library prints there isn't of interest.
    if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
    size_t most = 0;
    for (const std::string &path : files) {
        const Bytes bytes = read_file(path);
        fprintf(stderr, "%s\n", path.c_str());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        most = std::max(most, g_heap.most);
    }
    fprintf(stderr, "%zu inputs, at most %zu KiB of heap, longest call %.0f ms\n", files.size(),
            most / 1024, CallWatch::s_longest * 1000);
    return 0;
}
