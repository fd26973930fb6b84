/* What no notification told of: compared with what is there, and delivered. */
#include <unistd.h>

#include <algorithm>

#include "linux/dal/context.h"
#include "resync_fixture.h"

namespace {

TEST_F(DalResync, DeliversNothingWhenNothingWasMissed) {
    redis("SET /a/1 one");
    redis("HSET /a/2 f v");
    follow("/a/*");
    EXPECT_EQ(compare(), Texts{});
    redis("SET /a/3 three");
    redis("HSET /a/2 g w");
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, DeliversWhatChangedWhileTheFlagsWereOff) {
    redis("MSET /a/same s /a/changed c /a/deleted d");
    redis("HSET /a/hash f v g w");
    redis("HSET /a/hash_same f v");
    follow("/a/*");
    unnoticed({"SET /a/changed d", "DEL /a/deleted", "SET /a/new n", "HSET /a/hash f w", "HSET /a/hash_new f v",
               "SET /b/other x"});
    EXPECT_EQ(compare(), (Texts{"/a/changed set", "/a/deleted del", "/a/hash hset", "/a/hash_new hset", "/a/new set"}));
    EXPECT_EQ(compare(), Texts{}) << "once";
}

TEST_F(DalResync, SwitchesTheFlagsOnAgain) {
    follow("/a/*");
    unnoticed({});
    compare();
    EXPECT_EQ(redis("CONFIG GET notify-keyspace-events"), "[notify-keyspace-events, g$hxeK]");
    EXPECT_TRUE(loop::logged("6 <DAL>: setting notify-keyspace-events to Kg$hxe"));
    redis("SET /a/k v");
    EXPECT_TRUE(run_until_delivered(1));
}

TEST_F(DalResync, DeliversWhatWasMissedInALoss) {
    redis("MSET /a/same s /a/changed c /a/deleted d /a/other o");
    follow("/a/*");
    lose();
    redis("SET /a/changed d");
    redis("DEL /a/deleted");
    redis("HSET /a/new f v");
    EXPECT_EQ(come_back(), (Texts{"/a/changed set", "/a/deleted del", "/a/new hset"}));
}

TEST_F(DalResync, DeliversWhatARestartWithOtherDataChanged) {
    redis("MSET /a/same s /a/changed c /a/deleted d");
    follow("/a/*");
    redis.kill();
    ASSERT_TRUE(run_until_lost());
    redis.start();
    redis("MSET /a/same s /a/changed d /a/new n");
    EXPECT_EQ(come_back(), (Texts{"/a/changed set", "/a/deleted del", "/a/new set"}));
}

TEST_F(DalResync, AFirstConnectionThatComesLaterThanTheSubscriptionDeliversAll) {
    redis("MSET /a/1 x /a/2 y");
    redis("HSET /a/3 f v");
    redis("SAVE");
    redis.kill();
    open();
    ASSERT_EQ(subscribe("__keyspace@0__:/a/*"), -1);
    redis.start();
    EXPECT_EQ(come_back(), (Texts{"/a/1 set", "/a/2 set", "/a/3 hset"}));
    unlink("/tmp/dump.rdb");
}

TEST_F(DalResync, WhatTheFirstReadingCouldNotReadIsDeliveredAtOnceAndItsEndToo) {
    redis("MSET /a/1 x /a/2 y");
    redis("ACL SETUSER default -mget");
    follow("/a/*");
    ASSERT_TRUE(run_until_delivered(2)) << "before the next minute";
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(told(), (Texts{"/a/1 set", "/a/2 set"}));
    unnoticed({"DEL /a/1"});
    EXPECT_EQ(compare(), Texts{"/a/1 del"});
}

TEST_F(DalResync, AStringThatBecameAHashWithTheSameBytesIsDifferent) {
    redis("SET /a/k v");
    redis("HSET /a/h k v");
    follow("/a/*");
    unnoticed({"DEL /a/k /a/h", "HSET /a/k k v", "SET /a/h v"});
    EXPECT_EQ(compare(), (Texts{"/a/h set", "/a/k hset"}));
}

TEST_F(DalResync, AKeyOfAnotherTypeIsNotThere) {
    redis("MSET /a/k v /a/l v");
    redis("RPUSH /a/list v");
    follow("/a/*");
    unnoticed({"DEL /a/k", "RPUSH /a/k v", "SADD /a/set v"});
    EXPECT_EQ(compare(), Texts{"/a/k del"});
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, ExpiredKeysAreDeliveredAsDel) {
    redis("SET /a/k v PX 20");
    redis("SET /a/l v");
    follow("/a/*");
    unnoticed({});
    loop::run_until([this] { return redis("EXISTS /a/k") == "0"; });
    EXPECT_EQ(compare(), Texts{"/a/k del"});
}

TEST_F(DalResync, APatternWithoutGlobIsKnownFromTheStart) {
    redis("SET /a/k v");
    follow("/a/k");
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SET /a/k w", "SET /a/kk w"});
    EXPECT_EQ(compare(), Texts{"/a/k set"});
}

TEST_F(DalResync, WhatStandsAtTheFirstSubscriptionIsKnownAndAChangeRightBehindItIsSeen) {
    redis("SET /a/k v");
    redis.run({"CONFIG", "SET", "notify-keyspace-events", "KA"});
    follow("/a/*");
    unnoticed({"SET /a/k w"});
    EXPECT_EQ(compare(), Texts{"/a/k set"});
}

TEST_F(DalResync, KeysOfEachPatternAreDeliveredToEach) {
    redis("SET /a/k v");
    redis("SET /a/l v");
    follow("/a/*", "wide");
    follow("/a/k", "narrow");
    unnoticed({"SET /a/k w"});
    ASSERT_EQ(compare(), (Texts{"/a/k set", "/a/k set"}));
    EXPECT_NE(delivered[0].subscriber, delivered[1].subscriber);
}

TEST_F(DalResync, WhatOneSubscriberReadsAnotherHasNotSeen) {
    redis("MSET /a/k v /a/l v");
    follow("/a/*", "reads", read_string);
    follow("/a/k", "does not");
    unnoticed({"SET /a/k w"});
    EXPECT_EQ(compare(), (Texts{"/a/k set", "/a/k set"}));
    unnoticed({"SET /a/k x"});
    EXPECT_EQ(get("/a/k"), "x") << "whoever that was";
    EXPECT_EQ(compare(), (Texts{"/a/k set", "/a/k set"}));
}

TEST_F(DalResync, ManyKeysAreComparedAndAllDifferencesFound) {
    for (int i = 0; i < 3000; i++)
        redis("SET /a/" + std::to_string(i) + " v");
    follow("/a/*");
    redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
    Texts wanted;
    for (int i = 0; i < 3000; i += 3) {
        redis("SET /a/" + std::to_string(i) + " w");
        wanted.push_back("/a/" + std::to_string(i) + " set");
    }
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(compare(), wanted);
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, ACallbackThatReadsByItselfCostsNoFurtherReadFromTheSecondDeliveryOn) {
    follow("/a/*", "a", read_string);
    redis("SET /a/1 long_value");
    ASSERT_TRUE(run_until_delivered(1));
    const int before = calls("get");
    redis("SET /a/1 long_value_2");
    redis("SET /a/2 v");
    ASSERT_TRUE(run_until_delivered(3));
    EXPECT_EQ(calls("get"), before + 2) << "the callback's own";
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SET /a/1 long_value_3"});
    EXPECT_EQ(compare(), Texts{"/a/1 set"}) << "the buffer cuts it, the digest is of the whole";
}

TEST_F(DalResync, ACallbackThatReadsNothingHasItsKeysReadForIt) {
    follow("/a/*");
    redis("SET /a/s v");
    redis("HSET /a/h f v");
    redis("EXPIRE /a/h 100");
    redis("APPEND /a/s w");
    ASSERT_TRUE(run_until_delivered(4));
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SET /a/s v", "HSET /a/h f w"});
    EXPECT_EQ(compare(), (Texts{"/a/h hset", "/a/s set"}));
}

/** Reads by itself only keys that begin so. */
void read_some(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    if (strstr(reply->element[2]->str, "/read"))
        read_string(ctx, reply, arg);
    else
        record(ctx, reply, arg);
}

TEST_F(DalResync, ACallbackThatReadsSomeKeysOnlyIsToldOneTimeTooManyAtMost) {
    follow("/a/*", "a", read_some);
    const auto change = [this](const std::string &value) {
        for (const char *key : {"/a/read", "/a/other"}) {
            delivered.clear();
            redis.run({"SET", key, value});
            ASSERT_TRUE(run_until_delivered(1));
        }
    };
    for (int i = 0; i < 4; i++)
        change("v" + std::to_string(i));
    compare();
    for (int i = 0; i < 4; i++)
        change("w" + std::to_string(i));
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, AnEventThatSubscribersDoNotUnderstandIsMadeUpFor) {
    redis("SET /a/f 1");
    follow("/a/*");
    redis("INCRBYFLOAT /a/f 0.5");
    redis("HINCRBY /a/h n 1");
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(compare(), (Texts{"/a/f set", "/a/h hset"}));
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, ADeletedKeyThatIsNotThereAgainIsForgottenAndOneThatIsIsDelivered) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*", "a", read_string);
    redis("DEL /a/1 /a/2");
    unnoticed({"SET /a/1 v"});
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(compare(), Texts{"/a/1 set"}) << "though its value is what it was, and the callback of del has read it";
}

