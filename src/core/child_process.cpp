#include "core/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace {

void reset_signals(int ignored_signal) {
    for (int number = 1; number < NSIG; number++)
        signal(number, number == ignored_signal ? SIG_IGN : SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void keep_stdio_open() {
    for (int fd = 0; fd <= 2; fd++) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC))
            continue;
        const int null_fd = open("/dev/null", O_RDWR);
        if (null_fd != fd && null_fd >= 0) {
            dup2(null_fd, fd);
            close(null_fd);
        }
    }
}

}  // namespace

void prepare_child_process(int ignored_signal) {
    reset_signals(ignored_signal);
    keep_stdio_open();
}
