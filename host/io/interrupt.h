// Signals that ask the program to stop. The first one is noted, so that what was done so far can be
// brought to an end; a second one, half a second later or more, ends the program at once.

#ifndef HOST_IO_INTERRUPT_H
#define HOST_IO_INTERRUPT_H

/// Call once, before anything that waits. Signals that the caller has had ignored stay so.
void note_stop_signals();

/// The signal that asked to stop, 0 when none has.
int stop_signal();

/// "SIGINT" or the like
const char *stop_signal_name();

/// path: a file that a second signal has to take along, or null. It has to stay valid.
void remove_at_second_signal(const char *path);

/// Ends the program by the signal noted, as the shell expects of a program that was interrupted.
/// Returns when none was.
void die_of_stop_signal();

#endif
