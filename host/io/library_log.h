// What the library prints on the standard output: shown at once, or kept for the report of a failure.

#ifndef HOST_IO_LIBRARY_LOG_H
#define HOST_IO_LIBRARY_LOG_H

/// Takes stdio's standard output. What is printed there from now on goes to the standard error with
/// f_shown, a line at a time and with nothing in it that a terminal takes for a command. Otherwise
/// it is dropped, except for the last few lines that report a problem.
void take_library_messages(bool f_shown);

/// Says the lines kept: those that may explain why something failed. Once.
void explain_failure();

#endif
