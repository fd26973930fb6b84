#include "control_test.h"

namespace {

constexpr char kWillTryAgain[] =
    "<VYRWRAP>: Failed to write due to Resource temporarily unavailable, to be tried again";

class ControlSendTest : public ControlTest {
protected:
    /** Lets one write fail with EAGAIN, then answers each select from the list; the rest passes. */
    void script_selects(const std::vector<std::function<int(fd_set *)>> &answers) {
        fake::fail_call("write", EAGAIN);
        fake::on_select = [this, answers](fd_set *readable, fd_set *writable, timeval *timeout, int *result) {
            EXPECT_EQ(readable, nullptr);
            EXPECT_EQ(timeout, nullptr);
            EXPECT_TRUE(FD_ISSET(vyrwrap_global.ctl_sock_fd, writable));
            const size_t number = selects_++;
            if (number >= answers.size())
                return false;
            *result = answers[number](writable);
            return true;
        };
    }

    size_t selects_ = 0;
};

int fail_with(int error) {
    errno = error;
    return -1;
}

TEST_F(ControlSendTest, BytesGoOutAsTheyAre) {
    fake::Peer peer = connected();
    const std::string bytes("\0\x01request\xff", 10);
    EXPECT_EQ(vyrwrap_send_to_vyr(bytes.data(), bytes.size()), 1);
    EXPECT_EQ(peer.receive(), bytes);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ControlSendTest, NothingToSendIsAnError) {
    const fake::Peer peer = connected();
    EXPECT_EQ(vyrwrap_send_to_vyr(nullptr, 5), 0);
    EXPECT_EQ(vyrwrap_send_to_vyr("", 0), 0);
    const std::string text = "Null or empty buffer detected while sending to server";
    EXPECT_EQ(errors(), (std::vector<std::string>{text, text}));
    EXPECT_EQ(fake::call_count("write"), 0);
}

TEST_F(ControlSendTest, TheFirstSendConnects) {
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr server connected"));
    EXPECT_EQ(fake::Peer::accepted(listener_).receive(), "abc");
}

TEST_F(ControlSendTest, AFailedConnectIsAFailedSend) {
    const fake::KeepDescriptorZero keep;
    fake::fail_call("connect", ECONNREFUSED);
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 0);
    ASSERT_EQ(errors().size(), 2U);
    EXPECT_EQ(errors()[1], "Connect to  server failed");
}

TEST_F(ControlSendTest, AFullSocketIsWaitedFor) {
    fake::Peer peer = connected();
    std::string received;
    fake::on_log = [&](const fake::LogLine &line) {
        EXPECT_EQ(line.level, 3);
        EXPECT_EQ(line.text, kWillTryAgain);
        received += peer.receive();
    };
    std::string bytes(1048576, '\0');
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<char>(i * 31 >> 3);
    EXPECT_EQ(vyrwrap_send_to_vyr(bytes.data(), bytes.size()), 1);
    received += peer.receive();
    EXPECT_EQ(received, bytes);
    EXPECT_GT(fake::log_lines.size(), 0U);
}

TEST_F(ControlSendTest, AWriteableSocketIsWrittenToAgain) {
    fake::Peer peer = connected();
    script_selects({});
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
    EXPECT_EQ(peer.receive(), "abc");
    EXPECT_EQ(selects_, 1U);
    EXPECT_EQ(errors(), std::vector<std::string>{kWillTryAgain});
}

TEST_F(ControlSendTest, AnInterruptedWaitGoesOnSilently) {
    fake::Peer peer = connected();
    script_selects({[](fd_set *) { return fail_with(EINTR); }, [](fd_set *) { return fail_with(EINTR); }});
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
    EXPECT_EQ(selects_, 3U);
    EXPECT_EQ(fake::call_count("write"), 2);
    EXPECT_EQ(errors(), std::vector<std::string>{kWillTryAgain});
    EXPECT_EQ(peer.receive(), "abc");
}

TEST_F(ControlSendTest, AWaitThatFailsLeadsBackToWriting) {
    fake::Peer peer = connected();
    script_selects({[](fd_set *) { return fail_with(ENOMEM); }});
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
    EXPECT_EQ(selects_, 1U);
    EXPECT_EQ(errors(), (std::vector<std::string>{kWillTryAgain,
                                                  "<VYRWRAP>: Server wait on select, error: Cannot allocate memory"}));
    EXPECT_EQ(peer.receive(), "abc");
}

TEST_F(ControlSendTest, AWaitThatEndsWithoutTheDescriptorGoesOn) {
    fake::Peer peer = connected();
    const auto nothing_ready = [](fd_set *writable) {
        FD_ZERO(writable);
        return 0;
    };
    script_selects({nothing_ready, nothing_ready});
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
    EXPECT_EQ(selects_, 3U);
    EXPECT_EQ(fake::call_count("write"), 2);
    EXPECT_EQ(peer.receive(), "abc");
}

TEST_F(ControlSendTest, AnInterruptedWriteIsRepeatedSilently) {
    fake::Peer peer = connected();
    fake::fail_call("write", EINTR, 0, 3);
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
    EXPECT_EQ(peer.receive(), "abc");
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ControlSendTest, AWriteErrorLeavesTheSocketOpen) {
    const fake::Peer peer = connected();
    fake::fail_call("write", EIO);
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Server write error: Input/output error"});
    EXPECT_TRUE(fake::is_open(vyrwrap_global.ctl_sock_fd));
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
}

TEST_F(ControlSendTest, APeerThatWentAwayIsAWriteError) {
    fake::Peer peer = connected();
    peer.close_now();
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Server write error: Broken pipe"});
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
}

TEST_F(ControlSendTest, APeerThatWentAwayIsNotConnectedToAgainBeforeItsEndIsSeen) {
    fake::Peer peer = connected();
    peer.close_now();
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 0);
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 0);
    vyrwrap_close_vyr_data_socket();  // as when the routing daemon is reaped
    EXPECT_EQ(vyrwrap_send_to_vyr("abc", 3), 1);
}

}  // namespace
