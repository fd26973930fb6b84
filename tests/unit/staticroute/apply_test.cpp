#include <errno.h>
#include <sys/stat.h>

#include "staticroute/fixture.h"

namespace {

using ApplyTest = StaticRouteTest;
using AllocTest = fake::Test;

const char kFailed[] = "<VYRWRAP>: vyrwrapStaticRouteApply: ";

TEST_F(AllocTest, MakesAnEmptyTableOf272Entries) {
    vyrwrap_global.static_routes.filter_mode = 1;
    vyrwrap_alloc_static_route_table();
    ASSERT_NE(vyrwrap_global.static_routes.entries, nullptr);
    EXPECT_EQ(vyrwrap_global.static_routes.filter_mode, 0);
    const std::string zero(272 * sizeof(StaticRouteEntry), '\0');
    EXPECT_EQ(memcmp(vyrwrap_global.static_routes.entries, zero.data(), zero.size()), 0);
    free_static_routes();
}

TEST_F(AllocTest, WithoutMemoryTheProcessEndsWithStatus12) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(
        {
            atexit([] {
                for (const std::string &text : fake::log_texts(3))
                    fputs(text.c_str(), stderr);
                fake::reset();  // who else ends with the process finds memory
            });
            fake::fail_call("calloc", ENOMEM);
            fake::fail_call("malloc", ENOMEM);
            vyrwrap_alloc_static_route_table();
        },
        testing::ExitedWithCode(12), "^Memory allocation of static route table failed, exiting\n$");
}

TEST(MaskTest, ThePrefixLengthIsTheNumberOfSetBits) {
    EXPECT_EQ(mask_to_prefixlen(0), 0);
    EXPECT_EQ(mask_to_prefixlen(0xFFFF0000), 16);
    EXPECT_EQ(mask_to_prefixlen(0xFFFFFFFF), 32);
    EXPECT_EQ(mask_to_prefixlen(0xFF00FF01), 17);
}

/* ---- add ---- */

TEST_F(ApplyTest, AddsAPlainGateway) {
    StaticRouteCfg route = gateway_route("10.1.2.3", "255.255.0.0", "192.168.10.1", 5);
    route.flags = 0x10;
    route.vlan = 7;
    route.distance = 50;
    ASSERT_EQ(add(route), 1);
    EXPECT_EQ(report.error_present, 0);
    EXPECT_EQ(entry(0).dest, 0x0A010203U);
    EXPECT_EQ(entry(0).mask, 0xFFFF0000U);
    EXPECT_EQ(entry(0).in_use, 1U);
    EXPECT_EQ(entry(0).metric, 5U);
    EXPECT_EQ(entry(0).gateway[0], 0xC0A80A01U);
    EXPECT_EQ(entry(0).flags[0], 0x10U);
    EXPECT_EQ(entry(0).kind[0], 2U);
    EXPECT_EQ(entry(0).used[0], 1);
    EXPECT_EQ(entry(0).vlan[0], 7);
    EXPECT_EQ(entry(0).distance, 50U);
    EXPECT_EQ(entry(0).map_name[0], nullptr);
    EXPECT_EQ(entry(0).cluster_name[0], nullptr);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
}

TEST_F(ApplyTest, AddsAnIpsecMap) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    EXPECT_STREQ(entry(0).map_name[0], "map1");
    EXPECT_EQ(entry(0).flags[0], 2U);
    EXPECT_EQ(entry(0).kind[0], 2U);
    EXPECT_EQ(entry(0).gateway[0], 0U);
}

TEST_F(ApplyTest, AddsACluster) {
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c1", 5)), 1);
    EXPECT_STREQ(entry(0).cluster_name[0], "cluster_c1");
    EXPECT_EQ(entry(0).flags[0], 8U);
    EXPECT_EQ(entry(0).kind[0], 2U);
}

TEST_F(ApplyTest, AddsInterfaceNextHopsWithTheirKind) {
    ASSERT_EQ(add(interface_route(5, "10.1.0.0", "255.255.0.0", "1.1.1.1", 12, 1)), 1);
    ASSERT_EQ(add(interface_route(6, "10.1.0.0", "255.255.0.0", "1.1.1.2", 13, 1)), 1);
    EXPECT_EQ(entry(0).kind[0], 5U);
    EXPECT_EQ(entry(0).vlan[0], 12);
    EXPECT_EQ(entry(0).gateway[0], 0x01010101U);
    EXPECT_EQ(entry(0).kind[1], 6U);
    EXPECT_EQ(entry(0).vlan[1], 13);
    EXPECT_EQ(entry(0).gateway[1], 0x01010102U);
}

