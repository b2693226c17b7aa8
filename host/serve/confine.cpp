#include "confine.h"

#include <cerrno>
#include <cstdint>
#include <iterator>

#include <fcntl.h>
#include <linux/landlock.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#if GOLT_HAS_SECCOMP
#include <seccomp.h>

#include "io/loaded_library.h"
#include "io/message.h"
#endif

namespace {

void limit_resources(Role role);
bool limit_files(const Tree &tree, bool f_network);
void limit_calls(Role role, bool f_network, bool f_files_limited);

#if GOLT_HAS_SECCOMP
struct SeccompLibrary {
    decltype(&::seccomp_init) init;
    decltype(&::seccomp_rule_add_array) rule_add_array;
    decltype(&::seccomp_syscall_resolve_name) resolve_name;
    decltype(&::seccomp_load) load;
    bool f_found;
};
SeccompLibrary g_seccomp = {};

// A name that a processor's kernel doesn't know is left out. What glibc asks for with 64-bit times on 32
// bits has names of its own. The sanitizers need pipes and a stack for signals.
const char *const CALLS[] = {"read",
                             "write",
                             "readv",
                             "writev",
                             "close",
                             "fstat",
                             "fstat64",
                             "newfstatat",
                             "fstatat64",
                             "statx",
                             "lseek",
                             "_llseek",
                             "pread64",
                             "getdents64",
                             "mmap",
                             "mmap2",
                             "munmap",
                             "mprotect",
                             "mremap",
                             "madvise",
                             "brk",
                             "futex",
                             "futex_time64",
                             "rt_sigaction",
                             "rt_sigprocmask",
                             "rt_sigreturn",
                             "sigreturn",
                             "restart_syscall",
                             "sigaltstack",
                             "pipe",
                             "pipe2",
                             "poll",
                             "ppoll",
                             "ppoll_time64",
                             "clock_gettime",
                             "clock_gettime64",
                             "gettimeofday",
                             "time",
                             "nanosleep",
                             "clock_nanosleep",
                             "clock_nanosleep_time64",
                             "getpid",
                             "gettid",
                             "exit",
                             "exit_group",
                             "alarm",
                             "setitimer",
                             "getrandom",
                             "sched_yield",
                             "fadvise64",
                             "fadvise64_64",
                             "send",
                             "recv",
                             "recvfrom",
                             "recvmsg",
                             "shutdown"};
const char *const SERVER_CALLS[] = {"accept",     "accept4",     "epoll_create1", "epoll_ctl",
                                    "epoll_wait", "epoll_pwait", "eventfd2",      "setsockopt",
                                    "getsockopt", "getsockname", "getpeername",   "sendfile",
                                    "sendfile64"};
// For libcurl, its thread that resolves names, and TLS.
const char *const NETWORK_CALLS[] = {
    "connect",     "bind",      "setsockopt",      "getsockopt", "getsockname",
    "getpeername", "sendmsg",   "sendto",          "sendmmsg",   "recvmmsg",
    "clone",       "clone3",    "set_robust_list", "rseq",       "sched_getaffinity",
    "prctl",       "eventfd2",  "epoll_create1",   "epoll_ctl",  "epoll_wait",
    "epoll_pwait", "uname",     "sysinfo",         "getuid",     "getuid32",
    "geteuid",     "geteuid32", "getgid",          "getgid32",   "getegid",
    "getegid32",   "access",    "faccessat",       "faccessat2", "stat",
    "stat64",      "lstat",     "lstat64",         "readlink",   "readlinkat",
    "statfs",      "statfs64",  "fstatfs",         "fstatfs64"};

constexpr uint64_t INT_BITS = UINT32_MAX;
// The others are SOCK_CLOEXEC and SOCK_NONBLOCK.
constexpr uint64_t SOCKET_TYPE_BITS = 0xf;
#endif

}  // namespace

std::string prepare_confinement()
{
#if GOLT_HAS_SECCOMP
    try {
        const LoadedLibrary library("libseccomp.so.2", "system calls aren't limited");
        g_seccomp.init = GOLT_FUNCTION(library, seccomp_init);
        g_seccomp.rule_add_array = GOLT_FUNCTION(library, seccomp_rule_add_array);
        g_seccomp.resolve_name = GOLT_FUNCTION(library, seccomp_syscall_resolve_name);
        g_seccomp.load = GOLT_FUNCTION(library, seccomp_load);
        g_seccomp.f_found = true;
    } catch (const NotDone &error) {
        return error.what();
    }
    return "";
#else
    return "built without libseccomp: system calls aren't limited";
#endif
}

void confine(Role role, const Tree &tree, bool f_network)
{
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    limit_resources(role);
    const bool f_files_limited = limit_files(tree, f_network);
    limit_calls(role, f_network, f_files_limited);
}

