#include <poll.h>

#include <algorithm>

#include "fixture.h"
#include "linux/clock.h"
#include "linux/dal/context.h"

namespace {

using All = std::vector<Delivered>;

class DalSubscribe : public DalTest {
protected:
    void SetUp() override {
        DalTest::SetUp();
        open();
        ASSERT_NE(ctx, nullptr);
    }

    int patterns_at_the_server() { return atoi(redis("PUBSUB NUMPAT").c_str()); }
};

std::string channel(const std::string &key) {
    return "__keyspace@0__:" + key;
}

TEST_F(DalSubscribe, IsConfirmedWhenTheCallReturnsBeforeTheLoopRuns) {
    EXPECT_EQ(subscribe(channel("/a/*")), 0);
    EXPECT_EQ(patterns_at_the_server(), 1);
}

TEST_F(DalSubscribe, DeliversTheFourTexts) {
    ASSERT_EQ(subscribe(channel("/a/*")), 0);
    redis("SET /a/k v");
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered, (All{{"a", channel("/a/*"), channel("/a/k"), "set"}}));
}

TEST_F(DalSubscribe, DeliversPublicationsWithTheirBytes) {
    ASSERT_EQ(subscribe("/ipc/event/*"), 0);
    const std::string data("x\0y", 3);
    redis.run({"PUBLISH", "/ipc/event/m", data});
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered[0].data, data);
}

TEST_F(DalSubscribe, DeliversNothingOutsideTheLoop) {
    ASSERT_EQ(subscribe(channel("/a/*")), 0);
    redis("SET /a/k v");
    EXPECT_EQ(subscribe(channel("/b/*")), 0);
    EXPECT_EQ(get("/a/k"), "v");
    EXPECT_TRUE(delivered.empty());
    EXPECT_TRUE(run_until_delivered(1));
}

TEST_F(DalSubscribe, TakesSeveralPatternsInOneCommand) {
    EXPECT_EQ(subscribe("p:* q:*"), 0);
    EXPECT_EQ(patterns_at_the_server(), 2);
    redis("PUBLISH q:1 d");
    redis("PUBLISH p:1 d");
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(delivered, (All{{"a", "q:*", "q:1", "d"}, {"a", "p:*", "p:1", "d"}}));
}

TEST_F(DalSubscribe, TheSamePatternAgainReplacesTheCallback) {
    ASSERT_EQ(subscribe("p:*", "old"), 0);
    ASSERT_EQ(subscribe("p:*", "new"), 0);
    redis("PUBLISH p:1 d");
    redis("PUBLISH p:2 d");
    ASSERT_TRUE(run_until_delivered(2));
    loop::drain();
    EXPECT_EQ(delivered, (All{{"new", "p:*", "p:1", "d"}, {"new", "p:*", "p:2", "d"}}));
}

TEST_F(DalSubscribe, TheSamePatternTwiceInACommandIsDeliveredOnce) {
    ASSERT_EQ(subscribe("p:* p:*"), 0);
    redis("PUBLISH p:1 d");
    redis("PUBLISH p:2 d");
    ASSERT_TRUE(run_until_delivered(2));
    loop::drain();
    EXPECT_EQ(delivered.size(), 2U);
}

TEST_F(DalSubscribe, OverlappingPatternsDeliverOnceEach) {
    ASSERT_EQ(subscribe("p:*", "wide"), 0);
    ASSERT_EQ(subscribe("p:1*", "narrow"), 0);
    redis("PUBLISH p:12 d");
    ASSERT_TRUE(run_until_delivered(2));
    loop::drain();
    ASSERT_EQ(delivered.size(), 2U);
    const size_t wide = delivered[0].subscriber == "wide" ? 0 : 1;
    EXPECT_EQ(delivered[wide], (Delivered{"wide", "p:*", "p:12", "d"}));
    EXPECT_EQ(delivered[1 - wide], (Delivered{"narrow", "p:1*", "p:12", "d"}));
}

