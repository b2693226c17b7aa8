#include "message.h"

#include <cstdio>
#include <cstring>

void say(const std::string &line)
{
    std::fflush(stdout);
    std::fputs((line + '\n').c_str(), stderr);
}

std::string error_text(int error)
{
    return std::strerror(error);
}
