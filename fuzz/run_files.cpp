// Runs the inputs of a fuzz target that are named on the command line, files and folders of files,
// so that every compiler's build can run them. Prints what it saw on the standard error.

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "files.h"
#include "watch.h"

namespace {

typedef std::filesystem::path Path;

// In the order of their names: a failure shows the same way again.
std::vector<Path> files_of(const std::vector<Path> &arguments)
{
    std::vector<Path> files;
    for (const Path &path : arguments) {
        if (!std::filesystem::is_directory(path)) {
            files.push_back(path);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(path))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char **argv)
{
    const std::vector<Path> files = files_of({argv + 1, argv + argc});
    if (files.empty()) {
        fprintf(stderr, "no inputs\n");
        return 2;
    }
    // What the library prints there isn't of interest.
    if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
    size_t most = 0;
    for (const Path &path : files) {
        const Bytes bytes = read_file(path.string());
        fprintf(stderr, "%s\n", path.c_str());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        most = std::max(most, g_heap.most);
    }
    fprintf(stderr, "%zu inputs, at most %zu KiB of heap, longest call %.0f ms\n", files.size(),
            most / 1024, CallWatch::s_longest * 1000);
    return 0;
}
