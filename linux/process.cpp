#include "linux/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
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

}  // namespace

int prepare_process() {
    if (open_stdio() < 0)
        return -1;
    umask(S_IWGRP | S_IWOTH);
    signal(SIGPIPE, SIG_IGN);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    return sigprocmask(SIG_BLOCK, &child, nullptr);
}
