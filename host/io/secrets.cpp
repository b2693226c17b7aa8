#include "secrets.h"

#include <cstring>
#include <string>

#include "text.h"

namespace {

const char *const OPTION = "--header";

std::string without_value(const std::string &field)
{
    return field.substr(0, field.find(':')) + ":***";
}

// What is shorter is filled up with NUL, and what is longer is cut, as it is only looked at.
void replace(char *argument, std::string text)
{
    const size_t size = std::strlen(argument);
    text.resize(size);
    std::memcpy(argument, text.data(), size);
}

}  // namespace

void hide_secrets(int argc, char **argv)
{
    const std::string with_value = std::string(OPTION) + "=";
    bool f_field = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (f_field || argument.compare(0, with_value.size(), with_value) == 0)
            replace(argv[i], without_value(argument));
        else if (const std::string shown = without_passwords(argument); shown != argument)
            replace(argv[i], shown);
        f_field = argument == OPTION;
    }
}
