/* When comparisons are made and believed, and what happens meanwhile. */
#include "linux/clock.h"
#include "linux/dal/context.h"
#include "resync_fixture.h"

namespace {

class DalAudit : public DalResync {
protected:
    /** Runs the loop until the comparison under way reads keys; the next thing it takes in is their answer. */
    bool run_until_walking() {
        return loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::walking; });
    }

    /** Subscribes where so much has to be read that the time for that may be short, and has the rest delivered. */
    void follow_to_the_last(const std::string &keys) {
        follow(keys);
        for (int i = 0; i < 10 && compare() != Texts{}; i++)
            continue;
        delivered.clear();
    }

    void fill(int count) {
        for (int i = 0; i < count; i++)
            redis("SET /a/" + std::to_string(i) + " v");
    }
};

TEST_F(DalAudit, AllKeysGoneAreDeliveredWhenASecondComparisonTenSecondsLaterAgrees) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    unnoticed({"DEL /a/1 /a/2"});
    EXPECT_EQ(compare(), Texts{});
    EXPECT_TRUE(
        loop::logged("6 <DAL>: all 2 keys of __keyspace@0__:/a/* are gone; looking again before that is "
                     "delivered"));
    EXPECT_EQ(loop::timer_intervals.back(), 10000U);
    EXPECT_EQ(compare(), Texts{}) << "one that is asked for meanwhile is no second one";
    loop::advance(9900);
    loop::drain();
    EXPECT_TRUE(delivered.empty());
    loop::advance(100);
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(told(), (Texts{"/a/1 del", "/a/2 del"}));
    EXPECT_EQ(loop::log_count("are gone; looking again"), 1U);
}

TEST_F(DalAudit, KeysThatCameBackMeanwhileWereNeverGone) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    unnoticed({"DEL /a/1 /a/2"});
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"MSET /a/1 v /a/2 w"});
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(1));
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(told(), Texts{"/a/2 set"});
}

TEST_F(DalAudit, KeysThatCameBackInPartAreDecidedOnAfterTheTime) {
    redis("MSET /a/1 v /a/2 v /a/3 v");
    follow("/a/*");
    unnoticed({"DEL /a/1 /a/2 /a/3"});
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SET /a/1 v"});
    EXPECT_EQ(compare(), Texts{}) << "the store is just being filled again";
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(told(), (Texts{"/a/2 del", "/a/3 del"}));
}

TEST_F(DalAudit, NewKeysInPlaceOfAllOldOnesAreDeliveredAtOnceAndTheOthersAfterTheTime) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    unnoticed({"FLUSHALL", "SET /a/3 v"});
    ASSERT_TRUE(run_until_delivered(1));
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(told(), Texts{"/a/3 set"});
    EXPECT_EQ(compare(), Texts{});
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(told(), (Texts{"/a/1 del", "/a/2 del"}));
}

TEST_F(DalAudit, ASuspicionIsEachPatternsOwn) {
    redis("MSET /a/1 v /b/1 v /b/2 v");
    follow("/a/*");
    follow("/b/*");
    unnoticed({"DEL /a/1 /b/1"});
    EXPECT_EQ(compare(), Texts{"/b/1 del"});
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(delivered.back().channel, "__keyspace@0__:/a/1");
}

TEST_F(DalAudit, AnEmptyPatternIsNoSuspicion) {
    follow("/a/*");
    EXPECT_EQ(compare(), Texts{});
    EXPECT_FALSE(loop::logged("are gone"));
}

TEST_F(DalAudit, ATimerThatCouldNotBeStartedIsMadeUpForByTheNextComparison) {
    redis("SET /a/1 v");
    follow("/a/*");
    unnoticed({"DEL /a/1"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    loop::refuse_timers = true;
    ASSERT_TRUE(run_until_compared());
    loop::refuse_timers = false;
    EXPECT_EQ(compare(), Texts{"/a/1 del"});
}

TEST_F(DalAudit, ALossMakesTheTimeBeginAnew) {
    redis("SET /a/1 v");
    follow("/a/*");
    unnoticed({"DEL /a/1"});
    EXPECT_EQ(compare(), Texts{});
    lose();
    EXPECT_EQ(come_back(), Texts{});
    EXPECT_EQ(loop::log_count("are gone; looking again"), 2U);
    loop::advance(10000);
    EXPECT_TRUE(run_until_delivered(1));
}

TEST_F(DalAudit, AReplicaWithoutItsPrimaryIsNotComparedUntilItHasIt) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    redis("REPLICAOF 127.0.0.1 7999");
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(loop::log_count("4 <DAL>: the keys are not compared with what is known of them: the server has lost its "
                              "primary; trying again"),
              1U);
    redis("REPLICAOF NO ONE");
    delivered.clear();
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(1)) << "before the next minute";
    EXPECT_EQ(told(), Texts{"/a/1 set"});
}

