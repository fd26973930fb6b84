#include "core/timer.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>

#include "fakes/fakes.h"

namespace {

using Texts = std::vector<std::string>;

constexpr char kFlag[] = "/tmp/vyr_config_dirty_flag";
constexpr char kLogConfig[] = "/tmp/vyr_log.conf";
constexpr pid_t kVyr = 4242;    /**< a routing daemon that is only pretended */
constexpr pid_t kNewVyr = 4343; /**< and its successor */

class TimerTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        std::filesystem::remove_all(kFlag);
        std::filesystem::remove_all(kLogConfig);
        signals.clear();
        fake::on_kill = [this](int pid, int signal_number, int *result) {
            signals.push_back(std::to_string(pid) + " " + std::to_string(signal_number));
            *result = 0;
            return true;
        };
        fake::on_fork = [](long *result) {
            *result = kNewVyr;
            return true;
        };
    }

    static void run_times(int times) {
        for (int i = 0; i < times; i++)
            vyrwrap_mytimer();
    }

    /** The state of a daemon that has run for a while, with nothing to do. */
    static void vyr_runs() { vyrwrap_global.vyr_pid = kVyr; }

    static int forks() { return fake::call_count("fork"); }

    Texts signals; /**< "PID SIGNAL" for each kill */
};

/* ---- the external flag ---- */

TEST_F(TimerTest, TakesTheExternalFlagAndDeletesIt) {
    fake::write_file(kFlag, "");
    vyrwrap_mytimer();
    EXPECT_EQ(fake::read_file(kFlag), "(no file)");
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 1U);
    EXPECT_EQ(fake::log_texts(7), Texts{"<VYRWRAP>: Dirty flag set at vyrwrap_mytimer"});
}

TEST_F(TimerTest, TheExternalFlagReloadsOnTheSecondRun) {
    vyr_runs();
    fake::write_file(kFlag, "");
    vyrwrap_mytimer();
    EXPECT_TRUE(signals.empty());
    vyrwrap_mytimer();
    EXPECT_EQ(signals, Texts{"4242 1"});
}

TEST_F(TimerTest, TheExternalFlagBeginsTheQuietPeriodAnew) {
    vyr_runs();
    vyrwrap_global.config_dirty = 1;
    vyrwrap_global.dirty_wait_ticks = 1;
    fake::write_file(kFlag, "");
    vyrwrap_mytimer();
    EXPECT_TRUE(signals.empty());
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 1U);
}

TEST_F(TimerTest, AFlagThatIsADirectoryIsTakenToo) {
    mkdir(kFlag, 0755);
    vyrwrap_mytimer();
    EXPECT_FALSE(std::filesystem::exists(kFlag));
}

/* ---- debug logging ---- */

TEST_F(TimerTest, SwitchesDebugLoggingOn) {
    vyr_runs();
    fake::debug_enabled = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(
        fake::read_file(kLogConfig),
        "log \"/var/log/korvalog/vyr.log\" 10485760 \"/var/log/korvalog/vyr.log.1\" { debug, trace, info, remote, "
        "warning, error, auth, fatal, bug };\n");
    EXPECT_EQ(fake::commands, Texts{"vyrc debug all all"});
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 1);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(fake::log_texts(7),
              (Texts{"Setting debug logging at timer handler", "<VYRWRAP>: Dirty flag set at vyrwrap_mytimer"}));
}

TEST_F(TimerTest, SwitchesDebugLoggingOff) {
    vyr_runs();
    vyrwrap_global.vyr_debug_on = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(fake::read_file(kLogConfig),
              "log \"/var/log/korvalog/NETWORK.log\" { warning, error, auth, fatal, bug };\n");
    EXPECT_EQ(fake::commands, Texts{"vyrc debug all off"});
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 0);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(fake::log_texts(7),
              (Texts{"Re-setting debug logging at timer handler", "<VYRWRAP>: Dirty flag set at vyrwrap_mytimer"}));
}

TEST_F(TimerTest, LeavesDebugLoggingAloneWhileItIsInStep) {
    vyr_runs();
    run_times(2);
    fake::debug_enabled = 1;
    vyrwrap_global.vyr_debug_on = 1;
    run_times(2);
    EXPECT_TRUE(fake::commands.empty());
    EXPECT_EQ(fake::read_file(kLogConfig), "(no file)");
}

TEST_F(TimerTest, DoesNotFollowTheDebugLevelWithoutARoutingDaemon) {
    fake::debug_enabled = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(fake::read_file(kLogConfig), "(no file)");
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 0);
}

