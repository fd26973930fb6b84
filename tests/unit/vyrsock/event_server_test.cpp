#include <sys/stat.h>

#include "event_test.h"

namespace {

constexpr char kCannotCreate[] = "<VYRWRAP>: Cannot create vyrwrap server socket";
constexpr char kCannotAccept[] = "<VYRWRAP>: Cannot Accept vyrwrap server socket";

class EventServerTest : public EventTest {
protected:
    /** Starting fails with that error text and leaves nothing behind. */
    static void expect_no_start(const std::string &error) {
        const int before = fake::next_descriptor();
        EXPECT_EQ(vyrwrap_event_server_init(), 0);
        EXPECT_EQ(vyrwrap_global.event_listen_fd, 0);
        EXPECT_EQ(errors(), std::vector<std::string>{error});
        EXPECT_EQ(fake::log_lines.size(), 1U);
        EXPECT_EQ(fake::next_descriptor(), before);
        EXPECT_TRUE(fake::inputs.empty());
    }
};

TEST_F(EventServerTest, ListensAndIsServedByTheLoop) {
    EXPECT_EQ(vyrwrap_event_server_init(), 1);
    const int fd = vyrwrap_global.event_listen_fd;
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & ~O_RDWR, O_NONBLOCK);
    EXPECT_TRUE(fake::log_lines.empty());
    ASSERT_TRUE(watched(fd));
    EXPECT_EQ((fake::inputs[{fd, DISP_READ}].handler), &vyrwrap_event_accept_cb);
    EXPECT_EQ((fake::inputs[{fd, DISP_READ}].user_data), nullptr);
    const fake::Peer peer = fake::Peer::connected(kEventPath);
}

