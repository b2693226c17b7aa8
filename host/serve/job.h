// What a server wants of the makers, and how they answer: each one packet. The makers share one socket,
// so that the kernel gives each job to one that is free; each server has a socket for the replies.

#ifndef HOST_SERVE_JOB_H
#define HOST_SERVE_JOB_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "io/descriptor.h"

enum class JobKind : uint8_t { LISTING, DETAILS, MASTER, MEDIA, SEGMENT };

struct Job {
    uint64_t id = 0;
    uint32_t server = 0;  ///< its slot
    JobKind kind = JobKind::LISTING;
    uint32_t root = 0;
    uint64_t number = 0;  ///< of the segment
    std::string version;  ///< of the file; empty where only the maker can find it
    std::string path;

    /// Under which the result is kept. A result without a version belongs to this job alone:
    /// those who ask later want to see what has changed.
    std::string key() const;
    /// Which file it is about.
    uint64_t subject() const;
};

struct Reply {
    /// The maker has died: another one may do the job.
    static constexpr unsigned LOST = 0;

    uint64_t id = 0;
    unsigned status = LOST;  ///< of HTTP; 200: the result is kept, or was
    uint64_t size = 0;       ///< of the result
    std::string text;        ///< why not
};

/// No message is larger, bytes: above the longest path and the longest reason.
constexpr size_t LARGEST_MESSAGE = 8192;
/// As one message; empty where it is too large for one.
std::string bytes_of(const Job &job);
std::string bytes_of(const Reply &reply);
/// False for what is no such message. root and server may still be none that there are.
bool read_job(const std::string &bytes, Job &job);
bool read_reply(const std::string &bytes, Reply &reply);

/// A pair of sockets, written to at one and read from at the other, by any number of processes.
struct Channel {
    /// Throws NotDone.
    Channel();
    Descriptor to, from;
};

/// False when there is no room at present.
bool send_job(const Channel &channel, const Job &job);
/// Whether makers have taken all jobs.
bool has_no_job(const Channel &channel);
bool send_reply(const Channel &channel, const Reply &reply);
/// False when nothing has come.
bool receive_job(const Channel &channel, Job &job);
bool receive_reply(const Channel &channel, Reply &reply);

#endif
