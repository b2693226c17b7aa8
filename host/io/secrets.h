// The command line can be read by every user of the machine while the program runs.

#ifndef HOST_IO_SECRETS_H
#define HOST_IO_SECRETS_H

/// Overwrites passwords in URLs, and values of --header, in the arguments: from then on ps and /proc show ***.
/// Whoever needs them has copied them before.
void hide_secrets(int argc, char **argv);

#endif
