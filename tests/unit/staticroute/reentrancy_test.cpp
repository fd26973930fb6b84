/* A default route runs the timer's handler from within the writer, which may subscribe, scan and apply routes. */
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "staticroute/fixture.h"
#include "staticroute/static_config.h"
#include "staticroute/subscription.h"

namespace {

class ReentrancyTest : public StaticRouteTest {
protected:
    void store(const std::string &key, const std::string &metric) { fake::strings[key] = metric; }

    int scans() {
        int count = 0;
        for (const std::string &call : fake::dal_calls)
            count += call == "dal_mget_by_wildcard /op/staticroute/*";
        return count;
    }

    int routes_in_file() {
        const std::string file = static_file();
        int count = 0;
        for (size_t at = file.find("  route "); at != std::string::npos; at = file.find("  route ", at + 1))
            count++;
        return count;
    }

    const std::string default_route = route_key("0.0.0.0", "0.0.0.0", 1, "1.1.1.1");
    const std::string other_default_route = route_key("0.0.0.0", "0.0.0.0", 1, "1.1.1.2");
    const std::string plain_route = route_key("10.1.0.0", "255.255.0.0", 2, "map1");
};

TEST_F(ReentrancyTest, TheTimerRunsWhenTheFileStandsAndBeforeTheFlagIsCleared) {
    fake::on_fork = [this](long *result) {
        EXPECT_EQ(vyrwrap_global.default_route_changed, 1);
        EXPECT_EQ(routes_in_file(), 1);
        EXPECT_TRUE(fake::logged(6, "<VYRWRAP> : write_static_config : Default Route in Static config"));
        EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: Dirty flag set at write_static_config"));
        forks++;
        *result = kVyrPid;
        return true;
    };
    EXPECT_EQ(add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(forks, 1);
    EXPECT_EQ(vyrwrap_global.default_route_changed, 0);
    EXPECT_EQ(vyrwrap_global.config_dirty, 0) << "the timer has applied the change";
    EXPECT_EQ(vyrwrap_global.vyr_pid, kVyrPid);
}

TEST_F(ReentrancyTest, ARouteThatIsNoDefaultRouteWaitsForTheTimer) {
    EXPECT_EQ(add(gateway_route("10.0.0.0", "255.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(forks, 0);
    EXPECT_EQ(vyrwrap_global.timer_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
}

TEST_F(ReentrancyTest, ARunningDaemonReloadsAtOnceForADefaultRoute) {
    vyrwrap_global.vyr_pid = kVyrPid;
    EXPECT_EQ(add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(remove(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(signals, (std::vector<int>{SIGHUP, SIGHUP}));
    EXPECT_EQ(forks, 0);
    EXPECT_EQ(entry(0).in_use, 0U);
}

TEST_F(ReentrancyTest, AFailedWriteLeavesTheFlagToTheNextOne) {
    vyrwrap_global.vyr_pid = kVyrPid;
    fake::fail_call("rename", EIO);
    EXPECT_EQ(add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1)), 0);
    EXPECT_TRUE(signals.empty());
    EXPECT_EQ(add(gateway_route("10.0.0.0", "255.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(signals, std::vector<int>{SIGHUP});
    EXPECT_EQ(vyrwrap_global.default_route_changed, 0);
}

TEST_F(ReentrancyTest, AScanOf272RoutesWithADefaultRouteFirst) {
    fake::set_log_level(6);
    store(default_route, "1");
    for (int i = 0; i < 271; i++)
        store(route_key("10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0", "255.255.255.0", 1,
                        "1.1.1.1"),
              "5");
    vyrwrap_subscribe_init();
    EXPECT_EQ(scans(), 1);
    EXPECT_EQ(forks, 1);
    EXPECT_TRUE(signals.empty());
    EXPECT_EQ(vyrwrap_global.timer_ticks, 1U);
    EXPECT_EQ(routes_in_file(), 272);
    EXPECT_EQ(entry(0).dest, 0U);
    EXPECT_EQ(entry(271).in_use, 1U);
    EXPECT_EQ(vyrwrap_global.static_route_count, 272U);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1) << "the others are read with the next reload";
}

TEST_F(ReentrancyTest, TwoDefaultRoutesStartTheDaemonAndReloadIt) {
    store(default_route, "1");
    store(other_default_route, "2");
    vyrwrap_subscribe_init();
    EXPECT_EQ(forks, 1);
    EXPECT_EQ(signals, std::vector<int>{SIGHUP});
    EXPECT_EQ(routes_in_file(), 2);
}

TEST_F(ReentrancyTest, ADefaultRouteAfterALostDalScansOnceFromWithinTheWriter) {
    store(default_route, "1");
    store(other_default_route, "1");
    store(plain_route, "5");
    vyrwrap_global.dal_lost = 1;
    const fake::Reply reply({"pmessage", "x", "__keyspace@0__:" + default_route, "set"});
    vyrwrap_static_route_subscribe_callback(fake::context(), reply.get(), nullptr);
    EXPECT_EQ(scans(), 1);
    EXPECT_EQ(vyrwrap_global.dal_lost, 0);
    EXPECT_EQ(vyrwrap_global.default_route_changed, 0);
    EXPECT_EQ(forks, 1);
    EXPECT_EQ(signals, (std::vector<int>{SIGHUP, SIGHUP})) << "one for each default route of the scan";
    EXPECT_EQ(entry(0).gateway[0], 0x01010101U);
    EXPECT_EQ(entry(0).gateway[1], 0x01010102U);
    EXPECT_EQ(entry(0).used[2], 0);
    EXPECT_STREQ(entry(1).map_name[0], "map1");
    EXPECT_EQ(vyrwrap_global.static_route_count, 3U);
    EXPECT_EQ(routes_in_file(), 2);
}

TEST_F(ReentrancyTest, NothingLoopsWhileTheRoutingDaemonCannotBeStarted) {
    for (int i = 0; i < 5; i++)
        store(route_key("0.0.0.0", "0.0.0.0", 1, "1.1.1." + std::to_string(i)), "1");
    fake::fail_call("fork", ENOMEM, 0, 1000);
    vyrwrap_global.dal_lost = 1;
    vyrwrap_subscribe_init();
    EXPECT_EQ(scans(), 2) << "the own one and the one after the loss";
    EXPECT_EQ(fake::call_count("fork"), 10) << "one try for each default route applied";
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(routes_in_file(), 1);
}

TEST_F(ReentrancyTest, ALossDuringEveryScanEndsToo) {
    store(default_route, "1");
    int losses = 20;
    fake::on_dal_call = [&](const std::string &call) {
        if (call == "dal_mget_by_wildcard /op/staticroute/*" && losses-- > 0)
            vyrwrap_global.dal_lost = 1;
    };
    fake::fail_call("fork", ENOMEM, 0, 1000);
    vyrwrap_subscribe_init();
    EXPECT_EQ(scans(), 21);
    EXPECT_EQ(routes_in_file(), 1);
}

TEST_F(ReentrancyTest, AnEntryFilledAgainWhileItsDeletionIsWrittenStays) {
    ASSERT_EQ(add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1)), 1);
    store(other_default_route, "1");
    vyrwrap_global.vyr_pid = 0;
    vyrwrap_global.dal_lost = 1;
    EXPECT_EQ(remove(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 0)), 1);
    EXPECT_EQ(entry(0).in_use, 1U);
    EXPECT_EQ(entry(0).used[0], 1);
    EXPECT_EQ(entry(0).gateway[0], 0x01010102U);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U);
    EXPECT_NE(static_file().find("via 1.1.1.2 {"), std::string::npos);
}

TEST_F(ReentrancyTest, ANameFreedWhileItsRouteIsWrittenIsNotUsedAgain) {
    ASSERT_EQ(add(ipsec_route("0.0.0.0", "0.0.0.0", "map1", 1)), 1);
    store(route_key("0.0.0.0", "0.0.0.0", 2, "map1"), "7");
    vyrwrap_global.vyr_pid = 0;
    vyrwrap_global.dal_lost = 1;
    EXPECT_EQ(add(ipsec_route("0.0.0.0", "0.0.0.0", "map1", 1)), 1);
    EXPECT_EQ(entry(0).in_use, 0U) << "the scan has moved it";
    EXPECT_EQ(entry(1).metric, 7U);
    EXPECT_STREQ(entry(1).map_name[0], "map1");
}

}  // namespace
