/*
 * Loaded into the daemon by the fault tests: stops it at a call that they name, and refuses it forks. A limit of its
 * descriptors is over when it ends.
 *
 * They steer it through a file that is mapped on both sides. Other programs, the daemon's children among them, are left
 * alone.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/** As strike.py packs it. */
struct Orders {
    uint32_t stop;        /**< 1: stop at the call below, once */
    uint32_t skip;        /**< after this many calls of that kind */
    uint32_t refuse_fork; /**< 1: each fork fails with EAGAIN */
    uint32_t refused;     /**< forks that failed so far */
    char call[16];
    uint32_t length; /**< of the text */
    char text[108];  /**< what the call's data or path has to contain */
};
static_assert(sizeof(Orders) == 144);

Orders *orders;
pid_t daemon_pid;

bool is_daemon() {
    return orders && getpid() == daemon_pid;
}

void strike(const char *call, const void *data, size_t length) {
    if (!is_daemon() || !orders->stop || strcmp(orders->call, call) != 0 ||
        !memmem(data, length, orders->text, orders->length))
        return;
    if (orders->skip > 0) {
        orders->skip--;
        return;
    }
    orders->stop = 0;
    const int saved_errno = errno;
    kill(daemon_pid, SIGSTOP);
    errno = saved_errno;
}

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

/** The sanitizers look for leaks at the very end, and need descriptors for that. */
void allow_descriptors() {
    struct rlimit limit;
    if (!is_daemon() || getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

__attribute__((constructor)) void begin() {
    unsetenv("LD_PRELOAD");
    const char *path = getenv("STRIKE_FILE");
    const int fd = path ? next<int(const char *, int, ...)>("open")(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0)
        return;
    void *place = mmap(nullptr, sizeof(Orders), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (place == MAP_FAILED)
        return;
    orders = static_cast<Orders *>(place);
    daemon_pid = getpid();
    atexit(allow_descriptors);
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void *data, size_t length) {
    static auto *real = next<ssize_t(int, const void *, size_t)>("write");
    const ssize_t written = real(fd, data, length);
    if (written > 0)
        strike("write", data, static_cast<size_t>(written));
    return written;
}

int rename(const char *from, const char *to) noexcept {
    static auto *real = next<int(const char *, const char *)>("rename");
    const int result = real(from, to);
    strike("rename", to, strlen(to));
    return result;
}

/** The mode is there only where a file may be made: what stands in its place otherwise is not looked at. */
int open_with_mode(const char *path, int flags, mode_t mode) __asm__("open");

int open_with_mode(const char *path, int flags, mode_t mode) {
    static auto *real = next<int(const char *, int, ...)>("open");
    strike("open", path, strlen(path));
    return real(path, flags, mode);
}

pid_t fork() noexcept {
    static auto *real = next<pid_t()>("fork");
    if (!is_daemon() || !orders->refuse_fork)
        return real();
    orders->refused++;
    errno = EAGAIN;
    return -1;
}

}  // extern "C"
