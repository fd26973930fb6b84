#include "core/supervision.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/child_process.h"
#include "core/global.h"
#include "core/log.h"
#include "vyrsock/control_client.h"

namespace {

/** Exit status of the routing daemon that found no VLAN address in the kernel. */
constexpr int kNoVlanAddress = 100;

[[noreturn]] void run_vyr(pid_t parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)  // it died before it could be watched
        _exit(0);
    // SIGHUP ignored: a reload may come before the routing daemon has its own handler, and must not kill it
    prepare_child_process(SIGHUP);
    char program[] = "/korva/bin/vyr";
    char config_option[] = "-c";
    char config_path[] = "/tmp/vyr.conf";
    char socket_option[] = "-s";
    char socket_path[] = "/tmp/vyr.ctl";
    char *const argv[] = {program, config_option, config_path, socket_option, socket_path, nullptr};
    execvp(program, argv);
    log_error("Error starting VYR: execvp failed - %s", strerror(errno));
    _exit(0);  // the parent's exit handlers are not the child's to run
}

void record_end_of_vyr(int status) {
    vyrwrap_global.vyr_exited = 1;
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNoVlanAddress) {
        vyrwrap_global.vyr_pid = 0;
        if (vyrwrap_log_enabled(LOG_LEVEL_ERROR)) {  // the counter moves with the message only
            vyrwrap_log_emit(LOG_LEVEL_ERROR,
                             "No Vlan IP found in kernel!! Some serious timing in play, try starting vyr again %d",
                             static_cast<int>(vyrwrap_global.vlan_ip_retries));
            vyrwrap_global.vlan_ip_retries++;
        }
        return;
    }
    vyrwrap_close_vyr_data_socket();
    if (WIFSIGNALED(status))
        vyrwrap_global.vyr_term_signal = WTERMSIG(status);
}

}  // namespace

int vyrwrap_start_vyr() {
    fputs(" vyrwrap_start \n", stderr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        log_error("Fork failed while starting VYR\n");
        return -1;
    }
    if (pid == 0)
        run_vyr(parent);
    vyrwrap_global.vyr_pid = pid;
    return 0;
}

void vyrwrap_sigchld_handler(int) {
    const int saved_errno = errno;
    vyrwrap_global.vyr_term_signal = 0;
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)  // one signal may stand for several children
        if (pid == vyrwrap_global.vyr_pid)
            record_end_of_vyr(status);
    errno = saved_errno;
}
