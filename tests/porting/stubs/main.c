/* What a platform owes the daemon before it starts: see platform/dispatcher.h. */
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/daemon.h"

/* Whoever started the process may have closed them: what the daemon opens is not to land there. */
static int open_standard_descriptors(void) {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd < 0)
        return -1;
    close(fd);
    return 0;
}

int main(void) {
    if (open_standard_descriptors() < 0)
        return 1;
    signal(SIGPIPE, SIG_IGN);
    umask(S_IWGRP | S_IWOTH);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, NULL);
    return vyrwrap_main();
}
