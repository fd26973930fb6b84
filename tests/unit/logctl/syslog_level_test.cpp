#include "logctl/syslog_level.h"

#include <string.h>

#include "fakes/fakes.h"

namespace {

constexpr char kKey[] = "/op/syslog/facility/network/level";
constexpr char kPattern[] = "__keyspace@0__:/op/syslog/facility/network/level";

class SyslogLevelTest : public fake::Test {
protected:
    static std::vector<std::string> errors() { return fake::log_texts(3); }

    static int facility_in(const std::string &channel) {
        return vyrwrap_syslog_notification_extract_facility(fake::Reply({"pmessage", "*", channel, "set"}).get());
    }

    static void notify_about(const std::string &facility_name) {
        const std::string channel = "__keyspace@0__:/op/syslog/facility/" + facility_name + "/level";
        const fake::Reply reply({"pmessage", "*", channel, "set"});
        vyrwrap_syslog_level_subscribe_cb(fake::context(), reply.get(), nullptr);
    }
};

TEST_F(SyslogLevelTest, StartSubscribesToTheFacilitysKeyAndAppliesItsLevel) {
    fake::strings[kKey] = "debug";
    init_syslog_facility(416);
    EXPECT_EQ(fake::dal_calls, (std::vector<std::string>{"dal_sub_command PSUBSCRIBE " + std::string(kPattern),
                                                         "dal_get " + std::string(kKey)}));
    EXPECT_EQ(fake::subscriptions.at(kPattern).callback, &vyrwrap_syslog_level_subscribe_cb);
    EXPECT_EQ(fake::log_texts(4),
              (std::vector<std::string>{
                  "<VYRWRAP>: init_syslog_facility: subscribe to: PSUBSCRIBE "
                  "__keyspace@0__:/op/syslog/facility/network/level",
                  "<VYRWRAP>: vyrwrap_dal_read_and_set_syslog_level: syslog fac:network(416), level:debug(7)"}));
    EXPECT_EQ(fake::log_lines.size(), 2U);
    EXPECT_EQ(fake::level_changes.size(), 1U);
}

TEST_F(SyslogLevelTest, TheRequestHoldsThreeWordsAndIsZeroBehindThem) {
    fake::strings[kKey] = "notice";
    vyrwrap_dal_read_and_set_syslog_level(416);
    ASSERT_EQ(fake::level_changes.size(), 1U);
    uint32_t expected[74] = {1, 416, 5};
    static_assert(sizeof expected == 296);
    EXPECT_EQ(memcmp(&fake::level_changes[0], expected, sizeof expected), 0);
}

TEST_F(SyslogLevelTest, AMissingKeyChangesNothing) {
    init_syslog_facility(416);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_read_and_set_syslog_level: Error reading "
                                                 "syslog facility network from DAL"});
    EXPECT_TRUE(fake::level_changes.empty());
}

TEST_F(SyslogLevelTest, AnEmptyValueChangesNothing) {
    fake::strings[kKey] = "";
    vyrwrap_dal_read_and_set_syslog_level(416);
    EXPECT_EQ(fake::log_texts(4),
              std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_read_and_set_syslog_level: fac network(416), DAL read "
                                       "log level len 0, return"});
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_TRUE(fake::level_changes.empty());
}

TEST_F(SyslogLevelTest, AWordThatIsNoLevelIsPassedOnForThePlatformToRefuse) {
    fake::strings[kKey] = "loud";
    vyrwrap_dal_read_and_set_syslog_level(416);
    EXPECT_TRUE(
        fake::logged(4, "<VYRWRAP>: vyrwrap_dal_read_and_set_syslog_level: syslog fac:network(416), level:loud(-1)"));
    ASSERT_EQ(fake::level_changes.size(), 1U);
    EXPECT_EQ(fake::level_changes[0].level, UINT32_MAX);
}

TEST_F(SyslogLevelTest, ALongValueIsCutAfterSixteenCharacters) {
    fake::strings[kKey] = "0123456789abcdefghij";
    vyrwrap_dal_read_and_set_syslog_level(416);
    EXPECT_TRUE(fake::logged(4,
                             "<VYRWRAP>: vyrwrap_dal_read_and_set_syslog_level: syslog fac:network(416), "
                             "level:0123456789abcdef(-1)"));
}

TEST_F(SyslogLevelTest, AFacilityWithoutNameHasAKeyOfItsOwn) {
    vyrwrap_dal_read_and_set_syslog_level(77);
    EXPECT_EQ(fake::dal_calls, std::vector<std::string>{"dal_get /op/syslog/facility//level"});
}

TEST_F(SyslogLevelTest, AChangeOfTheKeyIsFollowed) {
    init_syslog_facility(416);
    fake::log_lines.clear();
    fake::strings[kKey] = "err";
    fake::notify_key(kKey, "set");
    ASSERT_EQ(fake::level_changes.size(), 1U);
    EXPECT_EQ(fake::level_changes[0].level, 3U);
    EXPECT_EQ(fake::log_texts(6),
              (std::vector<std::string>{
                  "<VYRWRAP>:vyrwrap_syslog_level_subscribe_cb: elements:4,type:2,MTYPE:pmessage,SUB_KEY:"
                  "__keyspace@0__:/op/syslog/facility/network/level,DATA_KEY:"
                  "__keyspace@0__:/op/syslog/facility/network/level",
                  "<VYRWRAP>:vyrwrap_syslog_notification_extract_facility: syslog facility:network(416)"}));
    EXPECT_TRUE(errors().empty());
}

