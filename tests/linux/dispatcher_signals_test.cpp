#include <sys/resource.h>
#include <sys/wait.h>

#include <regex>

#include "platform/korvalog.h"
#include "support.h"

namespace {

using support::arg;
using support::call_input;
using support::call_timer;
using support::ms_since;

volatile sig_atomic_t handler_runs;
volatile sig_atomic_t reaped;

void reap(int) {
    handler_runs = handler_runs + 1;
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        reaped = reaped + 1;
}

bool is_blocked(int number) {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, number);
}

pid_t child_that_ends() {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    return pid;
}

/** Waits, without reaping, until the child has ended: its SIGCHLD is pending then. */
void wait_for_end_of(pid_t pid) {
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

double cpu_ms() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

class DispatcherSignals : public support::DispatcherTest {
protected:
    void SetUp() override {
        handler_runs = 0;
        reaped = 0;
        signal(SIGCHLD, reap);
        support::DispatcherTest::SetUp();
    }

    void TearDown() override {
        support::DispatcherTest::TearDown();
        signal(SIGCHLD, SIG_DFL);
    }
};

TEST_F(DispatcherSignals, KeepsSigchldBackWhileAHandlerRunsAndLetsItThroughBehindIt) {
    int runs_inside = -1;
    std::function<void()> fork_and_wait = [&] {
        EXPECT_TRUE(is_blocked(SIGCHLD));
        wait_for_end_of(child_that_ends());
        runs_inside = handler_runs;
    };
    ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(fork_and_wait), 0, 0, "test", 1), 0U);
    EXPECT_TRUE(run_until([] { return reaped == 1; }));
    EXPECT_EQ(runs_inside, 0);
    EXPECT_EQ(handler_runs, 1);
}

TEST_F(DispatcherSignals, KeepsSigchldBackFromItsCreationOn) {
    EXPECT_TRUE(is_blocked(SIGCHLD));
    wait_for_end_of(child_that_ends());
    EXPECT_EQ(handler_runs, 0);
    EXPECT_TRUE(run_until([] { return reaped == 1; }));
}

TEST_F(DispatcherSignals, LetsThroughWhatIsPendingWhenTheLoopEnds) {
    std::function<void()> end = [&] {
        wait_for_end_of(child_that_ends());
        end_loop();
    };
    ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(end), 0, 0, "test", 1), 0U);
    EXPECT_EQ(DispProcess(dispatcher, 0), 0);
    EXPECT_EQ(reaped, 1);
    EXPECT_TRUE(is_blocked(SIGCHLD));
}

TEST_F(DispatcherSignals, WakesAnIdleLoopForAChild) {
    const pid_t pid = fork();
    if (pid == 0) {
        usleep(50000);  // the child's own work, while the parent sleeps in its loop
        _exit(0);
    }
    EXPECT_TRUE(run_until([] { return reaped == 1; }));
}

TEST_F(DispatcherSignals, LetsSigchldThroughWhileAnInputIsReadyAllTheTime) {
    const support::Pipe pipe;
    std::function<void()> busy = [] {};
    ASSERT_EQ(DispAddInput(dispatcher, pipe.reader, DISP_READ, call_input, arg(busy)), 0);
    pipe.put();
    child_that_ends();
    EXPECT_TRUE(run_until([] { return reaped == 1; }));
}

/** Runs the loop for 300 ms and returns the processor time that it took. */
double cpu_of_300_ms(Dispatcher *dispatcher) {
    std::function<void()> end = [] { kill(getpid(), SIGTERM); };
    EXPECT_NE(DispAddTimerInternal(dispatcher, 300, call_timer, arg(end), 0, 0, "test", 1), 0U);
    const double before = cpu_ms();
    DispProcess(dispatcher, 0);
    return cpu_ms() - before;
}

TEST_F(DispatcherSignals, DoesNotSpinOnAChildThatNobodyReaps) {
    for (const sighandler_t handler : {static_cast<sighandler_t>([](int) {}), SIG_DFL}) {
        signal(SIGCHLD, handler);
        const pid_t pid = child_that_ends();
        wait_for_end_of(pid);
        EXPECT_LT(cpu_of_300_ms(dispatcher), 150);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    }
}

TEST_F(DispatcherSignals, DoesNotSpinOnASigchldThatIsIgnored) {
    signal(SIGCHLD, SIG_IGN);
    raise(SIGCHLD);
    EXPECT_LT(cpu_of_300_ms(dispatcher), 150);
}

TEST_F(DispatcherSignals, EndsTheLoopOnEachSignalThatAsksForIt) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        std::function<void()> ask = [&] { kill(getpid(), number); };
        ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(ask), 0, 0, "test", 1), 0U);
        EXPECT_EQ(DispProcess(dispatcher, 0), 0) << number;
    }
}

TEST_F(DispatcherSignals, EndsTheLoopAlsoWhereTheSignalWasIgnoredByWhoeverStartedTheProcess) {
    for (const int number : {SIGINT, SIGQUIT, SIGHUP}) {
        signal(number, SIG_IGN);
        std::function<void()> ask = [&] { kill(getpid(), number); };
        ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(ask), 0, 0, "test", 1), 0U);
        EXPECT_EQ(DispProcess(dispatcher, 0), 0) << number;
        signal(number, SIG_DFL);
    }
}

TEST_F(DispatcherSignals, TellsWhatTheLoopWatchesAndGoesOn) {
    const support::Pipe pipe;
    std::function<void()> nothing = [] {};
    std::function<void()> ask_and_end = [] {
        kill(getpid(), SIGUSR1);  // the lower number is taken first
        end_loop();
    };
    ASSERT_EQ(DispAddInput(dispatcher, pipe.reader, DISP_READ, call_input, arg(nothing)), 0);
    ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(ask_and_end), 0, 0, "test", 1), 0U);
    for (int i = 0; i < 2; i++)
        ASSERT_NE(DispAddTimerInternal(dispatcher, 60000, call_timer, arg(nothing), i, 0, "test", 1), 0U);
    setenv("KORVA_LOG", "file:/tmp/dispatcher.log", 1);
    korvaLogInit(712, "test", 4);
    EXPECT_EQ(DispProcess(dispatcher, 0), 0);
    const std::string line = support::lines_of("/tmp/dispatcher.log").at(0);
    EXPECT_TRUE(
        std::regex_match(line, std::regex("4 416 0 <DISPATCHER>: 2 timers and 1 inputs, [0-9]+ KiB of memory in use")))
        << line;
}

TEST_F(DispatcherSignals, EndsTheLoopAtOnceWhenAskedBeforeItBegan) {
    end_loop();
    EXPECT_EQ(DispProcess(dispatcher, 0), 0);
}

}  // namespace
