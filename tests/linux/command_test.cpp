#include <errno.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "platform/cmnutil.h"
#include "platform/korvalog.h"
#include "support.h"

extern "C" long __wrap_syscall(long number, long one, long two, long three, long four);
extern "C" long __real_syscall(long number, long one, long two, long three, long four);
extern "C" int __wrap_fork();
extern "C" int __real_fork();

namespace {

using support::arg;
using support::call_timer;
using support::lines_of;
using support::read_file;

constexpr char kOut[] = "/tmp/command.out";

bool kernel_has_pid_descriptors = true;
bool fork_fails;

void reap(int) {
    const int saved_errno = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        continue;
    errno = saved_errno;
}

std::vector<std::string> out() {
    return lines_of(kOut);
}

/** Whether the kernel goes on having what a command's end is learnt from. */
class Commands : public support::DispatcherTest, public testing::WithParamInterface<bool> {
protected:
    /** What the test itself was started with is not the matter here. */
    static void SetUpTestSuite() {
        for (int fd = 3; fd < 1024; fd++)
            fcntl(fd, F_SETFD, FD_CLOEXEC);
    }

    void SetUp() override {
        kernel_has_pid_descriptors = GetParam();
        fork_fails = false;
        unlink(kOut);
        unlink("/tmp/go");
        signal(SIGCHLD, reap);
        support::DispatcherTest::SetUp();
    }

    void TearDown() override {
        EXPECT_TRUE(run_until([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }));
        support::DispatcherTest::TearDown();
        signal(SIGCHLD, SIG_DFL);
        kernel_has_pid_descriptors = true;
    }

    static bool wrote(size_t lines) { return out().size() >= lines; }
};

INSTANTIATE_TEST_SUITE_P(Kernels, Commands, testing::Values(true, false),
                         [](const auto &kernel) { return kernel.param ? "WithPidfd" : "WithoutPidfd"; });

/** A command that ends when /tmp/go is there. */
constexpr char kHeldBack[] = "until [ -e /tmp/go ]; do sleep 0.01; done; echo held >> /tmp/command.out";

TEST_P(Commands, RunWithoutBeingWaitedFor) {
    execute_command(kHeldBack);
    EXPECT_EQ(read_file(kOut), "(no file)");
    std::ofstream("/tmp/go") << "";
    EXPECT_TRUE(run_until([] { return wrote(1); }));
}

TEST_P(Commands, RunOneAtATimeInTheirOrder) {
    execute_command(kHeldBack);
    for (const char *command :
         {"echo 1 >> /tmp/command.out", "sleep 0.05; echo 2 >> /tmp/command.out", "echo 3 >> /tmp/command.out",
          "exit 7", "kill -9 $$", "/no/such/program", "echo 4 >> /tmp/command.out"})
        execute_command(command);
    run_rounds(20);
    EXPECT_EQ(read_file(kOut), "(no file)");
    std::ofstream("/tmp/go") << "";
    EXPECT_TRUE(run_until([] { return wrote(5); }));
    EXPECT_EQ(out(), (std::vector<std::string>{"held", "1", "2", "3", "4"}));
}

TEST_P(Commands, AreNotQueuedTwiceInARow) {
    execute_command(kHeldBack);
    const char *const one = "echo one >> /tmp/command.out";
    const char *const two = "echo two >> /tmp/command.out";
    for (const char *command : {one, one, one, two, two, one})
        execute_command(command);
    std::ofstream("/tmp/go") << "";
    execute_command("echo end >> /tmp/command.out");
    EXPECT_TRUE(run_until([] { return !out().empty() && out().back() == "end"; }));
    EXPECT_EQ(out(), (std::vector<std::string>{"held", "one", "two", "one", "end"}));
}

TEST_P(Commands, AreQueuedBehindARunningOneOfTheSameText) {
    execute_command(kHeldBack);
    execute_command(kHeldBack);
    execute_command(kHeldBack);
    std::ofstream("/tmp/go") << "";
    EXPECT_TRUE(run_until([] { return wrote(2); }));
    execute_command("echo end >> /tmp/command.out");
    EXPECT_TRUE(run_until([] { return wrote(3); }));
    EXPECT_EQ(out(), (std::vector<std::string>{"held", "held", "end"}));
}

TEST_P(Commands, WaitInBoundedNumber) {
    execute_command(kHeldBack);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 20; i++)
        execute_command(("echo " + std::to_string(i) + " >> /tmp/command.out").c_str());
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log,
              "4 416 0 <COMMAND>: too many commands wait: \"echo 0 >> /tmp/command.out\" is left out\n"
              "4 416 0 <COMMAND>: too many commands wait: \"echo 1 >> /tmp/command.out\" is left out\n"
              "4 416 0 <COMMAND>: too many commands wait: \"echo 2 >> /tmp/command.out\" is left out\n"
              "4 416 0 <COMMAND>: too many commands wait: \"echo 3 >> /tmp/command.out\" is left out\n");
    std::ofstream("/tmp/go") << "";
    ASSERT_TRUE(run_until([] { return wrote(17); }));
    EXPECT_EQ(out()[1], "4");
    EXPECT_EQ(out()[16], "19");
}

