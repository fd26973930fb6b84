#include "vyrsock/vyr_socket.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/log.h"

namespace {

constexpr int kReadWaitSeconds = 10;

/** select for reading on one descriptor; one that does not fit a set is refused as an invalid one. */
int select_readable(int fd) {
    if (fd < 0 || fd >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval timeout = {kReadWaitSeconds, 0};
    return select(fd + 1, &readable, nullptr, nullptr, &timeout);
}

}  // namespace

socklen_t vyr_socket_address(const char *path, sockaddr_un *address) {
    static_assert(sizeof *address == 110);
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    const size_t length = strnlen(path, sizeof address->sun_path);
    memcpy(address->sun_path, path, length);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

int vyr_open_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return fd < 0 ? fd : vyr_adopt_socket(fd);
}

int vyr_adopt_socket(int fd) {
    const int moved = move_above_stdio(fd);
    if (moved < FD_SETSIZE)
        return moved;
    close(moved);
    errno = EMFILE;
    return -1;
}

bool vyr_peer_is_trusted(int fd) {
    ucred peer;
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0)
        return false;
    if (peer.uid == 0 || peer.uid == geteuid())
        return true;
    errno = EACCES;
    return false;
}

bool vyr_wait_readable(int fd) {
    const int ready = select_readable(fd);
    if (ready < 0)
        log_error("<VYRWRAP>: Error while waiting to read from vyr: %s", strerror(errno));
    else if (ready == 0)
        log_debug("<VYRWRAP>: Select timeout while waiting to read from vyr");
    return ready > 0;
}
