#include <errno.h>
#include <unistd.h>

#include "fakes/fakes.h"
#include "oap/oap_config.h"
#include "vlan/vlan_relay.h"

namespace {

using Texts = std::vector<std::string>;

constexpr char kKey[] = "/op/vlans/route_redistributed_vlans";
constexpr char kChannel[] = "__keyspace@0__:/op/vlans/route_redistributed_vlans";
constexpr char kCallback[] = "<VYRWRAP>: vyrwrap_RouteRedistVlans_subs_callback: ";

class RedistVlansTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        oapCfg_g = {};
        oapCfg_g.bEnable = 1;
        oapCfg_g.distance = 90;
        unlink(kOapConfigPath);
    }

    static void deliver(const std::vector<std::string> &elements, int type = DAL_REPLY_ARRAY) {
        const fake::Reply reply(elements, type);
        vyrwrap_RouteRedistVlans_subs_callback(fake::context(), reply.get(), nullptr);
    }

    static bool file_has(const std::string &text) {
        return fake::read_file(kOapConfigPath).find(text) != std::string::npos;
    }

    static bool no_file() { return fake::read_file(kOapConfigPath) == "(no file)"; }
};

TEST_F(RedistVlansTest, AtStartTheListIsReadAndTheFileWritten) {
    fake::strings[kKey] = "{10:20}";
    EXPECT_EQ(vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal(), 0);
    EXPECT_EQ(fake::log_texts(3).front(),
              "<VYRWRAP>:vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal:Redistributed Vlan "
              "key /op/vlans/route_redistributed_vlans ");
    EXPECT_TRUE(file_has("\treturn (ifvlan ~ [10,20]);\n"));
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
}

TEST_F(RedistVlansTest, AtStartTheFileIsWrittenWithoutTheKeyToo) {
    EXPECT_EQ(vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal(), 0);
    EXPECT_TRUE(file_has("protocol oap {\n"));
    EXPECT_FALSE(file_has("oap_vlan_accept"));
}

TEST_F(RedistVlansTest, AtStartTheWritersFailureIsReturned) {
    fake::strings[kKey] = "{10}";
    fake::fail_call("rename", EACCES);
    EXPECT_EQ(vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal(), -1);
}

TEST_F(RedistVlansTest, ASetKeyGoesIntoTheFile) {
    fake::strings[kKey] = "{30}";
    deliver({"pmessage", kChannel, kChannel, "set"});
    EXPECT_TRUE(file_has("\treturn (ifvlan ~ [30]);\n"));
    EXPECT_EQ(fake::log_texts(6),
              Texts{kCallback + std::string("246: keyspace pattern ") + kChannel + ", reply->elements 4\n"});
}

TEST_F(RedistVlansTest, ADeletedKeyOrALifetimeOnlyWritesTheFileAgain) {
    oapCfg_g.redist_vlan_count = 1;
    oapCfg_g.redist_vlans[0] = 5;
    for (const char *event : {"del", "expire"}) {
        unlink(kOapConfigPath);
        deliver({"pmessage", kChannel, kChannel, event});
        EXPECT_TRUE(file_has("\treturn (ifvlan ~ [5]);\n")) << event;
    }
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(RedistVlansTest, AnyOtherEventIsRefused) {
    deliver({"pmessage", kChannel, kChannel, "append"});
    deliver({"pmessage", kChannel, kChannel, "hset"});
    EXPECT_EQ(fake::log_texts(3), (Texts{kCallback + std::string("261: Unexpected notify_action (3)"),
                                         kCallback + std::string("261: Unexpected notify_action (9)")}));
    EXPECT_TRUE(no_file());
}

TEST_F(RedistVlansTest, ANullReplyIsIgnored) {
    vyrwrap_RouteRedistVlans_subs_callback(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(RedistVlansTest, AReplyWithoutFourElementsIsRefused) {
    deliver({"pmessage"});
    EXPECT_EQ(fake::log_texts(6), Texts{kCallback + std::string("246: keyspace pattern NULL, reply->elements 1\n")});
    EXPECT_EQ(fake::log_texts(3), Texts{kCallback + std::string("unexpected num of elements (1), expected 4\n")});
    EXPECT_TRUE(no_file());
}

TEST_F(RedistVlansTest, TheReplysTypeIsNotAsked) {
    fake::strings[kKey] = "{31}";
    deliver({"pmessage", kChannel, kChannel, "set"}, DAL_REPLY_STATUS);
    EXPECT_TRUE(file_has("\treturn (ifvlan ~ [31]);\n"));
}

TEST_F(RedistVlansTest, AForeignChannelIsRefused) {
    deliver({"pmessage", kChannel, "__keyspace@0__:/op/vlans/route{1.2.3.4:5.6.7.8:9}", "set"});
    EXPECT_EQ(fake::log_texts(3),
              Texts{kCallback +
                    std::string("255: REPLY_E_DATA_KEY __keyspace@0__:/op/vlans/route{1.2.3.4:5.6.7.8:9} "
                                "doesn't match KEYSPACE_INTERFACE_REDISTRIBUTED_CONNECTED_VLAN_PREFIX ") +
                    kChannel + ", returning\n"});
    EXPECT_TRUE(no_file());
}

TEST_F(RedistVlansTest, AChannelThatOnlyBeginsSoIsReadUnderItsOwnKey) {
    fake::strings[std::string(kKey) + "2"] = "{32}";
    deliver({"pmessage", kChannel, kChannel + std::string("2"), "set"});
    EXPECT_TRUE(file_has("\treturn (ifvlan ~ [32]);\n"));
}

}  // namespace
