#include "core/global.h"

#include "fakes/fakes.h"

namespace {

using GlobalTest = fake::Test;

TEST_F(GlobalTest, AChangedFileRaisesTheDirtyFlagAndBeginsTheQuietPeriodAnew) {
    vyrwrap_global.dirty_wait_ticks = 1;
    vyrwrap_global.dirty_total_ticks = 5;
    vyrwrap_mark_config_dirty("some_writer");
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.dirty_total_ticks, 5U);
    EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{"<VYRWRAP>: Dirty flag set at some_writer"});
}

}  // namespace
