#include "serve.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "confine.h"
#include "http_library.h"
#include "io/interrupt.h"
#include "io/text.h"
#include "listener.h"
#include "maker.h"
#include "page.h"
#include "server.h"
#include "work_list.h"

#if GOLT_HAS_CURL
#include "io/curl_library.h"
#endif

namespace {

// Of servers. There is one more maker: a file that is slow keeps as many as there are servers.
constexpr unsigned MOST_WORKERS = 64;
// What a process has open beside its connections.
constexpr uint64_t OTHER_DESCRIPTORS = 64;
// Before a process is started again that has died at once; doubles each time.
constexpr int64_t FIRST_PAUSE_MS = 100;
constexpr int64_t LONGEST_PAUSE_MS = 10000;
// A process that has lived so long, or has died at work, starts anew with the first pause.
constexpr int64_t SOUND_MS = 1000;
// At the end, before the rest is killed.
constexpr int64_t PATIENCE_MS = 5000;

// Of a processor's time, for a job. Most take milliseconds; who kills a maker from outside hits one by chance.
// Without memory for it the system kills one that has taken much, which takes time.
constexpr uint64_t LONG_JOB_US = 500000;
// What Linux gives a pipe.
constexpr size_t PIPE_SIZE = 64 * 1024;
// The table of them is searched at each new one.
constexpr uint64_t MOST_CONNECTIONS = 65536;

constexpr unsigned STATUS_FAILED = 500;

/// One process that is to be there.
struct Post {
    Role role;
    pid_t pid = 0;
    int64_t started_ms = 0;
    int64_t not_before_ms = 0;
    int64_t pause_ms = FIRST_PAUSE_MS;
};

class Parent {
public:
    explicit Parent(const ServeOptions &options);
    void run();

private:
    void announce() const;
    void start(size_t slot);
    [[noreturn]] void become(size_t slot, pid_t parent);
    void wait();
    void relay();
    void bury();
    void note_death(size_t slot, int status, const rusage &used);
    void report_lost_job(const Slot &slot, unsigned failures);
    int64_t ms_to_wait() const;
    void end();
    bool is_any_left(Role role) const;

    const ServeOptions &m_options;
    const Tree m_tree;
    const PageParts m_parts;
    const Descriptor m_listener;
    const unsigned m_servers;
    bool m_f_network = false;
    Shared m_shared;
    Channel m_jobs;
    std::vector<Channel> m_replies;
    Descriptor m_said, m_to_say;  // what the others write to the standard error
    std::vector<Post> m_posts;    // servers first
    sigset_t m_waiting = {};
    const int64_t m_start = time(nullptr);
};

unsigned count_servers(const ServeOptions &options);
void show(const std::string &text);
unsigned failures_of(const Slot &slot, int status, const rusage &used);
int64_t now_ms();
void raise_descriptor_limit(uint64_t connections);
extern "C" void wake_up(int) {}

}  // namespace

ExitStatus serve(const ServeOptions &options)
{
    if (options.connections > MOST_CONNECTIONS)
        throw BadUsage(fmt::format("--connections: at most {}", MOST_CONNECTIONS));
    Parent(options).run();
    return EXIT_DONE;
}

namespace {

Parent::Parent(const ServeOptions &options)
    : m_options(options)
    , m_tree(options.paths)
    , m_parts(load_page_parts(options.hls_js))
    , m_listener(open_listener(options.address, options.port))
    , m_servers(count_servers(options))
    , m_shared(options.cache_size, options.connections)
    , m_replies(m_servers)
{
    // Loaded here, the libraries are in the memory of all processes once.
    HttpLibrary::get();
    m_f_network = std::any_of(m_tree.roots().begin(), m_tree.roots().end(),
                              [](const Root &root) { return !root.url.empty(); });
#if GOLT_HAS_CURL
    if (m_f_network) CurlLibrary::get();
#endif
    const std::string lacking = prepare_confinement();
    if (!lacking.empty()) say("golt: " + lacking);
    int ends[2];
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) throw NotDone("a pipe", error_text(errno));
    m_said = Descriptor(ends[0]);
    m_to_say = Descriptor(ends[1]);
    raise_descriptor_limit(options.connections);
    m_posts.resize(m_servers, Post{Role::SERVER});
    m_posts.resize(2 * m_servers + 1, Post{Role::MAKER});
}

