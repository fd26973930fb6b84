#include "staticroute/static_config.h"

#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/timer.h"
#include "staticroute/fixture.h"

namespace {

class StaticConfigTest : public StaticRouteTest {
protected:
    int write() { return write_static_config(&vyrwrap_global.static_routes); }

    /** The file's text with these lines between its first and last ones. */
    static std::string with(const std::string &lines) { return "protocol static {\n  ipv4;\n" + lines + "}\n"; }

    static StaticRouteCfg with_distance(StaticRouteCfg route, uint32_t distance) {
        route.distance = distance;
        return route;
    }
};

TEST_F(StaticConfigTest, AnEmptyTableIsThreeLines) {
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(static_file(), "protocol static {\n  ipv4;\n}\n");
}

TEST_F(StaticConfigTest, AGatewayRouteAndATwoWayClusterRoute) {
    add(gateway_route("10.1.0.0", "255.255.0.0", "192.168.10.1", 5));
    add(cluster_route("0.0.0.0", "0.0.0.0", "cluster_c1", 0));
    add(cluster_route("0.0.0.0", "0.0.0.0", "cluster_c2", 0));
    EXPECT_EQ(static_file(),
              "protocol static {\n"
              "  ipv4;\n"
              "  route 10.1.0.0/16 metric 5 via 192.168.10.1 {\n"
              "    krt_metric = 5;\n"
              "    preference = 256;\n"
              "  };\n"
              "  route 0.0.0.0/0 metric 1 via \"cluster_c1\" \n"
              "      via \"cluster_c2\" {\n"
              "        krt_metric = 1;\n"
              "        preference = 256;\n"
              "  };\n"
              "}\n");
}

TEST_F(StaticConfigTest, ASingleNextHopOfEachSort) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 7));
    add(cluster_route("10.2.0.0", "255.255.255.255", "cluster_c", 8));
    add(interface_route(5, "10.3.0.0", "255.255.0.0", "1.2.3.4", 12, 9));
    add(interface_route(6, "10.4.0.0", "255.255.0.0", "255.255.255.255", -1, 4294967295));
    EXPECT_EQ(static_file(),
              with("  route 10.1.0.0/16 metric 7 via \"map1\" {\n    krt_metric = 7;\n    preference = 256;\n  };\n"
                   "  route 10.2.0.0/32 metric 8 via \"cluster_c\" {\n    krt_metric = 8;\n    preference = 256;\n"
                   "  };\n"
                   "  route 10.3.0.0/16 metric 9 via \"__pppoe__vlan12_1.2.3.4\" {\n    krt_metric = 9;\n"
                   "    preference = 256;\n  };\n"
                   "  route 10.4.0.0/16 metric 4294967295 via \"__tnlintf__vlan4294967295_255.255.255.255\" {\n"
                   "    krt_metric = 4294967295;\n    preference = 256;\n  };\n"));
}

TEST_F(StaticConfigTest, SeveralNextHopsOfEachSort) {
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 3));
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 3));
    add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 3));
    add(interface_route(5, "10.1.0.0", "255.255.0.0", "1.2.3.4", 12, 3));
    add(interface_route(6, "10.1.0.0", "255.255.0.0", "1.2.3.5", 13, 3));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 3 via 1.1.1.1 \n"
                                  "      via \"map1\" \n"
                                  "      via \"cluster_c\" \n"
                                  "      via \"__pppoe__vlan12_1.2.3.4\" \n"
                                  "      via \"__tnlintf__vlan13_1.2.3.5\" {\n"
                                  "        krt_metric = 3;\n"
                                  "        preference = 256;\n"
                                  "  };\n"));
}

TEST_F(StaticConfigTest, ADistanceOf50WritesNoPreference) {
    add(with_distance(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 3), 50));
    add(with_distance(gateway_route("10.2.0.0", "255.255.0.0", "1.1.1.1", 3), 50));
    add(with_distance(gateway_route("10.2.0.0", "255.255.0.0", "1.1.1.2", 3), 50));
    add(with_distance(gateway_route("10.3.0.0", "255.255.0.0", "1.1.1.1", 3), 55));
    add(with_distance(gateway_route("10.4.0.0", "255.255.0.0", "1.1.1.1", 3), 300));
    EXPECT_EQ(static_file(),
              with("  route 10.1.0.0/16 metric 3 via 1.1.1.1 {\n    krt_metric = 3;\n  };\n"
                   "  route 10.2.0.0/16 metric 3 via 1.1.1.1 \n      via 1.1.1.2 {\n        krt_metric = 3;\n  };\n"
                   "  route 10.3.0.0/16 metric 3 via 1.1.1.1 {\n    krt_metric = 3;\n    preference = 201;\n  };\n"
                   "  route 10.4.0.0/16 metric 3 via 1.1.1.1 {\n    krt_metric = 3;\n    preference = 4294967252;\n"
                   "  };\n"));
}

