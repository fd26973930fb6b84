#include "core/startup.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/dal_adapter.h"
#include "core/supervision.h"
#include "core/timer.h"
#include "fakes/fakes.h"

namespace {

using Texts = std::vector<std::string>;

class StartupTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        vyrwrap_global = {};
        std::filesystem::remove_all("/tmp/bird_event_exp.ctl");
        std::filesystem::create_directories("/tmp/.sock");
        fake::write_file("/etc/bird/vyr.conf", "# main\n");
        fake::write_file("/etc/bird/vyr_oap.conf", "# overlay\n");
    }

    void TearDown() override {
        signal(SIGCHLD, SIG_DFL);
        for (int *fd : {&vyrwrap_global.app_sock_fd, &vyrwrap_global.event_listen_fd})
            if (*fd > 2)
                close(*fd);
        free(vyrwrap_global.static_routes.entries);
        static auto *const tables = new std::vector<HashTable *>;  // never destroyed: kept in sight of the leak check
        tables->push_back(vyrwrap_global.tunnel_table);
        fake::Test::TearDown();
    }

    static bool began_before(const Texts &texts, const std::string &first, const std::string &second) {
        size_t a = texts.size(), b = texts.size();
        for (size_t i = texts.size(); i-- > 0;) {
            if (texts[i].rfind(first, 0) == 0)
                a = i;
            if (texts[i].rfind(second, 0) == 0)
                b = i;
        }
        return a < b && b < texts.size();
    }
};

TEST_F(StartupTest, TracesItsStepsOnStandardErrorAndReturns0) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(vyrwrap_main(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "VyrWrap, config vyr_static\nvyrwrap_init\nStatic init done\n Event Loop\n");
}

TEST_F(StartupTest, SetsLoggingUpFirst) {
    vyrwrap_main();
    EXPECT_EQ(fake::log_inits, Texts{"712 vyr 4"});
    ASSERT_GE(fake::level_changes.size(), 1U);
    korvaLevelChange expected = {};
    expected.operation = 1;
    expected.module = 416;
    expected.level = 4;
    EXPECT_EQ(memcmp(&fake::level_changes[0], &expected, sizeof expected), 0);
}

TEST_F(StartupTest, RunsTheLoopWithTheConfigurationDirtyAndTheHandlerInstalled) {
    int seen = 0;
    fake::on_process = [&] {
        seen++;
        EXPECT_EQ(vyrwrap_global.config_dirty, 1);
        EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
        EXPECT_EQ(fake::log_lines.back().text, "<VYRWRAP>: Dirty flag set at main");
        EXPECT_EQ(fake::log_lines.back().level, 7);
        EXPECT_EQ(signal(SIGCHLD, vyrwrap_sigchld_handler), vyrwrap_sigchld_handler);
    };
    vyrwrap_main();
    EXPECT_EQ(seen, 1);
}

TEST_F(StartupTest, BuildsTheSubsystemsInTheirOrder) {
    // one trace of everything that a step does to the outside
    Texts trace;
    fake::on_dal_call = [&](const std::string &call) { trace.push_back(call); };
    fake::on_log = [&](const fake::LogLine &line) { trace.push_back("log " + line.text); };
    fake::on_process = [&] { trace.push_back("DispProcess"); };
    ASSERT_EQ(vyrwrap_main(), 0);
    const Texts steps = {
        "log <VYRWRAP>: vyr_app_config Setting System Max Prefixes limit to: 512",
        "dal_evloop_ctx_init",
        "dal_ctx_init",
        "dal_sub_command PSUBSCRIBE /ipc/event/vyrwrap/mrt",
        "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/staticroute/*",
        "dal_mget_by_wildcard /op/staticroute/*",
        "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vlans/route_redistributed_vlans",
        "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/syslog/facility/network/level",
        "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vyr/logging/vyr_log_level",
        "dal_sub_command PSUBSCRIBE __keyspace@0__:/config/vyr/oap/*",
        "log <VYRWRAP>:vyrwrap_ipsec_tunnel_info_init: vyrwrap_ipsec_tun_list initialized",
        "log <VYRWRAP>:vyrwrap_app_socket_connect : Socket /tmp/.sock/RoutingProtocols_VYRWRAP.sock created",
        "log <VYRWRAP>: Dirty flag set at main",
        "DispProcess",
        "log I'M @ END OF VYRWRAP!!",
    };
    for (size_t i = 1; i < steps.size(); i++)
        EXPECT_TRUE(began_before(trace, steps[i - 1], steps[i])) << steps[i - 1] << " | " << steps[i];
    EXPECT_EQ(fake::dispatcher_calls.front(), "DispatcherCreate");
    EXPECT_EQ(fake::dispatcher_calls.back(), "DispatcherDestroy");
    EXPECT_TRUE(began_before(fake::dispatcher_calls, "DispAddInput", "DispAddTimerInternal 5000"))
        << "the event socket listens before the timer runs";
    EXPECT_FALSE(fake::subscriptions.count("__keyspace@0__:/op/tunnel/*")) << "comes with the first replay request";
}

