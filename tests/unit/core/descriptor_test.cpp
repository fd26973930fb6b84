#include "core/descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "fakes/fakes.h"

namespace {

class DescriptorTest : public fake::Test {};

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

TEST_F(DescriptorTest, LeavesAHighDescriptorWhereItIsAndMakesItCloseOnExec) {
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_GT(fd, 2);
    EXPECT_EQ(move_above_stdio(fd), fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST_F(DescriptorTest, MovesAStandardDescriptorAndClosesTheOldOne) {
    for (int standard = 0; standard <= 2; standard++) {
        const int kept = dup(standard);
        close(standard);
        ASSERT_EQ(open("/dev/zero", O_RDONLY), standard);
        const int moved = move_above_stdio(standard);
        const bool was_open = is_open(standard);
        dup2(kept, standard);
        close(kept);
        EXPECT_GT(moved, 2);
        EXPECT_EQ(fcntl(moved, F_GETFD), FD_CLOEXEC);
        EXPECT_FALSE(was_open);
        char byte = 1;
        EXPECT_EQ(read(moved, &byte, 1), 1);
        EXPECT_EQ(byte, 0);
        close(moved);
    }
}

TEST_F(DescriptorTest, MovesOneAboveAllThreeWhenMoreOfThemAreFree) {
    const int kept[] = {dup(1), dup(2)};
    close(1);
    close(2);
    const int fd = open("/dev/null", O_RDONLY);
    const int moved = move_above_stdio(fd);
    dup2(kept[0], 1);
    dup2(kept[1], 2);
    close(kept[0]);
    close(kept[1]);
    EXPECT_EQ(fd, 1);
    EXPECT_GT(moved, 2);
    close(moved);
}

TEST_F(DescriptorTest, PassesANegativeDescriptorThroughWithItsErrno) {
    errno = EMFILE;
    EXPECT_EQ(move_above_stdio(-1), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(fake::call_count("fcntl"), 0);
}

TEST_F(DescriptorTest, ClosesADescriptorThatCannotBeMadeCloseOnExec) {
    const int fd = open("/dev/null", O_RDONLY);
    fake::fail_call("fcntl", EINVAL);
    EXPECT_EQ(move_above_stdio(fd), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(is_open(fd));
}

TEST_F(DescriptorTest, ClosesADescriptorThatCannotBeMoved) {
    const int kept = dup(0);
    close(0);
    ASSERT_EQ(open("/dev/null", O_RDONLY), 0);
    fake::fail_call("fcntl", EMFILE);
    const int moved = move_above_stdio(0);
    const int error = errno;
    const bool was_open = is_open(0);
    dup2(kept, 0);
    close(kept);
    EXPECT_EQ(moved, -1);
    EXPECT_EQ(error, EMFILE);
    EXPECT_FALSE(was_open);
}

}  // namespace
