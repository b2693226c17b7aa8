#include "message.h"

#include <cstdio>
#include <cstring>

#include "library_log.h"
#include "text.h"

void say(const std::string &line)
{
    std::fflush(stdout);
    std::fputs((printable(without_passwords(line)) + '\n').c_str(), stderr);
}

ExitStatus end_command(const std::string &path, const std::string &fault)
{
    if (fault.empty()) return EXIT_DONE;
    explain_failure();
    say("golt: " + path + ": " + fault);
    return EXIT_DONE_WITH_FAULTS;
}

std::string error_text(int error)
{
    return std::strerror(error);
}
