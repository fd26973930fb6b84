#include "logctl/vyr_log_level.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/timer.h"
#include "fakes/fakes.h"

namespace {

constexpr char kPath[] = "/tmp/vyr_log.conf";
constexpr char kKey[] = "/op/vyr/logging/vyr_log_level";
constexpr char kPattern[] = "__keyspace@0__:/op/vyr/logging/vyr_log_level";

std::string file_with(const std::string &categories) {
    return "log \"/var/log/korvalog/NETWORK.log\" 40960 \"/var/log/korvalog/NETWORK.log.1\" {" + categories +
           " };\n"
           "log \"/var/log/korvalog/vyr.log\" 81920 \"/var/log/korvalog/vyr.log.1\" { debug, trace, info, remote, "
           "warning, error, auth, fatal, bug };\n"
           "\n";
}

const std::string kWarnFile =
    "log \"/var/log/korvalog/NETWORK.log\" 40960 \"/var/log/korvalog/NETWORK.log.1\" { warning, error, auth, fatal, "
    "bug "
    " };\n"
    "log \"/var/log/korvalog/vyr.log\" 81920 \"/var/log/korvalog/vyr.log.1\" { debug, trace, info, remote, warning, "
    "error, auth, fatal, bug };\n"
    "\n";

class VyrLogLevelTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        unlink(kPath);
    }
    void TearDown() override {
        remove(kPath);
        fake::Test::TearDown();
    }

    static std::vector<std::string> errors() { return fake::log_texts(3); }

    /** What start-up leaves: a subscription and the "warn" file; the log and the flag are cleared. */
    static void start() {
        vyrwrap_dal_read_and_set_logging_level();
        fake::log_lines.clear();
        fake::dal_calls.clear();
        vyrwrap_global.config_dirty = 0;
    }
};

TEST_F(VyrLogLevelTest, EachLevelHasItsCategories) {
    const std::map<std::string, std::string> lists = {
        {"warn", " warning, error, auth, fatal, bug "},
        {"notice", " remote, warning, error, auth, fatal, bug "},
        {"info", " info, remote, warning, error, auth, fatal, bug "},
        {"debug", " debug, trace, info, remote, warning, error, auth, fatal, bug "},
    };
    for (const auto &[level, list] : lists) {
        EXPECT_EQ(vyrwrap_set_vyr_log_level(level.c_str()), 0);
        EXPECT_EQ(fake::read_file(kPath), file_with(list)) << level;
        EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr log string - " + list));
    }
}

TEST_F(VyrLogLevelTest, TheWarnFileHasTwoBlanksBeforeTheBraceAndAnEmptyThirdLine) {
    vyrwrap_set_vyr_log_level("warn");
    EXPECT_EQ(fake::read_file(kPath), kWarnFile);
}

TEST_F(VyrLogLevelTest, AnyOtherTextLeavesTheFixedCategories) {
    for (const char *level : {"", "error", "WARN", "warning", "debug ", " debug", "warn\n", "\xff"}) {
        vyrwrap_set_vyr_log_level(level);
        EXPECT_EQ(fake::read_file(kPath), file_with(" error, auth, fatal, bug ")) << level;
    }
}

TEST_F(VyrLogLevelTest, AWrittenFileMarksTheConfigurationDirty) {
    vyrwrap_global.dirty_wait_ticks = 5;
    vyrwrap_set_vyr_log_level("warn");
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(fake::log_texts(7),
              (std::vector<std::string>{"<VYRWRAP>: vyr log string -  warning, error, auth, fatal, bug ",
                                        "<VYRWRAP>: Dirty flag set at vyrwrap_set_vyr_log_level"}));
    EXPECT_EQ(fake::log_lines.size(), 2U);
}

TEST_F(VyrLogLevelTest, AFileThatCannotBeOpenedRaisesNoFlag) {
    ASSERT_EQ(mkdir(kPath, 0755), 0);
    EXPECT_EQ(vyrwrap_set_vyr_log_level("warn"), -1);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Failed to open /tmp/vyr_log.conf - Is a directory"});
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(VyrLogLevelTest, AFileThatCannotBeWrittenWholeStaysAsItWas) {
    fake::write_file(kPath, "former\n");
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(vyrwrap_set_vyr_log_level("warn"), -1);
    EXPECT_EQ(fake::read_file(kPath), "former\n");
    EXPECT_EQ(errors(),
              std::vector<std::string>{"<VYRWRAP>: Failed to open /tmp/vyr_log.conf - No space left on device"});
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(VyrLogLevelTest, StartUpSubscribesAndAppliesTheValue) {
    fake::strings[kKey] = "debug";
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::dal_calls,
              (std::vector<std::string>{"dal_sub_command PSUBSCRIBE " + std::string(kPattern),
                                        "dal_is_key_exist " + std::string(kKey), "dal_get " + std::string(kKey)}));
    EXPECT_EQ(fake::subscriptions.at(kPattern).callback, &vyrwrap_subscribe_logging_cb);
    EXPECT_EQ(fake::read_file(kPath), file_with(" debug, trace, info, remote, warning, error, auth, fatal, bug "));
    EXPECT_EQ(fake::log_texts(6),
              std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_read_and_set_logging_level: DAL key: "
                                       "/op/vyr/logging/vyr_log_level, value read: debug, value length 5"});
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_TRUE(errors().empty());
}

