#include "staticroute/subscription.h"

#include <errno.h>

#include <algorithm>

#include "mrt/mrt_export.h"
#include "staticroute/fixture.h"
#include "vlan/vlan_relay.h"

namespace {

using SubscriptionTest = StaticRouteTest;

constexpr char kPattern[] = "__keyspace@0__:/op/staticroute/*";
constexpr char kCallback[] = "<VYRWRAP>: vyrwrap_static_route_subscribe_callback: ";

void deliver(const std::string &channel, const std::string &data) {
    const fake::Reply reply({"pmessage", kPattern, channel, data});
    vyrwrap_static_route_subscribe_callback(fake::context(), reply.get(), nullptr);
}

void change(const std::string &key, const std::string &data) {
    deliver("__keyspace@0__:" + key, data);
}

/* ---- subscriptions ---- */

TEST_F(SubscriptionTest, SubscribesAndReadsInOrder) {
    vyrwrap_subscribe_init();
    const std::vector<std::string> first = {"dal_sub_command PSUBSCRIBE /ipc/event/vyrwrap/mrt",
                                            "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/staticroute/*",
                                            "dal_mget_by_wildcard /op/staticroute/*",
                                            "dal_sub_command PSUBSCRIBE "
                                            "__keyspace@0__:/op/vlans/route_redistributed_vlans"};
    ASSERT_GE(fake::dal_calls.size(), first.size());
    EXPECT_TRUE(std::equal(first.begin(), first.end(), fake::dal_calls.begin()));
    EXPECT_EQ(fake::subscriptions.at("/ipc/event/vyrwrap/mrt").callback, vyrwrap_dal_mrt_subscribe_callback);
    EXPECT_EQ(fake::subscriptions.at(kPattern).callback, vyrwrap_static_route_subscribe_callback);
    EXPECT_EQ(fake::subscriptions.at("__keyspace@0__:/op/vlans/route_redistributed_vlans").callback,
              vyrwrap_RouteRedistVlans_subs_callback);
    EXPECT_EQ(fake::log_texts(3)[0],
              "<VYRWRAP>:vyrwrap_subscribe_init:988 subscribed dal for (PSUBSCRIBE "
              "__keyspace@0__:/op/vlans/route_redistributed_vlans) done");
    EXPECT_EQ(
        fake::log_texts(3)[1],
        "<VYRWRAP>:vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal:Redistributed Vlan key "
        "/op/vlans/route_redistributed_vlans ");
}

TEST_F(SubscriptionTest, OnlyTheLastSubscriptionIsChecked) {
    fake::failing_calls.insert("dal_sub_command");
    vyrwrap_subscribe_init();
    EXPECT_EQ(fake::log_texts(3)[0],
              "<VYRWRAP>:vyrwrap_subscribe_init:986 Failed to subscribe dal for (PSUBSCRIBE "
              "__keyspace@0__:/op/vlans/route_redistributed_vlans)");
}

TEST_F(SubscriptionTest, SubscribingAgainAppliesEveryRouteInPlace) {
    for (int i = 0; i < 5; i++)
        fake::strings[route_key("10." + std::to_string(i) + ".0.0", "255.255.0.0", 2, "map")] = "5";
    vyrwrap_subscribe_init();
    const std::string file = static_file();
    const int renames = fake::call_count("rename");
    vyrwrap_subscribe_init();
    EXPECT_EQ(static_file(), file);
    EXPECT_GE(fake::call_count("rename") - renames, 5) << "written once for each route";
    EXPECT_EQ(vyrwrap_global.static_route_count, 5U);
}

/* ---- the scan ---- */

TEST_F(SubscriptionTest, TheScanLoadsEveryKeyAndPassesOverBadOnes) {
    fake::strings[route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1")] = "12345";
    fake::strings["/op/staticroute/{bad"] = "1";
    fake::strings[route_key("10.2.0.0", "255.255.0.0", 2, std::string(199, 'm'))] = "";
    fake::strings["/op/other/{10.3.0.0:255.255.0.0:1:1.1.1.1}"] = "1";
    vyrwrap_dal_scan_static_routes("/op/staticroute/*");
    EXPECT_EQ(entry(0).metric, 12345U);
    EXPECT_EQ(entry(0).gateway[0], 0x01010101U);
    EXPECT_EQ(entry(1).map_name[0], std::string(199, 'm'));
    EXPECT_EQ(entry(1).metric, 0U);
    EXPECT_EQ(entry(2).in_use, 0U);
    const std::vector<std::string> lines = {
        "<VYRWRAP>: 73: Error in Path, no ':' symbol",
        "<VYRWRAP>: vyrwrap_dal_scan_static_routes: 957: Error in extracting static cfg while init"};
    EXPECT_EQ(fake::log_texts(3), lines);
}

TEST_F(SubscriptionTest, TheScanRefusesAKeyWithANulInIt) {
    fake::strings[route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1") + std::string(1, '\0') + "x"] = "1";
    vyrwrap_dal_scan_static_routes("/op/staticroute/*");
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_scan_static_routes: 957: Error in "
                                                           "extracting static cfg while init"});
}

TEST_F(SubscriptionTest, AScanThatFailsChangesNothing) {
    fake::strings[route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1")] = "1";
    fake::failing_calls.insert("dal_mget_by_wildcard");
    vyrwrap_dal_scan_static_routes("/op/staticroute/*");
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(static_file(), "(no file)");
}

TEST_F(SubscriptionTest, AScanWithoutMemoryIsLogged) {
    fake::fail_call("calloc", ENOMEM);
    vyrwrap_dal_scan_static_routes("/op/staticroute/*");
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{"<VYRWRAP>:vyrwrap_dal_scan_static_routes: Failed to "
                                                           "create the list of keys"});
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(SubscriptionTest, TheScanWritesTheFileOnceForEachRoute) {
    for (int i = 0; i < 10; i++)
        fake::strings[route_key("10.1." + std::to_string(i) + ".0", "255.255.255.0", 1, "1.1.1.1")] = "1";
    vyrwrap_dal_scan_static_routes("/op/staticroute/*");
    EXPECT_EQ(fake::call_count("rename"), 10);
}

/* ---- the callback ---- */

TEST_F(SubscriptionTest, ASetKeyIsAppliedWithItsValue) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    fake::strings[key] = "17";
    change(key, "set");
    EXPECT_EQ(fake::dal_calls, std::vector<std::string>{"dal_get " + key});
    EXPECT_EQ(entry(0).metric, 17U);
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(SubscriptionTest, AMetricIsCutToItsFirstFourCharacters) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    fake::strings[key] = "1234";
    change(key, "set");
    EXPECT_EQ(entry(0).metric, 1234U);
    fake::strings[key] = "567890";
    change(key, "set");
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(entry(1).metric, 5678U);
}

TEST_F(SubscriptionTest, ADeletedKeyRemovesItsNextHopWhateverTheMetric) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 2, "map1");
    fake::strings[key] = "17";
    change(key, "set");
    fake::strings.clear();
    change(key, "del");
    EXPECT_EQ(entry(0).in_use, 0U);
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{std::string(kCallback) + "193: DAL get Error"});
}