namespace {

void limit_resources(Role role)
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
    setrlimit(RLIMIT_CORE, &none);
    // Sanitizers take far more.
#ifndef GOLT_SANITIZED
    // What a process allocates beside the cache. The parsers stay far below; it ends what doesn't.
    constexpr rlim_t MOST_MEMORY = 512 * 1024 * 1024;
    const rlimit memory = {MOST_MEMORY, MOST_MEMORY};
    if (role == Role::MAKER) setrlimit(RLIMIT_DATA, &memory);
#else
    static_cast<void>(role);
#endif
}

// Landlock; kernels from 5.13 on. Returns whether this one has it.
bool limit_files(const Tree &tree, bool f_network)
{
    constexpr uint64_t READ = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
    // All that the first version knows, from EXECUTE to MAKE_SYM.
    constexpr uint64_t ALL = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
    // Which the headers of Debian 12 have no name for.
    constexpr uint64_t TRUNCATE = 1ULL << 14;
    constexpr int VERSION_WITH_TRUNCATE = 3;

    const long version =
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 1) return false;
    landlock_ruleset_attr rules = {};
    rules.handled_access_fs = ALL | (version >= VERSION_WITH_TRUNCATE ? TRUNCATE : 0);
    if (f_network) rules.handled_access_fs &= ~READ;
    const Descriptor set(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &rules, sizeof rules, 0)));
    if (!set.is_open()) return false;
    for (const Root &root : tree.roots()) {
        if (!root.folder.is_open() || f_network) continue;
        landlock_path_beneath_attr rule = {};
        rule.allowed_access = READ;
        rule.parent_fd = root.folder.get();
        syscall(SYS_landlock_add_rule, set.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
    }
    return syscall(SYS_landlock_restrict_self, set.get(), 0) == 0;
}

#if GOLT_HAS_SECCOMP

// Everything else fails with EPERM: a C library that tries something new goes on without it.
void limit_calls(Role role, bool f_network, bool f_files_limited)
{
    if (!g_seccomp.f_found) return;
    scmp_filter_ctx filter = g_seccomp.init(SCMP_ACT_ERRNO(EPERM));
    if (filter == nullptr) return;
    const auto allow = [&](const char *const *names, size_t count) {
        for (size_t i = 0; i < count; ++i)
            g_seccomp.rule_add_array(filter, SCMP_ACT_ALLOW, g_seccomp.resolve_name(names[i]), 0,
                                     nullptr);
    };
    // Where these bits of the argument have this value. On 32-bit x86 all calls for sockets are one, whose
    // arguments no filter can see; the library has negative numbers for them.
    const auto allow_if = [&](const char *name, unsigned argument, uint64_t bits, int value) {
        const int call = g_seccomp.resolve_name(name);
        const scmp_arg_cmp condition = {argument, SCMP_CMP_MASKED_EQ, bits,
                                        static_cast<uint32_t>(value)};
        g_seccomp.rule_add_array(filter, SCMP_ACT_ALLOW, call, call < 0 ? 0 : 1, &condition);
    };
    allow(CALLS, std::size(CALLS));
    if (role == Role::SERVER) allow(SERVER_CALLS, std::size(SERVER_CALLS));
    if (f_network) allow(NETWORK_CALLS, std::size(NETWORK_CALLS));
    // Opening is for reading alone. What openat2 opens for, no filter can see; Landlock does.
    allow_if("openat", 2, O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND, 0);
    const char *const openat2 = "openat2";
    if (f_files_limited) allow(&openat2, 1);
    // Others of its commands have signals sent to any process.
    for (const int command : {F_DUPFD, F_DUPFD_CLOEXEC, F_GETFD, F_SETFD, F_GETFL, F_SETFL}) {
        allow_if("fcntl", 1, INT_BITS, command);
        allow_if("fcntl64", 1, INT_BITS, command);
    }
    allow_if("tgkill", 0, INT_BITS, getpid());
    // Only to the other end: a listening socket that was shut down can be connected by them.
    if (!f_network) allow_if("sendto", 4, UINT64_MAX, 0);
    if (role == Role::SERVER) allow_if("sendmsg", 2, MSG_FASTOPEN, 0);
    if (f_network) {
        for (const int family : {AF_INET, AF_INET6, AF_NETLINK})
            allow_if("socket", 0, INT_BITS, family);
        // Those for datagrams could be sent from, and connected, to sockets of other programs.
        allow_if("socketpair", 1, SOCKET_TYPE_BITS, SOCK_STREAM);
        for (const int request : {FIONBIO, FIONREAD, SIOCGIFINDEX})
            allow_if("ioctl", 1, INT_BITS, request);
    }
    g_seccomp.load(filter);
}

#else

void limit_calls(Role /*role*/, bool /*f_network*/, bool /*f_files_limited*/) {}

#endif

}  // namespace
