// Other programs, run by tests: the host program, ffmpeg and its kin.

#ifndef GOLT_TEST_TOOLS_H
#define GOLT_TEST_TOOLS_H

#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "bytes.h"

struct Outcome {
    int status;          ///< of the exit; -1: the program couldn't be run or was killed
    std::string output;  ///< what it wrote on its standard output
};

/// Runs a command line of the shell.
inline Outcome run(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, {}};
    std::string output;
    for (int byte; (byte = fgetc(pipe)) != EOF;)
        output += static_cast<char>(byte);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

/// A new folder, in which the test runs as long as the object lives.
class TempFolder {
public:
    TempFolder()
        : m_home(std::filesystem::current_path())
    {
        std::string name = (std::filesystem::temp_directory_path() / "golt-XXXXXX").string();
        std::filesystem::current_path(mkdtemp(name.data()));
    }
    ~TempFolder()
    {
        const std::filesystem::path folder = std::filesystem::current_path();
        std::filesystem::current_path(m_home);
        std::filesystem::remove_all(folder);
    }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

private:
    std::filesystem::path m_home;
};

inline Bytes read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

inline void write_file(const std::string &path, const Bytes &bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

/// The lines that a command prints, without comments.
inline std::vector<std::string> lines_of(const std::string &command)
{
    std::istringstream output(run(command).output);
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);)
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    return lines;
}

/// Decodes the streams of one kind, "v" or "a", with ffmpeg: size and MD5 of each frame. Frames pass
/// as they come out of the decoder: none is repeated or dropped to fit a rate. options: of ffmpeg, in
/// front of the input.
inline std::vector<std::string> decode(const std::string &path, const std::string &kind,
                                       const std::string &options = "")
{
    const std::string without_other = kind == "v" ? " -an" : " -vn";
    // stream, dts, pts, duration, size, hash
    std::vector<std::string> frames =
        lines_of("ffmpeg -v error -nostdin " + options + " -i " + path + without_other +
                 " -fps_mode passthrough -f framemd5 -");
    for (std::string &frame : frames)
        frame = frame.substr(frame.rfind(',', frame.rfind(',') - 1));
    return frames;
}

#endif
