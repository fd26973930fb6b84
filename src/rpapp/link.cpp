#include "rpapp/link.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/global.h"
#include "core/log.h"
#include "platform/dispatcher.h"

namespace {

constexpr char kOwnPath[] = "/tmp/.sock/RoutingProtocols_VYRWRAP.sock";
constexpr char kRoutingAppPath[] = "/tmp/.sock/RoutingProtocols_APP_CMN.sock";
constexpr size_t kReceiveMax = 1024;

static_assert(sizeof(sockaddr_un) == 110, "the length of the routing application's address");
static_assert(kReceiveMax >= sizeof(RoutingAppMsg));

template <size_t Size>
sockaddr_un address_of(const char (&path)[Size]) {
    sockaddr_un address{};
    static_assert(Size <= sizeof address.sun_path);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, Size);
    return address;
}

/**
 * A replay is one datagram of up to 69,600 bytes, and single records queue up behind a slow reader. Where the system
 * grants no more, its default stays.
 */
void enlarge_send_buffer(int fd) {
    const int size = INT_MAX / 2;  // the system doubles it
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

int bind_own_address(int fd) {
    const sockaddr_un address = address_of(kOwnPath);
    unlink(kOwnPath);
    // The family and the path, without its terminating NUL.
    const socklen_t length = offsetof(sockaddr_un, sun_path) + sizeof kOwnPath - 1;
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), length);
}

}  // namespace

int vyrwrap_app_socket_connect() {
    const int fd = move_above_stdio(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd < 0) {
        log_error("<VYRWRAP>:%s: Invalid fd %d for socket %s - errno: %d(%s)", __func__, fd, kOwnPath, errno,
                  strerror(errno));
        return fd;
    }
    if (fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        log_error("<VYRWRAP>:%s : Failed to set socket options for fd %d and socket %s", __func__, fd, kOwnPath);
        close(fd);
        log_error(
            "<VYRWRAP>:%s : Closed Unix socket %s with FD %d to RP_APP due to failure while setting socket "
            "options",
            __func__, kOwnPath, fd);
        return -1;
    }
    enlarge_send_buffer(fd);
    if (bind_own_address(fd) < 0) {
        log_error("<VYRWRAP>:%s : Bind failed for fd %d and socket %s - errno: %d (%s)", __func__, fd, kOwnPath, errno,
                  strerror(errno));
        close(fd);
        log_error("<VYRWRAP>:%s : Closed socket %s with FD %d to RP_APP due to bind failure", __func__, kOwnPath, fd);
        return -1;
    }
    DispAddInput(vyrwrap_global.dispatcher, fd, DISP_READ, vyrwrap_app_server_read_msg, nullptr);
    log_info("<VYRWRAP>:%s : Socket %s created with FD %d", __func__, kOwnPath, fd);
    return fd;
}

ssize_t vyrwrap_send_to_routing_app(const void *buffer, size_t length) {
    if (!buffer || length == 0)
        return -1;
    const sockaddr_un address = address_of(kRoutingAppPath);
    // The whole address structure, unlike in the bind above: the other end's name is padded with NULs.
    const ssize_t sent = sendto(vyrwrap_global.app_sock_fd, buffer, length, 0,
                                reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (sent < 0)
        log_error("<VYRWRAP>:%s : Send to Routing APP(fd:%d) failed. rc: %d errno: %d (%s)", __func__,
                  vyrwrap_global.app_sock_fd, static_cast<int>(sent), errno, strerror(errno));
    return sent;
}

int vyrwrap_app_server_read_msg(void *) {
    uint8_t buffer[kReceiveMax] = {};
    const ssize_t length = read(vyrwrap_global.app_sock_fd, buffer, sizeof buffer);
    if (length < 0) {
        log_error("<VYRWRAP>:%s : Error rx datagram packet on fd %d - errno: %d (%s)", __func__,
                  vyrwrap_global.app_sock_fd, errno, strerror(errno));
        return -1;
    }
    RoutingAppMsg msg;
    memcpy(&msg, buffer, sizeof msg);
    log_info("<VYRWRAP>:%s : Message type received:%d", __func__, msg.msgType);
    vyrwrap_process_vyrapp_message(&msg);
    return 0;
}