TEST_F(StaticConfigTest, ADroppedRouteIsOneLine) {
    StaticRouteCfg drop = gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 3);
    drop.flags = NEXT_HOP_DROP;
    add(drop);
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 drop;\n"));
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 3));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 drop;\n"));
}

TEST_F(StaticConfigTest, OnlyTheFirstSelectedNextHopDropsARoute) {
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 50));
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 50));
    entry(0).flags[1] = NEXT_HOP_DROP;
    write();
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 50 via 1.1.1.1 \n      via 1.1.1.2 {\n"
                                  "        krt_metric = 50;\n        preference = 256;\n  };\n"));
}

TEST_F(StaticConfigTest, ADropFlagOnANameCountsWithSeveralNextHopsOnly) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 1));
    add(cluster_route("10.2.0.0", "255.255.0.0", "cluster_c", 1));
    entry(0).flags[0] |= NEXT_HOP_DROP;
    entry(1).flags[0] |= NEXT_HOP_DROP;
    write();
    EXPECT_EQ(static_file(),
              with("  route 10.1.0.0/16 metric 1 via \"map1\" {\n    krt_metric = 1;\n    preference = 256;\n  };\n"
                   "  route 10.2.0.0/16 metric 1 via \"cluster_c\" {\n    krt_metric = 1;\n    preference = 256;\n"
                   "  };\n"));
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 1));
    add(gateway_route("10.2.0.0", "255.255.0.0", "1.1.1.1", 1));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 drop;\n  route 10.2.0.0/16 drop;\n"));
}

TEST_F(StaticConfigTest, HostBitsAreWrittenAsTheyAre) {
    add(gateway_route("10.1.2.3", "255.0.255.0", "1.1.1.1", 1));
    EXPECT_EQ(static_file(), with("  route 10.1.2.3/16 metric 1 via 1.1.1.1 {\n    krt_metric = 1;\n"
                                  "    preference = 256;\n  };\n"));
}

TEST_F(StaticConfigTest, ARouteThatLosesItsLastNextHopIsWrittenOnceMoreViaNoAddress) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 7));
    remove(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 0));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 7 via 0.0.0.0 {\n    krt_metric = 7;\n"
                                  "    preference = 256;\n  };\n"));
    write();
    EXPECT_EQ(static_file(), with(""));
}

TEST_F(StaticConfigTest, ADroppedRouteThatIsDeletedIsNotWrittenAsDropped) {
    StaticRouteCfg drop = gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 3);
    drop.flags = NEXT_HOP_DROP;
    add(drop);
    remove(drop);
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 3 via 0.0.0.0 {\n    krt_metric = 3;\n"
                                  "    preference = 256;\n  };\n"));
}

TEST_F(StaticConfigTest, AMissingNameIsWrittenAsNullAndLogged) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 1));
    add(cluster_route("10.2.0.0", "255.255.0.0", "cluster_c", 1));
    free(entry(0).map_name[0]);
    free(entry(1).cluster_name[0]);
    entry(0).map_name[0] = nullptr;
    entry(1).cluster_name[0] = nullptr;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(static_file(),
              with("  route 10.1.0.0/16 metric 1 via \"NULL\" {\n    krt_metric = 1;\n    preference = 256;\n  };\n"
                   "  route 10.2.0.0/16 metric 1 via \"NULL\" {\n    krt_metric = 1;\n    preference = 256;\n  };\n"));
    const std::vector<std::string> lines = {
        "<VYRWRAP> write_static_config: IPSEC name not set for route 10.1.0.0/16",
        "<VYRWRAP> write_static_config: Cluster name not set for route 10.2.0.0/16"};
    EXPECT_EQ(fake::log_texts(3), lines);
}

