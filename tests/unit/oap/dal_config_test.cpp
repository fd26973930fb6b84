#include <errno.h>

#include "oap_fixture.h"

namespace {

constexpr char kEnableKey[] = "/config/vyr/oap/proto_oap_enable";
constexpr char kPattern[] = "__keyspace@0__:/config/vyr/oap/*";
constexpr char kInitLine[] =
    "<VYRWRAP>: vyrwrap_oap_config_dal_init: subscribing to OAP config: PSUBSCRIBE __keyspace@0__:/config/vyr/oap/*";

class DalConfigTest : public OapTest {
protected:
    void SetUp() override {
        OapTest::SetUp();
        oapCfg_g.distance = 90;
    }

    static void set_enable(char value) { fake::strings[kEnableKey] = std::string(1, value); }

    /** A notification on the enable key with the given event. */
    static void notify(const std::string &event) {
        const fake::Reply reply({"pmessage", kPattern, std::string("__keyspace@0__:") + kEnableKey, event});
        vyrwrap_vyr_cfg_subscribe_callback(fake::context(), reply.get(), nullptr);
    }
};

TEST_F(DalConfigTest, InitSubscribesBeforeItReadsTheKeyAndWritesTheFile) {
    set_enable(1);
    EXPECT_EQ(vyrwrap_oap_config_init(), 0);
    EXPECT_EQ(fake::dal_calls,
              (Texts{"dal_sub_command PSUBSCRIBE __keyspace@0__:/config/vyr/oap/*",
                     "dal_is_key_exist /config/vyr/oap/proto_oap_enable", "dal_get /config/vyr/oap/proto_oap_enable"}));
    EXPECT_EQ(oapCfg_g.bEnable, 1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{kInitLine,
                     "<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: key: /config/vyr/oap/proto_oap_enable, value read: "
                     "1",
                     "<VYRWRAP>: vyrwrap_oap_config_init: oapCfg_g.bEnable=1, write OAP conf file"}));
    EXPECT_EQ(file().substr(0, 28), "function oap_vrrp_accept() {");
}

TEST_F(DalConfigTest, InitEnablesOnlyOnExactly1) {
    for (const char value : {'\0', '\2', '1', '\xff'}) {
        oapCfg_g.bEnable = 1;
        set_enable(value);
        EXPECT_EQ(vyrwrap_oap_config_init(), 0);
        EXPECT_EQ(oapCfg_g.bEnable, 0) << static_cast<int>(value);
        EXPECT_EQ(file(), "");
    }
}

TEST_F(DalConfigTest, InitWithoutTheKeyDisables) {
    oapCfg_g.bEnable = 1;
    EXPECT_EQ(vyrwrap_oap_config_init(), 0);
    EXPECT_EQ(oapCfg_g.bEnable, 0);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{kInitLine,
                     "<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: key /config/vyr/oap/proto_oap_enable doesn't exist "
                     "in DAL",
                     "<VYRWRAP>: vyrwrap_oap_config_init: oapCfg_g.bEnable=0, write OAP conf file"}));
    EXPECT_EQ(file(), "");
}

TEST_F(DalConfigTest, InitGoesOnWhenTheSubscriptionFails) {
    fake::failing_calls = {"dal_sub_command"};
    set_enable(1);
    EXPECT_EQ(vyrwrap_oap_config_init(), 0);
    EXPECT_EQ(oapCfg_g.bEnable, 1);
}

TEST_F(DalConfigTest, InitReturnsTheWritersFailure) {
    fake::fail_call("rename", EACCES);
    EXPECT_EQ(vyrwrap_oap_config_init(), -1);
}

TEST_F(DalConfigTest, TheSubscriptionReturnsTheDalsResult) {
    EXPECT_EQ(vyrwrap_oap_config_dal_init(), 0);
    EXPECT_EQ(fake::subscriptions.at(kPattern).callback, vyrwrap_vyr_cfg_subscribe_callback);
    fake::failing_calls = {"dal_sub_command"};
    EXPECT_EQ(vyrwrap_oap_config_dal_init(), -1);
    EXPECT_EQ(fake::log_texts(3), (Texts{kInitLine, kInitLine}));
}

TEST_F(DalConfigTest, ReadingTakesTheFirstByteAsANumber) {
    fake::strings["/k"] = "\xfe and more";
    EXPECT_EQ(read_vyr_oap_enable_cfg_from_dal("/k"), 254);
    fake::strings["/k"] = "";
    EXPECT_EQ(read_vyr_oap_enable_cfg_from_dal("/k"), 0);
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: key: /k, value read: 254",
                                         "<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: key: /k, value read: 0"}));
}