TEST_F(StartupTest, RegistersThePeriodicTimer) {
    vyrwrap_main();
    ASSERT_EQ(fake::timers.size(), 1U);
    const fake::Timer &timer = fake::timers.begin()->second;
    EXPECT_EQ(timer.interval_ms, 5000U);
    EXPECT_EQ(timer.periodic, 1);
    EXPECT_EQ(timer.user_data, nullptr);
    EXPECT_EQ(timer.function, "vyrwrap_init");
    EXPECT_EQ(timer.line, 1051);
    const uint32_t before = vyrwrap_global.timer_ticks;
    timer.handler(timer.user_data);
    EXPECT_EQ(vyrwrap_global.timer_ticks, before + 1);
}

TEST_F(StartupTest, KeepsTheApplicationSocket) {
    vyrwrap_main();
    EXPECT_GT(vyrwrap_global.app_sock_fd, 2);
}

TEST_F(StartupTest, MakesTheDalContextInTheLoop) {
    vyrwrap_main();
    ASSERT_EQ(fake::contexts.size(), 1U);
    const fake::ContextArguments &made = fake::contexts[0];
    EXPECT_EQ(made.connections, 7U);
    EXPECT_EQ(made.sync_address, nullptr);
    EXPECT_EQ(made.async_address, nullptr);
    EXPECT_EQ(made.disconnect_cb, vyrwrap_dal_disconnect_cb);
    EXPECT_EQ(made.arg, nullptr);
    ASSERT_NE(made.evloop, nullptr);
    EXPECT_STREQ(made.evloop->adapter_name, "libdispatcher");
    EXPECT_EQ(made.evloop->dispatcher, fake::dispatcher());
    EXPECT_EQ(made.evloop->add_read, vyrwrap_dal_add_read);
    EXPECT_EQ(made.evloop->delete_read, vyrwrap_dal_delete_read);
    EXPECT_EQ(made.evloop->add_write, vyrwrap_dal_add_write);
    EXPECT_EQ(made.evloop->delete_write, vyrwrap_dal_delete_write);
    EXPECT_EQ(made.evloop->cleanup, redisDispatcherCleanup);
    EXPECT_EQ(made.evloop->attach, vyrwrap_dal_attach);
}

TEST_F(StartupTest, AMissingMainTemplateEndsStartUpWithMinus1) {
    unlink("/etc/bird/vyr.conf");
    EXPECT_EQ(vyrwrap_main(), -1);
    EXPECT_TRUE(fake::dispatcher_calls.empty());
    EXPECT_FALSE(fake::logged(3, "I'M @ END OF VYRWRAP!!"));
}

TEST_F(StartupTest, AMissingOverlayTemplateEndsStartUpWithMinus1) {
    unlink("/etc/bird/vyr_oap.conf");
    unlink("/tmp/vyr_static.conf");
    EXPECT_EQ(vyrwrap_main(), -1);
    EXPECT_EQ(fake::read_file("/tmp/vyr_static.conf"), "") << "laid out before";
    EXPECT_TRUE(fake::dispatcher_calls.empty());
    EXPECT_FALSE(fake::logged(3, "I'M @ END OF VYRWRAP!!"));
}