TEST_F(StaticConfigTest, AMissingNamesLineHoldsTheLongestDestination) {
    add(ipsec_route("110.111.112.113", "255.255.255.255", "map\"", 1));
    add(cluster_route("210.211.212.213", "255.255.255.255", "cluster_\"", 1));
    fake::log_lines.clear();
    EXPECT_EQ(write(), 0);
    const std::vector<std::string> lines = {
        "<VYRWRAP> write_static_config: IPSEC name not set for route 110.111.112.113/32",
        "<VYRWRAP> write_static_config: Cluster name not set for route 210.211.212.213/32"};
    EXPECT_EQ(fake::log_texts(3), lines);
}

TEST_F(StaticConfigTest, APppoeNextHopHoldsTheLongestGateway) {
    add(interface_route(ROUTE_KIND_PPPOE, "10.3.0.0", "255.255.0.0", "210.211.212.213", 4094, 1));
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(static_file(), with("  route 10.3.0.0/16 metric 1 via \"__pppoe__vlan4094_210.211.212.213\" {\n"
                                  "    krt_metric = 1;\n    preference = 256;\n  };\n"));
}

TEST_F(StaticConfigTest, MissingNamesAreLoggedForADroppedRouteToo) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map\"1", 1));
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 1));
    entry(0).flags[0] |= NEXT_HOP_DROP;
    fake::log_lines.clear();
    write();
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 drop;\n"));
    EXPECT_EQ(fake::log_texts(3).size(), 1U);
}

TEST_F(StaticConfigTest, ANameThatCannotStandBetweenQuotesIsWrittenAsMissing) {
    const std::string null_route =
        with("  route 10.1.0.0/16 metric 1 via \"NULL\" {\n    krt_metric = 1;\n    preference = 256;\n  };\n");
    for (const char *name : {"a\"b", "\"; }; include \"/etc/passwd", "a\nb", "a\x01", "\x7f", "\t", "a\r"}) {
        fake::log_lines.clear();
        ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", name, 1)), 1);
        EXPECT_EQ(static_file(), null_route);
        EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{"<VYRWRAP> write_static_config: IPSEC name not set for "
                                                               "route 10.1.0.0/16"});
        EXPECT_STREQ(entry(0).map_name[0], name) << "the table keeps the true name";
        ASSERT_EQ(remove(ipsec_route("10.1.0.0", "255.255.0.0", name, 1)), 1);
        EXPECT_EQ(entry(0).in_use, 0U);
        ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", name, 1)), 1);
        EXPECT_EQ(static_file(), null_route);
        ASSERT_EQ(remove(cluster_route("10.1.0.0", "255.255.0.0", name, 1)), 1);
    }
}

TEST_F(StaticConfigTest, AClusterComesBeforeAMapWhereASlotIsFlaggedAsBoth) {
    add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 1));
    entry(0).flags[0] = NEXT_HOP_CLUSTER | NEXT_HOP_IPSEC;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 1 via \"cluster_c\" {\n    krt_metric = 1;\n"
                                  "    preference = 256;\n  };\n"));
}

TEST_F(StaticConfigTest, AnyOtherNameIsWrittenAsItIs) {
    const std::string longest = std::string(190, '%') + "s {};\\ \xc3\xa4";
    add(ipsec_route("10.1.0.0", "255.255.0.0", longest, 1));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 1 via \"" + longest +
                                  "\" {\n    krt_metric = 1;\n    preference = 256;\n  };\n"));
}

/* ---- filter mode ---- */

TEST_F(StaticConfigTest, MarksMapNamesOfTheDataVpncForm) {
    const std::pair<const char *, int> names[] = {{"data-vpnc-00:1B:2c:3D:4e:5F-uplink", 1},
                                                  {"data-vpnc-0:1:2:3:4:5-x", 1},
                                                  {"data-vpnc-00:1B:2C:3D:4E:5F-", 0},
                                                  {"data-vpnc-00:1B:2C:3D:4E-uplink", 0},
                                                  {"data-vpnc-00:1B:2C:3D:4E:5G-uplink", 0},
                                                  {"xdata-vpnc-00:1B:2C:3D:4E:5F-uplink", 0},
                                                  {"map1", 0}};
    for (const auto &[name, marked] : names) {
        add(ipsec_route("10.1.0.0", "255.255.0.0", name, 1));
        EXPECT_EQ(entry(0).data_vpnc[0], marked) << name;
        remove(ipsec_route("10.1.0.0", "255.255.0.0", name, 1));
    }
}

