// Other programs, run by tests: the host program, ffmpeg and ffprobe.

#ifndef GOLT_TEST_TOOLS_H
#define GOLT_TEST_TOOLS_H

#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "bytes.h"

struct Outcome {
    int status;          ///< of the exit; -1: the program couldn't be run or was killed
    std::string output;  ///< what it wrote on its standard output
};

/// Runs a command line of the shell.
inline Outcome run(const std::string &command)
{
    Outcome outcome = {-1, {}};
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return outcome;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        outcome.output.append(chunk, got);
    const int status = pclose(pipe);
    if (status != -1 && WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
    return outcome;
}

/// A folder for the files of one test.
class TempFolder {
public:
    TempFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "golt-XXXXXX").string();
        if (mkdtemp(name.data()) != nullptr) m_folder = name;
    }
    ~TempFolder()
    {
        std::error_code ignored;
        if (!m_folder.empty()) std::filesystem::remove_all(m_folder, ignored);
    }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    std::string operator/(const std::string &name) const { return (m_folder / name).string(); }

private:
    std::filesystem::path m_folder;
};

inline Bytes read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return text(std::string(std::istreambuf_iterator<char>(file), {}));
}

inline void write_file(const std::string &path, const Bytes &bytes)
{
    std::ofstream file(path, std::ios::binary);
    std::copy(bytes.begin(), bytes.end(), std::ostreambuf_iterator<char>(file));
}

/// Decodes a file with ffmpeg. For each stream, the video's first, what each frame holds: its size
/// and MD5. options: of ffmpeg, in front of the input.
inline std::map<std::string, std::vector<std::string>> decode(const std::string &path,
                                                              const std::string &options = "")
{
    // Frames pass as they come out of the decoder: none is repeated or dropped to fit a rate.
    std::istringstream lines(run("ffmpeg -v error -nostdin " + options + " -i '" + path +
                                 "' -map 0:v? -map 0:a? -fps_mode passthrough -f framemd5 -")
                                 .output);
    std::map<std::string, std::vector<std::string>> streams;
    for (std::string line; std::getline(lines, line);) {
        // stream, dts, pts, duration, size, hash; in front of them comments
        const size_t times = line.find(','), size = line.rfind(',', line.rfind(',') - 1);
        if (line[0] != '#') streams[line.substr(0, times)].push_back(line.substr(size));
    }
    return streams;
}

/// The times in ms of the packets of one kind, "v" or "a", in the file's order.
inline std::vector<double> packet_times(const std::string &path, const std::string &kind,
                                        const std::string &options = "")
{
    std::istringstream lines(run("ffprobe -v error " + options + " -select_streams " + kind +
                                 " -show_entries packet=pts_time -of csv=p=0 '" + path + "'")
                                 .output);
    std::vector<double> times;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) times.push_back(atof(line.c_str()) * 1000);
    }
    return times;
}

#endif