TEST_F(DalConfigTest, ReadingFailsToZero) {
    EXPECT_EQ(read_vyr_oap_enable_cfg_from_dal(nullptr), 0);
    EXPECT_TRUE(fake::dal_calls.empty());
    fake::strings["/k"] = "\1";
    fake::failing_calls = {"dal_is_key_exist"};
    EXPECT_EQ(read_vyr_oap_enable_cfg_from_dal("/k"), 0);
    fake::failing_calls = {"dal_get"};
    EXPECT_EQ(read_vyr_oap_enable_cfg_from_dal("/k"), 0);
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: key /k doesn't exist in DAL",
                                         "<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: Error reading DAL key /k"}));
}

TEST_F(DalConfigTest, SwitchingOnRewritesTheFile) {
    set_enable(1);
    notify("set");
    EXPECT_EQ(oapCfg_g.bEnable, 1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: DAL published key: "
                     "/config/vyr/oap/proto_oap_enable,",
                     "<VYRWRAP>: read_vyr_oap_enable_cfg_from_dal: key: /config/vyr/oap/proto_oap_enable, value read: "
                     "1",
                     "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: prev oapCfg_g.bEnable:0, DAL published value:1",
                     "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: oapCfg_g.bEnable changed to:1, rewrite oap conf "
                     "file"}));
    EXPECT_EQ(file().substr(0, 28), "function oap_vrrp_accept() {");
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
}

TEST_F(DalConfigTest, SwitchingOffEmptiesTheFile) {
    oapCfg_g.bEnable = 1;
    set_enable(0);
    notify("append");
    EXPECT_EQ(oapCfg_g.bEnable, 0);
    EXPECT_EQ(file(), "");
    EXPECT_TRUE(fake::logged(3,
                             "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: oapCfg_g.bEnable changed to:0, rewrite "
                             "oap conf file"));
}

TEST_F(DalConfigTest, DeletingTheKeyWhileOnSwitchesOffWithoutReadingIt) {
    oapCfg_g.bEnable = 1;
    set_enable(1);
    notify("del");
    EXPECT_EQ(oapCfg_g.bEnable, 0);
    EXPECT_EQ(file(), "");
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_EQ(
        fake::log_texts(3),
        (Texts{"<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: DAL published key: /config/vyr/oap/proto_oap_enable,",
               "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: DAL key /config/vyr/oap/proto_oap_enable is deleted",
               "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: prev oapCfg_g.bEnable:1, DAL published value:0",
               "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: oapCfg_g.bEnable changed to:0, rewrite oap conf "
               "file"}));
}

TEST_F(DalConfigTest, WithoutAChangeTheFileIsLeftAlone) {
    fake::write_file(kOapConfigPath, "as it was\n");
    notify("del");
    EXPECT_EQ(fake::log_texts(3).back(),
              "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: no change in oapCfg_g.bEnable(0)");
    oapCfg_g.bEnable = 1;
    set_enable(1);
    notify("set");
    EXPECT_EQ(fake::log_texts(3).back(),
              "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: no change in oapCfg_g.bEnable(1)");
    EXPECT_EQ(file(), "as it was\n");
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(DalConfigTest, AnyOtherNumberLeavesTheStateAsItIs) {
    for (const uint8_t state : {uint8_t{0}, uint8_t{1}}) {
        oapCfg_g.bEnable = state;
        set_enable(2);
        notify("set");
        EXPECT_EQ(oapCfg_g.bEnable, state);
        EXPECT_TRUE(fake::logged(3, "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: prev oapCfg_g.bEnable:" +
                                        std::to_string(state) + ", DAL published value:2"));
        EXPECT_EQ(fake::log_texts(3).back(),
                  "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: no change in oapCfg_g.bEnable(" +
                      std::to_string(state) + ")");
    }
    EXPECT_EQ(file(), "(no file)");
}

TEST_F(DalConfigTest, ALifetimeOnTheKeyIsReadLikeAChange) {
    set_enable(1);
    notify("expire");
    EXPECT_EQ(oapCfg_g.bEnable, 1);
}

TEST_F(DalConfigTest, AnotherKeyIsIgnored) {
    for (const char *name : {"proto_oap_enable2", "other", "proto_oap_enabl"}) {
        const fake::Reply reply({"pmessage", kPattern, std::string("__keyspace@0__:/config/vyr/oap/") + name, "set"});
        vyrwrap_vyr_cfg_subscribe_callback(fake::context(), reply.get(), nullptr);
        EXPECT_EQ(fake::log_texts(3).back(),
                  std::string("<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: invalid published_key "
                              "/config/vyr/oap/") +
                      name + ", ignore");
    }
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_EQ(file(), "(no file)");
}

TEST_F(DalConfigTest, ALongKeyIsCutTo191Characters) {
    const std::string key = "/config/vyr/oap/" + std::string(300, 'k');
    const fake::Reply reply({"pmessage", kPattern, "__keyspace@0__:" + key, "set"});
    vyrwrap_vyr_cfg_subscribe_callback(fake::context(), reply.get(), nullptr);
    EXPECT_EQ(fake::log_texts(3).front(),
              "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: DAL published key: " + key.substr(0, 191) + ",");
}

TEST_F(DalConfigTest, ANullReplyIsIgnored) {
    vyrwrap_vyr_cfg_subscribe_callback(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(DalConfigTest, ANotificationThatIsNoneIsLogged) {
    notify("lpush");
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: extract_dal_published_vyr_config_key: Unexpected notify_action (0)",
                     "<VYRWRAP>: vyrwrap_vyr_cfg_subscribe_callback: Error extracting DAL published key"}));
}