TEST_F(ApplyTest, MarksTheNextHopsOfTheDefaultRoute) {
    StaticRouteCfg plain = gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1);
    plain.flags = NEXT_HOP_DROP;
    ASSERT_EQ(add(plain), 1);
    ASSERT_EQ(add(ipsec_route("0.0.0.0", "0.0.0.0", "m", 1)), 1);
    ASSERT_EQ(add(cluster_route("0.0.0.0", "0.0.0.0", "cluster_c", 1)), 1);
    EXPECT_EQ(entry(0).flags[0], 1U);
    EXPECT_EQ(entry(0).flags[1], 3U);
    EXPECT_EQ(entry(0).flags[2], 9U);
}

TEST_F(ApplyTest, ADefaultRouteRaisesItsFlagEvenWhenTheFileCannotBeWritten) {
    mkdir(kStaticFile, 0755);
    add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1));
    EXPECT_EQ(vyrwrap_global.default_route_changed, 1);
}

TEST_F(ApplyTest, DeletingADefaultRouteThatIsNotThereRaisesItsFlagToo) {
    EXPECT_EQ(remove(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(vyrwrap_global.default_route_changed, 1);
    EXPECT_EQ(forks, 0);
}

TEST_F(ApplyTest, NoOtherRouteRaisesTheDefaultRouteFlag) {
    mkdir(kStaticFile, 0755);
    add(gateway_route("10.0.0.0", "0.0.0.0", "1.1.1.1", 1));
    add(gateway_route("0.0.0.0", "255.0.0.0", "1.1.1.1", 1));
    EXPECT_EQ(vyrwrap_global.default_route_changed, 0);
}

TEST_F(ApplyTest, LogsEachRouteAtDebugLevel) {
    add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5));
    EXPECT_TRUE(fake::logged(7, std::string(kFailed) +
                                    "type 2 dest 10.1.0.0/16 nh_ip 0.0.0.0 vlan 0 metric 5 flags 0x0 (mapname map1 or "
                                    "clustername NULL) >> ADD"));
    remove(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c1", 5));
    EXPECT_TRUE(fake::logged(7, std::string(kFailed) +
                                    "type 7 dest 10.1.0.0/16 nh_ip 0.0.0.0 vlan 0 metric 5 flags 0x0 (mapname NULL or "
                                    "clustername cluster_c1) >> DELETE"));
    StaticRouteCfg route = interface_route(5, "10.1.0.0", "255.255.0.0", "1.2.3.4", -1, 5);
    route.flags = 0x14;
    add(route);
    EXPECT_TRUE(fake::logged(7, std::string(kFailed) +
                                    "type 5 dest 10.1.0.0/16 nh_ip 1.2.3.4 vlan 4294967295 metric 5 flags 0x14 "
                                    "(mapname NULL or clustername NULL) >> ADD"));
}

TEST_F(ApplyTest, NextHopsOfOneMetricShareAnEntry) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.7", "255.255.0.0", "1.1.1.2", 5)), 1);
    EXPECT_EQ(entry(0).used[1], 1);
    EXPECT_EQ(entry(0).gateway[1], 0x01010102U);
    EXPECT_EQ(entry(0).dest, 0x0A010007U) << "host bits of the last one stay";
    EXPECT_EQ(entry(1).in_use, 0U);
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U);
}

TEST_F(ApplyTest, OtherMetricsAndMasksHaveEntriesOfTheirOwn) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 6)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.255.0", "1.1.1.1", 5)), 1);
    EXPECT_EQ(entry(0).metric, 5U);
    EXPECT_EQ(entry(1).metric, 6U);
    EXPECT_EQ(entry(2).mask, 0xFFFFFF00U);
}

TEST_F(ApplyTest, ADefaultRouteIsNotTakenForAFreeEntryOfItsMetric) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 7)), 1);
    ASSERT_EQ(add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.1", 7)), 1);
    ASSERT_EQ(remove(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 0)), 1);
    ASSERT_EQ(add(gateway_route("0.0.0.0", "0.0.0.0", "1.1.1.2", 7)), 1);
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(entry(1).used[1], 1);
}