TEST_F(DalAudit, AReplicaThatLosesItsPrimaryMeanwhileIsNotBelieved) {
    fill(300);
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_walking());
    redis("REPLICAOF 127.0.0.1 7999");
    ASSERT_TRUE(run_until_compared());
    EXPECT_TRUE(delivered.empty());
    EXPECT_TRUE(loop::logged("the server has lost its primary"));
}

TEST_F(DalAudit, AServerThatDoesNotTellHowItStandsIsComparedAndTheLogSaysSoOnce) {
    redis("SET /a/1 v");
    redis("ACL SETUSER default -info");
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    EXPECT_EQ(compare(), Texts{"/a/1 set"});
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(loop::log_count("4 <DAL>: the server does not tell whether it is fit to be compared: NOPERM"), 1U);
}

TEST_F(DalAudit, AServerThatLetsNoKeysBeWalkedIsUsedAndTheLogSaysSoOnce) {
    follow("/a/*");
    redis("ACL SETUSER default -scan");
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(loop::log_count("the keys are not compared with what is known of them: NOPERM"), 1U);
    EXPECT_EQ(losses, 0);
    redis("SET /a/1 v");
    EXPECT_TRUE(run_until_delivered(1));
}

TEST_F(DalAudit, AServerThatMayNotSetItsFlagsIsWarnedOfOnceInAConnection) {
    redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
    redis("ACL SETUSER default -config|set");
    follow("/a/*");
    for (int i = 0; i < 3; i++)
        compare();
    EXPECT_EQ(loop::log_count("4 <DAL>: may not look after notify-keyspace-events"), 1U);
}

TEST_F(DalAudit, AStoppedServerEndsInTheOrdinaryDeadline) {
    redis("SET /a/1 v");
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_walking());
    redis.freeze();
    const int64_t begin = monotonic_ms();
    loop::drain();
    EXPECT_LT(monotonic_ms() - begin, 200) << "it is not waited for";
    loop::advance(2000);
    ASSERT_TRUE(run_until_lost());
    EXPECT_TRUE(loop::logged("lost the server unix:///tmp/redis.sock: no answer"));
    EXPECT_FALSE(ctx->auditor.context);
    redis.thaw();
    EXPECT_EQ(come_back(), Texts{"/a/1 set"});
}

TEST_F(DalAudit, AConnectionThatIsCutIsNoLossAndTheComparisonIsMadeUpFor) {
    fill(300);
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_walking());
    redis("CLIENT KILL TYPE normal SKIPME yes");
    ASSERT_TRUE(run_until_compared());
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(ctx->state, dal::State::up);
    EXPECT_EQ(losses, 0);
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(told(), Texts{"/a/1 set"});
}

TEST_F(DalAudit, ALossMeanwhileBeginsAnother) {
    fill(300);
    follow("/a/*");
    unnoticed({"SET /a/1 w", "DEL /a/2"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_walking());
    lose();
    EXPECT_EQ(come_back(), (Texts{"/a/1 set", "/a/2 del"}));
}

TEST_F(DalAudit, OneThatIsAskedForMeanwhileFollows) {
    fill(300);
    follow("/a/*");
    const uint32_t before = ctx->audit.number;
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_EQ(ctx->audit.number, before + 1) << "no two at once";
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(ctx->audit.number, before + 2);
}

TEST_F(DalAudit, APatternSubscribedToMeanwhileIsLeftToTheNext) {
    fill(300);
    redis("SET /b/1 v");
    follow("/a/*");
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_walking());
    follow("/b/*");
    ASSERT_TRUE(run_until_compared());
    EXPECT_TRUE(delivered.empty());
    unnoticed({"SET /b/1 w"});
    EXPECT_EQ(compare(), Texts{"/b/1 set"});
}

TEST_F(DalAudit, KeysThatChangeMeanwhileAreDeliveredAsTheyAre) {
    fill(300);
    follow("/a/*");
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_walking());
    redis("DEL /a/1");
    redis("SET /a/2 w");
    redis("SET /a/new v");
    ASSERT_TRUE(run_until_delivered(3));
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(told(), (Texts{"/a/1 del", "/a/2 set", "/a/new set"})) << "once each";
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalAudit, AFindingThatIsOverWhenItsTurnComesIsNotDelivered) {
    redis("MSET /a/1 v /a/2 v /a/3 v /a/4 v");
    follow("/a/*");
    unnoticed({"SET /a/1 w", "DEL /a/2", "SET /a/5 v", "DEL /a/4"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::behind; }));
    unnoticed({"SET /a/1 v", "SET /a/2 v", "DEL /a/5", "HSET /a/4 f v"});
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(told(), Texts{"/a/4 hset"}) << "as of now, not as of then";
}

