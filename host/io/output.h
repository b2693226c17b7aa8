// The output: the standard output, a pipe or device, or a file that appears under its name only
// when it is complete.

#ifndef HOST_IO_OUTPUT_H
#define HOST_IO_OUTPUT_H

#include <string>

#include <sys/stat.h>

#include "descriptor.h"

/// Whether writing to the path is writing to the standard output, by whatever name. Asked before
/// take_standard_output: afterwards such names lead elsewhere.
bool leads_to_standard_output(const std::string &path);

/// Whether both are of the same file, by whatever names.
bool is_same_file(const struct stat &one, const struct stat &other);

class Output {
public:
    /// path: "-" means standard_output. input: the file that is read, which is never written
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
    /// Closes the output; a file is safe on its disk and gets its name, and its rights where it
    /// replaces another one. Throws NotDone.
    void complete();

private:
    void open_file(const std::string &path, const struct stat &input);
    void open_part(const struct stat &input, unsigned mode);
    void name_file();

    std::string m_name;
    bool m_f_force;
    Descriptor m_file;
    std::string m_target;  // the file's own name
    std::string m_part;    // its name until then; empty when there is nothing to rename
};

#endif
