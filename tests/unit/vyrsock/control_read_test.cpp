#include <memory>
#include <random>

#include "control_test.h"

namespace {

constexpr char kWillTryAgain[] = "<VYRWRAP>: Read failed due to Resource temporarily unavailable, will try again";
constexpr char kClosedByServer[] = "<VYRWRAP>: Connection closed by server while reading";
constexpr char kIsClosed[] = "<VYRWRAP>: vyr server socket is closed";

class ControlReadTest : public ControlTest {
protected:
    void SetUp() override {
        ControlTest::SetUp();
        peer_ = connected();
    }

    /** Reads a frame; its body, empty on failure. */
    std::string read_frame() {
        const uint32_t length = vyrwrap_read_from_vyr(buffer_.get());
        return {buffer_.get(), length};
    }

    /** Each time the client finds nothing to read, `step` runs. */
    static void when_starved(const std::function<void()> &step) {
        fake::on_log = [step](const fake::LogLine &line) {
            if (line.text == kWillTryAgain)
                step();
        };
    }

    bool buffer_untouched() const {
        for (uint32_t i = 0; i < kControlBufferSize; i++)
            if (buffer_[i] != '\0')
                return false;
        return true;
    }

    static std::string length_field(uint32_t length) {
        return {reinterpret_cast<const char *>(&length), sizeof length};
    }

