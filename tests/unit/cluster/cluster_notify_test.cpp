#include "cluster_fixture.h"

namespace {

constexpr char kPattern[] = "__keyspace@0__:/op/clusters/*";
constexpr char kPrefix[] = "__keyspace@0__:/op/clusters/";
constexpr char kMac[] = "\x01\x02\x03\x04\x05\x06";
constexpr char kExtract[] = "<VYRWRAP>:extract_cluster_name_from_dal_notif:";
constexpr char kCallback[] = "<VYRWRAP>:vyrwrap_cluster_info_subs_callback:";

class ClusterNotifyTest : public ClusterTest {
protected:
    static void notify(const std::string &name, const std::string &event) {
        const fake::Reply reply({"pmessage", kPattern, kPrefix + name, event});
        vyrwrap_cluster_info_subs_callback(fake::context(), reply.get(), nullptr);
    }

    /** The name field of the one message that a notification sends. */
    std::string sent_name(const std::string &name, const std::string &event) {
        notify(name, event);
        const Texts datagrams = app_.receive();
        EXPECT_EQ(datagrams.size(), 1U);
        return datagrams.empty() ? "(nothing sent)" : datagrams[0].substr(12, 128);
    }
};

TEST_F(ClusterNotifyTest, SubscribesToTheClusterKeys) {
    EXPECT_EQ(vyrwrap_cluster_info_subscribe(), 0);
    EXPECT_EQ(fake::dal_calls, Texts{"dal_sub_command PSUBSCRIBE __keyspace@0__:/op/clusters/*"});
    EXPECT_EQ(fake::subscriptions.at(kPattern).callback, vyrwrap_cluster_info_subs_callback);
    EXPECT_EQ(fake::log_texts(6), Texts{"<VYRWRAP>:vyrwrap_cluster_info_subscribe:65 subscribed dal for (PSUBSCRIBE "
                                        "__keyspace@0__:/op/clusters/*) done"});
}

TEST_F(ClusterNotifyTest, LogsAFailedSubscription) {
    fake::failing_calls = {"dal_sub_command"};
    EXPECT_EQ(vyrwrap_cluster_info_subscribe(), -1);
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>:vyrwrap_cluster_info_subscribe:63 Failed to subscribe dal for (PSUBSCRIBE "
                    "__keyspace@0__:/op/clusters/*)"});
}