TEST_F(DalSubscribe, ATextThatIsNoPsubscribeWithPatternsIsRefused) {
    for (const char *command : {"", "PSUBSCRIBE", "PSUBSCRIBE ", "SUBSCRIBE a", "PSUBSCRIBE a  b", "PSUBSCRIBE a "}) {
        EXPECT_EQ(dal_sub_command(ctx, record, nullptr, command), -1) << command;
        EXPECT_EQ(loop::log_lines.back(), "3 <DAL>: '" + std::string(command) + "' is no PSUBSCRIBE with patterns");
    }
    EXPECT_EQ(patterns_at_the_server(), 0);
    EXPECT_EQ(dal_sub_command(ctx, nullptr, nullptr, "PSUBSCRIBE a"), -1);
}

/** Subscribes from inside the first delivery, while the next one has already arrived. */
struct Nested {
    int delivered;
    int result;
};
void subscribe_inside(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    auto *nested = static_cast<Nested *>(arg);
    ASSERT_FALSE(DalTest::in_callback);
    DalTest::in_callback = true;
    EXPECT_NE(reply, nullptr);
    if (nested->delivered++ == 0) {
        nested->result = dal_sub_command(ctx, subscribe_inside, arg, "PSUBSCRIBE other");
        uint32_t length = 0;
        EXPECT_EQ(dal_get(ctx, "k", 1, nullptr, &length), 0);
    }
    DalTest::in_callback = false;
}

TEST_F(DalSubscribe, ASubscriptionInsideACallbackIsConfirmedAndDeliversNothingThere) {
    redis("SET k v");
    Nested nested{0, -1};
    ASSERT_EQ(dal_sub_command(ctx, subscribe_inside, &nested, "PSUBSCRIBE p:*"), 0);
    for (int i = 0; i < 500; i++)
        redis("PUBLISH p:1 d");
    ASSERT_TRUE(loop::run_until([&] { return nested.delivered == 500; }));
    EXPECT_EQ(nested.result, 0);
    EXPECT_EQ(patterns_at_the_server(), 2);
}

TEST_F(DalSubscribe, AFloodIsDeliveredInOrderAndTheLoopTurnsInBetween) {
    ASSERT_EQ(subscribe("p"), 0);
    for (int i = 0; i < 2000; i++)
        redis.run({"PUBLISH", "p", std::to_string(i)});
    loop::run_until([] { return !delivered.empty(); });
    EXPECT_LE(delivered.size(), 64U) << "one handler does not deliver all that one read took in";
    ASSERT_TRUE(run_until_delivered(2000));
    for (size_t i = 0; i < 2000; i++)
        EXPECT_EQ(delivered[i].data, std::to_string(i));
}

TEST_F(DalSubscribe, WhileNotificationsWaitNoMoreAreTakenIn) {
    ASSERT_EQ(subscribe("p"), 0);
    for (int i = 0; i < 20000; i++)
        redis.run({"PUBLISH", "p", std::to_string(i)});
    size_t most = 0;
    ASSERT_TRUE(loop::run_until([this, &most] {
        most = std::max(most, ctx->waiting.bytes);
        return delivered.size() >= 20000;
    }));
    EXPECT_LT(most, 100U << 10) << "what one read brings";
}

