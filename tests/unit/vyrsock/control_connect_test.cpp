#include "control_test.h"

namespace {

class ControlConnectTest : public ControlTest {
protected:
    static std::string connect_failure(int error) {
        return "<VYRWRAP>: Unable to connect to server control socket (/tmp/bird_data_exp.ctl), error: " +
               std::string(strerror(error));
    }

    fake::KeepDescriptorZero keep_;
};

TEST_F(ControlConnectTest, AConnectionIsNonBlockingCloseOnExecAndAboveTheStandardDescriptors) {
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 1);
    const int fd = vyrwrap_global.ctl_sock_fd;
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFL), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr server connected"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
}

TEST_F(ControlConnectTest, ASecondConnectOnlyWarns) {
    const fake::Peer peer = connected();
    const int fd = vyrwrap_global.ctl_sock_fd;
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 1);
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, fd);
    EXPECT_TRUE(fake::logged(4, "<VYRWRAP>: vyr server socket already connected"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::call_count("connect"), 1);
}

TEST_F(ControlConnectTest, WithoutASocketThereIsNoConnection) {
    fake::fail_call("socket", EMFILE);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Cannot create vyrwrap server socket"});
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_TRUE(fake::is_open(0));
}

TEST_F(ControlConnectTest, ASocketThatCannotBeMadeCloseOnExecIsNone) {
    const int before = fake::next_descriptor();
    fake::fail_call("fcntl", EIO);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Cannot create vyrwrap server socket"});
    EXPECT_EQ(fake::next_descriptor(), before);
}

TEST_F(ControlConnectTest, WithoutAServerDescriptorZeroIsClosedToo) {
    stop_listening();
    unlink(kControlPath);
    const int before = fake::next_descriptor();
    ASSERT_TRUE(fake::is_open(0));
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_FALSE(fake::is_open(0));
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_EQ(errors(), std::vector<std::string>{connect_failure(ENOENT)});
    EXPECT_EQ(fake::log_lines.size(), 1U);
    ASSERT_EQ(open("/dev/null", O_RDWR), 0);
    EXPECT_EQ(fake::next_descriptor(), before);
}

TEST_F(ControlConnectTest, AStaleSocketFileIsAFailedConnect) {
    stop_listening();
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{connect_failure(ECONNREFUSED)});
}

TEST_F(ControlConnectTest, ClosingDescriptorZeroTwiceHarmsNoLaterSocket) {
    fake::fail_call("connect", ECONNREFUSED, 0, 2);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    ASSERT_FALSE(fake::is_open(0));
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 1);
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
    EXPECT_EQ(fcntl(vyrwrap_global.ctl_sock_fd, F_GETFD), FD_CLOEXEC);
    EXPECT_FALSE(fake::is_open(0));
}

TEST_F(ControlConnectTest, UnreadableFlagsLeaveABlockingSocketThatServes) {
    fake::fail_call("fcntl", EIO, 1);  // the first makes the socket close-on-exec
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Error while fcntl get  on vyr read socket"});
    EXPECT_EQ(fake::log_lines.size(), 1U);
    ASSERT_GT(vyrwrap_global.ctl_sock_fd, 2);
    EXPECT_EQ(fcntl(vyrwrap_global.ctl_sock_fd, F_GETFL), O_RDWR);

    fake::Peer peer = fake::Peer::accepted(listener_);
    EXPECT_EQ(vyrwrap_send_to_vyr("request", 7), 1);
    EXPECT_EQ(peer.receive(), "request");
}

TEST_F(ControlConnectTest, FlagsThatCannotBeSetLeaveABlockingSocketThatServes) {
    fake::fail_call("fcntl", EIO, 2);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Error while fcntl set on vyr read socket"});
    ASSERT_GT(vyrwrap_global.ctl_sock_fd, 2);
    EXPECT_EQ(fcntl(vyrwrap_global.ctl_sock_fd, F_GETFL), O_RDWR);

    fake::Peer peer = fake::Peer::accepted(listener_);
    EXPECT_EQ(vyrwrap_send_to_vyr("request", 7), 1);
    EXPECT_EQ(peer.receive(), "request");
}

TEST_F(ControlConnectTest, AServerOfAnotherUserIsAFailedConnect) {
    fake::effective_uid = 1000;
    fake::peer_uid = 1001;
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_EQ(errors(), std::vector<std::string>{connect_failure(EACCES)});
    EXPECT_TRUE(fake::Peer::accepted(listener_).is_closed_by_other());
}

TEST_F(ControlConnectTest, AServerOfRootOrOfOurOwnIsTrusted) {
    fake::effective_uid = 1000;
    for (const long uid : {0L, 1000L}) {
        fake::peer_uid = uid;
        EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 1) << uid;
        vyrwrap_close_vyr_data_socket();
    }
}

TEST_F(ControlConnectTest, AServerThatCannotBeAskedForIsAFailedConnect) {
    fake::fail_call("getsockopt", ENOTCONN);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{connect_failure(ENOTCONN)});
}

TEST_F(ControlConnectTest, AServerThatNeverAcceptsDoesNotHoldTheLoop) {
    stop_listening();
    listener_ = fake::listen_at(kControlPath, 0);
    const fake::Peer first = fake::Peer::connected(kControlPath);
    EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{connect_failure(EAGAIN)});
}

TEST_F(ControlConnectTest, TheBoundOnConnectingDoesNotStay) {
    const fake::Peer peer = connected();
    timeval timeout = {5, 5};
    socklen_t length = sizeof timeout;
    ASSERT_EQ(getsockopt(vyrwrap_global.ctl_sock_fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length), 0);
    EXPECT_EQ(timeout.tv_sec, 0);
    EXPECT_EQ(timeout.tv_usec, 0);
}

TEST_F(ControlConnectTest, ClosingEndsTheConnection) {
    fake::Peer peer = connected();
    const int fd = vyrwrap_global.ctl_sock_fd;
    vyrwrap_close_vyr_data_socket();
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_FALSE(fake::is_open(fd));
    EXPECT_TRUE(peer.is_closed_by_other());
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr server socket is closed"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
}

TEST_F(ControlConnectTest, ClosingWithoutAConnectionClosesNothing) {
    vyrwrap_close_vyr_data_socket();
    EXPECT_TRUE(fake::is_open(0));
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr server socket is closed"));
}

}  // namespace