TEST_F(ClusterNotifyTest, AnActiveClusterIsSentWithItsPeersMac) {
    set_cluster("east", "10.9.8.7", "1", 3);
    add_tunnel("t", 0x0A090807, kMac);
    notify("east", "hset");
    EXPECT_EQ(app_.receive(), Texts{message(1, "east", 0x0A090807, 1, kMac, 3)});
    EXPECT_EQ(fake::log_texts(6),
              (Texts{kExtract + std::string(" Notified cluster key:(__keyspace@0__:/op/clusters/east),east, len:4, "
                                            "action:9"),
                     kCallback + std::string(" cluster_name:east, action 9"),
                     kCallback + std::string(" Cluster:east, opcode:1, DDG-IP:10.9.8.7, state:1, Node-count:3")}));
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(ClusterNotifyTest, AClusterOfTwelveNodesIsSentWhole) {
    set_cluster("c", "10.9.8.7", "1", 12);
    add_tunnel("t", 0x0A090807, kMac);
    notify("c", "hset");
    EXPECT_EQ(app_.receive(), Texts{message(1, "c", 0x0A090807, 1, kMac, 12)});
}

TEST_F(ClusterNotifyTest, AClusterWithANameOfThirtyTwoCharactersIsSent) {
    const std::string name(32, 'n');
    set_cluster(name, "10.9.8.7", "1", 1);
    add_tunnel("t", 0x0A090807, kMac);
    notify(name, "hset");
    EXPECT_EQ(app_.receive(), Texts{message(1, name, 0x0A090807, 1, kMac, 1)});
}

TEST_F(ClusterNotifyTest, AnyStateBut0IsActive) {
    set_cluster("c", "10.9.8.7", "255", 1);
    add_tunnel("t", 0x0A090807, kMac);
    notify("c", "hset");
    EXPECT_EQ(app_.receive(), Texts{message(1, "c", 0x0A090807, 255, kMac, 1)});
}

TEST_F(ClusterNotifyTest, AnInactiveClusterIsADeletionWithItsNodesAndWithoutALookup) {
    set_cluster("east", "10.9.8.7", "0", 2);
    add_tunnel("t", 0x0A090807, kMac);
    notify("east", "hset");
    EXPECT_EQ(app_.receive(), Texts{message(2, "east", 0x0A090807, 0, "", 2)});
    EXPECT_EQ(fake::log_texts(6).back(),
              kCallback + std::string(" Cluster:east, opcode:2, DDG-IP:10.9.8.7, state:0, Node-count:2"));
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(ClusterNotifyTest, ARemovedKeyOrFieldIsADeletionWithTheNameAlone) {
    set_cluster("east", "10.9.8.7", "1", 2);
    for (const char *event : {"del", "hdel"}) {
        fake::log_lines.clear();
        notify("east", event);
        EXPECT_EQ(app_.receive(), Texts{message(2, "east", 0, 0, "", 0)});
        EXPECT_EQ(fake::log_texts(6).back(),
                  kCallback + std::string(" Cluster:east, opcode:2, DDG-IP:0.0.0.0, state:0, Node-count:0"));
    }
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(ClusterNotifyTest, WithoutATunnelToItsPeerNothingIsSent) {
    set_cluster("east", "10.9.8.7", "1", 1);
    notify("east", "hset");
    EXPECT_TRUE(app_.receive().empty());
    const Texts texts = fake::log_texts(3);
    ASSERT_EQ(texts.size(), 3U);
    EXPECT_EQ(texts[0].find("<VYRWRAP>:vyrwrap_get_peer_mac_from_ddg_ip_for_cluster: Unable to find cluster with ddg "
                            "IP 10.9.8.7 (clusterinfo_ptr:"),
              0U);
    EXPECT_EQ(texts[1].find("<VYRWRAP>:vyrwrap_prep_cluster_msg_for_vyr: Error in fetching the peer mac from ddg IP "),
              0U);
    EXPECT_EQ(texts[2], "vyrwrap_cluster_info_subs_callback: Error in preparing cluster message to VYR-APP");
}

TEST_F(ClusterNotifyTest, AClusterThatCannotBeReadIsNotSent) {
    set_cluster("east", "10.9.8.7", "1", "2", nodes(1, ipv4_node));
    notify("east", "hset");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3).back(),
              "vyrwrap_cluster_info_subs_callback: Error reading cluster(east) info from DAL");
}

TEST_F(ClusterNotifyTest, AClusterWithoutADdgIpIsIgnored) {
    add_tunnel("t", 0, kMac);
    for (const char *state : {"1", "0"}) {
        set_cluster("east", "nowhere", state, 1);
        notify("east", "hset");
        EXPECT_EQ(fake::log_texts(6).back(),
                  "vyrwrap_cluster_info_subs_callback: DDGIP of cluster(east) is not known, hence, ignore the update");
    }
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(ClusterNotifyTest, TheNameIsItsOwnFormat) {
    const std::pair<const char *, const char *> names[] = {
        {"a%%b", "a%b"},      {"%%%%", "%%"}, {"100%", "100%"}, {"%%%", "%%"},
        {"%d%s%n", "%d%s%n"}, {"%%d", "%d"},  {"%d%%", "%d%"},
    };
    for (const auto &[name, formatted] : names)
        EXPECT_EQ(sent_name(name, "del"), padded(formatted, 128)) << name;
    EXPECT_TRUE(
        fake::logged(6, kCallback + std::string(" Cluster:a%%b, opcode:2, DDG-IP:0.0.0.0, state:0, Node-count:0")));
}

TEST_F(ClusterNotifyTest, AnUpdatedClustersNameIsItsOwnFormatToo) {
    set_cluster("a%%b", "10.9.8.7", "0", 1);
    EXPECT_EQ(sent_name("a%%b", "hset"), padded("a%b", 128));
    EXPECT_EQ(fake::dal_calls.front(), "dal_hget /op/clusters/a%%b ddg_ip");
}

TEST_F(ClusterNotifyTest, ANullReplyIsIgnored) {
    vyrwrap_cluster_info_subs_callback(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterNotifyTest, ANotificationWithoutANameIsLogged) {
    notify("", "hset");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>:extract_cluster_name_from_dal_notif:cluster-name () has wrong len(0)",
                     kCallback + std::string(" Error in getting cluster name from keyspace notification")}));
}

TEST_F(ClusterNotifyTest, WithoutMemoryForTheRecordTheNotificationIsLost) {
    fake::fail_call("calloc", ENOMEM);
    notify("east", "del");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3), Texts{kCallback + std::string(" Failed to alloc mem for clusterinfo(444)")});
}

TEST_F(ClusterNotifyTest, WithoutMemoryForTheMessageTheNotificationIsLost) {
    set_cluster("east", "10.9.8.7", "0", 2);
    fake::fail_call("calloc", ENOMEM, 1);
    notify("east", "hset");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3), Texts{kCallback + std::string(" Failed to alloc mem for Msg buf(size:396)")});
}