TEST_F(DalSubscribe, NotificationsBeyondTheBoundAreALossAndNoGrowth) {
    ASSERT_EQ(subscribe("p"), 0);
    const std::string big(1 << 20, 'x');
    redis.run({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 0 0 0"});
    for (int i = 0; i < 20; i++)
        redis.run({"PUBLISH", "p", big});
    EXPECT_EQ(subscribe("q"), -1);
    EXPECT_LE(ctx->waiting.bytes, 10U << 20);
    EXPECT_TRUE(loop::logged("more notifications wait than there is room for"));
    EXPECT_TRUE(delivered.empty());
    EXPECT_TRUE(run_until_back());
    run_until_delivered(8);
    loop::drain();
    EXPECT_EQ(delivered.size(), 8U) << "those taken in before are held, not dropped";
    EXPECT_EQ(losses, 1);
    EXPECT_EQ(patterns_at_the_server(), 2);
}

TEST_F(DalSubscribe, AHungServerMakesTheCallFailWithinItsBound) {
    redis.freeze();
    const int64_t begin = monotonic_ms();
    EXPECT_EQ(subscribe("p"), -1);
    EXPECT_LT(monotonic_ms() - begin, 3000);
    redis.thaw();
    EXPECT_TRUE(run_until_back());
    EXPECT_EQ(patterns_at_the_server(), 1) << "the pattern was remembered";
    EXPECT_EQ(losses, 1);
}

TEST_F(DalSubscribe, TheCheckFindsAHungServerWithoutWaiting) {
    ASSERT_EQ(subscribe("p"), 0);
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(loop::run_until([this] { return ctx->subscriber.expected == 0; }));
    redis.freeze();
    const int64_t begin = monotonic_ms();
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_LT(monotonic_ms() - begin, 100);
    loop::advance(2000);
    EXPECT_TRUE(run_until_lost());
    EXPECT_EQ(dal_sub_ctx_chk(ctx), -1);
    redis.thaw();
    EXPECT_TRUE(run_until_back());
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_TRUE(delivered.empty()) << "no answer to PING is taken for a notification";
}

TEST_F(DalSubscribe, AnAnswerThatCameWhileTheLoopWasBusyCounts) {
    ASSERT_EQ(subscribe("p"), 0);
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    pollfd answer = {ctx->subscriber.context->fd, POLLIN, 0};
    ASSERT_EQ(poll(&answer, 1, 5000), 1);
    loop::advance(5000);
    loop::drain();
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_EQ(losses, 0);
}

class DalRefused : public DalSubscribe {
protected:
    void SetUp() override {
        DalSubscribe::SetUp();
        // the client is subscribed to one channel of its own
        redis("ACL SETUSER default resetchannels &__redis__:invalidate &free:* &free:2*");
    }
};

TEST_F(DalRefused, ARefusedPatternIsLoggedAndTheOthersGoOn) {
    EXPECT_EQ(subscribe("free:* closed:* free:2*"), -1);
    EXPECT_EQ(loop::log_count("3 <DAL>: the subscription to closed:* was refused: NOPERM"), 1U);
    EXPECT_EQ(patterns_at_the_server(), 2);
    redis("PUBLISH free:1 d");
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered, (All{{"a", "free:*", "free:1", "d"}}));
    EXPECT_EQ(losses, 0);
}

TEST_F(DalRefused, ARefusedPatternIsTriedAgainAndItsAcceptanceReported) {
    EXPECT_EQ(subscribe("closed:*"), -1);
    loop::advance(10000);
    loop::drain();
    loop::advance(10000);
    loop::drain();
    EXPECT_EQ(loop::log_count("was refused"), 1U) << "the same refusal is logged once";
    redis("ACL SETUSER default allchannels");
    loop::advance(10000);
    ASSERT_TRUE(loop::run_until([this] { return patterns_at_the_server() == 1 && losses == 1; }));
    EXPECT_TRUE(loop::logged("4 <DAL>: the subscription to closed:* is accepted now"));
    redis("PUBLISH closed:1 d");
    EXPECT_TRUE(run_until_delivered(1));
    EXPECT_EQ(subscribe("closed:*"), 0);
}

TEST_F(DalRefused, ARefusedPatternDoesNotKeepTheServerFromComingBack) {
    EXPECT_EQ(subscribe("free:*"), 0);
    EXPECT_EQ(subscribe("closed:*"), -1);
    redis("CLIENT KILL TYPE pubsub");
    ASSERT_TRUE(run_until_lost());
    ASSERT_TRUE(run_until_back());
    EXPECT_EQ(losses, 1);
    EXPECT_EQ(patterns_at_the_server(), 1);
}

}  // namespace