TEST_F(SyslogLevelTest, AHundredChangesAreFollowedOneByOne) {
    init_syslog_facility(416);
    for (int i = 0; i < 100; i++) {
        fake::strings[kKey] = i % 2 ? "debug" : "warn";
        fake::notify_key(kKey, "set");
        ASSERT_EQ(fake::level_changes.size(), static_cast<size_t>(i + 1));
        EXPECT_EQ(fake::level_changes.back().level, i % 2 ? 7U : 4U);
    }
}

TEST_F(SyslogLevelTest, ADeletedKeyChangesNothing) {
    fake::strings[kKey] = "debug";
    init_syslog_facility(416);
    fake::strings.clear();
    fake::notify_key(kKey, "del");
    EXPECT_EQ(fake::level_changes.size(), 1U);
    EXPECT_EQ(errors().size(), 1U);
}

TEST_F(SyslogLevelTest, WhatIsNoNotificationIsOnlyLogged) {
    fake::strings[kKey] = "debug";
    const std::vector<std::vector<std::string>> replies = {{"pmessage", kPattern, kPattern},
                                                           {"pmessage", kPattern, kPattern, "set", "more"},
                                                           {"message", kPattern, kPattern, "set"},
                                                           {}};
    for (const auto &elements : replies) {
        fake::log_lines.clear();
        vyrwrap_syslog_level_subscribe_cb(fake::context(), fake::Reply(elements).get(), nullptr);
        EXPECT_EQ(fake::log_lines.size(), 1U);
        EXPECT_EQ(fake::log_texts(6).size(), 1U);
    }
    vyrwrap_syslog_level_subscribe_cb(
        fake::context(), fake::Reply({"pmessage", kPattern, kPattern, "set"}, DAL_REPLY_STRING).get(), nullptr);
    EXPECT_TRUE(fake::level_changes.empty());
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(SyslogLevelTest, MissingTextsAreLoggedAsNull) {
    vyrwrap_syslog_level_subscribe_cb(fake::context(), fake::Reply({}, DAL_REPLY_NIL).get(), nullptr);
    EXPECT_TRUE(fake::logged(6,
                             "<VYRWRAP>:vyrwrap_syslog_level_subscribe_cb: elements:0,type:4,MTYPE:NULL,SUB_KEY:NULL,"
                             "DATA_KEY:NULL"));
}

TEST_F(SyslogLevelTest, ANullReplyIsIgnored) {
    vyrwrap_syslog_level_subscribe_cb(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(SyslogLevelTest, AnUnknownFacilityIsInvalid) {
    notify_about("unheard");
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: vyrwrap_syslog_level_subscribe_cb: invalid facility 0"});
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP>:vyrwrap_syslog_notification_extract_facility: syslog facility:unheard(0)"));
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(SyslogLevelTest, AChannelThatNamesNoFacilityYieldsMinusOneSilently) {
    for (const char *channel :
         {"", "network", "__keyspace@0__:/op/syslog/facility/", "__keyspace@0__:/op/syslog/facility/network",
          "__keyspace@1__:/op/syslog/facility/network/level", "/op/syslog/facility/network/level"})
        EXPECT_EQ(facility_in(channel), -1) << channel;
    EXPECT_TRUE(fake::log_lines.empty());

    const fake::Reply reply({"pmessage", "*", "__keyspace@0__:/op/syslog/facility/network", "set"});
    vyrwrap_syslog_level_subscribe_cb(fake::context(), reply.get(), nullptr);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: vyrwrap_syslog_level_subscribe_cb: invalid facility -1"});
}

TEST_F(SyslogLevelTest, TheFacilityEndsAtTheNextSlash) {
    EXPECT_EQ(facility_in("__keyspace@0__:/op/syslog/facility/network/"), 416);
    EXPECT_EQ(facility_in("__keyspace@0__:/op/syslog/facility/network/level/deeper"), 416);
    EXPECT_EQ(facility_in("__keyspace@0__:/op/syslog/facility//level"), 0);
}

TEST_F(SyslogLevelTest, ANameOfFifteenCharactersIsAccepted) {
    notify_about("fifteencharacte");
    EXPECT_TRUE(
        fake::logged(6, "<VYRWRAP>:vyrwrap_syslog_notification_extract_facility: syslog facility:fifteencharacte(0)"));
}

TEST_F(SyslogLevelTest, ANameOfSixteenCharactersIsRefused) {
    notify_about("sixteencharacter");
    EXPECT_EQ(errors(), (std::vector<std::string>{
                            "<VYRWRAP>:vyrwrap_syslog_notification_extract_facility: fac_str size 16, but actual len "
                            "is 16, return",
                            "<VYRWRAP>: vyrwrap_syslog_level_subscribe_cb: invalid facility -1"}));
    fake::log_lines.clear();
    notify_about(std::string(5000, 'f'));
    EXPECT_EQ(errors().at(0),
              "<VYRWRAP>:vyrwrap_syslog_notification_extract_facility: fac_str size 16, but actual len is 5000, "
              "return");
}

}  // namespace