TEST_F(VyrLogLevelTest, WithoutTheKeyStartUpTakesWarn) {
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::read_file(kPath), kWarnFile);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(errors(),
              std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_read_and_set_logging_level: path "
                                       "/op/vyr/logging/vyr_log_level doesn't exist in DAL. Setting log-level to "
                                       "warning"});
    EXPECT_EQ(fake::dal_calls.size(), 2U) << "the key is not read";
}

TEST_F(VyrLogLevelTest, ADalThatCannotBeAskedForTheKeyMeansWarn) {
    fake::strings[kKey] = "debug";
    fake::failing_calls.insert("dal_is_key_exist");
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::read_file(kPath), kWarnFile);
    EXPECT_EQ(errors().size(), 1U);
}

TEST_F(VyrLogLevelTest, AKeyThatCannotBeReadMeansWarn) {
    fake::strings[kKey] = "debug";
    fake::failing_calls.insert("dal_get");
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::read_file(kPath), kWarnFile);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_read_and_set_logging_level: Error reading DAL "
                                                 "key /op/vyr/logging/vyr_log_level. Setting log-level to warning"});
}

TEST_F(VyrLogLevelTest, AFailedSubscriptionStillAppliesTheValue) {
    fake::strings[kKey] = "notice";
    fake::failing_calls.insert("dal_sub_command");
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::read_file(kPath), file_with(" remote, warning, error, auth, fatal, bug "));
}

TEST_F(VyrLogLevelTest, ALongValueIsCutAfterSixteenCharacters) {
    fake::strings[kKey] = "0123456789abcdefghijklmnopqrstuvwxyz";
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::log_texts(6),
              std::vector<std::string>{"<VYRWRAP>: vyrwrap_dal_read_and_set_logging_level: DAL key: "
                                       "/op/vyr/logging/vyr_log_level, value read: 0123456789abcdef, value length 16"});
    EXPECT_EQ(fake::read_file(kPath), file_with(" error, auth, fatal, bug "));
}

TEST_F(VyrLogLevelTest, AnEmptyValueIsAnUnknownLevel) {
    fake::strings[kKey] = "";
    EXPECT_EQ(vyrwrap_dal_read_and_set_logging_level(), 0);
    EXPECT_EQ(fake::read_file(kPath), file_with(" error, auth, fatal, bug "));
}

TEST_F(VyrLogLevelTest, AChangeOfTheKeyIsFollowed) {
    start();
    fake::strings[kKey] = "info";
    fake::notify_key(kKey, "set");
    EXPECT_EQ(fake::read_file(kPath), file_with(" info, remote, warning, error, auth, fatal, bug "));
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(fake::log_texts(7).at(0),
              "<VYRWRAP>: vyrwrap_subscribe_logging_cb: 750: Number of elements 4,             REPLY_E_MTYPE pmessage, "
              "REPLY_E_SUB_KEY __keyspace@0__:/op/vyr/logging/vyr_log_level, REPLY_E_DATA_KEY "
              "__keyspace@0__:/op/vyr/logging/vyr_log_level");
    EXPECT_EQ(fake::log_texts(6),
              std::vector<std::string>{"<VYRWRAP>: vyrwrap_subscribe_logging_cb: 765: VYR Log Level info"});
    EXPECT_TRUE(errors().empty());
}

TEST_F(VyrLogLevelTest, EveryNotificationRewritesTheFile) {
    start();
    fake::strings[kKey] = "info";
    fake::notify_key(kKey, "set");
    unlink(kPath);
    vyrwrap_global.config_dirty = 0;
    fake::notify_key(kKey, "anything");
    EXPECT_EQ(fake::read_file(kPath), file_with(" info, remote, warning, error, auth, fatal, bug "));
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
}

TEST_F(VyrLogLevelTest, ADeletedKeyLeavesTheFileAsItIs) {
    fake::strings[kKey] = "debug";
    start();
    fake::write_file(kPath, "untouched\n");
    fake::strings.erase(kKey);
    fake::notify_key(kKey, "del");
    EXPECT_EQ(fake::read_file(kPath), "untouched\n");
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: vyrwrap_subscribe_logging_cb: 761: DAL get Error"});
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
}