void Parent::run()
{
    // Signals come only while this process waits.
    sigset_t watched;
    sigemptyset(&watched);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&watched, signal);
    sigprocmask(SIG_BLOCK, &watched, &m_waiting);
    struct sigaction action = {};
    action.sa_handler = wake_up;
    sigaction(SIGCHLD, &action, nullptr);

    for (size_t slot = 0; slot < m_posts.size(); ++slot)
        start(slot);
    announce();
    while (stop_signal() == 0) {
        wait();
        relay();
        bury();
        for (size_t slot = 0; slot < m_posts.size() && stop_signal() == 0; ++slot) {
            if (m_posts[slot].pid == 0 && now_ms() >= m_posts[slot].not_before_ms) start(slot);
        }
    }
    end();
    sigprocmask(SIG_SETMASK, &m_waiting, nullptr);
}

void Parent::announce() const
{
    for (const Root &root : m_tree.roots())
        say("golt: serving " + root.said);
    for (const std::string &address : addresses_of(m_listener))
        say("golt: " + address);
}

void Parent::start(size_t slot)
{
    Post &post = m_posts[slot];
    post.started_ms = now_ms();
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) become(slot, parent);
    if (pid < 0) {
        post.not_before_ms = now_ms() + post.pause_ms;
        return;
    }
    post.pid = pid;
    m_shared.update(slot, [&](Slot &state) {
        // The process may have begun already.
        state.pid = pid;
        state.role = post.role;
    });
}

// In the new process.
void Parent::become(size_t slot, pid_t parent)
{
    const Role role = m_posts[slot].role;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_NOT_DONE);
    // They may write to no file, not even to the one that the messages go to, and reach no terminal.
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(m_to_say.get(), standard);
    m_said.close();
    // A terminal sends them to all; the parent says when it is time.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
    try {
        own_memory();
        // MHD asks for the random numbers of its keys, and the C library for its time zone.
        tzset();
        const bool f_network = m_f_network && role == Role::MAKER;
        if (role == Role::SERVER) {
            const uint64_t share = m_options.connections / m_servers;
            const ServerSetting setting = {slot,
                                           m_tree,
                                           m_shared,
                                           m_parts,
                                           m_jobs,
                                           m_replies[slot],
                                           m_posts.size() - m_servers,
                                           m_listener.get(),
                                           static_cast<unsigned>(share),
                                           m_options.from_one_address,
                                           m_options.idle_seconds,
                                           m_start};
            confine(role, m_tree, f_network);
            run_server(setting, m_waiting);
        } else {
            std::signal(SIGTERM, SIG_DFL);
            std::signal(SIGALRM, SIG_DFL);
            std::signal(SIGPROF, SIG_DFL);
            sigprocmask(SIG_SETMASK, &m_waiting, nullptr);
            const MakerSetting setting = {slot,
                                          m_tree,
                                          m_shared,
                                          m_jobs,
                                          m_replies,
                                          m_options.http,
                                          fmt::format("{} {}", m_start, parent)};
            confine(role, m_tree, f_network);
            run_maker(setting);
        }
    } catch (const std::exception &error) {
        say(std::string("golt: ") + error.what());
        _exit(EXIT_NOT_DONE);
    }
    _exit(EXIT_DONE);
}

// Until a process has to be started, has died, or says something.
void Parent::wait()
{
    const int64_t ms = ms_to_wait();
    const timespec limit = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    pollfd said = {m_said.get(), POLLIN, 0};
    ppoll(&said, 1, ms < 0 ? nullptr : &limit, &m_waiting);
    // Where there is something to read, ppoll() lets no signal through.
    const timespec none = {};
    ppoll(nullptr, 0, &none, &m_waiting);
}

// As much as there is, but no more than a pipe holds: others wait. A process that was taken over may write
// anything.
void Parent::relay()
{
    std::string text(PIPE_SIZE, '\0');
    const ssize_t size = read(m_said.get(), text.data(), text.size());
    text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    show(printable(text, true));
}

// Notes all that have died.
void Parent::bury()
{
    int status = 0;
    rusage used = {};
    for (pid_t pid; (pid = wait4(-1, &status, WNOHANG, &used)) > 0;) {
        const auto post = std::find_if(m_posts.begin(), m_posts.end(),
                                       [&](const Post &candidate) { return candidate.pid == pid; });
        if (post != m_posts.end())
            note_death(static_cast<size_t>(post - m_posts.begin()), status, used);
    }
}

