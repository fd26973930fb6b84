#include "linux/process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <malloc.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

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
 * An export takes two blocks of up to 1 MiB. Given back to the system after each one, they come page by page the next
 * time, which takes longer than the export itself.
 */
void keep_freed_memory() {
    constexpr int kMostKept = 4 * 1024 * 1024;
    mallopt(M_MMAP_THRESHOLD, kMostKept);
    mallopt(M_TRIM_THRESHOLD, kMostKept);
}

/** Whoever started the process may have left descriptors open: they are not for its children. */
void keep_inherited_descriptors_to_us() {
#ifdef SYS_close_range
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);  // not in kernels before 5.11
#endif
}

}  // namespace

int prepare_process() {
    keep_freed_memory();
    if (open_stdio() < 0)
        return -1;
    keep_inherited_descriptors_to_us();
    umask(S_IWGRP | S_IWOTH);
    signal(SIGPIPE, SIG_IGN);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    return sigprocmask(SIG_BLOCK, &child, nullptr);
}
