// A process that does jobs, one at a time: it reads files and folders, and puts what it makes of them
// into the cache. It may die of a file; others then report that.

#ifndef HOST_SERVE_MAKER_H
#define HOST_SERVE_MAKER_H

#include "io/http_options.h"
#include "job.h"
#include "page.h"
#include "shared.h"
#include "tree.h"

/// A job that takes longer ends the process: so much of a processor's time, or so long in all, as on a
/// slow disk or network.
constexpr unsigned LONGEST_CPU_SECONDS = 30;
constexpr unsigned LONGEST_WORK_SECONDS = 120;

/// What a maker needs of the process that starts it. All of it outlives the maker.
struct MakerSetting {
    size_t slot;
    const Tree &tree;
    Shared &shared;
    const Channel &jobs;
    const std::vector<Channel> &replies;  ///< to each server, by its slot
    const HttpOptions &http;
    std::string run;  ///< that no other run of the program has
};

/// Doesn't return.
[[noreturn]] void run_maker(const MakerSetting &setting);

/// Names the present content of a file of this machine: 16 digits. The same for each copy with the
/// same size and time, so that several machines may serve copies.
std::string version_of(const struct stat &status);

/// The bytes of memory that are the process's own.
uint64_t own_memory();

#endif
