// Takes away from a process what it doesn't need for its work.

#ifndef HOST_SERVE_CONFINE_H
#define HOST_SERVE_CONFINE_H

#include <string>

#include "shared.h"
#include "tree.h"

/// Finds the library that is needed for it, before the processes are started. Returns what this system
/// lacks, for a note to the user; empty when it lacks nothing.
std::string prepare_confinement();

/// From here on the process can't write files, start programs or open sockets, and it reads files below
/// the tree's folders alone. With f_network, for sources elsewhere, it may connect, and read what that
/// takes, such as certificates. As far as the kernel knows how.
void confine(Role role, const Tree &tree, bool f_network);

#endif
