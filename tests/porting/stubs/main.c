/* What a platform owes the daemon before it starts: see platform/dispatcher.h. */
#include <signal.h>
#include <sys/stat.h>

#include "platform/daemon.h"

int main(void) {
    signal(SIGPIPE, SIG_IGN);
    umask(S_IWGRP | S_IWOTH);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, NULL);
    return vyrwrap_main();
}
