#include "core/supervision.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "fakes/fakes.h"

namespace {

constexpr char kProgram[] = "/korva/bin/vyr";
constexpr char kReport[] = "/tmp/vyr_report";

class SupervisionTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        unlink(kProgram);
        unlink(kReport);
    }

    /** A routing daemon that runs a shell script. */
    static void install_vyr(const std::string &script) { install_program("#!/bin/sh\n" + script); }

    static void install_program(const std::string &content) {
        fake::write_file(kProgram, content);
        chmod(kProgram, 0755);
    }

    /** Starts the routing daemon, waits for its end (leaving it to be reaped) and runs the handler. */
    static void run_vyr_to_its_end() {
        ASSERT_EQ(vyrwrap_start_vyr(), 0);
        await_end(vyrwrap_global.vyr_pid);
        vyrwrap_sigchld_handler(SIGCHLD);
    }

    static void await_end(pid_t pid) {
        siginfo_t info;
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }

    static pid_t start_other_child() {
        const pid_t pid = fork();
        if (pid == 0)
            _exit(3);
        await_end(pid);
        return pid;
    }
};

TEST_F(SupervisionTest, StartsTheRoutingDaemonWithItsArgumentsInItsOwnGroup) {
    install_vyr("echo \"$0 $* $$ $(cut -d ' ' -f 5 /proc/$$/stat)\" > /tmp/vyr_report\n");
    testing::internal::CaptureStderr();
    ASSERT_EQ(vyrwrap_start_vyr(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), " vyrwrap_start \n");
    const std::string pid = std::to_string(vyrwrap_global.vyr_pid);
    await_end(vyrwrap_global.vyr_pid);
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(fake::read_file(kReport), "/korva/bin/vyr -c /tmp/vyr.conf -s /tmp/vyr.ctl " + pid + " " + pid + "\n");
}

TEST_F(SupervisionTest, StartsItWithDefaultDispositionsButSighupIgnored) {
    install_vyr("grep ^SigIgn /proc/self/status > /tmp/vyr_report\n");
    const auto old_pipe = signal(SIGPIPE, SIG_IGN);
    const auto old_hup = signal(SIGHUP, SIG_DFL);
    run_vyr_to_its_end();
    signal(SIGPIPE, old_pipe);
    signal(SIGHUP, old_hup);
    EXPECT_EQ(fake::read_file(kReport), "SigIgn:\t0000000000000001\n");
}

TEST_F(SupervisionTest, StartsItWithAnEmptyMask) {
    // no shell script: the shell would empty the mask itself
    install_program(
        "#!/usr/bin/perl\n"
        "open(my $in, '<', '/proc/self/status'); open(my $out, '>', '/tmp/vyr_report');\n"
        "print $out grep { /^SigBlk/ } <$in>;\n");
    sigset_t some, before;
    sigemptyset(&some);
    sigaddset(&some, SIGCHLD);
    sigaddset(&some, SIGUSR1);
    sigprocmask(SIG_BLOCK, &some, &before);
    run_vyr_to_its_end();
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(fake::read_file(kReport), "SigBlk:\t0000000000000000\n");
}

TEST_F(SupervisionTest, GivesItDevNullInPlaceOfAClosedStandardDescriptor) {
    install_vyr("readlink /proc/$$/fd/0 > /tmp/vyr_report\n");
    const int saved = dup(0);
    close(0);
    ASSERT_EQ(vyrwrap_start_vyr(), 0);
    dup2(saved, 0);
    close(saved);
    await_end(vyrwrap_global.vyr_pid);
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(fake::read_file(kReport), "/dev/null\n");
}

TEST_F(SupervisionTest, GivesItDevNullToReadAndWriteInPlaceOfAllThree) {
    install_vyr(
        "found=$(for fd in 0 1 2; do readlink /proc/$$/fd/$fd; grep flags /proc/$$/fdinfo/$fd; done)\n"
        "echo \"$found\" > /tmp/vyr_report\n");
    const pid_t middle = fork();
    if (middle == 0) {
        for (int fd = 0; fd <= 2; fd++)
            close(fd);
        vyrwrap_start_vyr();
        waitpid(vyrwrap_global.vyr_pid, nullptr, 0);
        _exit(0);
    }
    waitpid(middle, nullptr, 0);
    const std::string read_and_write = "/dev/null\nflags:\t0100002\n";
    EXPECT_EQ(fake::read_file(kReport), read_and_write + read_and_write + read_and_write);
}

