#include "core/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/**
 * The first real-time signals are the C library's own, and it lets nobody set them; yet whoever started this process
 * may have ignored them. So the kernel is asked itself: all zero is the default disposition in its struct sigaction.
 */
void reset_in_kernel(int number) {
    constexpr unsigned char kDefault[64] = {};
    constexpr size_t kKernelSetSize = 8;  // bytes of the kernel's sigset_t
    syscall(SYS_rt_sigaction, number, kDefault, nullptr, kKernelSetSize);
}

void reset_signals(int ignored_signal) {
    for (int number = 1; number < NSIG; number++)
        if (signal(number, number == ignored_signal ? SIG_IGN : SIG_DFL) == SIG_ERR)
            reset_in_kernel(number);
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