class FilterTest : public StaticConfigTest {
protected:
    void fill(const char *dest, const char *mask) {
        add(ipsec_route(dest, mask, "data-vpnc-00:1B:2C:3D:4E:5F-uplink", 1));
        add(ipsec_route(dest, mask, "map1", 1));
        add(gateway_route(dest, mask, "1.1.1.1", 1));
    }
};

constexpr char kAllThree[] =
    " metric 1 via \"data-vpnc-00:1B:2C:3D:4E:5F-uplink\" \n      via \"map1\" \n"
    "      via 1.1.1.1 {\n        krt_metric = 1;\n        preference = 256;\n  };\n";

TEST_F(FilterTest, Mode0WritesEveryNextHop) {
    fill("10.1.0.0", "255.255.0.0");
    EXPECT_EQ(static_file(), with(std::string("  route 10.1.0.0/16") + kAllThree));
}

TEST_F(FilterTest, Mode1LeavesDataVpncOut) {
    fill("10.1.0.0", "255.255.0.0");
    vyrwrap_global.static_routes.filter_mode = 1;
    write();
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 1 via \"map1\" \n      via 1.1.1.1 {\n"
                                  "        krt_metric = 1;\n        preference = 256;\n  };\n"));
    remove(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 1));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 1 via \"map1\" {\n    krt_metric = 1;\n"
                                  "    preference = 256;\n  };\n"));
}

TEST_F(FilterTest, AnyOtherModeLeavesEverythingOut) {
    fill("10.1.0.0", "255.255.0.0");
    vyrwrap_global.static_routes.filter_mode = 2;
    write();
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 1 via 0.0.0.0 {\n    krt_metric = 1;\n"
                                  "    preference = 256;\n  };\n"));
}

TEST_F(FilterTest, DefaultRoutesAreNeverFiltered) {
    fill("0.0.0.0", "0.0.0.0");
    fill("10.0.0.0", "0.0.0.0");
    fill("0.0.0.0", "255.0.0.0");
    for (const uint8_t mode : {uint8_t{1}, uint8_t{2}}) {
        vyrwrap_global.static_routes.filter_mode = mode;
        write();
        EXPECT_EQ(static_file(), with(std::string("  route 10.0.0.0/0") + kAllThree + "  route 0.0.0.0/8" + kAllThree));
    }
}

TEST_F(FilterTest, Mode1KeepsAGatewayInASlotThatHeldADataVpnc) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "data-vpnc-00:1B:2C:3D:4E:5F-uplink", 1));
    remove(ipsec_route("10.1.0.0", "255.255.0.0", "data-vpnc-00:1B:2C:3D:4E:5F-uplink", 1));
    vyrwrap_global.static_routes.filter_mode = 1;
    add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 1));
    EXPECT_EQ(static_file(), with("  route 10.1.0.0/16 metric 1 via 1.1.1.1 {\n    krt_metric = 1;\n"
                                  "    preference = 256;\n  };\n"));
}

/* ---- the file ---- */

TEST_F(StaticConfigTest, RaisesTheDirtyFlagAndBeginsTheQuietPeriodAnew) {
    vyrwrap_global.dirty_wait_ticks = 1;
    vyrwrap_global.dirty_total_ticks = 5;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.dirty_total_ticks, 5U);
    EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{"<VYRWRAP>: Dirty flag set at write_static_config"});
    EXPECT_TRUE(fake::log_texts(6).empty());
}

TEST_F(StaticConfigTest, FailsWithoutAWordWhenTheFileCannotBeOpened) {
    mkdir(kStaticFile, 0755);
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map\"1", 1));
    fake::log_lines.clear();
    vyrwrap_global.default_route_changed = 1;
    vyrwrap_global.config_dirty = 0;
    errno = 0;
    EXPECT_EQ(write(), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    EXPECT_EQ(vyrwrap_global.default_route_changed, 1);
}