TEST_F(TimerTest, RunsTheDebugCommandBeforeTheFileIsInPlace) {
    vyr_runs();
    fake::write_file(kLogConfig, "old\n");
    fake::debug_enabled = 1;
    std::string seen;
    fake::on_command = [&](const std::string &) { seen = fake::read_file(kLogConfig); };
    vyrwrap_mytimer();
    EXPECT_EQ(seen, "old\n");
}

TEST_F(TimerTest, ALogFileThatCannotBeOpenedEndsTheRun) {
    vyr_runs();
    vyrwrap_global.config_dirty = 1;
    vyrwrap_global.dal_lost = 1;
    fake::debug_enabled = 1;
    mkdir(kLogConfig, 0755);
    vyrwrap_mytimer();
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>: Failed to open /tmp/vyr_log.conf - Is a directory"});
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 0);
    EXPECT_TRUE(fake::commands.empty());
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.timer_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.dal_lost, 1);
}

TEST_F(TimerTest, AFullFileSystemLeavesTheLogFileAndIsTriedAgain) {
    vyr_runs();
    fake::write_file(kLogConfig, "old\n");
    fake::debug_enabled = 1;
    fake::fail_call("write", ENOSPC);
    vyrwrap_mytimer();
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>: Failed to open /tmp/vyr_log.conf - No space left on device"});
    EXPECT_EQ(fake::read_file(kLogConfig), "old\n");
    EXPECT_EQ(fake::read_file(std::string(kLogConfig) + ".new"), "(no file)");
    EXPECT_TRUE(fake::commands.empty());
    vyrwrap_mytimer();
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 1);
    EXPECT_NE(fake::read_file(kLogConfig), "old\n");
}

TEST_F(TimerTest, ALogFileThatCannotBePutInPlaceIsTriedAgain) {
    vyr_runs();
    fake::debug_enabled = 1;
    fake::fail_call("rename", EIO);
    vyrwrap_mytimer();
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>: Failed to open /tmp/vyr_log.conf - Input/output error"});
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 0);
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    vyrwrap_mytimer();
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 1);
}

/* ---- changes ---- */

TEST_F(TimerTest, LaunchesTheRoutingDaemonOnTheSecondRunAfterStart) {
    vyrwrap_global.config_dirty = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(forks(), 0);
    vyrwrap_mytimer();
    EXPECT_EQ(forks(), 1);
    EXPECT_EQ(vyrwrap_global.vyr_pid, kNewVyr);
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.dirty_total_ticks, 0U);
    EXPECT_TRUE(signals.empty());
}

TEST_F(TimerTest, LaunchingDoesNotEndTheRun) {
    vyrwrap_global.config_dirty = 1;
    run_times(2);
    EXPECT_EQ(vyrwrap_global.timer_ticks, 2U);
}

TEST_F(TimerTest, AFailedForkLeavesTheReloadPendingForALaterRun) {
    vyrwrap_global.config_dirty = 1;
    fake::fail_call("fork", EAGAIN);
    run_times(2);
    EXPECT_EQ(vyrwrap_global.vyr_pid, 0);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    run_times(2);
    EXPECT_EQ(vyrwrap_global.vyr_pid, kNewVyr);
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(TimerTest, ReloadsOnTheSecondRunAfterTheLastChangeAndEndsTheRun) {
    vyr_runs();
    vyrwrap_global.config_dirty = 1;
    vyrwrap_mytimer();
    EXPECT_TRUE(signals.empty());
    EXPECT_EQ(vyrwrap_global.timer_ticks, 1U);
    vyrwrap_global.dal_lost = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(signals, Texts{"4242 1"});
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.dirty_total_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.timer_ticks, 1U) << "the run ends with the reload";
    EXPECT_EQ(vyrwrap_global.dal_lost, 1);
}

TEST_F(TimerTest, AReloadSetsDebugLoggingOffAgain) {
    vyr_runs();
    vyrwrap_global.config_dirty = 1;
    run_times(2);
    EXPECT_EQ(fake::commands, Texts{"vyrc debug all off"});
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 0);
    EXPECT_EQ(fake::log_texts(7), Texts{"Re-setting debug logging at sighup handler"});
}

TEST_F(TimerTest, AReloadSetsDebugLoggingOnAgain) {
    vyr_runs();
    fake::debug_enabled = 1;
    vyrwrap_global.vyr_debug_on = 1;
    vyrwrap_global.config_dirty = 1;
    run_times(2);
    EXPECT_EQ(fake::commands, Texts{"vyrc debug all all"});
    EXPECT_EQ(vyrwrap_global.vyr_debug_on, 1);
    EXPECT_EQ(fake::log_texts(7), Texts{"Setting debug logging at sighup handler"});
}