    fake::Peer peer_;
    std::unique_ptr<char[]> buffer_ = std::make_unique<char[]>(kControlBufferSize);
};

TEST_F(ControlReadTest, GivesTheBodyOfAFrame) {
    peer_.send(fake::frame("an answer"));
    EXPECT_EQ(read_frame(), "an answer");
    EXPECT_TRUE(fake::logged(7, "Succesfully read 13 bytes from server"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
}

TEST_F(ControlReadTest, FramesThatCameTogetherAreReadOneByOne) {
    std::string flood;
    for (int i = 0; i < 1000; i++)
        flood += fake::frame("answer " + std::to_string(i));
    peer_.send(flood);
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(read_frame(), "answer " + std::to_string(i));
}

TEST_F(ControlReadTest, AFrameMayComeInTwoPiecesCutAnywhere) {
    const std::string bytes = fake::frame("an answer");
    for (size_t cut = 1; cut < bytes.size(); cut++) {
        peer_.send(bytes.substr(0, cut));
        bool rest_sent = false;
        when_starved([&] {
            if (!rest_sent)
                peer_.send(bytes.substr(cut));
            rest_sent = true;
        });
        ASSERT_EQ(read_frame(), "an answer") << "cut at " << cut;
        EXPECT_TRUE(rest_sent || cut == 4);
        peer_.send(rest_sent ? "" : bytes.substr(cut));
    }
    EXPECT_FALSE(fake::log_texts(4).empty());
    EXPECT_TRUE(errors().empty());
}

TEST_F(ControlReadTest, AFrameMayComeByteByByte) {
    const std::string bytes = fake::frame("an answer");
    size_t sent = 1;
    peer_.send(bytes.substr(0, 1));
    when_starved([&] { peer_.send(bytes.substr(sent++, 1)); });
    EXPECT_EQ(read_frame(), "an answer");
    EXPECT_EQ(sent, bytes.size());
    EXPECT_EQ(fake::log_texts(4), std::vector<std::string>(bytes.size() - 1, kWillTryAgain));
}

TEST_F(ControlReadTest, AMissingBufferIsAnError) {
    peer_.send(fake::frame("an answer"));
    EXPECT_EQ(vyrwrap_read_from_vyr(nullptr), 0U);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: NULL read buffer"});
    EXPECT_EQ(read_frame(), "an answer");
}

TEST_F(ControlReadTest, TheAnswerIsWaitedForTenSeconds) {
    fake::on_select = [](fd_set *readable, fd_set *writable, timeval *timeout, int *result) {
        EXPECT_TRUE(FD_ISSET(vyrwrap_global.ctl_sock_fd, readable));
        EXPECT_EQ(writable, nullptr);
        EXPECT_EQ(timeout->tv_sec, 10);
        EXPECT_EQ(timeout->tv_usec, 0);
        *result = 0;
        return true;
    };
    EXPECT_EQ(read_frame(), "");
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: Select timeout while waiting to read from vyr"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
    EXPECT_EQ(fake::call_count("read"), 0);
}

TEST_F(ControlReadTest, AWaitThatFailsIsLogged) {
    fake::fail_call("select", EINTR);
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(errors(),
              std::vector<std::string>{"<VYRWRAP>: Error while waiting to read from vyr: Interrupted system call"});
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
}

TEST_F(ControlReadTest, NoDescriptorOutsideASetIsWaitedFor) {
    const int fd = vyrwrap_global.ctl_sock_fd;
    for (const int outside : {-1, FD_SETSIZE}) {
        vyrwrap_global.ctl_sock_fd = outside;
        EXPECT_EQ(read_frame(), "");
    }
    vyrwrap_global.ctl_sock_fd = fd;
    const std::string text = "<VYRWRAP>: Error while waiting to read from vyr: Bad file descriptor";
    EXPECT_EQ(errors(), (std::vector<std::string>{text, text}));
    EXPECT_EQ(fake::call_count("select"), 0);
}

TEST_F(ControlReadTest, AnEmptyBodyCountsAsAClosedConnection) {
    peer_.send(length_field(4) + "more");
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(errors(), std::vector<std::string>{kClosedByServer});
    EXPECT_EQ(fake::log_texts(7), (std::vector<std::string>{kIsClosed, "Succesfully read 4 bytes from server"}));
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
}

TEST_F(ControlReadTest, ALengthBelowFourEndsTheConnection) {
    for (uint32_t length = 0; length < 4; length++) {
        peer_.send(length_field(length) + "whatever follows");
        EXPECT_EQ(read_frame(), "");
        EXPECT_EQ(errors(),
                  std::vector<std::string>{"<VYRWRAP>: Error undersize message from vyr: " + std::to_string(length)});
        EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{kIsClosed});
        EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
        EXPECT_TRUE(buffer_untouched());
        peer_ = connected();
    }
}

TEST_F(ControlReadTest, ABodyOfOneByteIsRead) {
    peer_.send(length_field(5) + "x");
    EXPECT_EQ(read_frame(), "x");
    EXPECT_TRUE(fake::logged(7, "Succesfully read 5 bytes from server"));
}

TEST_F(ControlReadTest, TheLargestFrameIsRead) {
    const std::string bytes = fake::frame(std::string(1048571, 'r'));
    ASSERT_EQ(bytes.substr(0, 4), length_field(1048575));
    size_t sent = peer_.send_some(bytes);
    when_starved([&] { sent += peer_.send_some(std::string_view(bytes).substr(sent)); });
    EXPECT_EQ(read_frame(), bytes.substr(4));
    EXPECT_TRUE(fake::logged(7, "Succesfully read 1048575 bytes from server"));
}

TEST_F(ControlReadTest, AnOversizeFrameIsRefusedAndNotDrained) {
    for (const uint32_t length : {1048576U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        fake::log_lines.clear();
        peer_.send(length_field(length) + fake::frame("inside"));
        EXPECT_EQ(read_frame(), "");
        EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Error dropping oversize messae from vyr: " +
                                                     std::to_string(static_cast<int>(length))});
        EXPECT_EQ(fake::log_lines.size(), 1U);
        EXPECT_TRUE(buffer_untouched());
        ASSERT_GT(vyrwrap_global.ctl_sock_fd, 2);
        EXPECT_EQ(read_frame(), "inside") << "the next four bytes are the next length";
        memset(buffer_.get(), 0, 16);
    }
}

TEST_F(ControlReadTest, AServerThatClosesAtOnceEndsTheConnection) {
    peer_.close_now();
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(errors(), std::vector<std::string>{kClosedByServer});
    EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{kIsClosed});
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
}

