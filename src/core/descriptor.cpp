#include "core/descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

void close_keeping_errno(int fd) {
    const int saved_errno = errno;
    close(fd);
    errno = saved_errno;
}

}  // namespace

int move_above_stdio(int fd) {
    if (fd < 0)
        return fd;
    if (fd > STDERR_FILENO) {
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) == 0)
            return fd;
        close_keeping_errno(fd);
        return -1;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close_keeping_errno(fd);
    return moved;
}
