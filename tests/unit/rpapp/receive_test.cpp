/* Receiving: one datagram a call, whatever is in it. */
#include <errno.h>
#include <unistd.h>

#include <array>
#include <random>

#include "link_fixture.h"

namespace {

class LinkReceiveTest : public LinkTest {
protected:
    /** Sends it and has it read as the loop would. Returns the handler's result. */
    int deliver(const std::string &datagram) {
        EXPECT_TRUE(app_.send(datagram));
        return fake::input_ready(vyrwrap_global.app_sock_fd, DISP_READ);
    }

    fake::RoutingApp app_;
};

const std::string kReceived = "<VYRWRAP>:vyrwrap_app_server_read_msg : Message type received:";
const std::string kDispatched = "<VYRWRAP>:vyrwrap_process_vyrapp_message: msg.srcId:";
const std::string kUnexpected = "<VYRWRAP>:vyrwrap_process_vyrapp_message: Unexpected msgType";

TEST_F(LinkReceiveTest, ReadsAnEmptyDatagramAsZeros) {
    EXPECT_EQ(deliver(""), 0);
    EXPECT_EQ(fake::log_texts(6), (std::vector<std::string>{kReceived + "0", kDispatched + "0, destId:0, msgType:0"}));
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kUnexpected + "(0)"});
}

TEST_F(LinkReceiveTest, ReadsMissingBytesOfAShortDatagramAsZeros) {
    EXPECT_EQ(deliver("\x01\x02\x03\x04\x05"), 0);
    EXPECT_EQ(fake::log_texts(6),
              (std::vector<std::string>{kReceived + "5", kDispatched + "513, destId:1027, msgType:5"}));
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kUnexpected + "(5)"});
}

TEST_F(LinkReceiveTest, ForgetsTheDatagramBefore) {
    deliver(std::string(1024, '\xff'));
    fake::log_lines.clear();
    deliver("");
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kUnexpected + "(0)"});
}

TEST_F(LinkReceiveTest, PrintsAMessageTypeAsASignedNumber) {
    deliver(std::string(348, '\xff'));
    EXPECT_EQ(fake::log_texts(6),
              (std::vector<std::string>{kReceived + "-1", kDispatched + "65535, destId:65535, msgType:-1"}));
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kUnexpected + "(-1)"});
}

TEST_F(LinkReceiveTest, IgnoresWhatFollowsTheFirstRecord) {
    std::string datagram = fake::word(0) + fake::word(7);
    datagram.resize(348);
    deliver(datagram + fake::word(0) + fake::word(8));
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kUnexpected + "(7)"});
}

TEST_F(LinkReceiveTest, ReadsOneDatagramACall) {
    ASSERT_TRUE(app_.send(fake::word(0) + fake::word(21)));
    ASSERT_TRUE(app_.send(fake::word(0) + fake::word(22)));
    EXPECT_EQ(vyrwrap_app_server_read_msg(nullptr), 0);
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{kUnexpected + "(21)"});
    EXPECT_EQ(vyrwrap_app_server_read_msg(nullptr), 0);
    EXPECT_EQ(fake::log_texts(3).back(), kUnexpected + "(22)");
}

TEST_F(LinkReceiveTest, DropsTheRestOfALongDatagram) {
    deliver(std::string(2000, '\x01'));
    fake::log_lines.clear();
    EXPECT_EQ(vyrwrap_app_server_read_msg(nullptr), -1);
    EXPECT_EQ(fake::log_texts(3),
              std::vector<std::string>{"<VYRWRAP>:vyrwrap_app_server_read_msg : Error rx datagram packet on fd " +
                                       std::to_string(vyrwrap_global.app_sock_fd) +
                                       " - errno: 11 (Resource temporarily unavailable)"});
}

TEST_F(LinkReceiveTest, ReportsAFailedReadAndDispatchesNothing) {
    ASSERT_TRUE(app_.send("x"));
    fake::fail_call("read", EIO);
    EXPECT_EQ(vyrwrap_app_server_read_msg(nullptr), -1);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_lines[0].level, 3);
    EXPECT_EQ(fake::log_lines[0].text, "<VYRWRAP>:vyrwrap_app_server_read_msg : Error rx datagram packet on fd " +
                                           std::to_string(vyrwrap_global.app_sock_fd) +
                                           " - errno: 5 (Input/output error)");
    EXPECT_EQ(vyrwrap_app_server_read_msg(nullptr), 0);
}

TEST_F(LinkReceiveTest, SurvivesEveryLengthWithAnyContent) {
    std::mt19937 random(31);
    for (size_t length = 0; length <= 2000; length++) {
        std::string datagram(length, '\0');
        for (char &byte : datagram)
            byte = static_cast<char>(random());
        // Every second one goes to a family's handler.
        if (length >= 8 && length % 2 == 0)
            datagram.replace(4, 4, fake::word(std::array<uint32_t, 3>{1, 2, 9}[length / 2 % 3]));
        std::string first = datagram;
        first.resize(348);
        fake::log_lines.clear();
        ASSERT_EQ(deliver(datagram), 0) << length;
        const auto type = std::to_string(static_cast<int32_t>(fake::word_at(first, 4)));
        ASSERT_GE(fake::log_lines.size(), 3U);
        ASSERT_EQ(fake::log_lines[0].text, kReceived + type) << length;
        ASSERT_EQ(fake::log_lines[1].text, kDispatched + std::to_string(fake::half_at(first, 0)) + ", destId:" +
                                               std::to_string(fake::half_at(first, 2)) + ", msgType:" + type)
            << length;
    }
}

}  // namespace
