#include "linux/dal/address.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr char kUnixScheme[] = "unix://";
constexpr char kTcpScheme[] = "tcp://";
constexpr char kDefaultSocket[] = "/run/redis/redis-server.sock";
constexpr char kDefaultUnix[] = "unix:///run/redis/redis-server.sock";
constexpr char kDefaultTcp[] = "tcp://127.0.0.1:6379";

bool starts_with(const char *text, const char *start) {
    return strncmp(text, start, strlen(start)) == 0;
}

/** Copies `length` bytes; a text that is empty or does not fit is refused. */
bool copy_part(char *to, size_t size, const char *from, size_t length) {
    if (length == 0 || length >= size)
        return false;
    memcpy(to, from, length);
    to[length] = '\0';
    return true;
}

bool parse_port(const char *text, Address *address) {
    const size_t length = strlen(text);
    if (strspn(text, "0123456789") != length || !copy_part(address->port, sizeof address->port, text, length))
        return false;
    const long port = strtol(text, nullptr, 10);
    return port >= 1 && port <= 65535;
}

/** host:port, or [host]:port where the host has colons of its own */
bool parse_host_and_port(const char *text, Address *address) {
    const bool bracketed = text[0] == '[';
    const char *host = bracketed ? text + 1 : text;
    const char *end = strchr(host, bracketed ? ']' : ':');
    if (!end || !copy_part(address->host, sizeof address->host, host, static_cast<size_t>(end - host)))
        return false;
    const char *colon = bracketed ? end + 1 : end;
    return *colon == ':' && parse_port(colon + 1, address);
}

void set_option(int fd, int level, int option, int value) {
    setsockopt(fd, level, option, &value, sizeof value);
}

/**
 * Without delay, as a publication would wait for the one before. And a peer that lost its power or its cable says
 * nothing: after 15 s of silence it is asked, every 5 s, and given up when it has not answered for 30 s, nor taken what
 * was sent.
 */
void set_tcp_options(int fd) {
    constexpr int kIdleSeconds = 15;
    constexpr int kIntervalSeconds = 5;
    constexpr int kProbes = 3;
    constexpr int kGiveUpMs = (kIdleSeconds + kProbes * kIntervalSeconds) * 1000;
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, kIntervalSeconds);
    set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kGiveUpMs);
}

int begin(int family, const sockaddr *where, socklen_t length) {
    const int fd = move_above_stdio(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd < 0)
        return -1;
    if (family != AF_UNIX)
        set_tcp_options(fd);
    if (connect(fd, where, length) == 0 || errno == EINPROGRESS)
        return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

int connect_unix(const Address *address, const char **reason) {
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    memcpy(where.sun_path, address->path, sizeof where.sun_path);
    const int fd = begin(AF_UNIX, reinterpret_cast<const sockaddr *>(&where), sizeof where);
    if (fd < 0)
        *reason = strerror(errno);
    return fd;
}

/** Looks the host up, the first time only that this succeeds. */
bool look_up(Address *address, const char **reason) {
    if (address->found_count > 0)
        return true;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    const int error = getaddrinfo(address->host, address->port, &hints, &list);
    if (error != 0) {
        *reason = gai_strerror(error);
        return false;
    }
    for (const addrinfo *each = list; each && address->found_count < kMostFound; each = each->ai_next) {
        FoundAddress *found = &address->found[address->found_count];
        if (each->ai_addrlen > sizeof found->where)
            continue;
        memcpy(&found->where, each->ai_addr, each->ai_addrlen);
        found->length = each->ai_addrlen;
        address->found_count++;
    }
    freeaddrinfo(list);
    *reason = "the host has no address that can be used";
    return address->found_count > 0;
}

int connect_tcp(Address *address, const char **reason) {
    if (!look_up(address, reason))
        return -1;
    const unsigned first = address->attempts++;
    int fd = -1;
    for (unsigned tried = 0; fd < 0 && tried < address->found_count; tried++) {
        const FoundAddress *found = &address->found[(first + tried) % address->found_count];
        const auto *where = reinterpret_cast<const sockaddr *>(&found->where);
        fd = begin(where->sa_family, where, found->length);
    }
    if (fd < 0)
        *reason = strerror(errno);
    return fd;
}

}  // namespace

bool address_parse(const char *text, Address *address) {
    *address = {};
    if (!copy_part(address->text, sizeof address->text, text, strlen(text)))
        return false;
    if (starts_with(text, kTcpScheme))
        return parse_host_and_port(text + strlen(kTcpScheme), address);
    if (!starts_with(text, kUnixScheme))
        return false;
    const char *path = text + strlen(kUnixScheme);
    return path[0] == '/' && copy_part(address->path, sizeof address->path, path, strlen(path));
}

bool address_choose(const char *given, Address *address) {
    const char *source = "given";
    const char *text = given;
    if (!text) {
        source = "DAL_URL";
        text = getenv("DAL_URL");
    }
    if (!text || text[0] == '\0') {
        source = "default";
        text = access(kDefaultSocket, F_OK) == 0 ? kDefaultUnix : kDefaultTcp;
    }
    if (!address_parse(text, address)) {
        platform_error("<DAL>: the address '%s' (%s) is neither unix:///path nor tcp://host:port", text, source);
        return false;
    }
    // At warning level, which is where the daemon's own level starts: the line is to be found in every log.
    platform_warning("<DAL>: the server is %s (%s)", address->text, source);
    return true;
}

int address_connect(Address *address, const char **reason) {
    return address->host[0] ? connect_tcp(address, reason) : connect_unix(address, reason);
}

}  // namespace dal
