/* Takes the place of alarm(), the first call of a maker that begins a job, and tries there what somebody who has taken
   over the process would try. Says what isn't refused. */

#define _GNU_SOURCE

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

static void say(const char *text)
{
    if (write(STDERR_FILENO, text, strlen(text)) < 0) _exit(1);
}

static void expect_refusal(const char *what, long result)
{
    char text[80];
    if (result < 0 && (errno == EPERM || errno == EACCES)) return;
    snprintf(text, sizeof text, "not refused: %s\n", what);
    say(text);
}

/* On 32-bit x86 the calls for sockets are one, whose arguments no filter sees. */
#ifndef __i386__
static void try_sockets(void)
{
    struct sockaddr_un other = {.sun_family = AF_UNIX, .sun_path = "none"};
    int ends[2];

    expect_refusal("make a socket", socket(AF_UNIX, SOCK_STREAM, 0));
    expect_refusal("make a pair for datagrams", socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
    /* To look up names takes it. */
    if (socket(AF_INET, SOCK_STREAM, 0) < 0)
        expect_refusal("send to another socket",
                       sendto(STDIN_FILENO, "", 0, 0, (struct sockaddr *)&other, sizeof other));
    /* Which could be sent or connected to those of other programs. */
    for (int fd = 0; fd < 64; ++fd) {
        int type = 0;
        socklen_t size = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_DGRAM)
            say("not refused: use a socket for datagrams\n");
    }
}
#endif

unsigned alarm(unsigned seconds)
{
    const struct open_how writing = {.flags = O_RDWR};
    (void)seconds;
    expect_refusal("open a file for writing",
                   syscall(SYS_openat2, AT_FDCWD, "secret", &writing, sizeof writing));
    expect_refusal("signal another process", syscall(SYS_tgkill, getppid(), getppid(), 0));
    expect_refusal("have it signalled", fcntl(STDIN_FILENO, F_SETOWN, getppid()));
    expect_refusal("command a device", ioctl(STDIN_FILENO, FIOCLEX));
#ifndef __i386__
    try_sockets();
#endif
    say("tried\n");
    return 0;
}