TEST_F(ApplyTest, AnExistingNextHopIsUpdatedInPlaceAndNotCounted) {
    StaticRouteCfg route = gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5);
    ASSERT_EQ(add(route), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 5)), 1);
    fake::write_file(kStaticFile, "old");
    route.distance = 50;
    route.flags = 0x20;
    ASSERT_EQ(add(route), 1);
    EXPECT_EQ(entry(0).flags[0], 0x20U);
    EXPECT_EQ(entry(0).distance, 50U);
    EXPECT_EQ(entry(0).used[2], 0);
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U);
    EXPECT_NE(static_file(), "old");
}

TEST_F(ApplyTest, AnExistingNamedNextHopIsUpdatedInPlace) {
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
        ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 1);
    }
    EXPECT_STREQ(entry(0).map_name[0], "map1");
    EXPECT_STREQ(entry(0).cluster_name[1], "cluster_c");
    EXPECT_EQ(entry(0).used[2], 0);
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U);
}

TEST_F(ApplyTest, NamesAreComparedToTheirFullLength) {
    const std::string name(198, 'm');
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", name + "a", 5)), 1);
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", name + "b", 5)), 1);
    const std::string cluster(39, 'c');
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", cluster + "a", 5)), 1);
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", cluster + "b", 5)), 1);
    EXPECT_EQ(entry(0).map_name[1], name + "b");
    EXPECT_EQ(entry(0).cluster_name[3], cluster + "b");
    EXPECT_EQ(vyrwrap_global.static_route_count, 4U);
}

TEST_F(ApplyTest, TakesNamesThatFillTheirFieldWithoutATerminator) {
    StaticRouteCfg route = ipsec_route("10.1.0.0", "255.255.0.0", "", 5);
    memset(route.map_name, 'm', sizeof route.map_name);
    memset(route.cluster_name, 'c', sizeof route.cluster_name);
    ASSERT_EQ(add(route), 1);
    EXPECT_EQ(vyrwrap_global.cur_nexthop_str, std::string(200, 'm'));
    EXPECT_EQ(entry(0).map_name[0], std::string(200, 'm'));
    route.kind = ROUTE_KIND_CLUSTER;
    ASSERT_EQ(add(route), 1);
    EXPECT_EQ(vyrwrap_global.cur_nexthop_str, std::string(41, 'c'));
    EXPECT_EQ(entry(0).cluster_name[1], std::string(41, 'c'));
    EXPECT_EQ(remove(route), 1);
    EXPECT_EQ(entry(0).used[1], 0);
}

TEST_F(ApplyTest, ASlotWithoutANameMatchesNoNamedNextHop) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 5)), 1);
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "", 5)), 1);
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "", 5)), 1);
    EXPECT_EQ(entry(0).used[2], 1);
}

TEST_F(ApplyTest, AnUnusedSlotIsNotTakenForARouteWithoutNextHop) {
    const StaticRouteCfg nowhere = gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 5);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    fake::write_file(kStaticFile, "old");
    ASSERT_EQ(remove(nowhere), 1);
    EXPECT_EQ(static_file(), "old") << "there was nothing to delete";
    vyrwrap_global.static_route_count = 1;
    ASSERT_EQ(add(nowhere), 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U) << "a new next hop";
}

TEST_F(ApplyTest, ARouteWithoutNextHopReplacesANamedOneAndFreesItsName) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 5)), 1);
    EXPECT_EQ(entry(0).map_name[0], nullptr);
    EXPECT_EQ(entry(0).flags[0], 0U);
    EXPECT_EQ(entry(0).used[1], 0);
}

TEST_F(ApplyTest, ADropRouteTakesSlotZero) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    StaticRouteCfg drop = gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.9", 5);
    drop.flags = NEXT_HOP_DROP;
    ASSERT_EQ(add(drop), 1);
    EXPECT_EQ(entry(0).flags[0], 4U);
    EXPECT_EQ(entry(0).gateway[0], 0x01010109U);
    EXPECT_EQ(entry(0).map_name[0], nullptr);
    EXPECT_EQ(entry(0).used[1], 0);
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U);
}

