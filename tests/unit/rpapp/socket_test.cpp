/* Opening the socket. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "fakes/fakes.h"
#include "fakes/routing_app.h"
#include "rpapp/link.h"

namespace {

class LinkSocketTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        fake::make_socket_folder();
        unlink(fake::kLinkPath);
    }

    void TearDown() override {
        if (fd_ >= 0)
            close(fd_);
        fake::Test::TearDown();
    }

    int connect() { return fd_ = vyrwrap_app_socket_connect(); }

    int fd_ = -1;
};

const std::string kPath = fake::kLinkPath;

/** Lowest descriptor that is free. */
int next_descriptor() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

TEST_F(LinkSocketTest, IsADatagramSocketBoundToTheOwnPathWithoutATerminator) {
    ASSERT_GE(connect(), 0);
    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(getsockopt(fd_, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    struct stat status;
    ASSERT_EQ(stat(fake::kLinkPath, &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(fake::address_length, 2 + kPath.size());
}

TEST_F(LinkSocketTest, IsRegisteredForReadingAndReported) {
    ASSERT_GE(connect(), 0);
    ASSERT_EQ(fake::inputs.size(), 1U);
    const fake::Input input = fake::inputs.at({fd_, DISP_READ});
    EXPECT_EQ(input.handler, vyrwrap_app_server_read_msg);
    EXPECT_EQ(input.user_data, nullptr);
    EXPECT_EQ(fake::log_texts(6), (std::vector<std::string>{"<VYRWRAP>:vyrwrap_app_socket_connect : Socket " + kPath +
                                                            " created with FD " + std::to_string(fd_)}));
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(LinkSocketTest, HasNoStatusFlagButNonblock) {
    ASSERT_GE(connect(), 0);
    EXPECT_EQ(fcntl(fd_, F_GETFL) & ~O_ACCMODE, O_NONBLOCK);
}

TEST_F(LinkSocketTest, IsCloseOnExec) {
    ASSERT_GE(connect(), 0);
    EXPECT_EQ(fcntl(fd_, F_GETFD), FD_CLOEXEC);
}

TEST_F(LinkSocketTest, StaysAboveTheStandardDescriptors) {
    const int kept = dup(0);
    close(0);
    connect();
    const bool zero_open = fcntl(0, F_GETFD) >= 0;
    dup2(kept, 0);
    close(kept);
    EXPECT_GT(fd_, 2);
    EXPECT_FALSE(zero_open);
}

TEST_F(LinkSocketTest, LetsTwoHundredRecordsThroughAsOneDatagram) {
    fake::RoutingApp app;
    vyrwrap_global.app_sock_fd = connect();
    ASSERT_GE(fd_, 0);
    const std::string datagram(69600, 'r');
    EXPECT_EQ(vyrwrap_send_to_routing_app(datagram.data(), datagram.size()), 69600);
    EXPECT_EQ(app.receive(), std::vector<std::string>{datagram});
}

TEST_F(LinkSocketTest, AsksForALargeSendBufferWithoutPrivilegeToo) {
    fake::fail_call("setsockopt", EPERM);
    ASSERT_GE(connect(), 0);
    EXPECT_EQ(fake::call_count("setsockopt"), 2);
    int size = 0;
    socklen_t length = sizeof size;
    ASSERT_EQ(getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
    EXPECT_EQ(size, 2 * std::stoi(fake::read_file("/proc/sys/net/core/wmem_max")));
}

TEST_F(LinkSocketTest, TakesTheSendBufferThatItGets) {
    fake::fail_call("setsockopt", EPERM, 0, 2);
    EXPECT_GE(connect(), 0);
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(LinkSocketTest, HasALargerSendBufferThanTheDefault) {
    ASSERT_GE(connect(), 0);
    const int plain = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int sizes[2] = {};
    socklen_t length = sizeof sizes[0];
    ASSERT_EQ(getsockopt(plain, SOL_SOCKET, SO_SNDBUF, &sizes[0], &length), 0);
    ASSERT_EQ(getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &sizes[1], &length), 0);
    close(plain);
    EXPECT_GT(sizes[1], sizes[0]);
}

TEST_F(LinkSocketTest, ReplacesAStaleFileAtItsPath) {
    fake::write_file(kPath, "stale");
    EXPECT_GE(connect(), 0);
}

TEST_F(LinkSocketTest, CanBeOpenedAgainAfterARestart) {
    ASSERT_GE(connect(), 0);
    close(fd_);
    EXPECT_GE(connect(), 0);
}

TEST_F(LinkSocketTest, ReportsASocketThatCannotBeMade) {
    fake::fail_call("socket", EMFILE);
    EXPECT_EQ(connect(), -1);
    EXPECT_EQ(fake::log_texts(3), (std::vector<std::string>{"<VYRWRAP>:vyrwrap_app_socket_connect: Invalid fd -1 for "
                                                            "socket " +
                                                            kPath + " - errno: 24(Too many open files)"}));
    EXPECT_TRUE(fake::inputs.empty());
    EXPECT_TRUE(fake::log_texts(6).empty());
}

TEST_F(LinkSocketTest, ReportsASocketThatCannotBeMadeCloseOnExec) {
    const int next = next_descriptor();
    fake::fail_call("fcntl", EMFILE);
    EXPECT_EQ(connect(), -1);
    EXPECT_EQ(fake::log_texts(3), (std::vector<std::string>{"<VYRWRAP>:vyrwrap_app_socket_connect: Invalid fd -1 for "
                                                            "socket " +
                                                            kPath + " - errno: 24(Too many open files)"}));
    EXPECT_EQ(next_descriptor(), next);
}

TEST_F(LinkSocketTest, ClosesASocketWhoseFlagsCannotBeSet) {
    const int next = next_descriptor();
    fake::fail_call("fcntl", EINVAL, 1);
    EXPECT_EQ(connect(), -1);
    const std::string fd = std::to_string(next);
    EXPECT_EQ(
        fake::log_texts(3),
        (std::vector<std::string>{
            "<VYRWRAP>:vyrwrap_app_socket_connect : Failed to set socket options for fd " + fd + " and socket " + kPath,
            "<VYRWRAP>:vyrwrap_app_socket_connect : Closed Unix socket " + kPath + " with FD " + fd +
                " to RP_APP due to failure while setting socket "
                "options"}));
    EXPECT_EQ(next_descriptor(), next);
    EXPECT_EQ(fake::call_count("bind"), 0);
    EXPECT_TRUE(fake::inputs.empty());
}

TEST_F(LinkSocketTest, ClosesASocketThatCannotBeBound) {
    const int next = next_descriptor();
    fake::fail_call("bind", EADDRINUSE);
    EXPECT_EQ(connect(), -1);
    const std::string fd = std::to_string(next);
    EXPECT_EQ(fake::log_texts(3),
              (std::vector<std::string>{"<VYRWRAP>:vyrwrap_app_socket_connect : Bind failed for fd " + fd +
                                            " and socket " + kPath + " - errno: 98 (Address already in use)",
                                        "<VYRWRAP>:vyrwrap_app_socket_connect : Closed socket " + kPath + " with FD " +
                                            fd + " to RP_APP due to bind failure"}));
    EXPECT_EQ(next_descriptor(), next);
    EXPECT_TRUE(fake::inputs.empty());
}

TEST_F(LinkSocketTest, FailsToBindWhereTheFolderIsMissing) {
    ASSERT_EQ(rmdir("/tmp/.sock"), 0);
    const std::string fd = std::to_string(next_descriptor());
    EXPECT_EQ(connect(), -1);
    ASSERT_EQ(fake::log_texts(3).size(), 2U);
    EXPECT_EQ(fake::log_texts(3)[0], "<VYRWRAP>:vyrwrap_app_socket_connect : Bind failed for fd " + fd +
                                         " and socket " + kPath + " - errno: 2 (No such file or directory)");
}

}  // namespace