TEST_F(ClusterNotifyTest, AFailedSendIsTheLinksToLog) {
    fake::fail_call("sendto", EAGAIN);
    notify("east", "del");
    EXPECT_EQ(fake::log_texts(3).size(), 1U);
    EXPECT_EQ(fake::log_texts(3)[0].find("<VYRWRAP>:vyrwrap_send_to_routing_app : Send to Routing APP"), 0U);
}

class ClusterExtractTest : public fake::Test {
protected:
    int extract(const std::vector<std::string> &elements, int type = DAL_REPLY_ARRAY) {
        const fake::Reply reply(elements, type);
        return extract_cluster_name_from_dal_notif(reply.get(), name_, &action_);
    }

    int extract_name(const std::string &name) { return extract({"pmessage", kPattern, kPrefix + name, "hset"}); }

    char name_[33] = {};
    int action_ = -7;
};

TEST_F(ClusterExtractTest, GivesNameAndAction) {
    const std::pair<const char *, int> events[] = {{"del", 2}, {"hset", 9}, {"hdel", 10}};
    for (const auto &[event, action] : events) {
        EXPECT_EQ(extract({"pmessage", kPattern, "__keyspace@0__:/op/clusters/east", event}), 0);
        EXPECT_STREQ(name_, "east");
        EXPECT_EQ(action_, action);
    }
    EXPECT_EQ(fake::log_texts(6).front(),
              kExtract + std::string(" Notified cluster key:(__keyspace@0__:/op/clusters/east),east, len:4, action:2"));
    EXPECT_EQ(fake::log_lines.size(), 3U);
}

TEST_F(ClusterExtractTest, NeedsItsArguments) {
    const fake::Reply reply({"pmessage", kPattern, "__keyspace@0__:/op/clusters/east", "hset"});
    EXPECT_EQ(extract_cluster_name_from_dal_notif(nullptr, name_, &action_), -1);
    EXPECT_EQ(extract_cluster_name_from_dal_notif(reply.get(), nullptr, &action_), -1);
    EXPECT_EQ(extract_cluster_name_from_dal_notif(reply.get(), name_, nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterExtractTest, RefusesAnyNumberOfElementsButFour) {
    EXPECT_EQ(extract({"pmessage", kPattern, "__keyspace@0__:/op/clusters/east"}), -1);
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>: extract_cluster_name_from_dal_notif: unexpected num of elements (3), expected 4\n"});
}

TEST_F(ClusterExtractTest, RefusesAReplyThatIsNoArrayAndAForeignChannelWithoutAWord) {
    EXPECT_EQ(extract({"pmessage", kPattern, "__keyspace@0__:/op/clusters/east", "hset"}, DAL_REPLY_STRING), -1);
    EXPECT_EQ(extract({"pmessage", kPattern, "__keyspace@0__:/op/cluster/east", "hset"}), -1);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_EQ(action_, -7);
}

TEST_F(ClusterExtractTest, RefusesOtherActions) {
    EXPECT_EQ(extract({"pmessage", kPattern, "__keyspace@0__:/op/clusters/east", "set"}), -1);
    EXPECT_EQ(extract({"pmessage", kPattern, "__keyspace@0__:/op/clusters/east", "expire"}), -1);
    EXPECT_EQ(action_, -7);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: extract_cluster_name_from_dal_notif: Unexpected notify_action (1)",
                     "<VYRWRAP>: extract_cluster_name_from_dal_notif: Unexpected notify_action (4)"}));
}

TEST_F(ClusterExtractTest, TakesNamesOf1To32Characters) {
    EXPECT_EQ(extract_name("n"), 0);
    EXPECT_EQ(extract_name(std::string(32, 'n')), 0);
    EXPECT_EQ(name_, std::string(32, 'n'));
    EXPECT_TRUE(fake::log_texts(3).empty());
    EXPECT_EQ(extract_name(std::string(33, 'm')), -1);
    EXPECT_EQ(extract_name(""), -1);
    EXPECT_EQ(name_, std::string(32, 'n'));
    EXPECT_EQ(fake::log_texts(3),
              (Texts{kExtract + std::string("cluster-name (") + std::string(33, 'm') + ") has wrong len(33)",
                     kExtract + std::string("cluster-name () has wrong len(0)")}));
}

TEST_F(ClusterExtractTest, TheActionIsGivenAlsoWhereTheNameIsRefused) {
    EXPECT_EQ(extract_name(""), -1);
    EXPECT_EQ(action_, 9);
}

}  // namespace