TEST_F(StartupTest, WithoutADispatcherItSkipsTheLoopAndReturns0) {
    fake::failing_dispatcher_calls.insert("DispatcherCreate");
    EXPECT_EQ(vyrwrap_main(), 0);
    EXPECT_EQ(fake::dispatcher_calls, Texts{"DispatcherCreate"});
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: Dispatcher Create failed", "I'M @ END OF VYRWRAP!!"}));
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(StartupTest, WithoutTheEventSocketItSkipsTimerAndLoopAndReturns0) {
    mkdir("/tmp/bird_event_exp.ctl", 0755);
    EXPECT_EQ(vyrwrap_main(), 0);
    EXPECT_EQ(fake::dispatcher_calls, (Texts{"DispatcherCreate", "DispatcherDestroy"}));
    EXPECT_TRUE(fake::timers.empty());
    EXPECT_TRUE(fake::logged(3, "<VYRWRAP>: Failed to open Listening socket for Event Notification"));
    EXPECT_EQ(fake::log_lines.back().text, "I'M @ END OF VYRWRAP!!");
}

TEST_F(StartupTest, WithoutADalContextItGoesOnUnsubscribed) {
    fake::failing_calls.insert("dal_ctx_init");
    EXPECT_EQ(vyrwrap_main(), 0);
    EXPECT_TRUE(fake::logged(3, "<VYRWRAP>: vyrwrap_dal_init: Failed to init DAL context"));
    EXPECT_FALSE(fake::subscriptions.count("__keyspace@0__:/op/staticroute/*"));
    EXPECT_TRUE(began_before(fake::dispatcher_calls, "DispAddTimerInternal", "DispProcess 0"));
}

TEST_F(StartupTest, WithoutAnEventLoopRecordItStillMakesTheContext) {
    fake::failing_calls.insert("dal_evloop_ctx_init");
    vyrwrap_main();
    ASSERT_EQ(fake::contexts.size(), 1U);
    EXPECT_EQ(fake::contexts[0].evloop, nullptr);
}

TEST_F(StartupTest, ASecondDalInitSubscribesAgainWithoutASecondContext) {
    vyrwrap_global.dispatcher = fake::dispatcher();
    vyrwrap_alloc_static_route_table();
    vyrwrap_dal_init();
    fake::dal_calls.clear();
    vyrwrap_dal_init();
    EXPECT_EQ(fake::contexts.size(), 1U);
    EXPECT_TRUE(
        began_before(fake::dal_calls, "dal_evloop_ctx_init", "dal_sub_command PSUBSCRIBE /ipc/event/vyrwrap/mrt"));
}

TEST_F(StartupTest, WithoutMemoryForTheTableItEndsWithStatus12) {
    const auto start = [] {
        fake::fail_call("calloc", ENOMEM, 0, 1000);
        vyrwrap_init();
    };
    EXPECT_EXIT(start(), testing::ExitedWithCode(12), "^vyrwrap_init\n$");
}

TEST_F(StartupTest, KillsTheRoutingDaemonAtTheEnd) {
    Texts signals;
    fake::on_kill = [&](int pid, int signal_number, int *) {
        signals.push_back(std::to_string(pid) + " " + std::to_string(signal_number));
        return true;
    };
    fake::on_process = [] { vyrwrap_global.vyr_pid = 4242; };
    EXPECT_EQ(vyrwrap_main(), 0);
    EXPECT_EQ(signals, Texts{"4242 9"});
    EXPECT_EQ(fake::dispatcher_calls.back(), "DispatcherDestroy");
}

TEST_F(StartupTest, DoesNotSignalARoutingDaemonThatHasEnded) {
    Texts signals;
    fake::on_kill = [&](int pid, int signal_number, int *) {
        signals.push_back(std::to_string(pid) + " " + std::to_string(signal_number));
        return true;
    };
    fake::on_process = [] {
        vyrwrap_global.vyr_pid = 4242;
        vyrwrap_global.vyr_exited = 1;
    };
    EXPECT_EQ(vyrwrap_main(), 0);
    EXPECT_TRUE(signals.empty());
}

TEST_F(StartupTest, ADisconnectIsOnlyRemembered) {
    vyrwrap_dal_disconnect_cb();
    EXPECT_EQ(vyrwrap_global.dal_lost, 1);
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(fake::dispatcher_calls.empty());
    EXPECT_TRUE(fake::log_lines.empty());
}

}  // namespace