TEST_F(SupervisionTest, LeavesItOpenStandardDescriptors) {
    install_vyr("found=$(readlink /proc/$$/fd/1); echo \"$found\" > /tmp/vyr_report\n");
    const int saved = dup(1);
    const int other = open("/tmp/vyr_output", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(dup2(other, 1), 1);
    const int started = vyrwrap_start_vyr();
    dup2(saved, 1);
    close(saved);
    close(other);
    ASSERT_EQ(started, 0);
    await_end(vyrwrap_global.vyr_pid);
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(fake::read_file(kReport), "/tmp/vyr_output\n");
}

TEST_F(SupervisionTest, GivesItDevNullInPlaceOfAStandardDescriptorThatExecCloses) {
    install_vyr("readlink /proc/$$/fd/0 > /tmp/vyr_report\n");
    const int saved = dup(0);
    close(0);
    ASSERT_EQ(open("/etc/passwd", O_RDONLY | O_CLOEXEC), 0);
    ASSERT_EQ(vyrwrap_start_vyr(), 0);
    dup2(saved, 0);
    close(saved);
    await_end(vyrwrap_global.vyr_pid);
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(fake::read_file(kReport), "/dev/null\n");
}

TEST_F(SupervisionTest, DiesWithItsParent) {
    // The middle process starts the routing daemon and is killed; the routing daemon, adopted by nobody, must go too.
    install_vyr("echo $$ > /tmp/vyr_report; exec sleep 600\n");
    const pid_t middle = fork();
    if (middle == 0) {
        vyrwrap_start_vyr();
        pause();
    }
    std::string pid;
    while (pid.empty() || pid == "(no file)" || pid.back() != '\n') {
        usleep(1000);
        pid = fake::read_file(kReport);
    }
    kill(middle, SIGKILL);
    waitpid(middle, nullptr, 0);
    const std::string status_path = "/proc/" + pid.substr(0, pid.size() - 1) + "/stat";
    for (;;) {  // gone, or a zombie that the sandbox's init has not reaped yet
        const std::string stat = fake::read_file(status_path);
        if (stat == "(no file)" || stat.find(") Z ") != std::string::npos)
            break;
        usleep(1000);
    }
}

TEST_F(SupervisionTest, AFailedForkIsLoggedAndLeavesNoPid) {
    fake::fail_call("fork", EAGAIN);
    EXPECT_EQ(vyrwrap_start_vyr(), -1);
    EXPECT_EQ(vyrwrap_global.vyr_pid, 0);
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{"Fork failed while starting VYR\n"});
}

