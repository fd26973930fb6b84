#include "core/log.h"

#include <errno.h>

#include "fakes/fakes.h"

namespace {

using LogTest = fake::Test;

TEST_F(LogTest, EmitsUnderTheDaemonsModuleWithTheIdOfTheLevel) {
    log_error("e");
    log_warning("w");
    log_info("i");
    log_debug("d");
    ASSERT_EQ(fake::log_lines.size(), 4U);
    const int levels[] = {3, 4, 6, 7};
    const int ids[] = {399816, 399838, 399815, 399814};
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(fake::log_lines[i].module, 416);
        EXPECT_EQ(fake::log_lines[i].level, levels[i]);
        EXPECT_EQ(fake::log_lines[i].filter, 4);
        EXPECT_EQ(fake::log_lines[i].id, ids[i]);
        EXPECT_EQ(fake::log_lines[i].wrapper, " ^[error %s]");
    }
}

TEST_F(LogTest, SkipsWhatIsAboveTheModulesLevel) {
    fake::set_log_level(4);
    log_warning("seen");
    log_info("not seen");
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_TRUE(fake::logged(4, "seen"));
}

TEST_F(LogTest, SkipsEverythingWithoutALevelTable) {
    fake::drop_log_levels();
    log_error("not seen");
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(LogTest, SkipsEverythingWhenTheTableLacksTheModule) {
    static HashTable *const empty = _HashCreate(1);  // reachable to the end: tables are never destroyed
    lgClientInfo.levels = empty;
    log_error("not seen");
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(LogTest, EmitsEverythingBeforeTheFirstLevelChange) {
    fake::drop_log_levels();
    _isdefaultLogLevel = 1;
    log_debug("seen");
    EXPECT_TRUE(fake::logged(7, "seen"));
}

TEST_F(LogTest, CutsATextAtTheSharedBuffer) {
    const std::string text(2000, 'x');
    log_error("%s", text.c_str());
    EXPECT_EQ(fake::log_lines.at(0).text, std::string(1023, 'x'));
}

TEST_F(LogTest, LeavesErrnoAlone) {
    errno = ENOSPC;
    log_error("%s", "text");
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(LogTest, EvaluatesArgumentsOnlyForAMessageThatIsEmitted) {
    fake::set_log_level(3);
    int evaluated = 0;
    log_debug("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

}  // namespace
