#include "fixture.h"
#include "linux/dal/context.h"

namespace {

using All = std::vector<Delivered>;

class DalEvent : public DalTest {
protected:
    void SetUp() override {
        DalTest::SetUp();
        open();
        ASSERT_NE(ctx, nullptr);
    }

    void follow(const std::string &keys) { ASSERT_EQ(subscribe("__keyspace@0__:" + keys), 0); }

    /** Event texts delivered for one key once `count` deliveries are there, and nothing more follows. */
    std::vector<std::string> events_of(const std::string &key, size_t count) {
        EXPECT_TRUE(run_until_delivered(count));
        EXPECT_EQ(subscribe("nothing"), 0) << "by then whatever was sent has arrived";
        loop::drain();
        EXPECT_EQ(delivered.size(), count);
        std::vector<std::string> events;
        for (const Delivered &each : delivered)
            if (each.channel == "__keyspace@0__:" + key)
                events.push_back(each.data);
        return events;
    }
};

using Events = std::vector<std::string>;

TEST_F(DalEvent, WrittenAndDeletedKeysAreDeliveredAsTheyAre) {
    follow("*");
    redis("SET k v");
    redis("APPEND k w");
    redis("EXPIRE k 100");
    redis("DEL k");
    redis("HSET k f v g v");
    redis("HDEL k f");
    EXPECT_EQ(events_of("k", 6), (Events{"set", "append", "expire", "del", "hset", "hdel"}));
}

/** More than is delivered one by one. */
constexpr size_t kBurst = 100;

TEST_F(DalEvent, InABurstWhatIsSaidOfAKeySeveralTimesIsDeliveredOnceInTheLastPlace) {
    follow("*");
    for (size_t i = 0; i < kBurst; i++)
        redis("SET filler" + std::to_string(i) + " v");
    for (const char *command :
         {"SET k 1", "SET other 1", "DEL k", "SET k 2", "SET k 3", "APPEND k 4", "DEL k", "SET k 5"})
        redis(command);
    ASSERT_EQ(subscribe("x"), 0) << "by then all have been received";
    ASSERT_TRUE(run_until_delivered(kBurst + 4));
    loop::drain();
    All wanted;
    for (const auto &[key, event] : std::vector<std::pair<std::string, std::string>>{
             {"other", "set"}, {"k", "append"}, {"k", "del"}, {"k", "set"}})
        wanted.push_back({"a", "__keyspace@0__:*", "__keyspace@0__:" + key, event});
    ASSERT_EQ(delivered.size(), kBurst + 4);
    EXPECT_EQ(All(delivered.begin() + kBurst, delivered.end()), wanted);
    EXPECT_EQ(ctx->waiting.bytes, 0U);
}

TEST_F(DalEvent, WhatWasDeliveredIsDeliveredAgainWhenItIsSaidAgain) {
    follow("k");
    for (size_t i = 1; i <= 3; i++) {
        redis("SET k v");
        ASSERT_TRUE(run_until_delivered(i));
    }
}

TEST_F(DalEvent, AFewAreDeliveredAsOftenAsTheyCome) {
    follow("*");
    for (int i = 0; i < 20; i++)
        redis("SET k v");
    ASSERT_EQ(subscribe("x"), 0) << "by then all have been received";
    EXPECT_TRUE(run_until_delivered(20));
}

TEST_F(DalEvent, InABurstSeveralPatternsAreEachToldOnce) {
    follow("*");
    follow("k");
    for (size_t i = 0; i < kBurst; i++)
        redis("SET filler" + std::to_string(i) + " v");
    redis("SET k 1");
    redis("SET k 2");
    ASSERT_EQ(subscribe("x"), 0);
    ASSERT_TRUE(run_until_delivered(kBurst + 2));
    loop::drain();
    ASSERT_EQ(delivered.size(), kBurst + 2);
    EXPECT_NE(delivered[kBurst].pattern, delivered[kBurst + 1].pattern);
}

TEST_F(DalEvent, PublicationsAreDeliveredAsOftenAsTheyCome) {
    ASSERT_EQ(subscribe("/ipc/*"), 0);
    for (int i = 0; i < 3; i++)
        redis("PUBLISH /ipc/x same");
    ASSERT_EQ(subscribe("x"), 0);
    EXPECT_TRUE(run_until_delivered(3));
}

TEST_F(DalEvent, AFloodOfManyKeysIsDeliveredWithoutLossOrGrowth) {
    follow("*");
    for (int i = 0; i < 6000; i++)
        redis("SET k" + std::to_string(i % 3000) + " v");
    ASSERT_EQ(subscribe("x"), 0) << "by then all have been received";
    ASSERT_TRUE(run_until_delivered(3000));
    loop::drain();
    EXPECT_EQ(delivered.size(), 3000U);
    EXPECT_EQ(ctx->waiting.bytes, 0U);
}

TEST_F(DalEvent, ExpiredIsDeliveredAsDel) {
    follow("k");
    redis("SET k v PX 1");
    EXPECT_EQ(events_of("k", 3), (Events{"set", "expire", "del"}));
}

TEST_F(DalEvent, EvictedIsDeliveredAsDel) {
    redis.run({"SET", "/e/k", std::string(1000, 'v')});
    follow("/e/*");
    redis("CONFIG SET maxmemory-policy allkeys-random");
    redis("CONFIG SET maxmemory 1");
    redis("SET other v");
    redis("CONFIG SET maxmemory 0");
    EXPECT_EQ(events_of("/e/k", 1), Events{"del"});
}

TEST_F(DalEvent, RenamingAStringIsDeliveredAsDelAndSet) {
    redis("SET old v");
    follow("*");
    redis("RENAME old new");
    ASSERT_EQ(events_of("old", 2), Events{"del"});
    EXPECT_EQ(events_of("new", 2), Events{"set"});
}

TEST_F(DalEvent, RenamingAHashIsDeliveredAsDelAndHset) {
    redis("HSET old f v");
    follow("*");
    redis("RENAME old new");
    ASSERT_EQ(events_of("old", 2), Events{"del"});
    EXPECT_EQ(events_of("new", 2), Events{"hset"});
}

TEST_F(DalEvent, MovingAwayIsDeliveredAsDel) {
    redis("SET k v");
    follow("*");
    redis("MOVE k 1");
    EXPECT_EQ(events_of("k", 1), Events{"del"});
}

TEST_F(DalEvent, MovingInIsDeliveredByTheKeysType) {
    redis("SELECT 1");
    redis("SET s v");
    redis("HSET h f v");
    follow("*");
    redis("MOVE s 0");
    redis("MOVE h 0");
    ASSERT_EQ(events_of("s", 2), Events{"set"});
    EXPECT_EQ(events_of("h", 2), Events{"hset"});
}

TEST_F(DalEvent, CopyingIsDeliveredByTheKeysType) {
    redis("SET s v");
    redis("HSET h f v");
    follow("*2");
    redis("COPY s s2");
    redis("COPY h h2");
    ASSERT_EQ(events_of("s2", 2), Events{"set"});
    EXPECT_EQ(events_of("h2", 2), Events{"hset"});
}

TEST_F(DalEvent, RestoringIsDeliveredByTheKeysType) {
    redis("SET s v");
    redis("HSET h f v");
    const std::string string_dump = redis("DUMP s");
    const std::string hash_dump = redis("DUMP h");
    follow("*2");
    redis.run({"RESTORE", "s2", "0", string_dump});
    redis.run({"RESTORE", "h2", "0", hash_dump});
    ASSERT_EQ(events_of("s2", 2), Events{"set"});
    EXPECT_EQ(events_of("h2", 2), Events{"hset"});
}

TEST_F(DalEvent, OtherTypesKeepTheEventsName) {
    redis("RPUSH old v");
    follow("new");
    redis("RENAME old new");
    EXPECT_EQ(events_of("new", 1), Events{"rename_to"});
}

TEST_F(DalEvent, OnlyKeyspaceEventsAreRewritten) {
    ASSERT_EQ(subscribe("/ipc/*"), 0);
    redis("PUBLISH /ipc/x expired");
    EXPECT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered[0].data, "expired");
}