TEST_F(ControlReadTest, AServerThatDiesAnywhereInAnAnswerEndsTheConnection) {
    const std::string bytes = fake::frame("an answer");
    for (size_t cut = 1; cut < bytes.size(); cut++) {
        peer_.send(bytes.substr(0, cut));
        peer_.close_now();
        EXPECT_EQ(read_frame(), "");
        EXPECT_EQ(errors(), std::vector<std::string>{kClosedByServer}) << cut;
        EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
        peer_ = connected();
    }
}

TEST_F(ControlReadTest, AServerThatStallsAndThenDiesEndsTheWait) {
    peer_.send(fake::frame("an answer").substr(0, 6));
    int starved = 0;
    when_starved([&] {
        if (++starved == 1000)
            peer_.close_now();
    });
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(starved, 1000);
    EXPECT_EQ(errors(), std::vector<std::string>{kClosedByServer});
}

TEST_F(ControlReadTest, AResetConnectionIsAReadError) {
    EXPECT_EQ(vyrwrap_send_to_vyr("request", 7), 1);
    peer_.close_now();  // with the request unread
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Server read error: Connection reset by peer"});
    EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{kIsClosed});
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
}

TEST_F(ControlReadTest, AnInterruptedReadIsRepeatedWithAWarning) {
    peer_.send(fake::frame("an answer"));
    fake::fail_call("read", EINTR, 1, 2);
    EXPECT_EQ(read_frame(), "an answer");
    EXPECT_EQ(fake::log_texts(4), std::vector<std::string>(2,
                                                           "<VYRWRAP>: Read failed due to Interrupted system call, "
                                                           "will try again"));
}

TEST_F(ControlReadTest, AFailedBodyIsStillCountedInTheMessage) {
    peer_.send(fake::frame("an answer"));
    fake::fail_call("read", EIO, 1);
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Server read error: Input/output error"});
    EXPECT_EQ(fake::log_texts(7), (std::vector<std::string>{kIsClosed, "Succesfully read 13 bytes from server"}));
}

TEST_F(ControlReadTest, AnExactReadOfNothingReadsOnce) {
    peer_.send("data");
    EXPECT_EQ(vyrwrap_read_exact(buffer_.get(), 0), 0U);
    EXPECT_EQ(fake::call_count("read"), 1);
    EXPECT_EQ(errors(), std::vector<std::string>{kClosedByServer});
    EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
}

TEST_F(ControlReadTest, AnExactReadTakesNoByteMore) {
    peer_.send("abcdef");
    EXPECT_EQ(vyrwrap_read_exact(buffer_.get(), 4), 4U);
    EXPECT_EQ(std::string(buffer_.get()), "abcd");
    EXPECT_EQ(vyrwrap_read_exact(buffer_.get(), 2), 2U);
}

TEST_F(ControlReadTest, AServerThatReturnsIsConnectedToAgain) {
    peer_.close_now();
    EXPECT_EQ(read_frame(), "");
    EXPECT_EQ(vyrwrap_send_to_vyr("request", 7), 1);
    peer_ = fake::Peer::accepted(listener_);
    EXPECT_EQ(peer_.receive(), "request");
    peer_.send(fake::frame("an answer"));
    EXPECT_EQ(read_frame(), "an answer");
}

TEST_F(ControlReadTest, RandomBytesNeverLeaveTheBuffer) {
    std::mt19937 random(20240131);
    for (int round = 0; round < 500; round++) {
        std::string bytes(random() % 64, '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random() % 3 ? random() % 8 : random());
        peer_.send(bytes);
        when_starved([this] { peer_.close_now(); });
        while (vyrwrap_global.ctl_sock_fd != 0) {
            char next;
            if (recv(vyrwrap_global.ctl_sock_fd, &next, 1, MSG_PEEK | MSG_DONTWAIT) < 0)
                peer_.close_now();  // nothing is left: the wait would be a long one
            ASSERT_LE(vyrwrap_read_from_vyr(buffer_.get()), 1048571U);
        }
        peer_ = connected();
    }
}

}  // namespace
