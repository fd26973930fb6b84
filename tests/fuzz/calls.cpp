/* Memory, sockets and processes, behind the C library's calls. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/global.h"
#include "tests/fuzz/platform.h"

extern "C" {

#define REAL_AND_WRAPPED(result_type, name, ...) \
    result_type __real_##name(__VA_ARGS__);      \
    result_type __wrap_##name(__VA_ARGS__)

REAL_AND_WRAPPED(void *, malloc, size_t size);
REAL_AND_WRAPPED(void *, calloc, size_t count, size_t size);
REAL_AND_WRAPPED(void *, realloc, void *old, size_t size);
REAL_AND_WRAPPED(char *, strdup, const char *text);
REAL_AND_WRAPPED(void, free, void *memory);
REAL_AND_WRAPPED(int, socket, int domain, int type, int protocol);
REAL_AND_WRAPPED(int, bind, int fd, const sockaddr *address, socklen_t length);
REAL_AND_WRAPPED(int, listen, int fd, int backlog);
REAL_AND_WRAPPED(int, connect, int fd, const sockaddr *address, socklen_t length);
REAL_AND_WRAPPED(int, accept, int fd, sockaddr *address, socklen_t *length);
REAL_AND_WRAPPED(int, getsockopt, int fd, int level, int option, void *value, socklen_t *length);
REAL_AND_WRAPPED(int, setsockopt, int fd, int level, int option, const void *value, socklen_t length);
REAL_AND_WRAPPED(int, fcntl, int fd, int command, ...);
REAL_AND_WRAPPED(int, select, int n, fd_set *readable, fd_set *writable, fd_set *except, timeval *timeout);
REAL_AND_WRAPPED(int, poll, pollfd *fds, nfds_t count, int timeout);
REAL_AND_WRAPPED(ssize_t, read, int fd, void *buffer, size_t size);
REAL_AND_WRAPPED(ssize_t, write, int fd, const void *buffer, size_t size);
REAL_AND_WRAPPED(ssize_t, sendto, int fd, const void *buffer, size_t size, int flags, const sockaddr *address,
                 socklen_t length);
REAL_AND_WRAPPED(int, close, int fd);
REAL_AND_WRAPPED(pid_t, fork, void);
REAL_AND_WRAPPED(int, kill, pid_t pid, int number);
REAL_AND_WRAPPED(pid_t, waitpid, pid_t pid, int *status, int options);
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
typedef void (*SignalHandler)(int);
REAL_AND_WRAPPED(SignalHandler, signal, int number, SignalHandler handler);
}

namespace fuzz {

ssize_t (*on_read)(int fd, void *buffer, size_t size);
ssize_t (*on_write)(int fd, const void *buffer, size_t size);
short (*on_poll)(int fd, short events);
void (*on_connect)(int fd, const sockaddr *address);
int select_result;
bool connect_fails;
bool accept_fails;
void (*on_datagram)(const uint8_t *bytes, size_t size);
unsigned datagram_count;
bool sendto_fails;
int next_pid;
Ended ended[4];
unsigned ended_count;
int last_signal;

namespace {

constexpr int kFirstSocket = 600;
constexpr int kSocketMax = 16;
constexpr size_t kAllocationMax = 65536;

/** An allocation that is not freed. */
struct Live {
    void *memory;
    size_t size;
};

bool sockets[kSocketMax];
Live live[kAllocationMax];
size_t live_count;
int until_failure;
jmp_buf exit_to;
bool exit_armed;
int exit_status;

/**
 * The buffer of an export, kept: to map and unmap a mebibyte takes longer than all the rest of an execution. No input
 * is as long as the part of it that is cleared.
 */
constexpr size_t kBigSize = 1 << 20;
constexpr size_t kBigTouched = 1 << 14;
void *big;
bool big_in_use;

void *take_big() {
    big_in_use = true;
    if (!big)
        return big = __real_calloc(1, kBigSize);
    unpoison(big, kBigTouched);
    return memset(big, 0, kBigTouched);
}

void release_any(const Live &released) {
    if (is_of_arena(released.memory))
        return poison(released.memory, released.size);
    if (!released.memory || released.memory != big)
        return __real_free(released.memory);
    HOLDS(big_in_use);
    big_in_use = false;
    poison(big, kBigTouched);
}

bool is_socket(int fd) {
    return fd >= kFirstSocket && fd < kFirstSocket + kSocketMax;
}

/** The latest allocations are freed first, mostly. */
size_t index_of(const void *memory) {
    size_t i = live_count;
    while (i > 0 && live[i - 1].memory != memory)
        i--;
    return i;
}

