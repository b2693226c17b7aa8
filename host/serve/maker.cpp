#include "maker.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include "hls/film.h"
#include "io/http_source.h"
#include "io/message.h"
#include "libgolt.h"
#include "work_list.h"

namespace {

// Of films whose segments are known, in each maker: hundreds of films of two hours.
constexpr size_t MOST_FILM_BYTES = 8 * 1024 * 1024;
// What a larger segment took is given back after it.
constexpr size_t USUAL_SEGMENT = 4 * 1024 * 1024;

constexpr unsigned STATUS_DONE = 200;
constexpr unsigned STATUS_GONE = 404;
constexpr unsigned STATUS_UNSUITABLE = 415;
constexpr unsigned STATUS_FAILED = 500;
constexpr unsigned STATUS_UNREACHABLE = 502;
constexpr unsigned STATUS_UNAVAILABLE = 503;

/// Thrown where a job can't be done.
struct Refusal : std::runtime_error {
    Refusal(unsigned why, const std::string &text)
        : std::runtime_error(text)
        , status(why)
    {
    }
    unsigned status;
};

/// A file that is open, and which content of it that is.
struct OpenFile {
    std::unique_ptr<Source> source;
    std::string version;
};

class Maker {
public:
    explicit Maker(const MakerSetting &setting)
        : m_setting(setting)
    {
    }
    /// Waits for a job, and does it.
    void step();

private:
    struct Kept {
        std::string key;
        Film film;
    };

    Reply reply_to(const Job &job);
    uint64_t make(const Job &job);
    uint64_t make_listing(const Job &job);
    uint64_t make_segment_of(const Job &job);
    OpenFile open(const Job &job);
    const Film &film_of(const Job &job, OpenFile &file);
    uint64_t keep(const Job &job, const void *bytes, size_t size);
    uint64_t keep(const Job &job, const std::string &text)
    {
        return keep(job, text.data(), text.size());
    }

    const MakerSetting &m_setting;
    std::list<Kept> m_films;  // the one that was used last first
    std::vector<uint8_t> m_segment;
};

void limit_time(unsigned cpu_seconds, unsigned seconds);
uint64_t cpu_us();
uint64_t us_since(const timespec &start);

}  // namespace

void run_maker(const MakerSetting &setting)
{
    Maker maker(setting);
    setting.shared.note_ready(setting.slot);
    for (;;)
        maker.step();
}

std::string version_of(const struct stat &status)
{
    // Not the inode, which a copy hasn't got.
    return fmt::format(
        "{:016x}",
        hash_of(fmt::format("{} {} {} {}", GOLT_version(), static_cast<int64_t>(status.st_size),
                            static_cast<int64_t>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec)));
}