class ExtractTest : public OapTest {
protected:
    int extract(const std::vector<std::string> &elements, int type = DAL_REPLY_ARRAY) {
        const fake::Reply reply(elements, type);
        return extract_dal_published_vyr_config_key(reply.get(), key_, sizeof key_, &action_);
    }

    char key_[192] = {};
    int action_ = -7;
};

TEST_F(ExtractTest, GivesKeyAndAction) {
    const std::pair<const char *, int> events[] = {{"set", 1}, {"del", 2}, {"incrby", 3}, {"expire", 4}};
    for (const auto &[event, action] : events) {
        EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:/config/vyr/oap/x", event}), 0);
        EXPECT_EQ(action_, action);
        EXPECT_STREQ(key_, "/config/vyr/oap/x");
    }
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ExtractTest, RefusesNullArguments) {
    const fake::Reply reply({"pmessage", "p", "__keyspace@0__:/k", "set"});
    EXPECT_EQ(extract_dal_published_vyr_config_key(nullptr, key_, sizeof key_, &action_), -1);
    EXPECT_EQ(extract_dal_published_vyr_config_key(reply.get(), nullptr, sizeof key_, &action_), -1);
    EXPECT_EQ(extract_dal_published_vyr_config_key(reply.get(), key_, 0, &action_), -1);
    EXPECT_EQ(extract_dal_published_vyr_config_key(reply.get(), key_, sizeof key_, nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ExtractTest, RefusesAnyNumberOfElementsButFour) {
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:/k"}), -1);
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:/k", "set", "5"}), -1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: extract_dal_published_vyr_config_key: unexpected num of elements (3), expected 4\n",
                     "<VYRWRAP>: extract_dal_published_vyr_config_key: unexpected num of elements (5), expected "
                     "4\n"}));
}

TEST_F(ExtractTest, RefusesAReplyThatIsNoArrayAndAForeignChannelWithoutAWord) {
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:/k", "set"}, DAL_REPLY_STRING), -1);
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@1__:/k", "set"}), -1);
    EXPECT_EQ(extract({"pmessage", "p", "", "set"}), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ExtractTest, RefusesOtherActions) {
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:/k", "hset"}), -1);
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:/k", "hdel"}), -1);
    EXPECT_EQ(action_, -7);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: extract_dal_published_vyr_config_key: Unexpected notify_action (9)",
                     "<VYRWRAP>: extract_dal_published_vyr_config_key: Unexpected notify_action (10)"}));
}

TEST_F(ExtractTest, RefusesAnEmptyKey) {
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:", "set"}), -1);
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>: extract_dal_published_vyr_config_key: zero length published keyspace key"});
}

TEST_F(ExtractTest, KeepsALongKeyWithinItsBuffer) {
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:" + std::string(191, 'k'), "set"}), 0);
    EXPECT_EQ(key_, std::string(191, 'k'));
    EXPECT_EQ(extract({"pmessage", "p", "__keyspace@0__:" + std::string(500, 'l'), "set"}), 0);
    EXPECT_EQ(key_, std::string(191, 'l'));
}

}  // namespace