TEST_P(Commands, StartWithAnEmptyMaskAndDefaultDispositions) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGUSR1, SIG_IGN);
    execute_command(
        "grep -E '^Sig(Blk|Ign)' /proc/self/status > /tmp/command.new; mv /tmp/command.new "
        "/tmp/command.out");
    EXPECT_TRUE(run_until([] { return wrote(2); }));
    for (const std::string &line : out())
        EXPECT_EQ(line.substr(line.find('\t')), "\t0000000000000000") << line;
    signal(SIGPIPE, SIG_DFL);
    signal(SIGUSR1, SIG_DFL);
}

TEST_P(Commands, InheritNoDescriptorButTheStandardOnes) {
    const support::Pipe pipe;
    execute_command("ls /proc/$$/fd > /tmp/command.new; mv /tmp/command.new /tmp/command.out");
    EXPECT_TRUE(run_until([] { return wrote(3); }));
    for (const std::string &fd : out())
        EXPECT_TRUE(fd == "0" || fd == "1" || fd == "2" || fd == "10" || fd == "255")
            << fd;  // the latter a shell's own
}

TEST_P(Commands, FindDevNullOnAStandardDescriptorThatIsClosedOrClosesBehindExec) {
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    const std::string command = "readlink /proc/$$/fd/0 >> /tmp/command.out";
    close(0);
    execute_command(command.c_str());
    EXPECT_TRUE(run_until([] { return wrote(1); }));
    ASSERT_EQ(open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC), 0);
    execute_command(command.c_str());
    EXPECT_TRUE(run_until([] { return wrote(2); }));
    dup2(saved, 0);
    close(saved);
    EXPECT_EQ(out(), (std::vector<std::string>{"/dev/null", "/dev/null"}));
}

