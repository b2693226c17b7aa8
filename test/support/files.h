// Files of the tests.

#ifndef GOLT_TEST_FILES_H
#define GOLT_TEST_FILES_H

#include <fstream>
#include <iterator>

#include "bytes.h"

inline Bytes read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

inline void write_file(const std::string &path, const Bytes &bytes)
{
    std::ofstream file(path, std::ios::binary);
    std::copy(bytes.begin(), bytes.end(), std::ostreambuf_iterator<char>(file));
}

#endif