TEST_F(DalResync, AKeyThatWasGoneWhenItsSettingWasDeliveredIsStillKnown) {
    follow("/a/*", "a", read_string);
    redis("SET /a/0 v");
    ASSERT_TRUE(run_until_delivered(1));
    redis("SET /a/1 v");
    unnoticed({"DEL /a/1"});
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(compare(), Texts{"/a/1 del"});
}

TEST_F(DalResync, ReadsOutsideADeliveryCountForTheOnePatternOfTheKey) {
    redis("MSET /a/1 v /a/2 v /a/3 v");
    redis("HSET /a/h f v");
    follow("/a/*");
    unnoticed({"SET /a/1 w", "SET /a/2 w", "HSET /a/h f w"});
    EXPECT_EQ(get("/a/1"), "w");
    EXPECT_EQ(mget("/a/[23]"), (Texts{"/a/2=w", "/a/3=v"}));
    dal_hash_request request{"/a/h", nullptr};
    EXPECT_EQ(dal_hgetall(ctx, &request), 0);
    dal_free_slist(request.kvlist);
    ListDestroy(request.kvlist);
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, AReadOfANewKeyDoesNotMakeItKnown) {
    follow("/a/*");
    unnoticed({"SET /a/1 v"});
    EXPECT_EQ(get("/a/1"), "v");
    EXPECT_EQ(compare(), Texts{"/a/1 set"});
}

