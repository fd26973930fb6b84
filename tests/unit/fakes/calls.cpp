/* Calls of the C library on their way from the daemon's code: counted, and made to fail where a test says so. */
#include <errno.h>
#include <stdarg.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "fakes/allocations.h"
#include "fakes/fakes.h"
#include "fakes/internal.h"

namespace fake {

unsigned address_length;

std::function<bool(long *)> on_fork;
std::function<bool(int, int, int *)> on_kill;
std::function<bool(long *)> on_sendto;
long sendto_address_length = -1;
std::function<bool(fd_set *, fd_set *, timeval *, int *)> on_select;
long peer_uid = -1;
long effective_uid = -1;

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
    CALL_GETSOCKOPT,
    CALL_SETSOCKOPT,
    CALL_FTRUNCATE,
    CALL_COUNT
};

constexpr const char *kNames[CALL_COUNT] = {
    "malloc", "calloc", "realloc", "fork",  "execvp", "socket", "fcntl",  "bind",       "connect",    "listen",
    "accept", "select", "read",    "write", "sendto", "kill",   "rename", "getsockopt", "setsockopt", "ftruncate"};

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

long allocation_count;
long failing_allocation;
long failing_step;
long failed_allocations;
int own_allocations;

/** The same for what fail_allocation has said. */
bool allocation_fails() {
    if (own_allocations > 0 || ++allocation_count != failing_allocation)
        return false;
    failing_allocation += failing_step;
    failed_allocations++;
    errno = ENOMEM;
    return true;
}

}  // namespace

void fail_allocation(long number, long step) {
    allocation_count = 0;
    failed_allocations = 0;
    failing_allocation = number;
    failing_step = step;
}

long allocations() {
    return allocation_count;
}

long allocations_failed() {
    return failed_allocations;
}

OwnAllocations::OwnAllocations() {
    own_allocations++;
}

OwnAllocations::~OwnAllocations() {
    own_allocations--;
}

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
    on_sendto = nullptr;
    sendto_address_length = -1;
    on_select = nullptr;
    peer_uid = -1;
    effective_uid = -1;
}

}  // namespace fake

using namespace fake;

extern "C" {

void *__real_realloc(void *old, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *old, size_t size);

void *__wrap_malloc(size_t size) {
    return fails(CALL_MALLOC) || allocation_fails() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    return fails(CALL_CALLOC) || allocation_fails() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *old, size_t size) {
    return fails(CALL_REALLOC) || allocation_fails() ? nullptr : __real_realloc(old, size);
}

// The linker sends each NAME of the daemon's here and gives the C library's as __real_NAME.
#define WRAP(call, result_type, failure, name, parameters, arguments) \
    result_type __real_##name parameters;                             \
    result_type __wrap_##name parameters;                             \
    result_type __wrap_##name parameters {                            \
        return fails(call) ? failure : __real_##name arguments;       \
    }

WRAP(CALL_SOCKET, int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(CALL_BIND, int, -1, bind, (int fd, const sockaddr *address, socklen_t length),
     (fd, address, (address_length = length)))
WRAP(CALL_CONNECT, int, -1, connect, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
WRAP(CALL_LISTEN, int, -1, listen, (int fd, int backlog), (fd, backlog))
WRAP(CALL_ACCEPT, int, -1, accept, (int fd, sockaddr *address, socklen_t *length), (fd, address, length))
WRAP(CALL_READ, ssize_t, -1, read, (int fd, void *buffer, size_t size), (fd, buffer, size))
WRAP(CALL_WRITE, ssize_t, -1, write, (int fd, const void *buffer, size_t size), (fd, buffer, size))
WRAP(CALL_RENAME, int, -1, rename, (const char *from, const char *to), (from, to))

WRAP(CALL_SETSOCKOPT, int, -1, setsockopt, (int fd, int level, int option, const void *value, socklen_t length),
     (fd, level, option, value, length))
WRAP(CALL_FTRUNCATE, int, -1, ftruncate, (int fd, off_t length), (fd, length))

// There in a build that measures coverage: behind exec and _exit, what a child has executed would be lost.
__attribute__((weak)) void __gcov_dump(void);
__attribute__((weak)) void __gcov_reset(void);

static void save_coverage() {
    if (!__gcov_dump)
        return;
    __gcov_dump();
    __gcov_reset();
}

int __real_execvp(const char *file, char *const argv[]);
int __wrap_execvp(const char *file, char *const argv[]);
int __wrap_execvp(const char *file, char *const argv[]) {
    save_coverage();
    return fails(CALL_EXECVP) ? -1 : __real_execvp(file, argv);
}

[[noreturn]] void __wrap__exit(int status);
void __wrap__exit(int status) {
    save_coverage();
    __real__exit(status);
}

ssize_t __real_sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address, socklen_t length);
ssize_t __wrap_sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address, socklen_t length);
ssize_t __wrap_sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address, socklen_t length) {
    sendto_address_length = static_cast<long>(length);
    if (fails(CALL_SENDTO))
        return -1;
    long result = 0;
    if (on_sendto && on_sendto(&result))
        return result;
    return __real_sendto(fd, buffer, size, flags, address, length);
}

int __real_select(int n, fd_set *readable, fd_set *writable, fd_set *except, timeval *timeout);
int __wrap_select(int n, fd_set *readable, fd_set *writable, fd_set *except, timeval *timeout);
int __wrap_select(int n, fd_set *readable, fd_set *writable, fd_set *except, timeval *timeout) {
    if (fails(CALL_SELECT))
        return -1;
    int result = 0;
    if (on_select && on_select(readable, writable, timeout, &result))
        return result;
    return __real_select(n, readable, writable, except, timeout);
}

uid_t __real_geteuid(void);
uid_t __wrap_geteuid(void);
uid_t __wrap_geteuid(void) {
    return effective_uid >= 0 ? static_cast<uid_t>(effective_uid) : __real_geteuid();
}

int __real_getsockopt(int fd, int level, int option, void *value, socklen_t *length);
int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *length);
int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *length) {
    if (fails(CALL_GETSOCKOPT))
        return -1;
    const int result = __real_getsockopt(fd, level, option, value, length);
    if (result == 0 && level == SOL_SOCKET && option == SO_PEERCRED && peer_uid >= 0)
        static_cast<ucred *>(value)->uid = static_cast<uid_t>(peer_uid);
    return result;
}

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
