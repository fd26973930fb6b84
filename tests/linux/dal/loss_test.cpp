#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include "fixture.h"
#include "linux/clock.h"
#include "linux/dal/context.h"

namespace {

using All = std::vector<Delivered>;

class DalLoss : public DalTest {
protected:
    void open_subscribed() {
        open();
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(subscribe("p:*"), 0);
        ASSERT_EQ(subscribe("__keyspace@0__:/a/*", "b"), 0);
    }

    std::string flags() { return redis("CONFIG GET notify-keyspace-events"); }

    /** Both patterns work again, and the callback came that many times. */
    void expect_restored(int loss_count) {
        EXPECT_EQ(losses, loss_count);
        EXPECT_EQ(redis("PUBSUB NUMPAT"), "2");
        delivered.clear();
        redis("PUBLISH p:1 d");
        redis("SET /a/k v");
        ASSERT_TRUE(run_until_delivered(2));
        EXPECT_EQ(delivered,
                  (All{{"a", "p:*", "p:1", "d"}, {"b", "__keyspace@0__:/a/*", "__keyspace@0__:/a/k", "set"}}));
        EXPECT_EQ(get("/a/k"), "v");
        EXPECT_EQ(losses, loss_count);
    }
};

TEST_F(DalLoss, AKilledServerIsLostAndEverythingRestoredWhenItIsBack) {
    open_subscribed();
    redis.kill();
    ASSERT_TRUE(run_until_lost());
    EXPECT_TRUE(loop::logged("3 <DAL>: lost the server unix:///tmp/redis.sock: Server closed the connection"));
    EXPECT_EQ(losses, 0) << "at the loss there is nothing to read again";
    EXPECT_EQ(get("k"), "(failed)");
    redis.start();
    ASSERT_TRUE(run_until_back());
    EXPECT_TRUE(loop::logged("4 <DAL>: the server unix:///tmp/redis.sock answers again"));
    EXPECT_EQ(flags(), "[notify-keyspace-events, g$hxeK]") << "the new server knew nothing of them";
    expect_restored(1);
}

TEST_F(DalLoss, EachLossIsReportedOnce) {
    open_subscribed();
    for (int i = 1; i <= 3; i++) {
        redis("CLIENT KILL TYPE pubsub");
        ASSERT_TRUE(run_until_lost());
        ASSERT_TRUE(run_until_back());
        expect_restored(i);
    }
}

TEST_F(DalLoss, AServerAbsentAtStartIsFoundLater) {
    redis.kill();
    open();
    ASSERT_NE(ctx, nullptr);
    EXPECT_TRUE(loop::logged("3 <DAL>: cannot reach the server unix:///tmp/redis.sock: "));
    EXPECT_EQ(subscribe("p:*"), -1);
    EXPECT_EQ(subscribe("__keyspace@0__:/a/*", "b"), -1);
    EXPECT_EQ(get("k"), "(failed)");
    loop::advance(1000);
    loop::drain();
    EXPECT_EQ(loop::log_count("cannot reach the server"), 1U) << "the same reason is logged once";
    redis.start();
    ASSERT_TRUE(run_until_back());
    expect_restored(1);
}

TEST_F(DalLoss, AttemptsComeAfterASecondAndThenAtGrowingIntervalsUpToTen) {
    redis.kill();
    open();
    for (int i = 0; i < 12; i++) {
        const size_t before = loop::timer_intervals.size();
        loop::advance(10000);
        ASSERT_TRUE(loop::run_until([=] { return loop::timer_intervals.size() > before; }));
    }
    const std::vector<uint32_t> &intervals = loop::timer_intervals;
    EXPECT_EQ(intervals[0], 1000U);
    const uint32_t nominal[] = {1000, 2000, 4000, 8000, 10000};
    std::vector<uint32_t> last;
    for (size_t i = 1; i < intervals.size(); i++) {
        const uint32_t expected = nominal[i < 5 ? i : 4];
        EXPECT_LE(intervals[i], expected);
        EXPECT_GT(intervals[i], expected * 3 / 4 - 1);
        if (i >= 4)
            last.push_back(intervals[i]);
    }
    EXPECT_NE(last, std::vector<uint32_t>(last.size(), last[0])) << "the intervals are jittered";
}

TEST_F(DalLoss, AfterAReturnTheNextLossBeginsWithASecondAgain) {
    open_subscribed();
    for (int i = 0; i < 3; i++) {
        redis("CLIENT KILL TYPE pubsub");
        const size_t before = loop::timer_intervals.size();
        ASSERT_TRUE(run_until_lost());
        EXPECT_EQ(loop::timer_intervals.at(before), 1000U);
        ASSERT_TRUE(run_until_back());
    }
}

TEST_F(DalLoss, AnAttemptWhoseTimerCouldNotBeStartedIsMadeUpForByTheCheck) {
    open_subscribed();
    redis("CLIENT KILL TYPE pubsub");
    loop::refuse_timers = true;
    ASSERT_TRUE(run_until_lost());
    loop::refuse_timers = false;
    ASSERT_EQ(loop::timer_count(), 0U);
    EXPECT_EQ(dal_sub_ctx_chk(ctx), -1);
    ASSERT_TRUE(run_until_back());
    expect_restored(1);
}

TEST_F(DalLoss, AStoppedServerIsNotBackThoughItAcceptsConnections) {
    open_subscribed();
    redis.freeze();
    EXPECT_EQ(get("k"), "(failed)");
    loop::advance(1000);
    ASSERT_TRUE(loop::run_until([this] { return ctx->state == dal::State::asking; }));
    const int64_t begin = monotonic_ms();
    loop::drain();
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_EQ(subscribe("q"), -1);
    EXPECT_LT(monotonic_ms() - begin, 500) << "the attempt is not waited for";
    loop::advance(2000);
    ASSERT_TRUE(loop::run_until([this] { return ctx->state == dal::State::lost; }));
    EXPECT_EQ(losses, 0);
    redis.thaw();
    ASSERT_TRUE(run_until_back());
    EXPECT_EQ(redis("PUBSUB NUMPAT"), "3");
    EXPECT_EQ(losses, 1);
}

TEST_F(DalLoss, ALoadingServerIsNotBack) {
    open_subscribed();
    for (int i = 0; i < 50; i++)
        redis.run({"SET", "k" + std::to_string(i), std::string(2000, 'v')});
    redis("CONFIG SET rdbcompression no");
    redis("SAVE");
    redis.kill();
    ASSERT_TRUE(run_until_lost());
    redis.start({"--key-load-delay", "100000", "--loading-process-events-interval-bytes", "1024"});
    ASSERT_NE(redis("PING").find("LOADING"), std::string::npos);
    loop::advance(1000);
    ASSERT_TRUE(loop::run_until([] { return loop::logged(": LOADING Redis is loading the dataset in memory"); }));
    EXPECT_EQ(losses, 0);
    EXPECT_EQ(get("k1"), "(failed)");
    redis("CONFIG SET key-load-delay 0");
    ASSERT_TRUE(loop::run_until([this] { return redis("PING") == "PONG"; }));
    ASSERT_TRUE(run_until_back());
    expect_restored(1);
    unlink("/tmp/dump.rdb");
}

TEST_F(DalLoss, APatternSubscribedToDuringAnAttemptIsTakenAlong) {
    open_subscribed();
    redis("CLIENT KILL TYPE pubsub");
    ASSERT_TRUE(run_until_lost());
    loop::advance(1000);
    ASSERT_TRUE(loop::run_until([this] { return ctx->state == dal::State::asking; }));
    EXPECT_EQ(subscribe("q"), -1);
    ASSERT_TRUE(loop::run_until([this] { return ctx->state == dal::State::up; }));
    EXPECT_EQ(redis("PUBSUB NUMPAT"), "3");
}

TEST_F(DalLoss, NotificationsThatWaitAtTheLossAreHeldUntilTheServerIsBack) {
    open_subscribed();
    redis("PUBLISH p:1 d");
    ASSERT_EQ(subscribe("q"), 0);
    redis.kill();
    uint32_t length = 0;
    EXPECT_EQ(dal_get(ctx, "k", 1, nullptr, &length), -1);
    loop::drain();
    EXPECT_TRUE(delivered.empty());
    redis.start();
    ASSERT_TRUE(run_until_back());
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered, (All{{"a", "p:*", "p:1", "d"}}));
    EXPECT_EQ(losses, 1);
}

