#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lab/vyr/bird.h"

namespace vyr {

namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

/** A peer that hangs may let connections wait. */
int connect_to(const std::string &path, Clock::time_point deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return -1;
    memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int left = std::max(ms_left(deadline), 1);  // none at all would stand for no limit
    const timeval patience = {left / 1000, suseconds_t{left % 1000} * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/** A reply ends with a line of four digits and a blank; in the lines before it the digits are followed by a dash. */
bool ends_reply(const std::string &line) {
    return line.size() >= 5 && line[4] == ' ' &&
           std::all_of(line.begin(), line.begin() + 4, [](unsigned char c) { return std::isdigit(c) != 0; });
}

/** Reads to the end of one reply. */
std::optional<std::string> read_reply(int fd, Clock::time_point deadline) {
    std::string reply;
    size_t line_begin = 0;
    for (;;) {
        const size_t line_end = reply.find('\n', line_begin);
        if (line_end != std::string::npos) {
            const std::string line = reply.substr(line_begin, line_end - line_begin);
            if (ends_reply(line))
                return reply;
            line_begin = line_end + 1;
            continue;
        }
        const int left = ms_left(deadline);
        pollfd input{fd, POLLIN, 0};
        if (left == 0 || (poll(&input, 1, left) < 0 && errno != EINTR))
            return std::nullopt;
        char buffer[4096];
        const ssize_t count = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0)
            reply.append(buffer, static_cast<size_t>(count));
        else if (count == 0 || (errno != EAGAIN && errno != EINTR))
            return std::nullopt;
    }
}

}  // namespace

void await_end_of_other_bird(const std::string &control_socket, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    bool told = false;
    int fd = -1;
    while (ms_left(deadline) > 0 && (fd = connect_to(control_socket, deadline)) >= 0) {
        if (!told)
            fprintf(stderr, "vyr: another BIRD answers on %s: waiting for its end\n", control_socket.c_str());
        told = true;
        pollfd end{fd, 0, 0};  // a connection whose other end has gone is reported without being asked for
        poll(&end, 1, ms_left(deadline));
        close(fd);
    }
}

std::optional<std::string> ask_bird(const std::string &control_socket, const std::string &command,
                                    std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    const int fd = connect_to(control_socket, deadline);
    if (fd < 0)
        return std::nullopt;
    std::optional<std::string> reply = read_reply(fd, deadline);  // the greeting
    const std::string line = command + "\n";
    if (reply) {
        const bool sent = send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
        reply = sent ? read_reply(fd, deadline) : std::nullopt;
    }
    close(fd);
    return reply;
}

}  // namespace vyr
