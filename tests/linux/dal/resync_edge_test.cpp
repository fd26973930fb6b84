/* Comparisons and deliveries at the edges: what is too large, of another type, or swept away meanwhile. */
#include "linux/dal/context.h"
#include "resync_fixture.h"

namespace {

class DalEdge : public DalResync {
protected:
    /** Takes losses as they come until so much has been delivered. */
    bool run_through_losses_until_delivered(size_t count, int most) {
        for (int i = 0; i < most && delivered.size() < count; i++) {
            loop::advance(10000);
            loop::run_until([this, count] { return delivered.size() >= count || ctx->state == dal::State::up; });
            loop::run_until([this, count] { return delivered.size() >= count || ctx->state == dal::State::lost; });
        }
        return delivered.size() >= count;
    }

    void fill(int count, const std::string &prefix) {
        redis.run({"EVAL", "for i = 1, ARGV[1] do redis.call('SET', KEYS[1] .. i, 'v') end", "1", prefix,
                   std::to_string(count)});
    }
};

TEST_F(DalEdge, AValueThatIsTooLargeToBeReadKeepsNothingBehindItFromDelivery) {
    redis("CONFIG SET proto-max-bulk-len 64mb");
    follow("/a/*");
    redis("SETRANGE /a/big 20000000 x");
    EXPECT_TRUE(run_through_losses_until_delivered(1, 4));
    redis("SET /a/1 v");
    EXPECT_TRUE(run_until_delivered(2));
    EXPECT_EQ(told(), (Texts{"/a/1 set", "/a/big setrange"}));
    EXPECT_EQ(losses, 1);
}

/** Reads when a value was set, and takes a lifetime for no change. */
void read_at_set(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    if (strcmp(reply->element[3]->str, "set") == 0)
        read_string(ctx, reply, arg);
    else
        record(ctx, reply, arg);
}

TEST_F(DalEdge, ALifetimeIsNoChangeOfTheValue) {
    follow("/a/*", "a", read_at_set);
    for (size_t i = 1; i <= 3; i++) {
        redis("SETEX /a/1 1000 v" + std::to_string(i));
        ASSERT_TRUE(run_until_delivered(2));
        EXPECT_EQ(told(), (Texts{"/a/1 expire", "/a/1 set"}));
        EXPECT_EQ(compare(), Texts{});
    }
    unnoticed({"SETEX /a/1 1000 w"});
    EXPECT_EQ(compare(), Texts{"/a/1 set"});
}

TEST_F(DalEdge, ACallbackThatReadsAKeyAsWhatItIsNotIsNotToldAgainAndAgain) {
    redis("HSET /a/h f v");
    follow("/a/*", "a", read_string);
    redis("HSET /a/h f w");
    ASSERT_TRUE(run_until_delivered(1));
    compare();
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"HSET /a/h f x"});
    EXPECT_EQ(compare(), Texts{"/a/h hset"});
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"DEL /a/h", "SET /a/h v"});
    EXPECT_EQ(compare(), Texts{"/a/h set"});
    EXPECT_EQ(compare(), Texts{});
}

void read_hash(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    dal_hash_request request{};
    snprintf(request.key, sizeof request.key, "%s", reply->element[2]->str + strlen("__keyspace@0__:"));
    dal_hgetall(ctx, &request);
    if (request.kvlist) {
        dal_free_slist(request.kvlist);
        ListDestroy(request.kvlist);
    }
    record(ctx, reply, arg);
}

TEST_F(DalEdge, ACallbackThatReadsAStringAsAHashIsNotToldAgainAndAgain) {
    redis("SET /a/s v");
    follow("/a/*", "a", read_hash);
    redis("SET /a/s w");
    redis("HSET /a/h f v");
    ASSERT_TRUE(run_until_delivered(2));
    compare();
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalEdge, AKeyOfAnotherTypeThanItsEventToldOfIsToldAsWhatItIs) {
    follow("/a/*");
    redis("SET /a/1 v");
    redis("HSET /a/2 f v");
    unnoticed({"DEL /a/1 /a/2", "HSET /a/1 f v", "SET /a/2 v"});
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(told(), (Texts{"/a/1 set", "/a/2 hset"}));
    EXPECT_EQ(compare(), (Texts{"/a/1 hset", "/a/2 set"}));
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalEdge, AReadOfAKeyWithNulMakesNothingKnown) {
    redis("SET /a/0 v");
    redis.run({"SET", std::string("/a/1\0x", 6), "v"});
    follow("/a/*");
    EXPECT_EQ(get(std::string("/a/1\0x", 6)), "v");
    EXPECT_EQ(compare(), Texts{});
}