TEST_F(SubscriptionTest, AnyOtherOperationAddsARoute) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    for (const char *operation : {"set", "expire", "hset", "dele", "Del", "delx"}) {
        change(key, operation);
        EXPECT_EQ(entry(0).in_use, 1U) << operation;
        change(key, "del");
        EXPECT_EQ(entry(0).in_use, 0U);
    }
}

TEST_F(SubscriptionTest, TheBeginningOfDelDeletes) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    for (const char *operation : {"", "d", "de", "del"}) {
        change(key, "set");
        change(key, operation);
        EXPECT_EQ(entry(0).in_use, 0U) << operation;
    }
}

TEST_F(SubscriptionTest, AKeyThatCannotBeReadIsAddedWithMetricZero) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    change(key, "set");
    EXPECT_EQ(entry(0).in_use, 1U);
    EXPECT_EQ(entry(0).metric, 0U);
    EXPECT_TRUE(fake::logged(3, std::string(kCallback) + "193: DAL get Error"));
}

TEST_F(SubscriptionTest, ABadKeyIsRefusedWithTwoLines) {
    fake::strings["/op/staticroute/{x}"] = "1";
    change("/op/staticroute/{x}", "set");
    const std::vector<std::string> lines = {"<VYRWRAP>: 73: Error in Path, no ':' symbol",
                                            std::string(kCallback) +
                                                "201: Error in extracting static cfg while "
                                                "setting"};
    EXPECT_EQ(fake::log_texts(3), lines);
    EXPECT_EQ(static_file(), "(no file)");
}

TEST_F(SubscriptionTest, LogsTheNotificationAtDebugLevel) {
    fake::Reply reply({"pmessage", kPattern, "__keyspace@0__:x", "set"});
    vyrwrap_static_route_subscribe_callback(fake::context(), reply.get(), nullptr);
    char text[512];
    snprintf(text, sizeof text,
             "%s181: Number of elements 4,             REPLY_E_MTYPE pmessage, REPLY_E_SUB_KEY %s, REPLY_E_DATA_KEY "
             "__keyspace@0__:x,                  reply->element[3] %p, REPLY_E_PUB_DATA set",
             kCallback, kPattern, static_cast<void *>(reply.element(3)));
    EXPECT_EQ(fake::log_texts(7)[0], text);
}