TEST_F(EventServerTest, AServerThatListensOnlyWarns) {
    start();
    const int fd = vyrwrap_global.event_listen_fd;
    EXPECT_EQ(vyrwrap_event_server_init(), 1);
    EXPECT_EQ(vyrwrap_global.event_listen_fd, fd);
    EXPECT_TRUE(fake::logged(4, "<VYRWRAP>: vyr server socket already connected"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::call_count("socket"), 1);
    const fake::Peer peer = fake::Peer::connected(kEventPath);
}

TEST_F(EventServerTest, WhatIsLeftOfAnEarlierRunIsRemoved) {
    close(fake::listen_at(kEventPath));
    struct stat status;
    ASSERT_EQ(stat(kEventPath, &status), 0);
    start();
    const fake::Peer peer = fake::Peer::connected(kEventPath);
}

TEST_F(EventServerTest, WithoutASocketThereIsNoServer) {
    fake::fail_call("socket", EMFILE);
    expect_no_start(kCannotCreate);
}

TEST_F(EventServerTest, ASocketThatCannotBeMadeNonBlockingIsClosed) {
    fake::fail_call("fcntl", EIO, 1);
    expect_no_start(kCannotCreate);
}

TEST_F(EventServerTest, ASocketThatCannotBeBoundIsClosed) {
    fake::fail_call("bind", EACCES);
    expect_no_start("<VYRWRAP>: Cannot Bind vyrwrap server socket. rc = -1 error = 13 [Permission denied]");
}

TEST_F(EventServerTest, ADirectoryInThePathsPlaceMakesBindFail) {
    ASSERT_EQ(mkdir(kEventPath, 0700), 0);
    expect_no_start("<VYRWRAP>: Cannot Bind vyrwrap server socket. rc = -1 error = 98 [Address already in use]");
    rmdir(kEventPath);
}

TEST_F(EventServerTest, ASocketThatCannotListenIsClosed) {
    fake::fail_call("listen", EADDRINUSE);
    expect_no_start("<VYRWRAP>: Cannot listen on vyrwrap server socket. Might as well close the socket.");
}

TEST_F(EventServerTest, TenPeersMayWait) {
    start();
    std::vector<fake::Peer> peers;
    for (int i = 0; i < 11; i++)  // the kernel keeps one more than it is asked for
        peers.push_back(fake::Peer::connected(kEventPath));
    const sockaddr_un address = fake::unix_address(kEventPath);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    EXPECT_LT(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
}

TEST_F(EventServerTest, APeersConnectionIsServedByTheLoop) {
    start();
    const fake::Peer peer = fake::Peer::connected(kEventPath);
    EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
    const int fd = vyrwrap_global.event_conn_fd;
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr server connected"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
    ASSERT_TRUE(watched(fd));
    EXPECT_EQ((fake::inputs[{fd, DISP_READ}].handler), &vyrwrap_event_read_cb);
}

TEST_F(EventServerTest, AConnectionIsAboveTheStandardDescriptorsAlsoWhereOneOfThemIsFree) {
    const fake::KeepDescriptorZero keep;
    start();
    const fake::Peer peer = fake::Peer::connected(kEventPath);
    close(0);
    EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
    EXPECT_GT(vyrwrap_global.event_conn_fd, 2);
    EXPECT_FALSE(fake::is_open(0));
}

TEST_F(EventServerTest, ASecondPeerWaitsWithoutTheLoopBeingWoken) {
    fake::Peer first = connected();
    fake::Peer second = fake::Peer::connected(kEventPath);
    EXPECT_FALSE(watched(vyrwrap_global.event_listen_fd));
    second.send(fake::report(73, 2, 2, 2));

    first.send(fake::report(73, 1, 1, 1));
    ready();
    EXPECT_EQ(fake::publications.size(), 1U);
    EXPECT_FALSE(watched(vyrwrap_global.event_listen_fd));

    first.close_now();
    ready();
    ASSERT_TRUE(watched(vyrwrap_global.event_listen_fd));
    EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
    ready();
    EXPECT_EQ(fake::publications.size(), 2U);
}

TEST_F(EventServerTest, WhileAConnectionStandsNoOtherIsAccepted) {
    const fake::Peer first = connected();
    const fake::Peer second = fake::Peer::connected(kEventPath);
    const int fd = vyrwrap_global.event_conn_fd;
    fake::inputs.clear();
    EXPECT_EQ(vyrwrap_event_accept_cb(nullptr), 1);
    EXPECT_EQ(fake::call_count("accept"), 1);
    EXPECT_EQ(vyrwrap_global.event_conn_fd, fd);
    ASSERT_TRUE(watched(fd));
    EXPECT_EQ((fake::inputs[{fd, DISP_READ}].handler), &vyrwrap_event_read_cb);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(EventServerTest, AFailedAcceptEndsListeningForGood) {
    start();
    const int listener = vyrwrap_global.event_listen_fd;
    const fake::Peer peer = fake::Peer::connected(kEventPath);
    fake::fail_call("accept", EMFILE);
    EXPECT_EQ(vyrwrap_event_accept_cb(nullptr), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{kCannotAccept});
    EXPECT_EQ(vyrwrap_global.event_conn_fd, -1);
    EXPECT_EQ(vyrwrap_global.event_listen_fd, 0);
    EXPECT_TRUE(fake::is_open(listener));
    EXPECT_TRUE(fake::inputs.empty());
    close(listener);
}

TEST_F(EventServerTest, NothingIsDoneWithADescriptorBelowZero) {
    start();
    const int listener = vyrwrap_global.event_listen_fd;
    fake::fail_call("accept", EMFILE);
    EXPECT_EQ(vyrwrap_event_accept_cb(nullptr), 0);
    fake::log_lines.clear();
    fake::dispatcher_calls.clear();

    EXPECT_EQ(vyrwrap_event_accept_cb(nullptr), 1);
    EXPECT_TRUE(fake::dispatcher_calls.empty());
    std::vector<char> buffer(1048576);
    EXPECT_EQ(vyrwrap_read_vyr_event(buffer.data()), 0U);
    EXPECT_EQ(errors(),
              std::vector<std::string>{"<VYRWRAP>: Error while waiting to read from vyr: Bad file descriptor"});
    EXPECT_EQ(fake::call_count("select"), 0);
    close(listener);
}

TEST_F(EventServerTest, AfterAFailedAcceptANewServerMayBeStarted) {
    start();
    const int listener = vyrwrap_global.event_listen_fd;
    fake::fail_call("accept", EMFILE);
    vyrwrap_event_accept_cb(nullptr);
    start();
    EXPECT_NE(vyrwrap_global.event_listen_fd, listener);
    EXPECT_TRUE(watched(vyrwrap_global.event_listen_fd));
    const fake::Peer peer = fake::Peer::connected(kEventPath);
    close(listener);
}

TEST_F(EventServerTest, AConnectionThatCannotBeMadeCloseOnExecIsAFailedAccept) {
    start();
    const int listener = vyrwrap_global.event_listen_fd;
    fake::Peer peer = fake::Peer::connected(kEventPath);
    fake::fail_call("fcntl", EIO);
    EXPECT_EQ(vyrwrap_event_accept_cb(nullptr), 0);
    EXPECT_EQ(errors(), std::vector<std::string>{kCannotAccept});
    EXPECT_EQ(vyrwrap_global.event_conn_fd, -1);
    EXPECT_TRUE(peer.is_closed_by_other());
    close(listener);
}

TEST_F(EventServerTest, APeerOfAnotherUserIsClosedAndTheNextOneServed) {
    start();
    fake::Peer stranger = fake::Peer::connected(kEventPath);
    fake::effective_uid = 1000;
    fake::peer_uid = 1001;
    EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
    EXPECT_EQ(vyrwrap_global.event_conn_fd, 0);
    EXPECT_TRUE(stranger.is_closed_by_other());
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Refused a peer on vyrwrap server socket: "
                                                 "Permission denied"});
    EXPECT_EQ(fake::inputs.size(), 1U);

    for (const long uid : {0L, 1000L}) {
        fake::Peer friendly = fake::Peer::connected(kEventPath);
        fake::peer_uid = uid;
        EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
        EXPECT_GT(vyrwrap_global.event_conn_fd, 2) << uid;
        vyrwrap_close_vyr_event_socket();
    }
}

TEST_F(EventServerTest, ThePeersEndClosesTheConnectionAndTheNextOneIsServed) {
    fake::Peer peer = connected();
    const int fd = vyrwrap_global.event_conn_fd;
    peer.close_now();
    EXPECT_EQ(ready(), 1);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Connection closed by server while reading"});
    EXPECT_EQ(fake::log_texts(7), (std::vector<std::string>{"<VYRWRAP>: vyr event socket is closed",
                                                            "<VYRWRAP> : buffer RECIEVED from VYR of length = 0"}));
    EXPECT_EQ(vyrwrap_global.event_conn_fd, 0);
    EXPECT_FALSE(fake::is_open(fd));
    EXPECT_FALSE(watched(fd));

    peer = fake::Peer::connected(kEventPath);
    EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
    peer.send(fake::report(73, 1, 2, 3));
    EXPECT_EQ(ready(), 1);
    EXPECT_EQ(fake::publications.size(), 1U);
}

TEST_F(EventServerTest, AClosedConnectionIsTakenOutOfTheLoopBeforeItsNumberIsFree) {
    const fake::Peer peer = connected();
    const int fd = vyrwrap_global.event_conn_fd;
    fake::dispatcher_calls.clear();
    vyrwrap_close_vyr_event_socket();
    EXPECT_EQ(fake::dispatcher_calls,
              (std::vector<std::string>{"DispRemoveInput " + std::to_string(fd) + " 1",
                                        "DispAddInput " + std::to_string(vyrwrap_global.event_listen_fd) + " 1"}));
}

TEST_F(EventServerTest, ClosingDoesNotAskWhetherThereIsAConnection) {
    const fake::KeepDescriptorZero keep;
    vyrwrap_close_vyr_event_socket();
    EXPECT_FALSE(fake::is_open(0));
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: vyr event socket is closed"));
    EXPECT_TRUE(fake::dispatcher_calls.empty());
}

TEST_F(EventServerTest, AHundredPeersLeaveNoDescriptorOpen) {
    start();
    const int before = fake::next_descriptor();
    for (int i = 0; i < 100; i++) {
        fake::Peer peer = fake::Peer::connected(kEventPath);
        ASSERT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
        peer.send(fake::report(73, 1, 2, 3));
        peer.close_now();
        ready();
        ready();
    }
    EXPECT_EQ(fake::publications.size(), 100U);
    EXPECT_EQ(fake::next_descriptor(), before);
    EXPECT_EQ(fake::inputs.size(), 1U);
}

}  // namespace