TEST_F(StaticConfigTest, AFullFileSystemKeepsTheOldFile) {
    for (int i = 0; i < 272; i++)
        add(numbered_route(i, "1.1.1.1", 1));
    const std::string file = static_file();
    add(numbered_route(5, "1.1.1.2", 1));
    const std::string longer = static_file();
    EXPECT_NE(file, longer);
    for (const char *call : {"write", "rename"}) {
        fake::fail_call(call, ENOSPC);
        vyrwrap_global.config_dirty = 0;
        errno = 0;
        EXPECT_EQ(remove(numbered_route(5, "1.1.1.2", 1)), 0);
        EXPECT_EQ(static_file(), longer);
        EXPECT_EQ(vyrwrap_global.config_dirty, 0);
        EXPECT_EQ(add(numbered_route(5, "1.1.1.2", 1)), 1);
        EXPECT_EQ(static_file(), longer);
    }
}

TEST_F(StaticConfigTest, NothingOfARenderingThatRanOutOfMemoryIsKept) {
    for (int i = 0; i < 250; i++)
        add(numbered_route(i, "1.1.1.1", 1));
    for (uint32_t round = 0; round < 12; round++) {  // memory ends at other places of a route each time
        const uint32_t metric = 1000 + round;
        std::string routes;
        for (int i = 0; i < 250; i++) {
            entry(i).metric = i == 0 ? 1U << (2 * round) : metric;
            const std::string shown = std::to_string(entry(i).metric);
            routes += "  route 10.0." + std::to_string(i) + ".0/24 metric " + shown +
                      " via 1.1.1.1 {\n    krt_metric = " + shown + ";\n    preference = 256;\n  };\n";
        }
        fake::fail_call("realloc", ENOMEM, static_cast<int>(round % 4));
        EXPECT_EQ(write(), -1) << round;
        EXPECT_EQ(write(), 0);
        EXPECT_EQ(static_file(), with(routes)) << round;
    }
}

TEST_F(StaticConfigTest, OneChangeIsOneWriteAndOneReplacement) {
    for (int i = 0; i < 272; i++)
        add(numbered_route(i, "1.1.1.1", 1));
    const int writes = fake::call_count("write");
    const int renames = fake::call_count("rename");
    add(numbered_route(5, "1.1.1.2", 1));
    EXPECT_EQ(fake::call_count("write") - writes, 1);
    EXPECT_EQ(fake::call_count("rename") - renames, 1);
}

/* ---- written again by the timer ---- */

TEST_F(StaticConfigTest, TheTimerWritesWhatCouldNotBeWritten) {
    mkdir(kStaticFile, 0755);
    add(numbered_route(1, "1.1.1.1", 7));
    vyrwrap_mytimer();
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    rmdir(kStaticFile);
    vyrwrap_mytimer();
    EXPECT_EQ(static_file(), with("  route 10.0.1.0/24 metric 7 via 1.1.1.1 {\n    krt_metric = 7;\n"
                                  "    preference = 256;\n  };\n"));
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 1U);
}

TEST_F(StaticConfigTest, TheTimerWritesOutADeletionThatCouldNotBeWritten) {
    add(numbered_route(1, "1.1.1.1", 7));
    fake::fail_call("write", ENOSPC);
    remove(numbered_route(1, "1.1.1.1", 7));
    vyrwrap_mytimer();
    EXPECT_EQ(static_file(), with(""));
}

TEST_F(StaticConfigTest, TheTimerLeavesAFileThatWasWrittenMeanwhile) {
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(write(), -1);
    EXPECT_EQ(write(), 0);
    fake::write_file(kStaticFile, "as it was\n");
    vyrwrap_mytimer();
    EXPECT_EQ(static_file(), "as it was\n");
}

TEST_F(StaticConfigTest, ADefaultRouteThatCouldNotBeWrittenIsReloadedAtOnceWhenItIs) {
    vyrwrap_global.vyr_pid = kVyrPid;
    fake::fail_call("write", ENOSPC);
    add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1));
    EXPECT_TRUE(signals.empty());
    vyrwrap_mytimer();
    EXPECT_NE(static_file().find("  route 0.0.0.0/0 "), std::string::npos);
    EXPECT_EQ(signals, std::vector<int>{SIGHUP});
    EXPECT_EQ(vyrwrap_global.default_route_changed, 0);
}

}  // namespace