TEST_F(TimerTest, ASteadyStreamOfChangesReloadsOnTheTwelfthRun) {
    vyr_runs();
    for (int run = 1; run <= 12; run++) {
        EXPECT_TRUE(signals.empty()) << "run " << run;
        vyrwrap_mark_config_dirty("test");
        vyrwrap_mytimer();
    }
    EXPECT_EQ(signals, Texts{"4242 1"});
    EXPECT_EQ(vyrwrap_global.dirty_total_ticks, 0U);
}

TEST_F(TimerTest, ADefaultRouteReloadsAtOnce) {
    vyr_runs();
    vyrwrap_global.config_dirty = 1;
    vyrwrap_global.default_route_changed = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(signals, Texts{"4242 1"});
    EXPECT_EQ(vyrwrap_global.default_route_changed, 1) << "cleared by who writes the file";
}

TEST_F(TimerTest, ADefaultRouteLaunchesAtOnceWithoutARoutingDaemon) {
    vyrwrap_global.config_dirty = 1;
    vyrwrap_global.default_route_changed = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(forks(), 1);
    EXPECT_EQ(vyrwrap_global.vyr_pid, kNewVyr);
}

TEST_F(TimerTest, NothingIsDoneWithoutAChange) {
    vyr_runs();
    run_times(11);
    EXPECT_TRUE(signals.empty());
    EXPECT_EQ(forks(), 0);
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_EQ(vyrwrap_global.timer_ticks, 11U);
}

/* ---- the DAL ---- */

TEST_F(TimerTest, SubscribesEverythingAgainInItsOrderAfterALoss) {
    vyrwrap_alloc_static_route_table();
    vyrwrap_global.dal_lost = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(vyrwrap_global.dal_lost, 0);
    Texts subscribed;
    for (const std::string &call : fake::dal_calls)
        if (call.rfind("dal_sub_command", 0) == 0 || call.rfind("dal_mget", 0) == 0)
            subscribed.push_back(call);
    EXPECT_EQ(subscribed, (Texts{
                              "dal_sub_command PSUBSCRIBE /ipc/event/vyrwrap/mrt",
                              "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/staticroute/*",
                              "dal_mget_by_wildcard /op/staticroute/*",
                              "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vlans/route_redistributed_vlans",
                              "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vyr/logging/vyr_log_level",
                              "dal_sub_command PSUBSCRIBE __keyspace@0__:/config/vyr/oap/*",
                              "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/tunnel/*",
                              "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/clusters/*",
                          }));
    fake::dal_calls.clear();
    vyrwrap_mytimer();
    EXPECT_TRUE(fake::dal_calls.empty());
    free(vyrwrap_global.static_routes.entries);
}

TEST_F(TimerTest, ChecksTheSubscriptionConnectionEveryTwelfthRun) {
    run_times(11);
    EXPECT_TRUE(fake::dal_calls.empty());
    vyrwrap_mytimer();
    EXPECT_EQ(fake::dal_calls, Texts{"dal_sub_ctx_chk"});
    run_times(12);
    EXPECT_EQ(fake::dal_calls, (Texts{"dal_sub_ctx_chk", "dal_sub_ctx_chk"}));
}

TEST_F(TimerTest, SubscribesAgainBeforeItChecksTheConnection) {
    vyrwrap_alloc_static_route_table();
    vyrwrap_global.timer_ticks = 11;
    vyrwrap_global.dal_lost = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(fake::dal_calls.front(), "dal_sub_command PSUBSCRIBE /ipc/event/vyrwrap/mrt");
    EXPECT_EQ(fake::dal_calls.back(), "dal_sub_ctx_chk");
    EXPECT_EQ(fake::checked_context, vyrwrap_global.dal_ctx);
    free(vyrwrap_global.static_routes.entries);
}

/* ---- the routing daemon's end: how it ended, what the timer finds, what comes of it ---- */

struct End {
    const char *how;
    pid_t pid_left;    /**< vyr_pid after the handler */
    int signal_number; /**< vyr_term_signal after the handler */
    int exit_status;   /**< of this daemon; -1 when it goes on */
};

struct Finding {
    const char *what;
    int config_dirty;
    int dal_lost;
    uint8_t default_route_changed;
    bool flag_file;
};

/* The test library would show their bytes, those between the members too, which nobody has set. */
void PrintTo(const End &end, std::ostream *out) {
    *out << end.how;
}
void PrintTo(const Finding &finding, std::ostream *out) {
    *out << finding.what;
}