TEST_F(DalLoss, AHundredLossesLeakNoDescriptorInputOrTimer) {
    open_subscribed();
    const size_t descriptors = open_descriptors().size();
    const size_t inputs = loop::input_count();
    for (int i = 0; i < 100; i++) {
        redis("CLIENT KILL TYPE pubsub");
        redis("CLIENT KILL TYPE normal");
        ASSERT_TRUE(run_until_lost());
        ASSERT_TRUE(run_until_back());
    }
    EXPECT_EQ(losses, 100);
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(open_descriptors().size(), descriptors);
    EXPECT_EQ(loop::input_count(), inputs);
    expect_restored(100);
}

TEST_F(DalLoss, FailedAttemptsLeakNoDescriptor) {
    redis.kill();
    const size_t descriptors = open_descriptors().size();
    open();
    for (int i = 0; i < 50; i++) {
        loop::advance(10000);
        loop::drain();
    }
    EXPECT_EQ(open_descriptors().size(), descriptors);
}

TEST_F(DalLoss, DescriptorsAreCloseOnExecAndAboveTwo) {
    const int saved = dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    open_subscribed();
    EXPECT_EQ(dal_async_pub(ctx, "c", 1, "d", 1), 0);
    for (const dal::Link *link : {&ctx->reader, &ctx->subscriber, &ctx->publisher}) {
        ASSERT_NE(link->context, nullptr);
        EXPECT_GT(link->context->fd, 2);
        EXPECT_EQ(fcntl(link->context->fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    dup2(saved, STDIN_FILENO);
    ::close(saved);
}

TEST_F(DalLoss, ALoopThatWatchesNothingIsNoConnection) {
    open_subscribed();
    loop::refuse_inputs = true;
    redis("CLIENT KILL TYPE pubsub");
    ASSERT_TRUE(run_until_lost());
    loop::advance(10000);
    ASSERT_TRUE(loop::run_until([] { return loop::logged("the loop does not watch it for reading"); }));
    loop::refuse_inputs = false;
    ASSERT_TRUE(run_until_back());
    expect_restored(1);
}

TEST_F(DalLoss, FlagsThatAreMissingAreAddedAndTheOthersKept) {
    redis("CONFIG SET notify-keyspace-events Elg");
    open();
    EXPECT_EQ(flags(), "[notify-keyspace-events, g$lhxeKE]");
    EXPECT_TRUE(loop::logged("6 <DAL>: setting notify-keyspace-events to "));
}

TEST_F(DalLoss, TheFlagOfAllTypesDoesNotStandForTheOneOfKeyspaceChannels) {
    redis("CONFIG SET notify-keyspace-events AE");
    open();
    EXPECT_EQ(flags(), "[notify-keyspace-events, AKE]");
}

TEST_F(DalLoss, FlagsThatAreEnoughStay) {
    redis("CONFIG SET notify-keyspace-events AK");
    open();
    EXPECT_EQ(flags(), "[notify-keyspace-events, AK]");
    EXPECT_FALSE(loop::logged("setting notify-keyspace-events"));
}

TEST_F(DalLoss, AServerThatRefusesConfigIsUsedAndTheLogSaysSo) {
    redis("ACL SETUSER default -config");
    open();
    EXPECT_EQ(
        loop::log_count("4 <DAL>: may not look after notify-keyspace-events, which has to contain Kg$hxe: NOPERM"), 1U);
    EXPECT_EQ(subscribe("p:*"), 0);
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
}

TEST_F(DalLoss, AServerThatRefusesToSetTheFlagsIsUsedAndTheLogSaysSo) {
    redis("ACL SETUSER default -config|set");
    open();
    EXPECT_EQ(loop::log_count("may not look after notify-keyspace-events"), 1U);
    EXPECT_EQ(subscribe("p:*"), 0);
}

TEST_F(DalLoss, AServerThatWantsAPasswordIsNotReached) {
    redis("CONFIG SET requirepass secret");
    open();
    ASSERT_NE(ctx, nullptr);
    EXPECT_TRUE(loop::logged("cannot reach the server unix:///tmp/redis.sock: NOAUTH"));
    EXPECT_EQ(get("k"), "(failed)");
}

}  // namespace