void Parent::note_death(size_t slot, int status, const rusage &used)
{
    Post &post = m_posts[slot];
    const Slot last = m_shared.slot(slot);
    const int64_t now = now_ms();
    post.pause_ms = last.f_working || now - post.started_ms >= SOUND_MS
                        ? FIRST_PAUSE_MS
                        : std::min(2 * post.pause_ms, LONGEST_PAUSE_MS);
    post.not_before_ms = now + post.pause_ms;
    post.pid = 0;
    m_shared.clear(slot);
    if (last.f_working) report_lost_job(last, failures_of(last, status, used));
    if (stop_signal() != 0) return;
    m_shared.count([](Counters &counters) { ++counters.deaths; });
    show(fmt::format("golt: a {} ended by {} {}; it is replaced\n",
                     post.role == Role::SERVER ? "server" : "maker",
                     WIFSIGNALED(status) ? "signal" : "status",
                     WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status)));
}

// The server hears of what the maker was doing, and the file is noted.
void Parent::report_lost_job(const Slot &slot, unsigned failures)
{
    if (failures > 0) m_shared.suspect(slot.subject, failures);
    if (slot.server >= m_replies.size()) return;
    const bool f_again = failures < Shared::MOST_FAILURES;
    send_reply(m_replies[slot.server], {slot.job, f_again ? Reply::LOST : STATUS_FAILED, 0,
                                        "reading the file takes too long"});
}

// Until the next process is due; negative: there is none.
int64_t Parent::ms_to_wait() const
{
    int64_t ms = -1;
    for (const Post &post : m_posts) {
        if (post.pid != 0) continue;
        const int64_t left = std::max<int64_t>(post.not_before_ms - now_ms(), 0);
        ms = ms < 0 ? left : std::min(ms, left);
    }
    return ms;
}

// Servers bring their answers to an end, and may need the makers for it.
void Parent::end()
{
    const int64_t last_ms = now_ms() + PATIENCE_MS;
    for (const Role role : {Role::SERVER, Role::MAKER}) {
        for (const Post &post : m_posts) {
            if (post.pid != 0 && post.role == role) kill(post.pid, SIGTERM);
        }
        while (is_any_left(role) && now_ms() < last_ms) {
            const timespec limit = {0, 50 * 1000000};
            ppoll(nullptr, 0, &limit, &m_waiting);
            relay();
            bury();
        }
    }
    for (const Post &post : m_posts) {
        if (post.pid != 0) kill(post.pid, SIGKILL);
    }
    while (is_any_left(Role::SERVER) || is_any_left(Role::MAKER)) {
        const timespec limit = {0, 50 * 1000000};
        ppoll(nullptr, 0, &limit, &m_waiting);
        bury();
    }
}

bool Parent::is_any_left(Role role) const
{
    return std::any_of(m_posts.begin(), m_posts.end(),
                       [&](const Post &post) { return post.pid != 0 && post.role == role; });
}

// Each has a connection at least.
unsigned count_servers(const ServeOptions &options)
{
    const auto processors = static_cast<uint64_t>(std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L));
    const uint64_t count = options.workers != 0 ? options.workers : processors;
    return static_cast<unsigned>(std::min({count, options.connections, uint64_t{MOST_WORKERS}}));
}

// To the standard error. What its reader doesn't take at once is dropped: the processes need their parent.
void show(const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        pollfd error = {STDERR_FILENO, POLLOUT, 0};
        if (poll(&error, 1, 0) <= 0) return;
        const ssize_t size = write(STDERR_FILENO, text.data() + done,
                                   std::min<size_t>(text.size() - done, PIPE_BUF));
        if (size <= 0) return;
        done += static_cast<size_t>(size);
    }
}

// What the death of a maker counts for against the file that it had in hand.
unsigned failures_of(const Slot &slot, int status, const rusage &used)
{
    if (!WIFSIGNALED(status)) return 1;
    const auto us_of = [](const timeval &time) {
        return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_usec);
    };
    switch (WTERMSIG(status)) {
    // Its time was over.
    case SIGPROF:
    case SIGALRM: return Shared::MOST_FAILURES;
    case SIGHUP:
    case SIGINT:
    case SIGKILL:
    case SIGTERM:
        return us_of(used.ru_utime) + us_of(used.ru_stime) >= slot.cpu_us + LONG_JOB_US ? 1 : 0;
    default: return 1;
    }
}

int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// As far as the system allows it.
void raise_descriptor_limit(uint64_t connections)
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t wanted = static_cast<rlim_t>(connections + OTHER_DESCRIPTORS);
    if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= wanted) return;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