TEST_F(ApplyTest, ADropRouteThatExistsStaysInItsSlot) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    StaticRouteCfg drop = gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 5);
    ASSERT_EQ(add(drop), 1);
    drop.flags = NEXT_HOP_DROP;
    ASSERT_EQ(add(drop), 1);
    EXPECT_EQ(entry(0).flags[0], 0U);
    EXPECT_EQ(entry(0).flags[1], 4U);
}

TEST_F(ApplyTest, ADropRouteFindsRoomInAFullEntry) {
    for (const char *gateway : {"1.1.1.1", "1.1.1.2", "1.1.1.3", "1.1.1.4", "1.1.1.5"})
        ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", gateway, 5)), 1);
    StaticRouteCfg drop = gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.9", 5);
    drop.flags = NEXT_HOP_DROP;
    ASSERT_EQ(add(drop), 1);
    EXPECT_EQ(entry(0).gateway[0], 0x01010109U);
}

TEST_F(ApplyTest, ADropRouteToAClusterForgetsTheGatewayBefore) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    StaticRouteCfg drop = cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5);
    drop.flags = NEXT_HOP_DROP;
    ASSERT_EQ(add(drop), 1);
    EXPECT_EQ(entry(0).gateway[0], 0U);
    EXPECT_EQ(entry(0).flags[0], 8U);
}

TEST_F(ApplyTest, ADropRouteToAMapForgetsTheGatewayBefore) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    StaticRouteCfg drop = ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5);
    drop.flags = NEXT_HOP_DROP;
    ASSERT_EQ(add(drop), 1);
    EXPECT_EQ(entry(0).gateway[0], 0U);
    EXPECT_EQ(entry(0).flags[0], 2U);
}

/* ---- limits ---- */

TEST_F(ApplyTest, ASixthNextHopIsRefused) {
    for (const char *gateway : {"1.1.1.1", "1.1.1.2", "1.1.1.3", "1.1.1.4", "1.1.1.5"})
        ASSERT_EQ(add(interface_route(5, "10.1.0.0", "255.255.0.0", gateway, 1, 5)), 1);
    fake::write_file(kStaticFile, "old");
    EXPECT_EQ(add(interface_route(5, "10.1.0.0", "255.255.0.0", "1.1.1.6", 1, 5)), 0);
    const std::string text =
        "Maximum Multi-path/ECMP routes allowed are 5. Route add failed for 10.1.0.0/16 via 1.1.1.6\n";
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kFailed + text});
    EXPECT_EQ(report.text, "Error: " + text);
    EXPECT_EQ(report.error_present, 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 5U);
    EXPECT_EQ(static_file(), "old");
}

TEST_F(ApplyTest, ASixthDefaultRouteIsRefusedInItsOwnWords) {
    for (const char *name : {"cluster_1", "cluster_2", "cluster_3", "cluster_4", "cluster_5"})
        ASSERT_EQ(add(cluster_route("0.0.0.0", "0.0.0.0", name, 5)), 1);
    EXPECT_EQ(add(cluster_route("0.0.0.0", "0.0.0.0", "cluster_6", 5)), 0);
    const std::string text = "Maximum allowed default routes are 5. Route add failed for 0.0.0.0/0 via cluster_6\n";
    EXPECT_TRUE(fake::logged(3, kFailed + text));
    EXPECT_EQ(report.text, "Error: " + text);
    EXPECT_EQ(report.error_present, 1);
    EXPECT_EQ(add(cluster_route("0.0.0.0", "0.0.0.0", "cluster_6", 6)), 1) << "another metric has room";
}

TEST_F(ApplyTest, ARefusedNextHopKeepsItsPlaceAtAnotherMetric) {
    for (const char *gateway : {"1.1.1.1", "1.1.1.2", "1.1.1.3", "1.1.1.4", "1.1.1.5"})
        ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", gateway, 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.6", 6)), 1);
    EXPECT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.6", 5)), 0);
    EXPECT_EQ(entry(1).gateway[0], 0x01010106U);
}

class FullTableTest : public StaticRouteTest {
protected:
    void SetUp() override {
        StaticRouteTest::SetUp();
        fake::set_log_level(3);
        for (int i = 0; i < 272; i++)
            ASSERT_EQ(add(numbered_route(i, "1.1.1.1", 5)), 1);
    }
};