bool allocation_fails() {
    if (!inside || until_failure < 0)
        return false;
    if (until_failure-- > 0)
        return false;
    errno = ENOMEM;
    return true;
}

void *note(void *memory, size_t size) {
    if (inside && memory) {
        HOLDS(live_count < kAllocationMax);
        live[live_count++] = {memory, size};
    }
    return memory;
}

/** Takes an allocation off the list; others than the daemon's code free what is not there. */
Live forget(void *memory) {
    const size_t i = index_of(memory);
    HOLDS(i > 0 || !is_of_arena(memory));
    if (i == 0)
        return {memory, 0};
    const Live forgotten = live[i - 1];
    live[i - 1] = live[--live_count];
    return forgotten;
}

/** Memory that reads as what nobody has written. */
void *take(size_t size) {
    constexpr int kUnwritten = 0xbe;
    void *memory = inside ? take_from_arena(size) : nullptr;
    return memory ? memset(memory, kUnwritten, size) : __real_malloc(size);
}

void *take_cleared(size_t count, size_t size) {
    if (inside && count * size == kBigSize && !big_in_use)
        return take_big();
    void *memory = inside && count <= kBigSize && size <= kBigSize ? take_from_arena(count * size) : nullptr;
    return memory ? memset(memory, 0, count * size) : __real_calloc(count, size);
}

}  // namespace

void begin_calls() {
    for (bool &each : sockets)
        each = false;
    live_count = 0;
    until_failure = -1;
    on_read = nullptr;
    on_write = nullptr;
    on_poll = nullptr;
    on_connect = nullptr;
    select_result = 1;
    connect_fails = false;
    accept_fails = false;
    on_datagram = nullptr;
    datagram_count = 0;
    sendto_fails = false;
    next_pid = 4242;
    ended_count = 0;
    last_signal = 0;
}

void *allocate(size_t size) {
    void *memory = __real_malloc(size);
    HOLDS(memory);
    return memory;
}

void release(void *memory) {
    __real_free(memory);
}

size_t allocations() {
    return live_count;
}

void fail_allocation(int skip) {
    until_failure = skip;
}

void free_allocations() {
    while (live_count > 0)
        release_any(live[--live_count]);
}

int open_socket() {
    for (int i = 0; i < kSocketMax; i++)
        if (!sockets[i]) {
            sockets[i] = true;
            return kFirstSocket + i;
        }
    broken("a socket is free", __FILE__, __LINE__);
}

bool is_open_socket(int fd) {
    return is_socket(fd) && sockets[fd - kFirstSocket];
}

unsigned descriptors_open() {
    unsigned count = files_open();
    for (const bool open : sockets)
        count += open;
    return count;
}

void close_given_up_sockets() {
    for (int i = 0; i < kSocketMax; i++) {
        const int fd = kFirstSocket + i;
        if (fd != vyrwrap_global.app_sock_fd && fd != vyrwrap_global.ctl_sock_fd &&
            fd != vyrwrap_global.event_listen_fd && fd != vyrwrap_global.event_conn_fd)
            sockets[i] = false;
    }
}

int run_until_exit(void (*action)()) {
    exit_armed = true;
    exit_status = -1;
    if (setjmp(exit_to) == 0)
        action();
    exit_armed = false;
    return exit_status;
}

}  // namespace fuzz

using namespace fuzz;

void *__wrap_malloc(size_t size) {
    return allocation_fails() ? nullptr : note(take(size), size);
}

void *__wrap_calloc(size_t count, size_t size) {
    return allocation_fails() ? nullptr : note(take_cleared(count, size), count * size);
}

void *__wrap_realloc(void *old, size_t size) {
    if (allocation_fails())
        return nullptr;
    if (!inside)
        return __real_realloc(old, size);
    if (!old)
        return note(take(size), size);
    const Live before = forget(old);
    if (!is_of_arena(old))
        return note(__real_realloc(old, size), size);
    void *memory = note(take(size), size);
    memcpy(memory, old, before.size < size ? before.size : size);
    release_any(before);
    return memory;
}

char *__wrap_strdup(const char *text) {
    const size_t size = strlen(text) + 1;
    auto *copy = static_cast<char *>(__wrap_malloc(size));
    if (copy)
        memcpy(copy, text, size);
    return copy;
}

void __wrap_free(void *memory) {
    if (memory)
        release_any(forget(memory));
}

int __wrap_socket(int domain, int type, int protocol) {
    if (!inside)
        return __real_socket(domain, type, protocol);
    HOLDS(type & SOCK_CLOEXEC);
    return open_socket();
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t length) {
    return inside ? 0 : __real_bind(fd, address, length);
}