uint64_t own_memory()
{
    // Opened once: later there may be no right to.
    static const Descriptor file(::open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
    char text[128] = "";
    if (!file.is_open() || pread(file.get(), text, sizeof text - 1, 0) <= 0) return 0;
    char *at = text;
    strtoull(at, &at, 10);  // all that is mapped
    const uint64_t resident = strtoull(at, &at, 10);
    const uint64_t shared = strtoull(at, &at, 10);
    return (resident - std::min(resident, shared)) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

namespace {

void Maker::step()
{
    Job job;
    while (!receive_job(m_setting.jobs, job)) {
        pollfd ready = {m_setting.jobs.from.get(), POLLIN, 0};
        poll(&ready, 1, -1);
    }
    Shared &shared = m_setting.shared;
    shared.update(m_setting.slot, [&](Slot &slot) {
        slot.f_working = true;
        slot.server = job.server;
        slot.job = job.id;
        slot.subject = job.subject();
        slot.since = steady_seconds();
        slot.cpu_us = cpu_us();
    });
    limit_time(LONGEST_CPU_SECONDS, LONGEST_WORK_SECONDS);
    const Reply reply = reply_to(job);
    limit_time(0, 0);
    // What the library has said about it, if anybody wants to know.
    std::fflush(stdout);
    // A server that takes no replies has ended, or finds out that this one is lost.
    for (int tries = 0; job.server < m_setting.replies.size() &&
                        !send_reply(m_setting.replies[job.server], reply) && tries < 10;
         ++tries)
        usleep(1000);
    // Not before: of a maker that dies with the reply in its hands the job is done again.
    shared.update(m_setting.slot, [&](Slot &slot) {
        slot.f_working = false;
        slot.memory = own_memory();
    });
}

Reply Maker::reply_to(const Job &job)
{
    try {
        if (m_setting.shared.is_suspect(job.subject()))
            throw Refusal(STATUS_UNAVAILABLE,
                          "reading this file has failed too often; it is left alone for a minute");
        // Another maker may have done it meanwhile.
        const auto kept = job.version.empty() ? std::nullopt : m_setting.shared.find(job.key());
        return {job.id, STATUS_DONE, kept ? *kept : make(job), ""};
    } catch (const Refusal &refusal) {
        return {job.id, refusal.status, 0, refusal.what()};
    } catch (const NotDone &error) {
        return {job.id, job.path.empty() ? STATUS_UNREACHABLE : STATUS_FAILED, 0, error.what()};
    } catch (const std::exception &error) {
        return {job.id, STATUS_FAILED, 0, error.what()};
    }
}

// Returns the size of what it has made.
uint64_t Maker::make(const Job &job)
{
    if (job.root >= m_setting.tree.roots().size())
        throw Refusal(STATUS_GONE, "there is no such file");
    switch (job.kind) {
    case JobKind::LISTING: return make_listing(job);
    case JobKind::SEGMENT: return make_segment_of(job);
    default: break;
    }
    OpenFile file = open(job);
    const Film &film = film_of(job, file);
    if (job.kind == JobKind::DETAILS) return keep(job, details_json(film, file.source->size()));
    if (!film.refusal.empty()) throw Refusal(STATUS_UNSUITABLE, film.refusal);
    return keep(job, job.kind == JobKind::MEDIA
                         ? media_playlist(film)
                         : master_playlist(film, file.version + "/media.m3u8"));
}

uint64_t Maker::make_listing(const Job &job)
{
    bool f_more = false;
    const auto entries = m_setting.tree.list(job.root, job.path, MOST_LISTED, &f_more);
    if (!entries) throw Refusal(STATUS_GONE, "there is no such folder");
    return keep(job, folder_page(m_setting.tree, job.root, job.path, *entries, f_more));
}

uint64_t Maker::make_segment_of(const Job &job)
{
    timespec start = {};
    clock_gettime(CLOCK_MONOTONIC, &start);
    OpenFile file = open(job);
    const Film &film = film_of(job, file);
    if (!film.refusal.empty()) throw Refusal(STATUS_UNSUITABLE, film.refusal);
    if (job.number >= film.segments.size()) throw Refusal(STATUS_GONE, "the film ends before");
    const std::string fault =
        make_segment(*file.source, film, static_cast<size_t>(job.number), m_segment);
    if (!fault.empty()) throw Refusal(STATUS_FAILED, fault);
    // While it was read the file may have become another one.
    if (job.path.empty() ? !file.source->fault().empty() : open(job).version != file.version)
        throw Refusal(STATUS_GONE, "the file has changed");
    keep(job, m_segment.data(), m_segment.size());
    const uint64_t took_us = us_since(start);
    m_setting.shared.count([&](Counters &counters) {
        const auto &limits = Counters::LIMITS_MS;
        const auto limit =
            std::lower_bound(limits.begin(), limits.end(), took_us,
                             [](unsigned ms, uint64_t us) { return ms * 1000 < us; });
        ++counters.segments;
        counters.segment_bytes += m_segment.size();
        counters.segment_us += took_us;
        ++counters.segment_times[static_cast<size_t>(limit - limits.begin())];
    });
    const uint64_t size = m_segment.size();
    if (m_segment.capacity() > USUAL_SEGMENT) std::vector<uint8_t>().swap(m_segment);
    return size;
}

// Throws Refusal where it isn't the content that the job is about.
OpenFile Maker::open(const Job &job)
{
    OpenFile file;
    const Root &root = m_setting.tree.roots()[job.root];
    if (!root.url.empty()) {
        file.source = open_http_source(root.url, m_setting.http);
        const std::string stated = file.source->version();
        // Where nothing is stated, the next run may find other bytes of the same size.
        file.version = fmt::format(
            "{:016x}", hash_of(fmt::format("{} {} {}", GOLT_version(), file.source->size(),
                                           stated.empty() ? m_setting.run : stated)));
    } else {
        Descriptor descriptor = m_setting.tree.open_file(job.root, job.path);
        if (!descriptor.is_open()) throw Refusal(STATUS_GONE, "there is no such file");
        file.source = std::make_unique<FileSource>(job.path, std::move(descriptor));
        file.version = version_of(file.source->status());
    }
    if (!job.version.empty() && job.version != file.version)
        throw Refusal(STATUS_GONE, "the file has changed");
    return file;
}

// The source is fresh afterwards.
const Film &Maker::film_of(const Job &job, OpenFile &file)
{
    const std::string key = fmt::format("{}/{}/{}", job.root, file.version, job.path);
    const auto found = std::find_if(m_films.begin(), m_films.end(),
                                    [&](const Kept &kept) { return kept.key == key; });
    if (found != m_films.end()) {
        m_films.splice(m_films.begin(), m_films, found);
        return m_films.front().film;
    }
    m_films.push_front({key, survey_film(*file.source)});
    m_setting.shared.count([](Counters &counters) { ++counters.surveys; });
    const std::string fault = file.source->fault();
    Film &film = m_films.front().film;
    // What a server failed to send may come the next time.
    if (!fault.empty()) {
        m_films.pop_front();
        throw NotDone(file.source->path(), fault);
    }
    size_t bytes = 0;
    for (auto kept = m_films.begin(); kept != m_films.end();) {
        bytes += kept->film.memory() + kept->key.size();
        // The one in use stays in any case.
        kept = bytes > MOST_FILM_BYTES && kept != m_films.begin() ? m_films.erase(kept) : ++kept;
    }
    Job same = job;
    same.version = file.version;
    file = open(same);
    return film;
}

uint64_t Maker::keep(const Job &job, const void *bytes, size_t size)
{
    if (m_setting.shared.put(job.key(), static_cast<const uint8_t *>(bytes), size)) return size;
    throw Refusal(STATUS_FAILED,
                  fmt::format("it has {} bytes, more than the cache; see --cache", size));
}

// Ends the process: what is at work there may not get to look at a clock. 0: no limit.
void limit_time(unsigned cpu_seconds, unsigned seconds)
{
    itimerval limit = {};
    limit.it_value.tv_sec = static_cast<time_t>(cpu_seconds);
    setitimer(ITIMER_PROF, &limit, nullptr);
    alarm(seconds);
}

// That this process has used so far.
uint64_t cpu_us()
{
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<uint64_t>(used.tv_sec) * 1000000 +
           static_cast<uint64_t>(used.tv_nsec) / 1000;
}

uint64_t us_since(const timespec &start)
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t us = (now.tv_sec - start.tv_sec) * 1000000 + (now.tv_nsec - start.tv_nsec) / 1000;
    return static_cast<uint64_t>(std::max<int64_t>(us, 0));
}

}  // namespace