TEST_F(FullTableTest, The273rdRouteIsRefused) {
    ASSERT_EQ(add(ipsec_route("11.0.0.0", "255.0.0.0", "map1", 5)), 0);
    EXPECT_EQ(fake::log_texts(3),
              std::vector<std::string>{std::string(kFailed) + "No free slot to add route entry. Maximum routes 272. "
                                                              "Route add failed for 11.0.0.0/8 via map1"});
    EXPECT_STREQ(report.text,
                 "Error: No free slot to add route entry. Masimum routes 272. Route add failed for "
                 "11.0.0.0/8 via map1");
    EXPECT_EQ(report.error_present, 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 272U);
}

TEST_F(FullTableTest, FurtherNextHopsOfItsRoutesAreTaken) {
    EXPECT_EQ(add(numbered_route(271, "1.1.1.2", 5)), 1);
    EXPECT_EQ(entry(271).used[1], 1);
}

TEST_F(FullTableTest, AFreedEntryIsUsedAgain) {
    ASSERT_EQ(remove(numbered_route(100, "1.1.1.1", 0)), 1);
    ASSERT_EQ(add(ipsec_route("11.0.0.0", "255.0.0.0", "map1", 5)), 1);
    EXPECT_STREQ(entry(100).map_name[0], "map1");
    EXPECT_EQ(entry(100).gateway[0], 0U);
}

/** The place is looked for before the old metric's entry is freed. */
TEST_F(FullTableTest, AMoveToANewMetricTakesTheNextHopAwayAndFails) {
    const std::string file = static_file();
    EXPECT_EQ(add(numbered_route(100, "1.1.1.1", 6)), 0);
    EXPECT_TRUE(fake::logged(3, std::string(kFailed) + "No free slot to add route entry. Maximum routes 272. Route add "
                                                       "failed for 10.0.100.0/24 via "));
    EXPECT_EQ(entry(100).in_use, 0U);
    EXPECT_EQ(static_file(), file) << "a failure writes nothing";
    EXPECT_EQ(vyrwrap_global.static_route_count, 272U);
    EXPECT_EQ(add(numbered_route(100, "1.1.1.1", 6)), 1);
    EXPECT_EQ(entry(100).metric, 6U);
}

TEST_F(ApplyTest, RefusesNetworksThatNoRouteMayHave) {
    for (const char *dest : {"127.0.0.0", "127.255.0.1", "0.1.2.3", "0.0.0.1"}) {
        fake::log_lines.clear();
        EXPECT_EQ(add(gateway_route(dest, "255.0.0.0", "1.1.1.1", 1)), 0);
        EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kFailed + std::string("Invalid network ") + dest});
        EXPECT_EQ(report.text, std::string("Invalid network ") + dest);
        EXPECT_EQ(report.error_present, 1);
        EXPECT_EQ(remove(gateway_route(dest, "255.0.0.0", "1.1.1.1", 1)), 0);
    }
    EXPECT_EQ(static_file(), "(no file)");
    EXPECT_EQ(add(gateway_route("0.0.0.0", "255.0.0.0", "1.1.1.1", 1)), 1);
    EXPECT_EQ(add(gateway_route("128.0.0.0", "255.0.0.0", "1.1.1.1", 1)), 1);
}

/* ---- moves between metrics ---- */

TEST_F(ApplyTest, ANextHopMovesToItsNewMetricAndFreesTheOldEntry) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 6)), 1);
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(entry(0).dest, 0U);
    EXPECT_EQ(entry(0).mask, 0U);
    EXPECT_EQ(entry(0).map_name[0], nullptr);
    EXPECT_EQ(entry(1).metric, 6U);
    EXPECT_STREQ(entry(1).map_name[0], "map1");
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U) << "a move counts as a new next hop";
}

TEST_F(ApplyTest, AMoveLeavesTheOtherNextHopsOfTheOldMetric) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 6)), 1);
    EXPECT_EQ(entry(0).in_use, 1U);
    EXPECT_EQ(entry(0).used[0], 0);
    EXPECT_EQ(entry(0).used[1], 1);
    EXPECT_EQ(entry(1).gateway[0], 0x01010101U);
}

TEST_F(ApplyTest, AMoveIntoAnExistingMetricUsesItsFirstFreeSlot) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 6)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.9", "255.255.0.0", "1.1.1.1", 6)), 1);
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(entry(1).gateway[1], 0x01010101U);
}

TEST_F(ApplyTest, AMoveStaysWithinItsPrefix) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.2.0.0", "255.255.0.0", "1.1.1.1", 6)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.255.0", "1.1.1.1", 6)), 1);
    EXPECT_EQ(entry(0).in_use, 1U);
}

