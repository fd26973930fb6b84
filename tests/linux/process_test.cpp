#include "linux/process.h"

#include <errno.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support.h"

namespace {

/** Runs `check` in a child, which leaves the test's own process as it is. Returns whether all of it held. */
bool holds_in_child(const std::function<bool()> &check) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(check() ? 0 : 1);
    int status;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool is_dev_null(int fd) {
    struct stat status;
    struct stat expected;
    return fstat(fd, &status) == 0 && stat("/dev/null", &expected) == 0 && status.st_rdev == expected.st_rdev;
}

/** Whether the stack has a page in use as deep as an event's buffer or deeper. An emulator maps all of it at once. */
bool stack_reaches_an_event() {
    constexpr size_t kEvent = size_t{1024} * 1024;
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *here = static_cast<char *>(__builtin_frame_address(0));
    here -= reinterpret_cast<uintptr_t>(here) % page;
    for (size_t depth = kEvent; depth < 2 * kEvent; depth += page) {
        unsigned char resident = 0;
        if (mincore(here - depth, page, &resident) == 0 && (resident & 1))
            return true;
    }
    return false;
}

TEST(Process, HasTheStackOfAnEventBeforeItIsUsed) {
    EXPECT_TRUE(
        holds_in_child([] { return !stack_reaches_an_event() && prepare_process() == 0 && stack_reaches_an_event(); }));
}

TEST(Process, HasDevNullWhereAStandardDescriptorWasClosed) {
    for (int closed = 1; closed < 8; closed++)  // every subset of 0, 1 and 2
        EXPECT_TRUE(holds_in_child([closed] {
            struct stat before[3];
            for (int fd = 0; fd <= 2; fd++) {
                fstat(fd, &before[fd]);
                if (closed & 1 << fd)
                    close(fd);
            }
            if (prepare_process() < 0)
                return false;
            for (int fd = 0; fd <= 2; fd++) {
                struct stat now;
                if (fstat(fd, &now) < 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC))
                    return false;
                if (closed & 1 << fd ? !is_dev_null(fd) : now.st_ino != before[fd].st_ino)
                    return false;
            }
            return true;
        })) << closed;
}

TEST(Process, OpensNothingElse) {
    EXPECT_TRUE(holds_in_child([] {
        const int before = dup(1);
        close(before);
        const bool prepared = prepare_process() == 0;
        const int after = dup(1);
        return prepared && after == before;
    }));
}

TEST(Process, KeepsInheritedDescriptorsFromItsChildren) {
    EXPECT_TRUE(holds_in_child([] {
        const int inherited = dup(1);
        return prepare_process() == 0 && fcntl(inherited, F_GETFD) == FD_CLOEXEC;
    }));
}

TEST(Process, TakesAPeerThatWentAwayAsAnErrorReturn) {
    EXPECT_TRUE(holds_in_child([] {
        support::Pipe pipe;
        pipe.close_reader();
        return prepare_process() == 0 && write(pipe.writer, "x", 1) == -1 && errno == EPIPE;
    }));
}

TEST(Process, MakesFilesThatOthersMayReadOnly) {
    EXPECT_TRUE(holds_in_child([] { return (umask(0), prepare_process()) == 0 && umask(0) == 022; }));
}

TEST(Process, BlocksSigchldAndNothingElse) {
    EXPECT_TRUE(holds_in_child([] {
        sigset_t mask;
        if (prepare_process() < 0 || sigprocmask(SIG_BLOCK, nullptr, &mask) < 0)
            return false;
        for (int number = 1; number < 32; number++)
            if (sigismember(&mask, number) != (number == SIGCHLD))
                return false;
        return true;
    }));
}

}  // namespace
