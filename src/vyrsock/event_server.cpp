#include "vyrsock/event_server.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/global.h"
#include "core/log.h"
#include "event/route_limit.h"
#include "vyrsock/response.h"
#include "vyrsock/vyr_socket.h"

namespace {

constexpr char kEventPath[] = "/tmp/bird_event_exp.ctl";
constexpr int kBacklog = 10;
constexpr size_t kEventBufferSize = 1048576;
constexpr uint32_t kRouteLimitType = 73; /**< message type of a route-limit event */

void watch(int fd, DispInputHandler handler) {
    if (fd > 0)
        DispAddInput(vyrwrap_global.dispatcher, fd, DISP_READ, handler, nullptr);
}

void unwatch(int fd) {
    if (fd > 0)
        DispRemoveInput(vyrwrap_global.dispatcher, fd, DISP_READ);
}

/** The loop reads the connection; until it ends, a second peer waits without waking the loop over and over. */
void serve_connection() {
    unwatch(vyrwrap_global.event_listen_fd);
    watch(vyrwrap_global.event_conn_fd, vyrwrap_event_read_cb);
}

int close_listening_socket() {
    close(vyrwrap_global.event_listen_fd);
    vyrwrap_global.event_listen_fd = 0;
    return 0;
}

int bind_to_path(int fd) {
    sockaddr_un address;
    const socklen_t length = vyr_socket_address(kEventPath, &address);
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), length);
}

}  // namespace

int vyrwrap_event_server_init() {
    if (vyrwrap_global.event_listen_fd != 0) {
        log_warning("<VYRWRAP>: vyr server socket already connected");
        return 1;
    }
    unlink(kEventPath);
    const int fd = vyr_open_socket();
    if (fd < 0) {
        log_error("<VYRWRAP>: Cannot create vyrwrap server socket");
        vyrwrap_global.event_listen_fd = 0;
        return 0;
    }
    vyrwrap_global.event_listen_fd = fd;
    if (fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        log_error("<VYRWRAP>: Cannot create vyrwrap server socket");
        return close_listening_socket();
    }
    if (const int result = bind_to_path(fd); result < 0) {
        log_error("<VYRWRAP>: Cannot Bind vyrwrap server socket. rc = %d error = %d [%s]", result, errno,
                  strerror(errno));
        return close_listening_socket();
    }
    if (listen(fd, kBacklog) != 0) {
        log_error("<VYRWRAP>: Cannot listen on vyrwrap server socket. Might as well close the socket.");
        return close_listening_socket();
    }
    watch(fd, vyrwrap_event_accept_cb);
    return 1;
}

int vyrwrap_event_accept_cb(void *) {
    VyrwrapGlobal &global = vyrwrap_global;
    if (global.event_conn_fd != 0) {
        serve_connection();
        return 1;
    }
    const int fd = accept(global.event_listen_fd, nullptr, nullptr);
    global.event_conn_fd = fd < 0 ? fd : vyr_adopt_socket(fd);
    if (global.event_conn_fd < 0) {
        log_error("<VYRWRAP>: Cannot Accept vyrwrap server socket");
        unwatch(global.event_listen_fd);  // the peer that waits would be reported ready for ever
        global.event_listen_fd = 0;
        return 0;
    }
    if (!vyr_peer_is_trusted(global.event_conn_fd)) {
        log_error("<VYRWRAP>: Refused a peer on vyrwrap server socket: %s", strerror(errno));
        close(global.event_conn_fd);
        global.event_conn_fd = 0;
        return 1;
    }
    log_debug("<VYRWRAP>: vyr server connected");
    serve_connection();
    return 1;
}

int vyrwrap_event_read_cb(void *) {
    uint8_t buffer[kEventBufferSize];
    const uint32_t length = vyrwrap_read_vyr_event(buffer);
    log_debug("<VYRWRAP> : buffer RECIEVED from VYR of length = %d", static_cast<int>(length));
    vyrwrap_handle_vyr_event(buffer, length);
    return 1;
}

uint32_t vyrwrap_read_vyr_event(void *buffer) {
    if (!buffer) {
        log_error("<VYRWRAP>: NULL read buffer");
        return 0;
    }
    if (!vyr_wait_readable(vyrwrap_global.event_conn_fd))
        return 0;
    for (;;) {
        const ssize_t count = read(vyrwrap_global.event_conn_fd, buffer, kEventBufferSize);
        if (count > 0) {
            log_debug("Succesfully read from server - Buffer size: %d", static_cast<int>(count));
            return static_cast<uint32_t>(count);
        }
        if (count < 0 && errno == EINTR) {
            log_error("<VYRWRAP>: Read failed due to %s, to be tried again", strerror(errno));
            continue;
        }
        if (count == 0)
            log_error("<VYRWRAP>: Connection closed by server while reading");
        else
            log_error("<VYRWRAP>: Server read error: %s", strerror(errno));
        vyrwrap_close_vyr_event_socket();
        return 0;
    }
}

void vyrwrap_close_vyr_event_socket() {
    unwatch(vyrwrap_global.event_conn_fd);
    close(vyrwrap_global.event_conn_fd);
    vyrwrap_global.event_conn_fd = 0;
    log_debug("<VYRWRAP>: vyr event socket is closed");
    watch(vyrwrap_global.event_listen_fd, vyrwrap_event_accept_cb);
}

void vyrwrap_handle_vyr_event(const uint8_t *buffer, uint32_t length) {
    vyrwrap_prepare_event();
    if (!buffer)
        return;
    const OwnedResponse response = unpack_response(buffer, length);
    if (!response) {
        log_error("<VYRWRAP>: Error in unpacking protobuf response");
        return;
    }
    if (response->type != kRouteLimitType || !response->limit)
        return;
    const RouteLimitEvent &limit = *response->limit;
    log_warning(
        "<VYRWRAP>: Received Route Limit Event from VYR: %u Route Count: %u Max Route Limit: %u. Sending Route Limit "
        "event.",
        limit.event, limit.route_count, limit.max_routes);
    vyrwrap_publish_route_limit(limit.event, limit.route_count, limit.max_routes);
}
