#include "linux/dal/address.h"

#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "core/dal_adapter.h"
#include "fixture.h"
#include "linux/dal/context.h"

namespace {

using dal::Address;
using dal::address_parse;

TEST(DalAddress, ReadsAUnixPath) {
    Address address;
    ASSERT_TRUE(address_parse("unix:///run/x.sock", &address));
    EXPECT_STREQ(address.path, "/run/x.sock");
    EXPECT_STREQ(address.host, "");
}

TEST(DalAddress, ReadsHostAndPort) {
    Address address;
    ASSERT_TRUE(address_parse("tcp://127.0.0.1:6379", &address));
    EXPECT_STREQ(address.host, "127.0.0.1");
    EXPECT_STREQ(address.port, "6379");
    ASSERT_TRUE(address_parse("tcp://[::1]:1", &address));
    EXPECT_STREQ(address.host, "::1");
    EXPECT_STREQ(address.port, "1");
}

TEST(DalAddress, RefusesAnythingElse) {
    Address address;
    for (const char *text : {"",
                             "x",
                             "unix:",
                             "unix://",
                             "unix://relative",
                             "tcp://",
                             "tcp://host",
                             "tcp://host:",
                             "tcp://:1",
                             "tcp://host:0",
                             "tcp://host:65536",
                             "tcp://host:6x",
                             "tcp://host:-1",
                             "tcp://host: 1",
                             "tcp://host:1234567",
                             "tcp://[::1]",
                             "tcp://[::1",
                             "tcp://[::1]1",
                             "tcp://::1:1",
                             "redis://host:1",
                             "UNIX:///x",
                             " unix:///x"})
        EXPECT_FALSE(address_parse(text, &address)) << text;
}

TEST(DalAddress, APathThatDoesNotFitIsRefusedAndNotCut) {
    Address address;
    EXPECT_TRUE(address_parse(("unix:///" + std::string(106, 'x')).c_str(), &address));
    EXPECT_FALSE(address_parse(("unix:///" + std::string(107, 'x')).c_str(), &address));
    EXPECT_FALSE(address_parse(("tcp://" + std::string(256, 'h') + ":1").c_str(), &address));
}

class DalUrl : public DalTest {
protected:
    void SetUp() override { loop::reset(); }
};

TEST_F(DalUrl, IsUsedAndLogged) {
    redis.start();
    open();
    EXPECT_EQ(loop::log_lines.front(), "4 <DAL>: the server is unix:///tmp/redis.sock (DAL_URL)");
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
}

TEST_F(DalUrl, ThatIsNoneMakesNoContextAndLeaksNothing) {
    open_at("http://x");
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(loop::log_lines.back(),
              "3 <DAL>: the address 'http://x' (DAL_URL) is neither unix:///path nor tcp://host:port");
}

TEST_F(DalUrl, DefaultsToTcpWithoutTheSystemsSocket) {
    open_at("");
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(loop::log_lines.front(), "4 <DAL>: the server is tcp://127.0.0.1:6379 (default)");
}

TEST_F(DalUrl, DefaultsToTheSystemsSocketWhereItExists) {
    mkdir("/run/redis", 0755);
    Redis system("/run/redis/redis-server.sock");
    system.start();
    open_at("");
    EXPECT_EQ(loop::log_lines.front(), "4 <DAL>: the server is unix:///run/redis/redis-server.sock (default)");
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
    close();
    system.kill();
    unlink("/run/redis/redis-server.sock");
}

TEST_F(DalUrl, ReachesAServerOverTcp) {
    redis.start({"--port", "7777", "--bind", "127.0.0.1"});
    open_at("tcp://localhost:7777");
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
    EXPECT_EQ(subscribe("p"), 0);
    EXPECT_EQ(dal_async_pub(ctx, "p", 1, "d", 1), 0);
    EXPECT_TRUE(run_until_delivered(1));
    redis.kill();
    ASSERT_TRUE(run_until_lost());
    redis.start({"--port", "7777", "--bind", "127.0.0.1"});
    EXPECT_TRUE(run_until_back());
    EXPECT_EQ(losses, 1);
}

int option_of(const dal::Link &link, int level, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(link.context->fd, level, option, &value, &length), 0);
    return value;
}

TEST_F(DalUrl, APeerOverTcpThatFallsSilentIsAskedAndGivenUpWithin30Seconds) {
    redis.start({"--port", "7777", "--bind", "127.0.0.1"});
    open_at("tcp://127.0.0.1:7777");
    EXPECT_EQ(dal_async_pub(ctx, "p", 1, "d", 1), 0);
    for (const dal::Link *link : {&ctx->reader, &ctx->subscriber, &ctx->publisher}) {
        EXPECT_EQ(option_of(*link, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(option_of(*link, IPPROTO_TCP, TCP_KEEPIDLE), 15);
        EXPECT_EQ(option_of(*link, IPPROTO_TCP, TCP_KEEPINTVL), 5);
        EXPECT_EQ(option_of(*link, IPPROTO_TCP, TCP_KEEPCNT), 3);
        EXPECT_EQ(option_of(*link, IPPROTO_TCP, TCP_USER_TIMEOUT), 30000);
        EXPECT_EQ(option_of(*link, IPPROTO_TCP, TCP_NODELAY), 1);
    }
}

TEST_F(DalUrl, AddressesGivenByTheCallerAreUsedInstead) {
    redis.start();
    setenv("DAL_URL", "unix:///nowhere", 1);
    dal_evloop_ctx *evloop =
        dal_evloop_ctx_init(loop::reset(), vyrwrap_dal_add_read, vyrwrap_dal_delete_read, vyrwrap_dal_add_write,
                            vyrwrap_dal_delete_write, redisDispatcherCleanup, vyrwrap_dal_attach, nullptr, nullptr);
    ctx = dal_ctx_init(7, redis.url().c_str(), redis.url().c_str(), nullptr, nullptr, evloop);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(loop::log_count("4 <DAL>: the server is unix:///tmp/redis.sock (given)"), 2U);
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
    EXPECT_EQ(subscribe("p"), 0);
}

TEST_F(DalUrl, WithoutALoopThereIsNoContext) {
    EXPECT_EQ(dal_ctx_init(7, nullptr, nullptr, nullptr, nullptr, nullptr), nullptr);
}

}  // namespace
