/* Calls of the C library on their way from the daemon's code: counted, and made to fail where a test says so. */
#include <errno.h>
#include <stdarg.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "fakes/fakes.h"
#include "fakes/internal.h"

namespace fake {

std::function<bool(long *)> on_fork;
std::function<bool(int, int, int *)> on_kill;

namespace {

struct Plan {
    int skip;
    int times;
    int error;
};

enum Call {
    CALL_MALLOC,
    CALL_CALLOC,
    CALL_REALLOC,
    CALL_FORK,
    CALL_EXECVP,
    CALL_SOCKET,
    CALL_FCNTL,
    CALL_BIND,
    CALL_CONNECT,
    CALL_LISTEN,
    CALL_ACCEPT,
    CALL_SELECT,
    CALL_READ,
    CALL_WRITE,
    CALL_SENDTO,
    CALL_KILL,
    CALL_RENAME,
    CALL_COUNT
};

constexpr const char *kNames[CALL_COUNT] = {"malloc", "calloc", "realloc", "fork",   "execvp", "socket",
                                            "fcntl",  "bind",   "connect", "listen", "accept", "select",
                                            "read",   "write",  "sendto",  "kill",   "rename"};

// Plain arrays: the wrappers of malloc must not allocate.
Plan plans[CALL_COUNT];
int counts[CALL_COUNT];

int index_of(const std::string &call) {
    for (int i = 0; i < CALL_COUNT; i++)
        if (call == kNames[i])
            return i;
    ADD_FAILURE() << "no such call: " << call;
    return 0;
}

/** Counts a call. Returns whether it shall fail, with errno set. */
bool fails(Call call) {
    counts[call]++;
    Plan &plan = plans[call];
    if (plan.times == 0)
        return false;
    if (plan.skip > 0) {
        plan.skip--;
        return false;
    }
    plan.times--;
    errno = plan.error;
    return true;
}

}  // namespace

void fail_call(const std::string &call, int error, int skip, int times) {
    plans[index_of(call)] = {skip, times, error};
}

int call_count(const std::string &call) {
    return counts[index_of(call)];
}

void reset_calls() {
    for (Plan &plan : plans)
        plan = {};
    for (int &count : counts)
        count = 0;
    on_fork = nullptr;
    on_kill = nullptr;
}

}  // namespace fake

using namespace fake;

extern "C" {

// The linker sends each NAME of the daemon's here and gives the C library's as __real_NAME.
#define WRAP(call, result_type, failure, name, parameters, arguments) \
    result_type __real_##name parameters;                             \
    result_type __wrap_##name parameters;                             \
    result_type __wrap_##name parameters {                            \
        return fails(call) ? failure : __real_##name arguments;       \
    }

WRAP(CALL_MALLOC, void *, nullptr, malloc, (size_t size), (size))
WRAP(CALL_CALLOC, void *, nullptr, calloc, (size_t count, size_t size), (count, size))
WRAP(CALL_REALLOC, void *, nullptr, realloc, (void *old, size_t size), (old, size))
WRAP(CALL_EXECVP, int, -1, execvp, (const char *file, char *const argv[]), (file, argv))
WRAP(CALL_SOCKET, int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(CALL_BIND, int, -1, bind, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
WRAP(CALL_CONNECT, int, -1, connect, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
WRAP(CALL_LISTEN, int, -1, listen, (int fd, int backlog), (fd, backlog))
WRAP(CALL_ACCEPT, int, -1, accept, (int fd, sockaddr *address, socklen_t *length), (fd, address, length))
WRAP(CALL_SELECT, int, -1, select, (int n, fd_set *r, fd_set *w, fd_set *e, timeval *timeout), (n, r, w, e, timeout))
WRAP(CALL_READ, ssize_t, -1, read, (int fd, void *buffer, size_t size), (fd, buffer, size))
WRAP(CALL_WRITE, ssize_t, -1, write, (int fd, const void *buffer, size_t size), (fd, buffer, size))
WRAP(CALL_SENDTO, ssize_t, -1, sendto,
     (int fd, const void *buffer, size_t size, int flags, const sockaddr *address, socklen_t length),
     (fd, buffer, size, flags, address, length))
WRAP(CALL_RENAME, int, -1, rename, (const char *from, const char *to), (from, to))

pid_t __real_fork(void);
pid_t __wrap_fork(void);
pid_t __wrap_fork(void) {
    if (fails(CALL_FORK))
        return -1;
    long result = 0;
    if (on_fork && on_fork(&result))
        return static_cast<pid_t>(result);
    return __real_fork();
}

int __real_kill(pid_t pid, int signal_number);
int __wrap_kill(pid_t pid, int signal_number);
int __wrap_kill(pid_t pid, int signal_number) {
    if (fails(CALL_KILL))
        return -1;
    int result = 0;
    if (on_kill && on_kill(pid, signal_number, &result))
        return result;
    return __real_kill(pid, signal_number);
}

int __real_fcntl(int fd, int command, long argument);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    return fails(CALL_FCNTL) ? -1 : __real_fcntl(fd, command, argument);
}

}  // extern "C"