int __wrap_listen(int fd, int backlog) {
    return inside ? 0 : __real_listen(fd, backlog);
}

int __wrap_connect(int fd, const sockaddr *address, socklen_t length) {
    if (!inside)
        return __real_connect(fd, address, length);
    HOLDS(is_open_socket(fd));
    if (on_connect)
        on_connect(fd, address);
    errno = ECONNREFUSED;
    return connect_fails ? -1 : 0;
}

int __wrap_accept(int fd, sockaddr *address, socklen_t *length) {
    if (!inside)
        return __real_accept(fd, address, length);
    HOLDS(is_open_socket(fd));
    errno = EMFILE;
    return accept_fails ? -1 : open_socket();
}

int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *length) {
    if (!inside)
        return __real_getsockopt(fd, level, option, value, length);
    HOLDS(is_open_socket(fd) && option == SO_PEERCRED);
    *static_cast<ucred *>(value) = {};
    return 0;
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t length) {
    if (!inside)
        return __real_setsockopt(fd, level, option, value, length);
    HOLDS(is_open_socket(fd));
    return 0;
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    return inside && (is_socket(fd) || is_open_file(fd)) ? 0 : __real_fcntl(fd, command, argument);
}

int __wrap_select(int n, fd_set *readable, fd_set *writable, fd_set *except, timeval *timeout) {
    if (!inside)
        return __real_select(n, readable, writable, except, timeout);
    HOLDS(is_open_socket(n - 1));
    errno = EBADF;
    return select_result;
}

int __wrap_poll(pollfd *fds, nfds_t count, int timeout) {
    if (!inside)
        return __real_poll(fds, count, timeout);
    int ready = 0;
    for (nfds_t i = 0; i < count; i++) {
        HOLDS(!is_socket(fds[i].fd) || is_open_socket(fds[i].fd));
        fds[i].revents = on_poll ? on_poll(fds[i].fd, fds[i].events) : fds[i].events;
        ready += fds[i].revents != 0;
    }
    return ready;
}

ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    if (!inside || !is_socket(fd))
        return __real_read(fd, buffer, size);
    HOLDS(is_open_socket(fd));
    return on_read ? on_read(fd, buffer, size) : 0;
}

ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    if (!inside || (real_files && !is_socket(fd))) {
        errno = ENOSPC;
        return inside && (failing_file_calls & FAIL_WRITE) ? -1 : __real_write(fd, buffer, size);
    }
    if (!is_socket(fd) && fd != STDERR_FILENO)
        return write_to_file(fd, buffer, size);
    HOLDS(fd == STDERR_FILENO || is_open_socket(fd));
    return on_write ? on_write(fd, buffer, size) : static_cast<ssize_t>(size);
}

ssize_t __wrap_sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address, socklen_t length) {
    if (!inside)
        return __real_sendto(fd, buffer, size, flags, address, length);
    HOLDS(is_open_socket(fd) && fd == vyrwrap_global.app_sock_fd);
    errno = EAGAIN;
    if (sendto_fails)
        return -1;
    datagram_count++;
    if (on_datagram)
        on_datagram(static_cast<const uint8_t *>(buffer), size);
    return static_cast<ssize_t>(size);
}

int __wrap_close(int fd) {
    if (!inside)
        return __real_close(fd);
    if (is_socket(fd)) {
        HOLDS(sockets[fd - kFirstSocket]);
        sockets[fd - kFirstSocket] = false;
        return 0;
    }
    if (close_file(fd))
        return 0;
    // a failed connect closes descriptor 0 as well, as established
    HOLDS(fd <= 0 || real_files);
    return fd > 2 ? __real_close(fd) : 0;
}

pid_t __wrap_fork(void) {
    if (!inside)
        return __real_fork();
    errno = EAGAIN;
    return next_pid;
}

int __wrap_kill(pid_t pid, int number) {
    if (!inside)
        return __real_kill(pid, number);
    HOLDS(pid > 0);
    last_signal = number;
    return 0;
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    if (!inside)
        return __real_waitpid(pid, status, options);
    if (ended_count == 0)
        return 0;
    const Ended first = ended[0];
    ended_count--;
    memmove(&ended[0], &ended[1], ended_count * sizeof ended[0]);
    *status = first.status;
    return first.pid;
}

SignalHandler __wrap_signal(int number, SignalHandler handler) {
    return inside ? nullptr : __real_signal(number, handler);
}

void __wrap_exit(int status) {
    if (!inside)
        __real_exit(status);
    HOLDS(exit_armed);
    exit_status = status;
    longjmp(exit_to, 1);
}