TEST_F(VyrLogLevelTest, ANotificationOfFewerThanFourElementsIsOnlyLogged) {
    fake::strings[kKey] = "debug";
    for (const std::vector<std::string> &elements :
         {std::vector<std::string>{}, {"pmessage"}, {"pmessage", kPattern, kPattern}}) {
        fake::log_lines.clear();
        vyrwrap_subscribe_logging_cb(fake::context(), fake::Reply(elements).get(), nullptr);
        EXPECT_EQ(fake::log_lines.size(), 1U);
    }
    EXPECT_TRUE(fake::dal_calls.empty());
    vyrwrap_subscribe_logging_cb(fake::context(), fake::Reply({"pmessage"}).get(), nullptr);
    EXPECT_TRUE(fake::logged(7,
                             "<VYRWRAP>: vyrwrap_subscribe_logging_cb: 750: Number of elements 1,             "
                             "REPLY_E_MTYPE pmessage, REPLY_E_SUB_KEY NULL, REPLY_E_DATA_KEY NULL"));
}

TEST_F(VyrLogLevelTest, TheKeyIsWhatStandsBehindTheChannelsFirstColon) {
    fake::strings["/other:key"] = "notice";
    const fake::Reply reply({"message", "*", "x:/other:key", "set", "one more"});
    vyrwrap_subscribe_logging_cb(fake::context(), reply.get(), nullptr);
    EXPECT_EQ(fake::dal_calls, std::vector<std::string>{"dal_get /other:key"});
    EXPECT_EQ(fake::read_file(kPath), file_with(" remote, warning, error, auth, fatal, bug "));
}

TEST_F(VyrLogLevelTest, AKeyIsCutAfter127Characters) {
    const fake::Reply reply({"pmessage", "*", "x:" + std::string(200, 'k'), "set"});
    vyrwrap_subscribe_logging_cb(fake::context(), reply.get(), nullptr);
    EXPECT_EQ(fake::dal_calls, std::vector<std::string>{"dal_get " + std::string(127, 'k')});
}

TEST_F(VyrLogLevelTest, AChannelWithoutAKeyIsAFailedRead) {
    vyrwrap_subscribe_logging_cb(fake::context(), fake::Reply({"pmessage", "*", "nocolon", "set"}).get(), nullptr);
    fake::Reply reply({"pmessage", "*", kPattern, "set"});
    reply.element(2)->str = nullptr;
    vyrwrap_subscribe_logging_cb(fake::context(), reply.get(), nullptr);
    vyrwrap_subscribe_logging_cb(fake::context(), nullptr, nullptr);
    const std::string text = "<VYRWRAP>: vyrwrap_subscribe_logging_cb: 761: DAL get Error";
    EXPECT_EQ(errors(), (std::vector<std::string>{text, text}));
    EXPECT_EQ(fake::read_file(kPath), "(no file)");
}

/* ---- written again by the timer ---- */

TEST_F(VyrLogLevelTest, TheTimerWritesWhatCouldNotBeWritten) {
    ASSERT_EQ(mkdir(kPath, 0755), 0);
    EXPECT_EQ(vyrwrap_set_vyr_log_level("info"), -1);
    vyrwrap_mytimer();
    EXPECT_EQ(errors(), (std::vector<std::string>{2, "<VYRWRAP>: Failed to open /tmp/vyr_log.conf - Is a directory"}));
    ASSERT_EQ(rmdir(kPath), 0);
    vyrwrap_mytimer();
    EXPECT_EQ(fake::read_file(kPath), file_with(" info, remote, warning, error, auth, fatal, bug "));
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    fake::write_file(kPath, "as it was\n");
    vyrwrap_mytimer();
    EXPECT_EQ(fake::read_file(kPath), "as it was\n");
}

TEST_F(VyrLogLevelTest, TheTimersOwnLaterContentStays) {
    vyrwrap_global.vyr_pid = 4242;
    fake::on_kill = [](int, int, int *result) {
        *result = 0;
        return true;
    };
    fake::debug_enabled = 1;
    fake::fail_call("write", ENOSPC, 0, 2);
    EXPECT_EQ(vyrwrap_set_vyr_log_level("info"), -1);
    vyrwrap_mytimer();
    const std::string debugging = fake::read_file(kPath);
    EXPECT_EQ(debugging.find("NETWORK.log"), std::string::npos);
    vyrwrap_mytimer();
    EXPECT_EQ(fake::read_file(kPath), debugging);
}

}  // namespace
