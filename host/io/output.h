// The output: the standard output, a pipe or device, or a file that appears under its name only
// when it is complete.

#ifndef HOST_IO_OUTPUT_H
#define HOST_IO_OUTPUT_H

#include <string>

#include <sys/stat.h>

#include "descriptor.h"

class Output {
public:
    /// path: "-" stands for standard_output. input: the file that is read, which is never written
    /// to. f_force: a file that exists may be replaced. Throws NotDone.
    Output(const std::string &path, Descriptor standard_output, const struct stat &input,
           bool f_force);
    /// Removes a file that wasn't completed.
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /// The output's name in messages.
    const std::string &name() const { return m_name; }
    int descriptor() const { return m_file.get(); }
    /// Closes the output; a file gets its name. Throws NotDone.
    void complete();

private:
    void open_file(const std::string &path, const struct stat &input, bool f_force);

    std::string m_name;
    Descriptor m_file;
    std::string m_target;  // the file's own name
    std::string m_part;    // its name until then; empty when there is nothing to rename
};

#endif