TEST_F(DalEdge, MoreKeysGoneThanThereIsRoomForAreDeliveredAfterOneTime) {
    constexpr int kKeys = 25000;
    const std::string prefix = "/a/" + std::string(120, 'x');
    fill(kKeys, prefix);
    follow("/a/*");
    redis("FLUSHALL");
    ASSERT_TRUE(loop::run_until([] { return loop::logged("are gone; looking again"); }));
    loop::advance(10000);
    ASSERT_TRUE(run_until_delivered(1));
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(delivered.size(), static_cast<size_t>(kKeys)) << testing::PrintToString(loop::log_lines);
    EXPECT_EQ(loop::log_count("are gone; looking again"), 1U);
}

TEST_F(DalEdge, AFlushDuringAComparisonIsNotTakenForSomeKeysGone) {
    fill(3000, "/a/");
    follow("/a/*");
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.walk.cursor.steps >= 3; }));
    redis("FLUSHALL");
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(delivered.size(), 0U) << "others are about to fill the store again";
    fill(3000, "/a/");
    redis("DEL /a/7");
    loop::run_until([] { return delivered.size() >= 3001; }, 2000);
    ASSERT_TRUE(run_until_compared());
    delivered.clear();
    loop::advance(10000);
    loop::drain();
    ASSERT_TRUE(run_until_compared());
    EXPECT_EQ(told(), Texts{});
}

/** Without tracking, which would tell of a flush. */
class DalSilentFlush : public DalEdge {
protected:
    void expect_no_key_taken_away_by(const std::string &command) {
        redis("ACL SETUSER default -client|id");
        fill(3000, "/a/");
        follow("/a/*");
        ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
        ASSERT_TRUE(loop::run_until([this] { return ctx->audit.walk.cursor.steps >= 3; }));
        redis(command);
        ASSERT_TRUE(run_until_compared());
        EXPECT_TRUE(delivered.empty());
        EXPECT_TRUE(loop::logged("all 3000 keys of __keyspace@0__:/a/* are gone; looking again"));
    }
};

TEST_F(DalSilentFlush, DuringAComparisonIsNotTakenForSomeKeysGone) {
    expect_no_key_taken_away_by("FLUSHALL");
}

TEST_F(DalSilentFlush, BySwapdbDuringAComparisonIsNotTakenForSomeKeysGone) {
    expect_no_key_taken_away_by("SWAPDB 0 1");
}

TEST_F(DalEdge, AFlushWhileFindingsWaitTakesNothingAway) {
    fill(300, "/a/");
    follow("/a/*");
    redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
    for (int i = 1; i <= 100; i++)
        redis("SET /a/" + std::to_string(i) + " w");
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    ASSERT_TRUE(run_until_delivered(1));
    redis("FLUSHALL");
    ASSERT_TRUE(run_until_compared());
    for (const std::string &text : told())
        EXPECT_TRUE(text.ends_with(" set")) << text;
    EXPECT_TRUE(loop::logged("all 300 keys of __keyspace@0__:/a/* are gone"));
}

/** Calls everything that a callback may call. */
void call_everything(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    read_string(ctx, reply, arg);
    static char other[] = "other";
    EXPECT_EQ(dal_sub_command(ctx, record, other, "PSUBSCRIBE __keyspace@0__:/b/*"), 0);
    EXPECT_EQ(dal_sub_command(ctx, call_everything, arg, "PSUBSCRIBE __keyspace@0__:/a/*"), 0);
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    char value[8];
    uint32_t length = sizeof value;
    dal_get(ctx, "/b/1", 4, value, &length);
}

TEST_F(DalEdge, ACallbackMayCallEverything) {
    redis("MSET /a/1 v /a/2 v /a/3 v /b/1 v");
    follow("/a/*", "a", call_everything);
    unnoticed({"MSET /a/1 w /a/2 w", "DEL /a/3"});
    EXPECT_EQ(compare(), (Texts{"/a/1 set", "/a/2 set", "/a/3 del"}));
    EXPECT_EQ(compare(), Texts{});
    unnoticed({"SET /b/1 w"});
    EXPECT_EQ(compare(), Texts{"/b/1 set"});
    EXPECT_EQ(compare(), Texts{});
}

}  // namespace