TEST_F(DalEvent, AKeyWithNulIsNotDeliveredAndLogged) {
    follow("/n/*");
    redis.run({"SET", std::string("/n/a\0b", 6), "v"});
    redis("SET /n/c v");
    EXPECT_EQ(events_of("/n/c", 1), Events{"set"});
    EXPECT_EQ(loop::log_count("a key with a NUL in it is not delivered"), 1U);
    EXPECT_TRUE(loop::logged("3 <DAL>: a key with a NUL in it is not delivered; it begins __keyspace@0__:/n/a"));
}

TEST_F(DalEvent, AServerLostWhileATypeIsAskedForHoldsTheNotification) {
    redis("HSET old f v");
    follow("new");
    redis("RENAME old new");
    ASSERT_EQ(subscribe("x"), 0) << "the notification waits now";
    redis.freeze();
    loop::advance(10);
    ASSERT_TRUE(run_until_lost());
    EXPECT_TRUE(delivered.empty());
    redis.thaw();
    ASSERT_TRUE(run_until_back());
    EXPECT_EQ(events_of("new", 2), (Events{"hset", "hset"}))
        << "its value was not read for it: the comparison tells it";
}

TEST(DalNotifyType, KnowsTheListedTexts) {
    EXPECT_EQ(dal_keyspace_notify_type("set"), 1);
    EXPECT_EQ(dal_keyspace_notify_type("del"), 2);
    EXPECT_EQ(dal_keyspace_notify_type("append"), 3);
    EXPECT_EQ(dal_keyspace_notify_type("setrange"), 3);
    EXPECT_EQ(dal_keyspace_notify_type("incrby"), 3);
    EXPECT_EQ(dal_keyspace_notify_type("expire"), 4);
    EXPECT_EQ(dal_keyspace_notify_type("hset"), 9);
    EXPECT_EQ(dal_keyspace_notify_type("hdel"), 10);
}

TEST(DalNotifyType, GivesZeroForAnythingElse) {
    for (const char *text : {"", "SET", "sets", "se", "expired", "hincrby", "rename_to", " set"})
        EXPECT_EQ(dal_keyspace_notify_type(text), 0) << text;
    EXPECT_EQ(dal_keyspace_notify_type(nullptr), 0);
}

}  // namespace
