#include "linux/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "linux/memory.h"
#include "linux/notices.h"

namespace {

/** The lowest free number is the one that open returns, so opening goes on until it is above them all. */
int open_stdio() {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd < 0)
        return -1;
    close(fd);
    return 0;
}

/**
 * A stack grows when it is used, and where memory is short just then the process is killed. So the part that an event
 * of the routing daemon needs, 1 MiB, is made its own at once; no memory stands behind it before it is used.
 */
__attribute__((noinline)) void reserve_stack() {
    constexpr size_t kRoom = size_t{1280} * 1024;
    rlimit most;
    if (getrlimit(RLIMIT_STACK, &most) < 0 || most.rlim_cur < 2 * kRoom)
        return;
    char room[kRoom];
    room[0] = 0;
    __asm__ volatile("" : : "r"(room) : "memory");  // or the compiler would leave it out
}

/** Whoever started the process may have left descriptors open: they are not for its children. */
void keep_inherited_descriptors_to_us() {
#ifdef SYS_close_range
    constexpr unsigned kCloseOnExec = 1U << 2;  // in kernels from 5.11 on; older headers do not name it
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, kCloseOnExec);
#endif
}

}  // namespace

int prepare_process() {
    choose_memory_kept();
    reserve_stack();
    if (open_stdio() < 0)
        return -1;
    keep_inherited_descriptors_to_us();
    notices_take_environment();
    umask(S_IWGRP | S_IWOTH);
    signal(SIGPIPE, SIG_IGN);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    return sigprocmask(SIG_BLOCK, &child, nullptr);
}