TEST_F(DalAudit, FindingsComeBehindEverythingReceivedBefore) {
    fill(200);
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    redis("CONFIG SET notify-keyspace-events KA");
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::behind; }));
    for (int i = 100; i < 200; i++)
        redis("SET /a/" + std::to_string(i) + " w");
    ASSERT_EQ(subscribe("nothing"), 0) << "by then they have been received";
    ASSERT_TRUE(run_until_delivered(101));
    EXPECT_EQ(delivered.back().channel, "__keyspace@0__:/a/1");
}

TEST_F(DalAudit, ALossWhileFindingsWaitHoldsThem) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    unnoticed({"SET /a/1 w"});
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::behind; }));
    redis.freeze();
    loop::advance(2000);
    ASSERT_TRUE(run_until_lost());
    redis.thaw();
    EXPECT_EQ(come_back(), Texts{"/a/1 set"});
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalAudit, LeavesNothingOpenAndNoTimerBehind) {
    fill(10);
    follow("/a/*");
    loop::drain();
    const size_t descriptors = open_descriptors().size();
    const size_t timers = loop::timer_count();
    compare();
    EXPECT_EQ(open_descriptors().size(), descriptors);
    EXPECT_EQ(loop::timer_count(), timers) << "nothing wakes the process before the next minute";
    EXPECT_EQ(loop::input_count(), 1U);
}

TEST_F(DalAudit, AValueOfManyMegabytesIsCompared) {
    redis.run({"SET", "/a/big", std::string(9 << 20, 'x')});
    follow_to_the_last("/a/*");
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"APPEND /a/big y"});
    EXPECT_EQ(compare(), Texts{"/a/big set"});
    EXPECT_EQ(losses, 0);
}

TEST_F(DalAudit, ValuesThatAreTooMuchForOneAnswerAreKnownFromTheStart) {
    redis("HSET /a/hash f v");
    for (int i = 0; i < 20; i++)
        redis.run({"SET", "/a/" + std::to_string(i), std::string(1 << 20, 'x')});
    follow("/a/*");
    EXPECT_EQ(losses, 0);
    EXPECT_EQ(compare(), Texts{});
}

/** With values of more than 16 MB, which are not read. */
class DalTooLarge : public DalAudit {
protected:
    void SetUp() override {
        DalAudit::SetUp();
        redis("CONFIG SET proto-max-bulk-len 64mb");
        redis("MSET /a/0 v /a/1 v /a/2 v /a/3 v");
        redis("SETRANGE /a/big 20000000 x");
    }

    static size_t lines_about(const std::string &key) {
        return loop::log_count("4 <DAL>: the value of " + key + " is too large to be compared");
    }
};

TEST_F(DalTooLarge, KeepsNothingElseFromBeingCompared) {
    redis.run({"HSET", "/a/hash", "f", std::string(18 << 20, 'x')});
    follow_to_the_last("/a/*");
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SET /a/1 w", "SET /a/new v", "DEL /a/3"});
    EXPECT_EQ(compare(), (Texts{"/a/1 set", "/a/3 del", "/a/new set"}));
    EXPECT_EQ(lines_about("/a/big"), 1U);
    EXPECT_EQ(lines_about("/a/hash"), 1U);
    EXPECT_EQ(loop::log_count("not compared"), 0U);
    EXPECT_EQ(losses, 0);
}

TEST_F(DalTooLarge, OneThatBecameSoUnnoticedIsLeftOutToo) {
    follow_to_the_last("/a/*");
    unnoticed({"SETRANGE /a/2 20000000 x", "SETRANGE /a/new 20000000 x", "SET /a/1 w"});
    EXPECT_EQ(compare(), Texts{"/a/1 set"});
    EXPECT_EQ(lines_about("/a/2"), 1U);
    EXPECT_EQ(lines_about("/a/new"), 1U);
}

TEST_F(DalTooLarge, IsDeliveredOnceItCanBeRead) {
    follow_to_the_last("/a/*");
    unnoticed({"SET /a/big v"});
    EXPECT_EQ(compare(), Texts{"/a/big set"});
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SETRANGE /a/big 20000000 x"});
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(lines_about("/a/big"), 2U) << "it was small in between";
}

TEST_F(DalTooLarge, ItsEndIsDelivered) {
    follow_to_the_last("/a/*");
    unnoticed({"DEL /a/big"});
    EXPECT_EQ(compare(), Texts{"/a/big del"});
}

TEST_F(DalTooLarge, AChangeThatIsToldOfCostsNoLossOnceThatIsKnown) {
    follow_to_the_last("/a/*");
    redis("APPEND /a/big x");
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(told(), Texts{"/a/big append"});
    EXPECT_EQ(losses, 0);
}

TEST_F(DalTooLarge, KeepsNothingElseFromBeingKnownFromTheStart) {
    follow("/a/*");
    EXPECT_EQ(loop::log_count("not all keys of"), 0U);
    EXPECT_EQ(compare(), Texts{});
}

}  // namespace