class TimerEndTest : public TimerTest, public testing::WithParamInterface<std::tuple<End, Finding>> {};

TEST_P(TimerEndTest, FollowsTheEndOfTheRoutingDaemon) {
    const auto &[end, finding] = GetParam();
    vyrwrap_global.vyr_exited = 1;
    vyrwrap_global.vyr_pid = end.pid_left;
    vyrwrap_global.vyr_term_signal = end.signal_number;
    vyrwrap_global.config_dirty = finding.config_dirty;
    vyrwrap_global.dal_lost = static_cast<uint8_t>(finding.dal_lost);
    vyrwrap_global.default_route_changed = finding.default_route_changed;
    if (finding.flag_file)
        fake::write_file(kFlag, "");
    if (end.exit_status < 0) {
        vyrwrap_mytimer();
        EXPECT_EQ(vyrwrap_global.vyr_exited, 0);
        EXPECT_EQ(vyrwrap_global.vyr_pid, kNewVyr);
        EXPECT_EQ(vyrwrap_global.config_dirty, 0) << "it reads its configuration as it starts";
        EXPECT_EQ(forks(), 1);
        EXPECT_TRUE(signals.empty()) << "nobody who has ended is signalled";
        EXPECT_EQ(vyrwrap_global.timer_ticks, 0U);
        EXPECT_EQ(vyrwrap_global.dal_lost, finding.dal_lost) << "left for the next run";
        return;
    }
    fake::on_fork = nullptr;  // the test below forks to see an exit status
    const auto end_of_daemon = [] {
        fake::on_command = [](const std::string &command) {
            vyrwrap_global.vyr_term_signal = 0;  // as the command's own SIGCHLD does
            fake::write_file("/tmp/record_command", command + " pid " + std::to_string(vyrwrap_global.vyr_pid) +
                                                        " of " + std::to_string(getpid()));
        };
        vyrwrap_mytimer();
    };
    EXPECT_EXIT(end_of_daemon(), testing::ExitedWithCode(end.exit_status), "");
    const std::string record = fake::read_file("/tmp/record_command");
    const std::string own_pid = record.substr(record.rfind(' ') + 1);
    EXPECT_EQ(record, "echo 0 vyrwrap > /tmp/vyrwrap." + own_pid + ".chldpid pid 0 of " + own_pid);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, TimerEndTest,
    testing::Combine(testing::Values(End{"status100", 0, 0, -1}, End{"status0", kVyr, 0, 5}, End{"status1", kVyr, 0, 5},
                                     End{"sigsegv", kVyr, SIGSEGV, SIGSEGV}, End{"sigkill", kVyr, SIGKILL, SIGKILL},
                                     End{"sighup", kVyr, SIGHUP, SIGHUP}),
                     testing::Values(Finding{"nothing", 0, 0, 0, false}, Finding{"change", 1, 0, 0, false},
                                     Finding{"defaultroute", 1, 0, 1, false}, Finding{"dallost", 0, 1, 0, false},
                                     Finding{"flagfile", 0, 0, 0, true})),
    [](const auto &instance) {
        return std::string(std::get<0>(instance.param).how) + "_" + std::get<1>(instance.param).what;
    });

TEST_F(TimerTest, Status100IsFollowedOnEveryRunWithoutBound) {
    for (int i = 1; i <= 50; i++) {
        vyrwrap_global.vyr_exited = 1;
        vyrwrap_global.vyr_pid = 0;
        vyrwrap_mytimer();
        EXPECT_EQ(forks(), i);
    }
}

TEST_F(TimerTest, ARestartAfterStatus100ClosesTheConnectionToTheOneBefore) {
    const int connection = open("/dev/null", O_RDONLY | O_CLOEXEC);
    vyrwrap_global.ctl_sock_fd = connection;
    vyrwrap_global.vyr_exited = 1;
    vyrwrap_mytimer();
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_EQ(fcntl(connection, F_GETFD), -1);
    EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{"<VYRWRAP>: vyr server socket is closed"});
}

TEST_F(TimerTest, AFailedRestartIsTriedAgain) {
    vyrwrap_global.vyr_exited = 1;
    fake::fail_call("fork", EAGAIN);
    vyrwrap_mytimer();
    EXPECT_EQ(vyrwrap_global.vyr_pid, 0);
    EXPECT_EQ(vyrwrap_global.vyr_exited, 0);
    run_times(2);
    EXPECT_EQ(vyrwrap_global.vyr_pid, kNewVyr);
}

}  // namespace
