#include "vyrsock/vyr_socket.h"

#include <sys/resource.h>
#include <sys/select.h>

#include "fakes/vyr_peer.h"

namespace {

using VyrSocketTest = fake::Test;

TEST_F(VyrSocketTest, AnAddressIsClearedAndItsLengthLeavesTheTerminatorOut) {
    sockaddr_un address;
    memset(&address, 0xff, sizeof address);
    EXPECT_EQ(vyr_socket_address("/tmp/bird_data_exp.ctl", &address), 24U);
    sockaddr_un expected = fake::unix_address("/tmp/bird_data_exp.ctl");
    EXPECT_EQ(sizeof address, 110U);
    EXPECT_EQ(memcmp(&address, &expected, sizeof address), 0);
}

TEST_F(VyrSocketTest, APathThatFillsItsFieldIsTakenWhole) {
    sockaddr_un address;
    EXPECT_EQ(vyr_socket_address(std::string(200, 'p').c_str(), &address), 110U);
    EXPECT_EQ(std::string(address.sun_path, sizeof address.sun_path), std::string(108, 'p'));
}

TEST_F(VyrSocketTest, ADescriptorThatNoSetTakesIsRefused) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit raised = before;
    raised.rlim_cur = FD_SETSIZE + 8;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const int high = fcntl(STDERR_FILENO, F_DUPFD, FD_SETSIZE);
    ASSERT_GE(high, FD_SETSIZE);
    EXPECT_EQ(vyr_adopt_socket(high), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(fake::is_open(high));

    const int last = fcntl(STDERR_FILENO, F_DUPFD, FD_SETSIZE - 1);
    EXPECT_EQ(vyr_adopt_socket(last), FD_SETSIZE - 1);
    close(last);
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(VyrSocketTest, ANewSocketIsCloseOnExecAndBlocking) {
    const int fd = vyr_open_socket();
    ASSERT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL), O_RDWR);
    close(fd);
}

TEST_F(VyrSocketTest, Descriptor0IsWaitedForAsAnyOther) {
    const fake::KeepDescriptorZero keep;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ASSERT_EQ(dup2(ends[0], 0), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_TRUE(vyr_wait_readable(0));
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
