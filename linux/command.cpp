/* Shell commands: one at a time beside the loop, or waited for. */
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/child_process.h"
#include "core/descriptor.h"
#include "linux/dispatcher/loop.h"
#include "linux/platform_log.h"
#include "platform/cmnutil.h"

namespace {

constexpr char kProgramFolder[] = "/korva/bin";
constexpr char kDefaultPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr uint32_t kPollMs = 100;
constexpr size_t kMaxWaiting = 16;

/** The command that runs now. */
struct Running {
    pid_t pid;      /**< 0 when none runs */
    int pid_fd;     /**< readable once it has ended; -1 where the kernel has no such descriptors */
    uint32_t timer; /**< looks for its end in that case */
};

Running running;
char *waiting[kMaxWaiting]; /**< oldest first; each is owned */
size_t waiting_count;

void put_programs_first_in_path() {
    const char *old_path = getenv("PATH");
    char *path = nullptr;
    if (asprintf(&path, "%s:%s", kProgramFolder, old_path && *old_path ? old_path : kDefaultPath) >= 0)
        setenv("PATH", path, 1);
    free(path);
}

pid_t start_shell(const char *command) {
    const pid_t pid = fork();
    if (pid != 0) {
        if (pid < 0)
            platform_error("<COMMAND>: cannot run \"%s\": %s", command, strerror(errno));
        return pid;
    }
    prepare_child_process(0);
    put_programs_first_in_path();
    execl("/bin/sh", "sh", "-c", command, nullptr);
    constexpr int kCannotRun = 127;  // as a shell says it
    _exit(kCannotRun);
}

int open_pid(pid_t pid) {
#ifdef SYS_pidfd_open
    return move_above_stdio(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
#else
    return -1;
#endif
}

/** Looks without reaping: that is the SIGCHLD handler's. */
bool has_ended() {
    if (running.pid_fd >= 0) {
        pollfd end = {running.pid_fd, POLLIN, 0};
        return poll(&end, 1, 0) > 0;
    }
    siginfo_t info = {};
    const int result = waitid(P_PID, static_cast<id_t>(running.pid), &info, WEXITED | WNOHANG | WNOWAIT);
    return result < 0 ? errno == ECHILD : info.si_pid == running.pid;
}

void forget_running() {
    Dispatcher *dispatcher = current_dispatcher();
    if (running.pid_fd >= 0) {
        DispRemoveInput(dispatcher, running.pid_fd, DISP_READ);
        close(running.pid_fd);
    }
    DispRemoveTimerInternal(dispatcher, running.timer, __func__, __LINE__);
    running = {0, -1, 0};
}

/** Starts the oldest one waiting. Returns false when none waits. */
bool start_next() {
    if (waiting_count == 0)
        return false;
    char *command = waiting[0];
    waiting_count--;
    memmove(waiting, waiting + 1, waiting_count * sizeof waiting[0]);
    const pid_t pid = start_shell(command);
    if (pid > 0)
        running = {pid, open_pid(pid), 0};
    free(command);
    return true;
}

int on_end(void *);

void on_poll(void *) {
    on_end(nullptr);
}

/** Has on_end called when the command has ended; repeated calls are harmless. */
void watch_running() {
    Dispatcher *dispatcher = current_dispatcher();
    if (running.pid_fd >= 0 && DispAddInput(dispatcher, running.pid_fd, DISP_READ, on_end, nullptr) == 0)
        return;
    DispRemoveTimerInternal(dispatcher, running.timer, __func__, __LINE__);
    running.timer = DispAddTimerInternal(dispatcher, kPollMs, on_poll, nullptr, 1, 0, __func__, __LINE__);
}

void advance() {
    if (running.pid && has_ended())
        forget_running();
    while (!running.pid && start_next())
        continue;
    if (running.pid)
        watch_running();
}

int on_end(void *) {
    advance();
    return 0;
}

void queue(const char *command) {
    if (waiting_count > 0 && strcmp(waiting[waiting_count - 1], command) == 0)
        return;
    char *copy = strdup(command);
    if (!copy) {
        platform_error("<COMMAND>: cannot run \"%s\": %s", command, strerror(errno));
        return;
    }
    if (waiting_count == kMaxWaiting) {
        // later commands make up for earlier ones, not the other way round
        platform_warning("<COMMAND>: too many commands wait: \"%s\" is left out", waiting[0]);
        free(waiting[0]);
        waiting_count--;
        memmove(waiting, waiting + 1, waiting_count * sizeof waiting[0]);
    }
    waiting[waiting_count++] = copy;
}

int wait_for(pid_t pid) {
    int status;
    pid_t waited;
    do
        waited = waitpid(pid, &status, 0);
    while (waited < 0 && errno == EINTR);
    return waited == pid ? status : -1;
}

}  // namespace

void execute_command(const char *command) {
    if (!command)
        return;
    queue(command);
    advance();
}

int execute_command_status(const char *command) {
    if (!command)
        return -1;
    // a SIGCHLD handler let through meanwhile would reap the child in its place
    sigset_t child;
    sigset_t before;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, &before);
    const pid_t pid = start_shell(command);
    const int status = pid > 0 ? wait_for(pid) : -1;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return status;
}