TEST_F(ApplyTest, AMoveClearsEverySlotThatHoldsTheNextHop) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 6)), 1);
    EXPECT_EQ(entry(0).in_use, 0U) << "it held nothing else";
    EXPECT_EQ(entry(0).used[0] + entry(0).used[1], 0);
}

/* ---- delete ---- */

TEST_F(ApplyTest, DeletesANextHopWhateverItsMetric) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 5)), 1);
    ASSERT_EQ(remove(gateway_route("10.1.9.9", "255.255.0.0", "1.1.1.1", 0)), 1);
    EXPECT_EQ(entry(0).in_use, 1U);
    EXPECT_EQ(entry(0).used[0], 0);
    EXPECT_EQ(entry(0).gateway[0], 0U);
    EXPECT_EQ(entry(0).kind[0], 0U);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U) << "counted down though the route still stands";
    ASSERT_EQ(remove(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 0)), 1);
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(entry(0).dest, 0U);
    EXPECT_EQ(entry(0).mask, 0U);
    EXPECT_EQ(vyrwrap_global.static_route_count, 0U);
}

TEST_F(ApplyTest, DeletesNamedNextHopsAndTheirNames) {
    ASSERT_EQ(add(ipsec_route("0.0.0.0", "0.0.0.0", "map1", 5)), 1);
    ASSERT_EQ(add(cluster_route("0.0.0.0", "0.0.0.0", "cluster_c", 5)), 1);
    ASSERT_EQ(remove(ipsec_route("0.0.0.0", "0.0.0.0", "map1", 0)), 1);
    EXPECT_EQ(entry(0).map_name[0], nullptr);
    EXPECT_EQ(entry(0).flags[0], 0U);
    ASSERT_EQ(remove(cluster_route("0.0.0.0", "0.0.0.0", "cluster_c", 0)), 1);
    EXPECT_EQ(entry(0).cluster_name[1], nullptr);
    EXPECT_EQ(entry(0).in_use, 0U);
}

TEST_F(ApplyTest, ASlotFreedByADeletionIsFilledFirst) {
    for (const char *gateway : {"1.1.1.1", "1.1.1.2", "1.1.1.3"})
        ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", gateway, 5)), 1);
    ASSERT_EQ(remove(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 0)), 1);
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.4", 5)), 1);
    EXPECT_EQ(entry(0).gateway[1], 0x01010104U);
}

TEST_F(ApplyTest, DeletingWhatIsNotThereOnlyCountsDown) {
    ASSERT_EQ(add(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    ASSERT_EQ(add(gateway_route("10.2.0.0", "255.255.0.0", "1.1.1.1", 5)), 1);
    fake::write_file(kStaticFile, "old");
    EXPECT_EQ(remove(gateway_route("10.1.0.0", "255.255.0.0", "1.1.1.2", 5)), 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U);
    EXPECT_EQ(remove(gateway_route("10.1.0.0", "255.255.255.0", "1.1.1.1", 5)), 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 0U);
    EXPECT_EQ(remove(ipsec_route("10.1.0.0", "255.255.0.0", "m", 5)), 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 0U) << "never below 0";
    EXPECT_EQ(static_file(), "old");
    EXPECT_EQ(entry(0).in_use, 1U);
    EXPECT_EQ(report.error_present, 0);
}

TEST_F(ApplyTest, DeletesTheFirstOfEqualNextHopsOnly) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 1);
    ASSERT_EQ(remove(gateway_route("10.1.0.0", "255.255.0.0", "0.0.0.0", 0)), 1);
    EXPECT_EQ(entry(0).used[0], 0);
    EXPECT_EQ(entry(0).used[1], 1);
}

/* ---- failures ---- */

TEST_F(ApplyTest, AnAdditionThatCannotBeWrittenIsReportedAndStays) {
    mkdir(kStaticFile, 0755);
    EXPECT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 0);
    const std::string text =
        "Write into vyr configuration file failed - Is a directory.Route add failed for "
        "10.1.0.0/16 via cluster_c";
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kFailed + text});
    EXPECT_EQ(report.text, text);
    EXPECT_EQ(report.error_present, 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 0U);
    EXPECT_EQ(entry(0).used[0], 1);
    EXPECT_EQ(entry(0).metric, 5U);
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(ApplyTest, ADeletionThatCannotBeWrittenIsReportedAndStays) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    const std::string file = static_file();
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(remove(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 0);
    const std::string text = "Write into vyr configuration file failed - No space left on device:10.1.0.0/16 via map1";
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kFailed + text});
    EXPECT_EQ(report.text, text);
    EXPECT_EQ(report.error_present, 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U) << "counted down after a successful write only";
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(static_file(), file) << "no route is withdrawn";
}

