#include "core/parse.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include "fakes/fakes.h"

namespace {

using ParseTest = fake::Test;

TEST_F(ParseTest, ReadsWhatAtoiReads) {
    for (const char *text : {"0", "7", "42", " \t\n13", "+5", "-5", "12abc", "abc", "", "-", "+-3", "0x10", "007",
                             "1 2", "2147483647", "-2147483648", "\xff", "3.9"})
        EXPECT_EQ(parse_int(text), atoi(text)) << '"' << text << '"';
}

TEST_F(ParseTest, ReadsANumberBeyondIntAsTheNearestInt) {
    EXPECT_EQ(parse_int("2147483648"), INT_MAX);
    EXPECT_EQ(parse_int("-2147483649"), INT_MIN);
    EXPECT_EQ(parse_int("4294967297"), INT_MAX);
    EXPECT_EQ(parse_int(std::string(5000, '9').c_str()), INT_MAX);
    EXPECT_EQ(parse_int(("-" + std::string(5000, '9')).c_str()), INT_MIN);
}

TEST_F(ParseTest, ReadsAMissingTextAsZero) {
    EXPECT_EQ(parse_int(nullptr), 0);
}

TEST_F(ParseTest, LeavesErrnoAlone) {
    errno = EISDIR;
    parse_int("99999999999999999999");
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(ParseTest, TellsWhereTheNumberEnds) {
    const char *end = nullptr;
    const char *text = " -12-x";
    EXPECT_EQ(parse_int(text, &end), -12);
    EXPECT_EQ(end, text + 4);
    const char *no_number = " -x";
    EXPECT_EQ(parse_int(no_number, &end), 0);
    EXPECT_EQ(end, no_number);
}

}  // namespace
