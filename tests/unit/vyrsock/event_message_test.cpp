#include <memory>
#include <random>

#include "event_test.h"

namespace {

using namespace std::string_literals;

constexpr char kNoMessage[] = "<VYRWRAP>: Error in unpacking protobuf response";

class EventMessageTest : public EventTest {
protected:
    /** Handles a message that stands in memory of its very size. */
    static void handle(const std::string &bytes) {
        const auto copy = std::make_unique<uint8_t[]>(bytes.size());
        memcpy(copy.get(), bytes.data(), bytes.size());
        vyrwrap_handle_vyr_event(copy.get(), static_cast<uint32_t>(bytes.size()));
    }

    static std::string envelope(const std::string &source, const std::string &limit) {
        return "\x74\x00\x01\x0a"s + static_cast<char>(source.size()) + source + "\x2a" +
               static_cast<char>(limit.size()) + limit + "\x00"s;
    }

    std::vector<char> buffer_ = std::vector<char>(1048576);
};

TEST_F(EventMessageTest, ARouteLimitEventIsLoggedAndPublished) {
    handle(fake::report(73, 1, 4000, 4096));
    EXPECT_EQ(fake::log_texts(4),
              std::vector<std::string>{"<VYRWRAP>: Received Route Limit Event from VYR: 1 Route Count: 4000 Max Route "
                                       "Limit: 4096. Sending Route Limit event."});
    ASSERT_EQ(fake::publications.size(), 1U);
    EXPECT_EQ(fake::publications[0].channel, "/event/ap/route_limit");
    EXPECT_EQ(fake::publications[0].data, envelope("", "\x08\x01\x10\xa0\x1f\x18\x80\x20"));
    EXPECT_TRUE(errors().empty());
}

TEST_F(EventMessageTest, TheLargestValuesAreUnsigned) {
    handle(fake::report(73, UINT32_MAX, UINT32_MAX, UINT32_MAX));
    EXPECT_TRUE(fake::logged(4,
                             "<VYRWRAP>: Received Route Limit Event from VYR: 4294967295 Route Count: 4294967295 "
                             "Max Route Limit: 4294967295. Sending Route Limit event."));
}

TEST_F(EventMessageTest, MissingValuesAreZero) {
    handle("\x08\x49\x22\x00"s);
    EXPECT_TRUE(fake::logged(4,
                             "<VYRWRAP>: Received Route Limit Event from VYR: 0 Route Count: 0 Max Route Limit: 0. "
                             "Sending Route Limit event."));
    EXPECT_EQ(fake::publications.at(0).data, envelope("", "\x08\x00\x10\x00\x18\x00"s));
}

TEST_F(EventMessageTest, MessagesOfOtherTypesAreDroppedSilently) {
    for (const uint32_t type : {0U, 1U, 72U, 74U, 73U + 256U, UINT32_MAX})
        handle(fake::report(type, 1, 2, 3));
    handle(fake::answer(2, "data"));
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventMessageTest, ARouteLimitTypeWithoutTheEventIsDroppedSilently) {
    handle("\x08\x49"s);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventMessageTest, BytesThatAreNoMessageAreAnError) {
    handle("\xff\xff\xff"s);
    EXPECT_EQ(errors(), std::vector<std::string>{kNoMessage});
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventMessageTest, AMessageCutAnywhereIsNeverPublished) {
    const std::string bytes = fake::report(73, 300, 400, 500);
    for (size_t length = 0; length < bytes.size(); length++) {
        fake::log_lines.clear();
        handle(bytes.substr(0, length));
        EXPECT_TRUE(fake::publications.empty()) << length;
        EXPECT_TRUE(fake::log_lines.empty() || errors() == std::vector<std::string>{kNoMessage}) << length;
    }
    handle(bytes);
    EXPECT_EQ(fake::publications.size(), 1U);
}

TEST_F(EventMessageTest, RandomBytesDoNoHarm) {
    std::mt19937 random(20240131);
    const std::string valid = fake::report(73, 1, 4000, 4096);
    for (int round = 0; round < 5000; round++) {
        std::string bytes = round % 2 ? valid : std::string(random() % 40, '\0');
        for (char &byte : bytes)
            if (round % 2 == 0 || random() % 6 == 0)
                byte = static_cast<char>(random());
        handle(bytes);
    }
}

TEST_F(EventMessageTest, AMissingBufferOnlyRefreshesTheName) {
    fake::write_file(kNamePath, "ap-1");
    vyrwrap_handle_vyr_event(nullptr, 10);
    EXPECT_TRUE(fake::log_lines.empty());
    unlink(kNamePath);
    handle(fake::report(73, 1, 2, 3));
    EXPECT_EQ(fake::publications.at(0).data, envelope("\x1a\x04"s + "ap-1", "\x08\x01\x10\x02\x18\x03"));
}

TEST_F(EventMessageTest, TheNameIsRefreshedBeforeTheMessageIsLookedAt) {
    fake::write_file(kNamePath, "ap-1");
    handle("\xff\xff\xff"s);
    unlink(kNamePath);
    handle(fake::report(73, 1, 2, 3));
    EXPECT_EQ(fake::publications.at(0).data, envelope("\x1a\x04"s + "ap-1", "\x08\x01\x10\x02\x18\x03"));
}

TEST_F(EventMessageTest, AReadIsOneMessage) {
    fake::Peer peer = connected();
    peer.send(fake::report(73, 1, 2, 3));
    EXPECT_EQ(ready(), 1);
    EXPECT_EQ(fake::log_texts(7).at(0), "Succesfully read from server - Buffer size: 10");
    EXPECT_EQ(fake::log_texts(7).at(1), "<VYRWRAP> : buffer RECIEVED from VYR of length = 10");
    EXPECT_EQ(fake::publications.size(), 1U);
    EXPECT_GT(vyrwrap_global.event_conn_fd, 2);
}

TEST_F(EventMessageTest, EventsThatAreReadTogetherBecomeOneWithTheLastValues) {
    fake::Peer peer = connected();
    peer.send(fake::report(73, 1, 2, 3) + fake::report(73, 4, 5, 6));
    ready();
    ASSERT_EQ(fake::publications.size(), 1U);
    EXPECT_EQ(fake::publications[0].data, envelope("", "\x08\x04\x10\x05\x18\x06"));
}

TEST_F(EventMessageTest, AnEventThatComesInPiecesIsLost) {
    fake::Peer peer = connected();
    const std::string bytes = fake::report(73, 1, 2, 3);
    peer.send(bytes.substr(0, 6));
    ready();
    peer.send(bytes.substr(6));
    ready();
    EXPECT_TRUE(fake::publications.empty());
    EXPECT_EQ(errors().at(0), kNoMessage);
    EXPECT_GT(vyrwrap_global.event_conn_fd, 2);
}

TEST_F(EventMessageTest, AFloodIsReadPieceByPieceAndTheConnectionStays) {
    fake::Peer peer = connected();
    const std::string flood(4000000, '\xff');
    size_t sent = 0;
    while (sent < flood.size()) {
        sent += peer.send_some(std::string_view(flood).substr(sent));
        ready();
    }
    EXPECT_GT(vyrwrap_global.event_conn_fd, 2);
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventMessageTest, AMissingReadBufferIsAnError) {
    fake::Peer peer = connected();
    peer.send("data");
    EXPECT_EQ(vyrwrap_read_vyr_event(nullptr), 0U);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: NULL read buffer"});
    EXPECT_EQ(vyrwrap_read_vyr_event(buffer_.data()), 4U);
    EXPECT_EQ(std::string(buffer_.data()), "data");
}

TEST_F(EventMessageTest, AWakeUpWithoutDataIsWaitedOutForTenSeconds) {
    const fake::Peer peer = connected();
    fake::on_select = [](fd_set *readable, fd_set *writable, timeval *timeout, int *result) {
        EXPECT_TRUE(FD_ISSET(vyrwrap_global.event_conn_fd, readable));
        EXPECT_EQ(writable, nullptr);
        EXPECT_EQ(timeout->tv_sec, 10);
        EXPECT_EQ(timeout->tv_usec, 0);
        *result = 0;
        return true;
    };
    EXPECT_EQ(ready(), 1);
    EXPECT_EQ(fake::log_texts(7), (std::vector<std::string>{"<VYRWRAP>: Select timeout while waiting to read from vyr",
                                                            "<VYRWRAP> : buffer RECIEVED from VYR of length = 0"}));
    EXPECT_EQ(fake::log_lines.size(), 2U);
    EXPECT_GT(vyrwrap_global.event_conn_fd, 2) << "a time-out never closes";
    EXPECT_EQ(fake::call_count("read"), 0);
}

TEST_F(EventMessageTest, AWaitThatFailsKeepsTheConnection) {
    const fake::Peer peer = connected();
    fake::fail_call("select", EINTR);
    EXPECT_EQ(ready(), 1);
    EXPECT_EQ(errors(),
              std::vector<std::string>{"<VYRWRAP>: Error while waiting to read from vyr: Interrupted system call"});
    EXPECT_GT(vyrwrap_global.event_conn_fd, 2);
}

TEST_F(EventMessageTest, AnInterruptedReadIsRepeated) {
    fake::Peer peer = connected();
    peer.send(fake::report(73, 1, 2, 3));
    fake::fail_call("read", EINTR, 0, 2);
    ready();
    const std::string text = "<VYRWRAP>: Read failed due to Interrupted system call, to be tried again";
    EXPECT_EQ(errors(), (std::vector<std::string>{text, text}));
    EXPECT_EQ(fake::publications.size(), 1U);
}

TEST_F(EventMessageTest, AnyOtherReadErrorClosesTheConnection) {
    start();
    for (const int error : {EAGAIN, EIO, ECONNRESET}) {
        const fake::Peer peer = fake::Peer::connected(kEventPath);
        fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ);
        fake::log_lines.clear();
        fake::on_select = [](fd_set *, fd_set *, timeval *, int *result) {
            *result = 1;
            return true;
        };
        fake::fail_call("read", error);
        EXPECT_EQ(vyrwrap_read_vyr_event(buffer_.data()), 0U);
        EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Server read error: " + std::string(strerror(error))});
        EXPECT_EQ(fake::log_texts(7), std::vector<std::string>{"<VYRWRAP>: vyr event socket is closed"});
        EXPECT_EQ(vyrwrap_global.event_conn_fd, 0);
    }
}

TEST_F(EventMessageTest, AReadThatYieldsNothingStillRefreshesTheName) {
    fake::Peer peer = connected();
    fake::write_file(kNamePath, "ap-1");
    peer.close_now();
    ready();
    unlink(kNamePath);
    handle(fake::report(73, 1, 2, 3));
    EXPECT_EQ(fake::publications.at(0).data, envelope("\x1a\x04"s + "ap-1", "\x08\x01\x10\x02\x18\x03"));
}

}  // namespace
