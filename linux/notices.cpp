#include "linux/notices.h"

#include <ctype.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <initializer_list>

#include "core/descriptor.h"
#include "linux/platform_log.h"

namespace {

struct Manager {
    sockaddr_un where;
    socklen_t length; /**< 0: there is no manager to tell */
    uint64_t alive_interval_us;
    bool is_ready; /**< said already */
    bool failed;   /**< said in the log already */
};

Manager manager;

/** A whole decimal number above 0; 0 for anything else. */
uint64_t parse_number(const char *text) {
    if (!text || !isdigit(static_cast<unsigned char>(*text)))
        return 0;
    char *end;
    errno = 0;
    const uint64_t number = strtoull(text, &end, 10);
    return *end || errno ? 0 : number;
}

void take_address(const char *text) {
    const size_t length = strlen(text);
    if ((text[0] != '/' && text[0] != '@') || length < 2 || length >= sizeof manager.where.sun_path) {
        platform_warning("<PROCESS>: NOTIFY_SOCKET \"%s\" is neither /path nor @name: no notices", text);
        return;
    }
    manager.where.sun_family = AF_UNIX;
    memcpy(manager.where.sun_path, text, length);
    if (text[0] == '@')
        manager.where.sun_path[0] = '\0';
    manager.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

void take_interval(const char *interval, const char *pid) {
    const bool is_ours = !pid || parse_number(pid) == static_cast<uint64_t>(getpid());
    // twice as often as asked for, so that one that comes late is no harm
    manager.alive_interval_us = is_ours ? parse_number(interval) / 2 : 0;
}

/** Waits a moment where the manager does not keep up: a notice lost may cost the process its life. */
bool send_notice(int fd, const char *text) {
    const timeval patience = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    ssize_t sent;
    do
        sent = sendto(fd, text, strlen(text), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&manager.where),
                      manager.length);
    while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

void tell(const char *text) {
    if (manager.length == 0)
        return;
    const int fd = move_above_stdio(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool sent = fd >= 0 && send_notice(fd, text);
    if (!sent && !manager.failed)
        platform_warning("<PROCESS>: cannot tell the service manager \"%s\": %s", text, strerror(errno));
    manager.failed = !sent;
    if (fd >= 0)
        close(fd);
}

}  // namespace

void notices_take_environment() {
    manager = {};
    if (const char *address = getenv("NOTIFY_SOCKET"); address && *address)
        take_address(address);
    if (manager.length > 0)
        take_interval(getenv("WATCHDOG_USEC"), getenv("WATCHDOG_PID"));
    for (const char *variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        unsetenv(variable);
}

uint64_t notices_alive_interval_us() {
    return manager.alive_interval_us;
}

void notices_ready() {
    if (!manager.is_ready)
        tell("READY=1");
    manager.is_ready = true;
}

void notices_alive() {
    tell("WATCHDOG=1");
}

void notices_stopping() {
    tell("STOPPING=1");
}