TEST_P(Commands, FindTheDevicesOwnProgramsFirst) {
    std::ofstream("/korva/bin/vyrc") << "#!/bin/sh\necho \"vyrc $*\" >> /tmp/command.out\n";
    ASSERT_EQ(system("chmod 755 /korva/bin/vyrc"), 0);
    const std::string path = getenv("PATH");
    execute_command("vyrc debug all all");
    execute_command("echo $PATH >> /tmp/command.out");
    EXPECT_TRUE(run_until([] { return wrote(2); }));
    unsetenv("PATH");
    execute_command("echo $PATH >> /tmp/command.out");
    EXPECT_TRUE(run_until([] { return wrote(3); }));
    EXPECT_EQ(getenv("PATH"), nullptr);
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(out(),
              (std::vector<std::string>{"vyrc debug all all", "/korva/bin:" + path,
                                        "/korva/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}));
}

TEST_P(Commands, AreLeftOutWithAMessageWhenTheyCannotBeStarted) {
    fork_fails = true;
    testing::internal::CaptureStderr();
    execute_command("echo lost >> /tmp/command.out");
    EXPECT_EQ(execute_command_status("echo lost >> /tmp/command.out"), -1);
    fork_fails = false;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "3 416 0 <COMMAND>: cannot run \"echo lost >> /tmp/command.out\": Resource temporarily unavailable\n"
              "3 416 0 <COMMAND>: cannot run \"echo lost >> /tmp/command.out\": Resource temporarily unavailable\n");
    execute_command("echo kept >> /tmp/command.out");
    EXPECT_TRUE(run_until([] { return wrote(1); }));
    EXPECT_EQ(out(), std::vector<std::string>{"kept"});
}

TEST_P(Commands, NeedAText) {
    execute_command(nullptr);
    EXPECT_EQ(execute_command_status(nullptr), -1);
}

TEST_P(Commands, ThatAreWaitedForReturnTheirStatus) {
    EXPECT_EQ(execute_command_status("true"), 0);
    const int exited = execute_command_status("exit 7");
    EXPECT_TRUE(WIFEXITED(exited));
    EXPECT_EQ(WEXITSTATUS(exited), 7);
    const int killed = execute_command_status("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), 9);
    EXPECT_EQ(WEXITSTATUS(execute_command_status("/no/such/program 2>/dev/null")), 127);
    EXPECT_EQ(execute_command_status("echo 0 vyrwrap > /tmp/command.out"), 0);
    EXPECT_EQ(read_file(kOut), "0 vyrwrap\n");
}

TEST_P(Commands, ThatAreWaitedForLeaveOtherChildrenAlone) {
    const pid_t other = fork();
    if (other == 0)
        _exit(3);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(other), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(WEXITSTATUS(execute_command_status("exit 7")), 7);
    int status;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST_P(Commands, ThatAreWaitedForKeepTheirStatusFromAHandlerThatReapsEverything) {
    sigset_t child;
    sigset_t before;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_UNBLOCK, &child, &before);
    EXPECT_EQ(WEXITSTATUS(execute_command_status("exit 7")), 7);
    sigset_t now;
    sigprocmask(SIG_SETMASK, &before, &now);
    EXPECT_FALSE(sigismember(&now, SIGCHLD));
}

TEST_P(Commands, ThatAreWaitedForAreNotDisturbedByASignal) {
    struct sigaction action = {};
    struct sigaction before;
    action.sa_handler = [](int) {};  // without SA_RESTART: waiting is interrupted
    sigaction(SIGALRM, &action, &before);
    EXPECT_EQ(WEXITSTATUS(execute_command_status("kill -ALRM $PPID; sleep 0.05; kill -ALRM $PPID; exit 7")), 7);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_P(Commands, GoOnFromCallToCallWhereNoLoopRuns) {
    execute_command("true");
    siginfo_t info;
    ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    execute_command("echo second >> /tmp/command.out");
    ASSERT_EQ(waitpid(info.si_pid, nullptr, 0), info.si_pid);
    ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(out(), std::vector<std::string>{"second"});
}

TEST(CommandsAcrossDispatchers, SurviveTheEndOfTheOneThatWatchedThem) {
    for (const bool pid_descriptors : {true, false}) {
        kernel_has_pid_descriptors = pid_descriptors;
        unlink(kOut);
        unlink("/tmp/go");
        Dispatcher *first = DispatcherCreate();
        execute_command(kHeldBack);
        DispatcherDestroy(first);
        std::ofstream("/tmp/go") << "";
        ASSERT_GT(waitpid(-1, nullptr, 0), 0);
        Dispatcher *second = DispatcherCreate();
        execute_command("echo second >> /tmp/command.out");
        ASSERT_GT(waitpid(-1, nullptr, 0), 0);
        EXPECT_EQ(out(), (std::vector<std::string>{"held", "second"}));
        execute_command("true");
        ASSERT_GT(waitpid(-1, nullptr, 0), 0);
        DispatcherDestroy(second);
    }
    kernel_has_pid_descriptors = true;
}

}  // namespace

long __wrap_syscall(long number, long one, long two, long three, long four) {
    if (number != SYS_pidfd_open || kernel_has_pid_descriptors)
        return __real_syscall(number, one, two, three, four);
    errno = ENOSYS;
    return -1;
}

int __wrap_fork() {
    if (!fork_fails)
        return __real_fork();
    errno = EAGAIN;
    return -1;
}
