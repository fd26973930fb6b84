#include "vyrsock/control_client.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include "core/global.h"
#include "core/log.h"
#include "vyrsock/vyr_socket.h"

namespace {

constexpr char kControlPath[] = "/tmp/bird_data_exp.ctl";
constexpr int kConnectWaitSeconds = 1;

/** Closes whatever descriptor the field holds, 0 included. */
void drop_control_socket() {
    close(vyrwrap_global.ctl_sock_fd);
    vyrwrap_global.ctl_sock_fd = 0;
}

/** Bounds what waits to send on a blocking socket; 0 s stands for no bound. */
int set_send_timeout(int fd, int seconds) {
    const timeval timeout = {seconds, 0};
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

/** Connects to a server that may be trusted. Returns 0, or -1 with errno set. */
int connect_to_vyr(int fd) {
    sockaddr_un address;
    const socklen_t length = vyr_socket_address(kControlPath, &address);
    // a listener that never accepts would hold connect for ever once its backlog is full
    if (set_send_timeout(fd, kConnectWaitSeconds) < 0 ||
        connect(fd, reinterpret_cast<const sockaddr *>(&address), length) < 0 || set_send_timeout(fd, 0) < 0)
        return -1;
    return vyr_peer_is_trusted(fd) ? 0 : -1;
}

/** A failure leaves the socket as it is, connected but blocking. Returns 1, or 0 on failure. */
int make_non_blocking(int fd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) {
        log_error("<VYRWRAP>: Error while fcntl get  on vyr read socket");
        return 0;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        log_error("<VYRWRAP>: Error while fcntl set on vyr read socket");
        return 0;
    }
    log_debug("<VYRWRAP>: vyr server connected");
    return 1;
}

/** Waits without limit until the socket takes more; returns early, for another try, when waiting fails. */
void wait_writable(int fd) {
    fd_set writable;
    for (;;) {
        FD_ZERO(&writable);
        FD_SET(fd, &writable);
        if (select(fd + 1, nullptr, &writable, nullptr, nullptr) < 0) {
            if (errno == EINTR)
                continue;
            log_error("<VYRWRAP>: Server wait on select, error: %s", strerror(errno));
            return;
        }
        if (FD_ISSET(fd, &writable))
            return;
    }
}

/** Writes to the end, waiting as long as it takes. Returns 1, or 0 on failure. */
int write_all(int fd, const uint8_t *position, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, position, length);
        if (written >= 0) {
            position += written;
            length -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            log_error("<VYRWRAP>: Failed to write due to %s, to be tried again", strerror(errno));
            wait_writable(fd);
        } else if (errno != EINTR) {
            log_error("<VYRWRAP>: Server write error: %s", strerror(errno));
            return 0;
        }
    }
    return 1;
}

/** The body of a frame whose length, which counts its own 4 bytes, has been read. */
uint32_t read_body(void *buffer, uint32_t frame_length) {
    const uint32_t count = vyrwrap_read_exact(buffer, frame_length - static_cast<uint32_t>(sizeof frame_length));
    log_debug("Succesfully read %d bytes from server", static_cast<int>(frame_length));
    return count;
}

}  // namespace

int vyrwrap_connect_vyr_data_socket() {
    if (vyrwrap_global.ctl_sock_fd != 0) {
        log_warning("<VYRWRAP>: vyr server socket already connected");
        return 1;
    }
    vyrwrap_global.ctl_sock_fd = vyr_open_socket();
    if (vyrwrap_global.ctl_sock_fd < 0) {
        log_error("<VYRWRAP>: Cannot create vyrwrap server socket");
        drop_control_socket();
        return 0;
    }
    const int fd = vyrwrap_global.ctl_sock_fd;
    if (connect_to_vyr(fd) < 0) {
        const int connect_error = errno;
        drop_control_socket();
        log_error("<VYRWRAP>: Unable to connect to server control socket (%s), error: %s", kControlPath,
                  strerror(connect_error));
        drop_control_socket();  // established behaviour: with the field at 0 this closes descriptor 0
        return 0;
    }
    return make_non_blocking(fd);
}

void vyrwrap_close_vyr_data_socket() {
    if (vyrwrap_global.ctl_sock_fd != 0)
        close(vyrwrap_global.ctl_sock_fd);
    vyrwrap_global.ctl_sock_fd = 0;
    log_debug("<VYRWRAP>: vyr server socket is closed");
}

int vyrwrap_send_to_vyr(const void *buffer, size_t length) {
    if (!buffer || length == 0) {
        log_error("Null or empty buffer detected while sending to server");
        return 0;
    }
    if (vyrwrap_global.ctl_sock_fd == 0 && !vyrwrap_connect_vyr_data_socket()) {
        log_error("Connect to  server failed");
        return 0;
    }
    return write_all(vyrwrap_global.ctl_sock_fd, static_cast<const uint8_t *>(buffer), length);
}

uint32_t vyrwrap_read_from_vyr(void *buffer) {
    if (!buffer) {
        log_error("<VYRWRAP>: NULL read buffer");
        return 0;
    }
    if (!vyr_wait_readable(vyrwrap_global.ctl_sock_fd))
        return 0;
    uint32_t frame_length;
    if (!vyrwrap_read_exact(&frame_length, sizeof frame_length))
        return 0;
    if (frame_length < sizeof frame_length) {
        // nobody can tell where the next frame begins
        log_error("<VYRWRAP>: Error undersize message from vyr: %d", static_cast<int>(frame_length));
        vyrwrap_close_vyr_data_socket();
        return 0;
    }
    if (frame_length < kControlBufferSize)
        return read_body(buffer, frame_length);
    log_error("<VYRWRAP>: Error dropping oversize messae from vyr: %d", static_cast<int>(frame_length));
    return 0;
}

uint32_t vyrwrap_read_exact(void *buffer, uint32_t count) {
    auto *bytes = static_cast<uint8_t *>(buffer);
    uint32_t total = 0;
    for (;;) {
        const ssize_t result = read(vyrwrap_global.ctl_sock_fd, bytes + total, count - total);
        if (result > 0) {
            total += static_cast<uint32_t>(result);
            if (total >= count)
                return total;
        } else if (result == 0) {
            log_error("<VYRWRAP>: Connection closed by server while reading");
            vyrwrap_close_vyr_data_socket();
            return 0;
        } else if (errno == EINTR || errno == EAGAIN) {
            log_warning("<VYRWRAP>: Read failed due to %s, will try again", strerror(errno));
        } else {
            log_error("<VYRWRAP>: Server read error: %s", strerror(errno));
            vyrwrap_close_vyr_data_socket();
            return 0;
        }
    }
}