TEST_F(SupervisionTest, AChildWhoseExecFailedLogsItAndEndsWithStatus0WithoutExitHandlers) {
    const pid_t middle = fork();
    if (middle == 0) {
        atexit([] { fake::write_file(kReport, "exit handlers ran"); });
        fake::on_log = [](const fake::LogLine &line) { fake::write_file("/tmp/exec_log", line.text); };
        vyrwrap_start_vyr();
        int status = 0;
        waitpid(vyrwrap_global.vyr_pid, &status, 0);
        _exit(WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(middle, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(fake::read_file("/tmp/exec_log"), "Error starting VYR: execvp failed - No such file or directory");
    EXPECT_EQ(fake::read_file(kReport), "(no file)");
}

TEST_F(SupervisionTest, Status100ClearsThePidAndCountsWithTheMessage) {
    install_vyr("exit 100\n");
    vyrwrap_global.ctl_sock_fd = open("/dev/null", O_RDONLY);
    run_vyr_to_its_end();
    EXPECT_EQ(vyrwrap_global.vyr_exited, 1);
    EXPECT_EQ(vyrwrap_global.vyr_pid, 0);
    EXPECT_EQ(vyrwrap_global.vyr_term_signal, 0);
    EXPECT_EQ(vyrwrap_global.vlan_ip_retries, 1U);
    EXPECT_NE(vyrwrap_global.ctl_sock_fd, 0);
    run_vyr_to_its_end();
    EXPECT_EQ(vyrwrap_global.vlan_ip_retries, 2U);
    EXPECT_EQ(fake::log_texts(3),
              (std::vector<std::string>{
                  "No Vlan IP found in kernel!! Some serious timing in play, try starting vyr again 0",
                  "No Vlan IP found in kernel!! Some serious timing in play, try starting vyr again 1"}));
    close(vyrwrap_global.ctl_sock_fd);
}

TEST_F(SupervisionTest, Status100IsNotCountedWhileErrorsAreNotLogged) {
    install_vyr("exit 100\n");
    fake::set_log_level(2);
    run_vyr_to_its_end();
    EXPECT_EQ(vyrwrap_global.vyr_exited, 1);
    EXPECT_EQ(vyrwrap_global.vyr_pid, 0);
    EXPECT_EQ(vyrwrap_global.vlan_ip_retries, 0U);
}

TEST_F(SupervisionTest, AnyOtherStatusKeepsThePidAndClosesTheControlSocket) {
    for (const char *script : {"exit 0\n", "exit 1\n", "exit 99\n", "exit 101\n"}) {
        install_vyr(script);
        vyrwrap_global = {};
        vyrwrap_global.ctl_sock_fd = open("/dev/null", O_RDONLY);
        fake::log_lines.clear();
        run_vyr_to_its_end();
        EXPECT_EQ(vyrwrap_global.vyr_exited, 1) << script;
        EXPECT_GT(vyrwrap_global.vyr_pid, 0) << script;
        EXPECT_EQ(vyrwrap_global.vyr_term_signal, 0) << script;
        EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0) << script;
        EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr server socket is closed")) << script;
    }
}

TEST_F(SupervisionTest, AKillingSignalIsRecorded) {
    install_vyr("kill -SEGV $$\n");
    run_vyr_to_its_end();
    EXPECT_EQ(vyrwrap_global.vyr_exited, 1);
    EXPECT_GT(vyrwrap_global.vyr_pid, 0);
    EXPECT_EQ(vyrwrap_global.vyr_term_signal, SIGSEGV);
}

TEST_F(SupervisionTest, AnotherChildOnlyResetsTheSignalNumber) {
    vyrwrap_global.vyr_pid = 1;
    vyrwrap_global.vyr_term_signal = 11;
    start_other_child();
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(vyrwrap_global.vyr_term_signal, 0);
    EXPECT_EQ(vyrwrap_global.vyr_exited, 0);
    EXPECT_EQ(vyrwrap_global.vyr_pid, 1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(SupervisionTest, ReapsEveryChildThatHasEndedInOneRun) {
    install_vyr("kill -TERM $$\n");
    const pid_t first = start_other_child();
    ASSERT_EQ(vyrwrap_start_vyr(), 0);
    await_end(vyrwrap_global.vyr_pid);
    const pid_t last = start_other_child();
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(vyrwrap_global.vyr_term_signal, SIGTERM);
    for (pid_t pid : {first, vyrwrap_global.vyr_pid, last})
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "still a zombie";
}

TEST_F(SupervisionTest, WithoutChildrenNothingIsTakenForTheRoutingDaemon) {
    // waitpid gives -1 and 0 here: neither may be compared with vyr_pid
    vyrwrap_global.vyr_pid = 0;
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(vyrwrap_global.vyr_exited, 0);
    install_vyr("exec sleep 600\n");
    ASSERT_EQ(vyrwrap_start_vyr(), 0);
    const pid_t running = vyrwrap_global.vyr_pid;
    vyrwrap_global.vyr_pid = 0;
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(vyrwrap_global.vyr_exited, 0);
    kill(running, SIGKILL);
    waitpid(running, nullptr, 0);
}

TEST_F(SupervisionTest, TheHandlerLeavesErrnoAlone) {
    errno = ENOSPC;
    vyrwrap_sigchld_handler(SIGCHLD);
    EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
