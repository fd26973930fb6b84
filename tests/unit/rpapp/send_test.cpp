/* Sending: whole datagrams, or an error that is logged and forgotten. */
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "link_fixture.h"

namespace {

class LinkSendTest : public LinkTest {
protected:
    static ssize_t send(const std::string &text) { return vyrwrap_send_to_routing_app(text.data(), text.size()); }

    /** The one line logged for a failed send. */
    static std::vector<std::string> failure(int error) {
        return {"<VYRWRAP>:vyrwrap_send_to_routing_app : Send to Routing APP(fd:" +
                std::to_string(vyrwrap_global.app_sock_fd) + ") failed. rc: -1 errno: " + std::to_string(error) + " (" +
                strerror(error) + ")"};
    }
};

TEST_F(LinkSendTest, DeliversOneDatagramAndReturnsItsLength) {
    fake::RoutingApp app;
    EXPECT_EQ(send("first"), 5);
    EXPECT_EQ(send(std::string("se\0nd", 5)), 5);
    EXPECT_EQ(app.receive(), (std::vector<std::string>{"first", std::string("se\0nd", 5)}));
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(LinkSendTest, NamesTheApplicationByTheWholeAddressStructure) {
    fake::RoutingApp app;
    EXPECT_EQ(send("text"), 4);
    EXPECT_EQ(fake::address_length, 110U);
}

TEST_F(LinkSendTest, GivesTheWholeAddressStructure) {
    vyrwrap_send_to_routing_app("x", 1);
    EXPECT_EQ(fake::sendto_address_length, 110);
}

TEST_F(LinkSendTest, RefusesNothingToSendWithoutACallOrAMessage) {
    EXPECT_EQ(vyrwrap_send_to_routing_app(nullptr, 5), -1);
    EXPECT_EQ(vyrwrap_send_to_routing_app("text", 0), -1);
    EXPECT_EQ(fake::call_count("sendto"), 0);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(LinkSendTest, ReportsAnAbsentApplication) {
    EXPECT_EQ(send("lost"), -1);
    EXPECT_EQ(fake::log_texts(3), failure(ENOENT));
    EXPECT_EQ(fake::call_count("sendto"), 1);
}

TEST_F(LinkSendTest, ReportsAnApplicationThatLeftItsSocketFileBehind) {
    {
        fake::RoutingApp app;
        ASSERT_EQ(link(fake::kRoutingAppPath, "/tmp/.sock/left"), 0);
    }
    ASSERT_EQ(rename("/tmp/.sock/left", fake::kRoutingAppPath), 0);
    EXPECT_EQ(send("lost"), -1);
    EXPECT_EQ(fake::log_texts(3), failure(ECONNREFUSED));
    unlink(fake::kRoutingAppPath);
}

TEST_F(LinkSendTest, ReachesAnApplicationThatCameBack) {
    auto app = std::make_unique<fake::RoutingApp>();
    EXPECT_EQ(send("before"), 6);
    app.reset();
    EXPECT_EQ(send("while away"), -1);
    app = std::make_unique<fake::RoutingApp>();
    EXPECT_EQ(send("after"), 5);
    EXPECT_EQ(app->receive(), std::vector<std::string>{"after"});
}

TEST_F(LinkSendTest, LosesWhatAFullQueueDoesNotTakeAndGoesOnAfterwards) {
    fake::RoutingApp app;
    std::vector<std::string> sent;
    while (send(std::to_string(sent.size())) > 0)
        sent.push_back(std::to_string(sent.size()));
    EXPECT_EQ(fake::log_texts(3), failure(EAGAIN));
    EXPECT_EQ(app.receive(), sent);
    EXPECT_EQ(send("again"), 5);
    EXPECT_EQ(app.receive(), std::vector<std::string>{"again"});
}

TEST_F(LinkSendTest, FailsWhileTheSocketCouldNotBeOpened) {
    fake::RoutingApp app;
    close(vyrwrap_global.app_sock_fd);
    vyrwrap_global.app_sock_fd = -1;
    EXPECT_EQ(send("lost"), -1);
    EXPECT_EQ(fake::log_texts(3), failure(EBADF));
    EXPECT_TRUE(app.receive().empty());
}

}  // namespace
