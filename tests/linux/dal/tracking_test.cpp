/* Changes of everything at once, of which a server that offers client tracking tells. */
#include <unistd.h>

#include "linux/dal/context.h"
#include "resync_fixture.h"

namespace {

class DalTracking : public DalResync {
protected:
    void TearDown() override {
        DalResync::TearDown();
        unlink("/tmp/dump.rdb");  // which the next server would begin with
    }

    /** Runs until keys that are gone have been confirmed to be, and gives what was delivered. */
    Texts run_until_told(size_t count) {
        EXPECT_TRUE(run_until_compared());
        EXPECT_TRUE(delivered.empty()) << "keys that are all gone may come back";
        loop::advance(10000);
        EXPECT_TRUE(run_until_delivered(count));
        return told();
    }

    bool run_until_seen_gone() {
        return loop::run_until([] { return loop::logged("keys of __keyspace@0__:/a/* are gone"); });
    }
};

TEST_F(DalTracking, FlushallAndFlushdbAreNoticedAtOnce) {
    for (const char *command : {"FLUSHALL", "FLUSHDB", "FLUSHALL ASYNC"}) {
        redis("MSET /a/1 v /a/2 v");
        follow("/a/*");
        delivered.clear();
        loop::log_lines.clear();
        redis(command);
        ASSERT_TRUE(run_until_seen_gone()) << command;
        EXPECT_EQ(run_until_told(2), (Texts{"/a/1 del", "/a/2 del"})) << command;
        close();
    }
}

TEST_F(DalTracking, AFlushThatACallTakesInIsFollowedThoughNothingElseHappens) {
    redis("SET /a/1 v");
    follow("/a/*");
    redis("FLUSHALL");
    ASSERT_EQ(subscribe("x"), 0) << "the message has been received by then";
    EXPECT_TRUE(run_until_seen_gone());
}

TEST_F(DalTracking, WorksOnEveryConnection) {
    redis("SET /a/1 v");
    follow("/a/*");
    lose();
    EXPECT_EQ(come_back(), Texts{});
    redis("FLUSHALL");
    EXPECT_TRUE(run_until_seen_gone());
}

TEST_F(DalTracking, ANewDataFileIsNoticedAtOnce) {
    redis.kill();
    redis.start({"--enable-debug-command", "yes"});
    redis("SET /a/1 v");
    follow("/a/*");
    const uint32_t before = ctx->audit.number;
    redis("DEBUG RELOAD");
    EXPECT_TRUE(loop::run_until([this, before] { return ctx->audit.number > before; }));
    EXPECT_TRUE(run_until_compared());
    EXPECT_TRUE(delivered.empty());
}

TEST_F(DalTracking, AReplicasFullResynchronisationIsNoticedAtOnce) {
    Redis primary{"/tmp/primary.sock"};
    primary.start({"--port", "7001", "--bind", "127.0.0.1", "--repl-diskless-sync-delay", "0"});
    primary("MSET /a/1 v /a/3 v");
    redis("MSET /a/1 v /a/2 v /a/3 w");
    follow("/a/*");
    redis("REPLICAOF 127.0.0.1 7001");
    ASSERT_TRUE(loop::run_until([this] {
        loop::advance(100);
        return redis("INFO replication").find("master_link_status:up") != std::string::npos;
    }));
    ASSERT_TRUE(loop::run_until([] {
        loop::advance(100);
        return delivered.size() >= 2;
    }));
    EXPECT_EQ(told(), (Texts{"/a/2 del", "/a/3 set"}));
}

TEST_F(DalTracking, SwapdbIsNotToldOfAndFoundByTheNextComparison) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    redis("SELECT 1");
    redis("MSET /a/2 w /a/3 v");
    redis("SWAPDB 0 1");
    loop::drain();
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(compare(), (Texts{"/a/1 del", "/a/2 set", "/a/3 set"}));
}

TEST_F(DalTracking, AServerWithoutItIsUsedAndTheLogSaysSoOnce) {
    redis("ACL SETUSER default -client|id");
    redis("SET /a/1 v");
    follow("/a/*");
    lose();
    come_back();
    EXPECT_EQ(loop::log_count("6 <DAL>: no client tracking, a flush is noticed by the next comparison: NOPERM"), 1U);
    redis("FLUSHALL");
    compare();
    loop::advance(10000);
    EXPECT_TRUE(run_until_delivered(1));
}

TEST_F(DalTracking, AServerThatRefusesTheChannelIsUsed) {
    redis("ACL SETUSER default resetchannels &__keyspace@0__:/a/*");
    redis("SET /a/1 v");
    follow("/a/*");
    EXPECT_EQ(loop::log_count("no client tracking"), 1U);
    unnoticed({"SET /a/1 w"});
    EXPECT_EQ(compare(), Texts{"/a/1 set"});
}

TEST_F(DalTracking, AServerThatRefusesTrackingAloneIsUsed) {
    redis("ACL SETUSER default -client|tracking");
    follow("/a/*");
    EXPECT_EQ(loop::log_count("no client tracking"), 1U);
}

TEST_F(DalTracking, TheServerRemembersNoKeys) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    compare();
    EXPECT_NE(redis("INFO stats").find("tracking_total_keys:0"), std::string::npos);
}

TEST_F(DalTracking, WhatOthersPublishOnItsChannelIsIgnored) {
    follow("/a/*");
    const uint32_t before = ctx->audit.number;
    redis("PUBLISH __redis__:invalidate x");
    redis("SET /a/1 v");
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(ctx->audit.number, before);
    EXPECT_EQ(losses, 0);
}

}  // namespace