TEST_F(DalResync, AKeyThatWasReadBeforeItWasToldIsDeliveredWhenItIsGone) {
    redis("SET /a/0 v");
    follow("/a/*");
    unnoticed({"SET /a/1 v", "SET /a/2 v", "HSET /a/h f v"});
    EXPECT_EQ(get("/a/1"), "v");
    EXPECT_EQ(mget("/a/2"), Texts{"/a/2=v"});
    dal_hash_request request{"/a/h", nullptr};
    EXPECT_EQ(dal_hgetall(ctx, &request), 0);
    dal_free_slist(request.kvlist);
    ListDestroy(request.kvlist);
    EXPECT_EQ(get("/a/3"), "(failed)");
    unnoticed({"DEL /a/1", "DEL /a/2", "DEL /a/h"});
    EXPECT_EQ(compare(), (Texts{"/a/1 del", "/a/2 del", "/a/h del"}));
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalResync, AReadOfOneFieldIsNoReadOfTheKey) {
    redis("HSET /a/h f v g w");
    follow("/a/*");
    unnoticed({"HSET /a/h g x"});
    char value[8];
    uint32_t length = sizeof value;
    EXPECT_EQ(dal_hget(ctx, "/a/h", "f", value, &length), 0);
    EXPECT_EQ(compare(), Texts{"/a/h hset"});
}

TEST_F(DalResync, SubscribingAgainKeepsWhatIsKnown) {
    redis("MSET /a/1 v /a/2 v");
    follow("/a/*");
    unnoticed({"SET /a/1 w", "DEL /a/2"});
    follow("/a/*", "b");
    EXPECT_EQ(compare(), (Texts{"/a/1 set", "/a/2 del"}));
    EXPECT_EQ(delivered[0].subscriber, "b");
}

TEST_F(DalResync, OfASubscriptionThatFailedNothingIsKnown) {
    redis("SET /a/1 v");
    open();
    redis.freeze();
    EXPECT_EQ(subscribe("__keyspace@0__:/a/*"), -1);
    redis.thaw();
    EXPECT_EQ(come_back(), Texts{"/a/1 set"});
}

TEST_F(DalResync, OfARefusedSubscriptionNothingIsKnownAndAllIsDeliveredOnceItIsAccepted) {
    redis("SET /a/1 v");
    open();
    redis("ACL SETUSER default resetchannels &__redis__:invalidate");
    EXPECT_EQ(subscribe("__keyspace@0__:/a/*"), -1);
    EXPECT_EQ(compare(), Texts{}) << "what is not subscribed to is not compared";
    redis("ACL SETUSER default allchannels");
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(told(), Texts{"/a/1 set"});
}

TEST_F(DalResync, KeysWithNulAndForeignKeysAreLeftAlone) {
    follow("/a/*");
    redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
    redis.run({"SET", std::string("/a/x\0y", 6), "v"});
    redis("SET /b/1 v");
    EXPECT_EQ(compare(), Texts{});
    EXPECT_FALSE(loop::logged("a key with a NUL"));
}

TEST_F(DalResync, OtherChannelsHaveNone) {
    open();
    ASSERT_EQ(subscribe("__keyevent@0__:set"), 0);
    ASSERT_EQ(subscribe("p:*"), 0);
    redis("SET k v");
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(calls("info"), 0) << "nothing was compared";
}

TEST_F(DalResync, AContextThatMayNotReadComparesNothing) {
    open(DAL_CTX_SUBSCRIBE);
    ASSERT_EQ(subscribe("__keyspace@0__:/a/*"), 0);
    unnoticed({"SET /a/1 v"});
    EXPECT_EQ(compare(), Texts{});
}

}  // namespace
