/* The subscription and the way from a notification to its handling. */
#include "tunnel/fixture.h"
#include "tunnel/tunnel_table.h"

namespace {

class TunnelNotifyTest : public TunnelTest {
protected:
    struct Extracted {
        int result;
        std::string name;
        int action;
    };

    static Extracted extract(const fake::Reply &reply) {
        char name[201] = {};
        int action = -1;
        const int result = extract_ipsec_tun_name_from_dal_notif(reply.get(), name, &action);
        return {result, name, action};
    }

    static Extracted extract(const std::string &channel, const std::string &event) {
        return extract(fake::Reply({"pmessage", "p", channel, event}));
    }
};

const std::string kPrefix = "__keyspace@0__:/op/tunnel/";
const std::string kCommand = "PSUBSCRIBE __keyspace@0__:/op/tunnel/*";
const std::string kExtract = "extract_ipsec_tun_name_from_dal_notif:";
const std::string kCallback = "<VYRWRAP>:vyrwrap_ipsec_tuns_subs_callback: ";

TEST_F(TunnelNotifyTest, SubscribesToTheTunnelKeys) {
    vyrwrap_tunnel_info_subscribe();
    EXPECT_EQ(fake::dal_calls, Texts{"dal_sub_command " + kCommand});
    const fake::Subscription subscription = fake::subscriptions.at(kPrefix + "*");
    EXPECT_EQ(subscription.callback, vyrwrap_ipsec_tuns_subs_callback);
    EXPECT_EQ(subscription.arg, nullptr);
    EXPECT_EQ(infos(), Texts{"<VYRWRAP>:vyrwrap_tunnel_info_subscribe:942 subscribed dal for (" + kCommand + ") done"});
    EXPECT_TRUE(errors().empty());
}

TEST_F(TunnelNotifyTest, ReportsAFailedSubscriptionAndDoesNotRetry) {
    fake::failing_calls.insert("dal_sub_command");
    vyrwrap_tunnel_info_subscribe();
    EXPECT_EQ(fake::dal_calls.size(), 1U);
    EXPECT_EQ(errors(),
              Texts{"<VYRWRAP>:vyrwrap_tunnel_info_subscribe:940 Failed to subscribe dal for (" + kCommand + ")"});
    EXPECT_TRUE(infos().empty());
}

/* ---- name and type ---- */

TEST_F(TunnelNotifyTest, TakesNameAndTypeOfTheThreeKnownEvents) {
    for (const auto &[event, type] : std::map<std::string, int>{{"hset", 9}, {"del", 2}, {"hdel", 10}}) {
        fake::log_lines.clear();
        const Extracted extracted = extract(kPrefix + "hq-1", event);
        EXPECT_EQ(extracted.result, 0);
        EXPECT_EQ(extracted.name, "hq-1");
        EXPECT_EQ(extracted.action, type);
        ASSERT_EQ(fake::log_lines.size(), 1U);
        EXPECT_EQ(infos(), Texts{"<VYRWRAP>:" + kExtract + " Notified tunnel key:(" + kPrefix + "hq-1),hq-1, len:4, " +
                                 "action:" + std::to_string(type)});
    }
}

TEST_F(TunnelNotifyTest, RefusesMissingArgumentsSilently) {
    char name[201];
    int action = 0;
    const fake::Reply reply({"pmessage", "p", kPrefix + "a", "hset"});
    EXPECT_EQ(extract_ipsec_tun_name_from_dal_notif(nullptr, name, &action), -1);
    EXPECT_EQ(extract_ipsec_tun_name_from_dal_notif(reply.get(), nullptr, &action), -1);
    EXPECT_EQ(extract_ipsec_tun_name_from_dal_notif(reply.get(), name, nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelNotifyTest, ReportsAReplyOfMoreOrLessThanFourElements) {
    EXPECT_EQ(extract(fake::Reply({"pmessage", "p", kPrefix + "a"})).result, -1);
    EXPECT_EQ(extract(fake::Reply({"pmessage", "p", kPrefix + "a", "hset", "more"})).result, -1);
    EXPECT_EQ(extract(fake::Reply({}, DAL_REPLY_ERROR)).result, -1);
    const std::string begin = "<VYRWRAP>: " + kExtract + " unexpected num of elements (";
    EXPECT_EQ(errors(), (Texts{begin + "3), expected 4\n", begin + "5), expected 4\n", begin + "0), expected 4\n"}));
}

TEST_F(TunnelNotifyTest, RefusesAReplyThatIsNoArraySilently) {
    EXPECT_EQ(extract(fake::Reply({"pmessage", "p", kPrefix + "a", "hset"}, DAL_REPLY_STRING)).result, -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelNotifyTest, RefusesOtherChannelsSilently) {
    EXPECT_EQ(extract("__keyspace@0__:/op/tunnels/a", "hset").result, -1);
    EXPECT_EQ(extract("__keyspace@0__:/op/tunnel", "hset").result, -1);
    EXPECT_EQ(extract("", "hset").result, -1);
    fake::Reply no_channel({"pmessage", "p", "", "hset"});
    no_channel.element(2)->str = nullptr;
    EXPECT_EQ(extract(no_channel).result, -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelNotifyTest, ReportsOtherEvents) {
    const Texts events = {"set", "expire", "append", "rename_from", ""};
    for (size_t i = 0; i < events.size(); i++)
        EXPECT_EQ(extract(kPrefix + "a", events[i]).result, -1);
    const std::string begin = "<VYRWRAP>: " + kExtract + " Unexpected notify_action (";
    EXPECT_EQ(errors(), (Texts{begin + "1)", begin + "4)", begin + "3)", begin + "0)", begin + "0)"}));
    fake::Reply no_event({"pmessage", "p", kPrefix + "a", ""});
    no_event.element(3)->str = nullptr;
    EXPECT_EQ(extract(no_event).result, -1);
    EXPECT_EQ(errors().back(), begin + "0)");
}

TEST_F(TunnelNotifyTest, AcceptsNamesOfOneToTwoHundredCharacters) {
    const std::string longest(200, 'n');
    EXPECT_EQ(extract(kPrefix + "n", "hset").name, "n");
    EXPECT_EQ(extract(kPrefix + longest, "hset").name, longest);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(extract(kPrefix, "del").result, -1);
    EXPECT_EQ(extract(kPrefix + longest + "n", "del").result, -1);
    EXPECT_EQ(errors(), (Texts{"<VYRWRAP>:" + kExtract + "tunnel-name () has wrong len(0)",
                               "<VYRWRAP>:" + kExtract + "tunnel-name (" + longest + "n) has wrong len(201)"}));
}

TEST_F(TunnelNotifyTest, StoresTheTypeEvenWhereTheNameIsRefused) {
    EXPECT_EQ(extract(kPrefix, "del").action, 2);
    EXPECT_EQ(extract(kPrefix + "a", "set").action, -1);
}

TEST_F(TunnelNotifyTest, TakesTheTypeBeforeItLooksAtTheName) {
    extract(kPrefix, "set");
    ASSERT_EQ(errors().size(), 1U);
    EXPECT_EQ(errors()[0], "<VYRWRAP>: " + kExtract + " Unexpected notify_action (1)");
}

/* ---- the callback ---- */

TEST_F(TunnelNotifyTest, IgnoresANullReply) {
    vyrwrap_ipsec_tuns_subs_callback(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelNotifyTest, ReportsANotificationWithoutAName) {
    notify("", "hset");
    EXPECT_EQ(errors(), (Texts{"<VYRWRAP>:" + kExtract + "tunnel-name () has wrong len(0)",
                               kCallback + "Error in getting tunnel name from keyspace notification"}));
    EXPECT_TRUE(infos().empty());
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(TunnelNotifyTest, SaysWhetherTheTunnelIsKnown) {
    hset("a", 1);
    EXPECT_EQ(infos()[1], kCallback + "DAL notif hset(9) on new  tunnel a");
    fake::log_lines.clear();
    notify("a", "del");
    EXPECT_EQ(infos()[1], kCallback + "DAL notif del(2) on existing tunnel a");
}

TEST_F(TunnelNotifyTest, RefusesARemovedFieldAndKeepsTheTunnel) {
    hset("a", 1);
    received();
    fake::log_lines.clear();
    fake::dal_calls.clear();
    notify("a", "hdel");
    EXPECT_EQ(infos().back(), kCallback + "DAL notif hdel(10) on existing tunnel a");
    EXPECT_EQ(errors(), Texts{kCallback + "action NOTIFY_HDEL(10) is unexpected"});
    EXPECT_TRUE(received().empty());
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_NE(vyrwrap_find_tunnel("a"), nullptr);
}

TEST_F(TunnelNotifyTest, FollowsARealSubscription) {
    vyrwrap_tunnel_info_subscribe();
    put("a", 1, 1);
    fake::notify_key("/op/tunnel/a", "hset");
    fake::notify_key("/op/tunnel/a", "del");
    EXPECT_EQ(received(), (Texts{"9 a", "2 a"}));
}

}  // namespace
