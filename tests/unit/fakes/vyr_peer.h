/*
 * The routing daemon at the other end of a socket, scripted by a test in its own thread.
 *
 * Nothing here goes through the calls that a test makes fail or counts, but for making the sockets.
 */
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fakes/fakes.h"
#include "platform/vyrpb.h"

namespace fake {

inline sockaddr_un unix_address(const char *path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    return address;
}

/** Listens at a path, whatever stood there. */
inline int listen_at(const char *path, int backlog = 10) {
    unlink(path);
    const sockaddr_un address = unix_address(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    EXPECT_EQ(listen(fd, backlog), 0);
    return fd;
}

inline bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

/** The number that the next descriptor gets: the same before and after what leaks none. */
inline int next_descriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

/** Descriptor 0 is open, and what it is comes back with the end of the object's life. */
class KeepDescriptorZero {
public:
    KeepDescriptorZero() : saved_(saved_copy()) {}
    KeepDescriptorZero(const KeepDescriptorZero &) = delete;
    KeepDescriptorZero &operator=(const KeepDescriptorZero &) = delete;
    ~KeepDescriptorZero() {
        dup2(saved_, 0);
        close(saved_);
    }

private:
    static int saved_copy() {
        if (!is_open(0)) {
            EXPECT_EQ(open("/dev/null", O_RDWR), 0);
        }
        return dup(0);
    }
    int saved_;
};

/** One end of a connection, closed with the object. */
class Peer {
public:
    explicit Peer(int fd = -1) : fd_(fd) {}
    Peer(Peer &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Peer &operator=(Peer &&other) noexcept {
        close_now();
        fd_ = other.fd_;
        other.fd_ = -1;
        return *this;
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    ~Peer() { close_now(); }

    /** The next connection that waits at a listening socket. */
    static Peer accepted(int listener) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(fd, 0) << strerror(errno);
        return Peer(fd);
    }

    static Peer connected(const char *path) {
        const sockaddr_un address = unix_address(path);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << strerror(errno);
        return Peer(fd);
    }

    /** Sends as much as fits at once; returns its length. */
    size_t send_some(std::string_view bytes) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return sent < 0 ? 0 : static_cast<size_t>(sent);
    }

    void send(std::string_view bytes) { EXPECT_EQ(send_some(bytes), bytes.size()); }

    /** Everything that has come. */
    std::string receive() {
        std::string bytes;
        char block[65536];
        ssize_t count;
        while ((count = recv(fd_, block, sizeof block, MSG_DONTWAIT)) > 0)
            bytes.append(block, static_cast<size_t>(count));
        return bytes;
    }

    /** Whether the other end has closed. Takes a byte when there is one. */
    bool is_closed_by_other() {
        char byte;
        return recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
    }

    void close_now() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

/** A body with its length before it, as the data-export socket carries it. */
inline std::string frame(const std::string &body) {
    const auto length = static_cast<uint32_t>(body.size() + 4);
    return std::string(reinterpret_cast<const char *>(&length), sizeof length) + body;
}

inline std::string packed(const ProtoRespMsg &message) {
    std::string bytes(proto_resp_msg__get_packed_size(&message), '\0');
    proto_resp_msg__pack(&message, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

/** An answer to a request. */
inline std::string answer(int32_t result, const std::string &data) {
    ProtoRespMsg message = PROTO_RESP_MSG__INIT;
    message.has_result = 1;
    message.result = result;
    std::string copy = data;
    message.has_data = 1;
    message.data = {copy.size(), reinterpret_cast<uint8_t *>(copy.data())};
    return packed(message);
}

/** A report of the routing daemon, type 73 being the route limit's. */
inline std::string report(uint32_t type, uint32_t event, uint32_t route_count, uint32_t max_routes) {
    RouteLimitEvent limit = ROUTE_LIMIT_EVENT__INIT;
    limit.has_event = limit.has_route_count = limit.has_max_routes = 1;
    limit.event = event;
    limit.route_count = route_count;
    limit.max_routes = max_routes;
    ProtoRespMsg message = PROTO_RESP_MSG__INIT;
    message.has_type = 1;
    message.type = type;
    message.limit = &limit;
    return packed(message);
}

}  // namespace fake