TEST_F(ApplyTest, MissingMemoryForAClusterNameIsReported) {
    fake::fail_call("calloc", ENOMEM);
    EXPECT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 0);
    EXPECT_EQ(fake::log_texts(3),
              std::vector<std::string>{std::string(kFailed) + "Memory allocation failed for cluster route while adding "
                                                              "10.1.0.0/16 via cluster_c\n"});
    EXPECT_STREQ(report.text, "Memory allocation failed while adding.10.1.0.0/16 via cluster_c\n");
    EXPECT_EQ(report.error_present, 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 0U);
    EXPECT_EQ(static_file(), "(no file)");
    EXPECT_EQ(entry(0).in_use, 1U) << "what was changed before the failure stays";
    EXPECT_EQ(entry(0).used[0], 1);
    EXPECT_EQ(entry(0).cluster_name[0], nullptr);
}

TEST_F(ApplyTest, MissingMemoryForAMapNameIsReportedAndTheOldNameIsGone) {
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    fake::fail_call("calloc", ENOMEM);
    EXPECT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 0);
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{std::string(kFailed) + "Memory allocation failed while "
                                                                                  "adding 10.1.0.0/16 via map1\n"});
    EXPECT_STREQ(report.text, "Memory allocation failed while adding.10.1.0.0/16 via map1\n");
    EXPECT_EQ(entry(0).map_name[0], nullptr);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U);
}

TEST_F(ApplyTest, MissingMemoryForTheFileIsAWriteFailure) {
    fake::fail_call("realloc", ENOMEM);
    EXPECT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 0);
    EXPECT_STREQ(report.text,
                 "Write into vyr configuration file failed - Cannot allocate memory.Route add failed for "
                 "10.1.0.0/16 via cluster_c");
    EXPECT_EQ(static_file(), "(no file)");
}

/* ---- messages ---- */

TEST_F(ApplyTest, AnInterfacesMessagesShowItsAddress) {
    for (const uint32_t kind : {5U, 6U}) {
        fake::fail_call("rename", EIO);
        const std::string address = "1.1.1." + std::to_string(kind);
        EXPECT_EQ(add(interface_route(kind, "10.2.0.0", "255.255.0.0", address.c_str(), 1, 5)), 0);
        EXPECT_EQ(report.text,
                  "Write into vyr configuration file failed - Input/output error.Route add failed for "
                  "10.2.0.0/16 via " +
                      address);
    }
}

TEST_F(ApplyTest, APlainGatewaysMessagesShowTheNextHopOfTheRouteBefore) {
    ASSERT_EQ(add(cluster_route("10.1.0.0", "255.255.0.0", "cluster_c", 5)), 1);
    fake::fail_call("rename", EIO);
    EXPECT_EQ(add(gateway_route("10.2.0.0", "255.255.0.0", "1.1.1.1", 5)), 0);
    EXPECT_STREQ(report.text,
                 "Write into vyr configuration file failed - Input/output error.Route add failed for "
                 "10.2.0.0/16 via cluster_c");
}

TEST_F(ApplyTest, ClusterNamesThatFillTheirFieldAreToldApartByTheirLastCharacter) {
    StaticRouteCfg route = cluster_route("10.1.0.0", "255.255.0.0", "", 1);
    memset(route.cluster_name, 'c', sizeof route.cluster_name);
    StaticRouteCfg other = route;
    other.cluster_name[sizeof other.cluster_name - 1] = 'd';
    EXPECT_EQ(add(route), 1);
    EXPECT_EQ(add(other), 1);
    EXPECT_EQ(vyrwrap_global.static_route_count, 2U);
    EXPECT_STREQ(entry(0).cluster_name[0], std::string(41, 'c').c_str());
    EXPECT_STREQ(entry(0).cluster_name[1], (std::string(40, 'c') + 'd').c_str());
}

}  // namespace
