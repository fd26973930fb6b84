#include "event/event_log.h"

#include <errno.h>

#include "fakes/fakes.h"

namespace {

using EventLogTest = fake::Test;

void log_one_of_each() {
    event_log_error("%s %d", "error", 1);
    event_log_warning("%s %d", "warning", 2);
    event_log_info("%s %d", "info", 3);
    event_log_debug("%s %d", "debug", 4);
}

TEST_F(EventLogTest, MessagesGoOutUnderTheirOwnModuleAndIds) {
    log_one_of_each();
    struct {
        int level;
        int id;
        const char *text;
    } const expected[] = {
        {3, 312404, "error 1"}, {4, 312402, "warning 2"}, {6, 312401, "info 3"}, {7, 312400, "debug 4"}};
    ASSERT_EQ(fake::log_lines.size(), 4U);
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(fake::log_lines[i].module, 448);
        EXPECT_EQ(fake::log_lines[i].level, expected[i].level);
        EXPECT_EQ(fake::log_lines[i].filter, 4);
        EXPECT_EQ(fake::log_lines[i].id, expected[i].id);
        EXPECT_EQ(fake::log_lines[i].wrapper, " ^[error %s]");
        EXPECT_EQ(fake::log_lines[i].text, expected[i].text);
    }
}

TEST_F(EventLogTest, TheModulesLevelDecides) {
    fake::set_log_level(4);
    log_one_of_each();
    EXPECT_EQ(fake::log_lines.size(), 2U);
    fake::set_log_level(2);
    log_one_of_each();
    EXPECT_EQ(fake::log_lines.size(), 2U);
}

TEST_F(EventLogTest, WithoutALevelTableNothingGoesOut) {
    fake::drop_log_levels();
    log_one_of_each();
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(EventLogTest, BeforeTheFirstLevelChangeEverythingGoesOut) {
    fake::drop_log_levels();
    _isdefaultLogLevel = 1;
    log_one_of_each();
    EXPECT_EQ(fake::log_lines.size(), 4U);
}

TEST_F(EventLogTest, ATextIsCutAtItsBufferOf256Bytes) {
    event_log_error("%s", std::string(300, 'x').c_str());
    EXPECT_EQ(fake::log_lines.at(0).text, std::string(255, 'x'));
}

TEST_F(EventLogTest, TheDaemonsSharedBufferIsLeftAlone) {
    lgClientInfo.buffer[0] = '#';
    event_log_error("text");
    EXPECT_EQ(lgClientInfo.buffer[0], '#');
}

TEST_F(EventLogTest, ErrnoStays) {
    fake::on_log = [](const fake::LogLine &) { errno = EIO; };
    errno = ENOENT;
    event_log_error("text");
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
