// What the program prints on the standard error, and how it gives up.

#ifndef HOST_IO_MESSAGE_H
#define HOST_IO_MESSAGE_H

#include <stdexcept>
#include <string>

/// Exit status of the program.
enum ExitStatus {
    EXIT_DONE = 0,
    EXIT_NOT_DONE = 1,
    EXIT_BAD_USAGE = 2,
    EXIT_DONE_WITH_FAULTS = 3  ///< done, but something was wrong with the input
};

/// Thrown where the job can't be done; the text names the file and the reason.
struct NotDone : std::runtime_error {
    NotDone(const std::string &file, const std::string &reason)
        : std::runtime_error(file + ": " + reason)
    {
    }
};

/// The same, where it is the output that can't be written.
struct NotWritten : NotDone {
    using NotDone::NotDone;
};

/// Thrown for arguments that don't fit together or don't fit the input.
struct BadUsage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Writes a line to the standard error, after all diagnostics of the library up to here. What a
/// terminal would take for a command is escaped, and passwords in URLs are left out.
void say(const std::string &line);

/// How a command ends that has read path: says the fault, and returns the status that goes with it.
/// fault: what was wrong with the input; empty when nothing was.
ExitStatus end_command(const std::string &path, const std::string &fault);

/// The system's text for an errno value.
std::string error_text(int error);

#endif
