#include "core/text.h"

#include <gtest/gtest.h>

namespace {

std::string field_after(const char *text) {
    char field[6] = {'x', 'x', 'x', 'x', 'x', '!'};
    copy_text(field, 5, text);
    return std::string(field, sizeof field);
}

TEST(CopyText, FillsTheRestOfTheFieldWithNul) {
    EXPECT_EQ(field_after("ab"), std::string("ab\0\0\0!", 6));
    EXPECT_EQ(field_after(""), std::string("\0\0\0\0\0!", 6));
}

TEST(CopyText, CutsWhatLeavesNoRoomForATerminator) {
    EXPECT_EQ(field_after("abcd"), std::string("abcd\0!", 6));
    EXPECT_EQ(field_after("abcde"), std::string("abcd\0!", 6));
}

TEST(CopyText, ReadsNoFurtherThanItCopies) {
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    char field[5];
    copy_text(field, sizeof field, unterminated);
    EXPECT_STREQ(field, "abcd");
}

TEST(CopyBetween, TellsWhetherEverythingFits) {
    const char text[] = "abcdef";
    char field[4] = {'x', 'x', 'x', '!'};
    EXPECT_TRUE(copy_between(field, 3, text + 1, text + 3));
    EXPECT_EQ(std::string(field, sizeof field), std::string("bc\0!", 4));
    EXPECT_FALSE(copy_between(field, 3, text + 1, text + 4));
    EXPECT_EQ(std::string(field, sizeof field), std::string("bc\0!", 4));
}

TEST(CopyBetween, CopiesNothingWhereTheEndLiesBefore) {
    const char text[] = "abcdef";
    char field[4] = {'x', 'x', 'x', 'x'};
    EXPECT_TRUE(copy_between(field, sizeof field, text + 3, text + 1));
    EXPECT_STREQ(field, "");
}

}  // namespace