TEST_F(SubscriptionTest, AShortReplyIsLoggedAndLeft) {
    const std::vector<std::string> texts = {"pmessage", "a*", "x:/op/staticroute/{10.1.0.0:255.0.0.0:1:1.1.1.1}"};
    for (size_t count = 0; count <= 3; count++) {
        fake::log_lines.clear();
        const fake::Reply reply(std::vector<std::string>(texts.begin(), texts.begin() + static_cast<long>(count)));
        vyrwrap_static_route_subscribe_callback(fake::context(), reply.get(), nullptr);
        ASSERT_EQ(fake::log_lines.size(), 1U);
        const auto text = [&](size_t i) { return i < count ? texts[i] : std::string("NULL"); };
        EXPECT_EQ(fake::log_lines[0].text, kCallback + ("181: Number of elements " + std::to_string(count)) +
                                               ",             REPLY_E_MTYPE " + text(0) + ", REPLY_E_SUB_KEY " +
                                               text(1) + ", REPLY_E_DATA_KEY " + text(2) +
                                               ",                  reply->element[3] (nil), REPLY_E_PUB_DATA NULL");
    }
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(SubscriptionTest, MissingTextsAreLeft) {
    fake::Reply no_data({"pmessage", kPattern, "x:/op/staticroute/{10.1.0.0:255.0.0.0:1:1.1.1.1}", "set"});
    no_data.element(3)->str = nullptr;
    vyrwrap_static_route_subscribe_callback(fake::context(), no_data.get(), nullptr);
    EXPECT_TRUE(fake::dal_calls.empty());
    fake::Reply no_channel({"pmessage", kPattern, "x", "set"});
    no_channel.element(2)->str = nullptr;
    vyrwrap_static_route_subscribe_callback(fake::context(), no_channel.get(), nullptr);
    vyrwrap_static_route_subscribe_callback(fake::context(), nullptr, nullptr);
    dal_reply bare = {DAL_REPLY_ARRAY, 0, 0, nullptr, 4, nullptr};
    vyrwrap_static_route_subscribe_callback(fake::context(), &bare, nullptr);
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_EQ(entry(0).in_use, 0U);
}

TEST_F(SubscriptionTest, AChannelWithoutAColonNamesNoKey) {
    deliver("no colon", "set");
    const std::vector<std::string> lines = {"<VYRWRAP>: Path NULL is incorrect",
                                            std::string(kCallback) +
                                                "201: Error in extracting static cfg while "
                                                "setting"};
    EXPECT_EQ(fake::log_texts(3), lines);
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(SubscriptionTest, AKeyLongerThanItsBufferHasLostItsBraceAndIsRefused) {
    const size_t rest = route_key("10.1.0.0", "255.255.0.0", 2, "").size();
    const std::string fits = route_key("10.1.0.0", "255.255.0.0", 2, std::string(127 - rest, 'm'));
    change(fits, "set");
    EXPECT_EQ(entry(0).in_use, 1U);
    fake::log_lines.clear();
    const std::string too_long = route_key("10.2.0.0", "255.255.0.0", 2, std::string(128 - rest, 'm'));
    change(too_long, "set");
    EXPECT_EQ(fake::dal_calls.back(), "dal_get " + too_long.substr(0, 127));
    EXPECT_TRUE(fake::logged(3, "<VYRWRAP>: Error in Path, no '}' symbol"));
    change(route_key("10.2.0.0", "255.255.0.0", 2, std::string(100000, 'm')), "set");
    EXPECT_EQ(entry(1).in_use, 0U);
}

TEST_F(SubscriptionTest, ACutKeyIsRefusedAlsoWhereItsBraceIsKept) {
    const std::string route = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    change(route + std::string(127 - route.size(), 'x'), "set");
    EXPECT_EQ(entry(0).in_use, 1U);
    fake::log_lines.clear();
    change(route + std::string(128 - route.size(), 'x'), "del");
    EXPECT_EQ(entry(0).in_use, 1U) << "what is left of the key is another key";
    EXPECT_EQ(fake::log_texts(3).back(), std::string(kCallback) + "201: Error in extracting static cfg while setting");
}

TEST_F(SubscriptionTest, TheFirstColonEndsTheChannelsPrefix) {
    deliver("a:/op/staticroute/{10.1.0.0:255.255.0.0:2:m:n}", "set");
    EXPECT_STREQ(entry(0).map_name[0], "m:n");
}

}  // namespace
