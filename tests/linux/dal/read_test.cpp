
#include <signal.h>
#include <sys/time.h>

#include "fixture.h"
#include "linux/clock.h"
#include "linux/dal/context.h"

namespace {

using Texts = std::vector<std::string>;

class DalRead : public DalTest {
protected:
    void SetUp() override {
        DalTest::SetUp();
        open();
        ASSERT_NE(ctx, nullptr);
    }

    /** HGETALL as "field=value" texts; "(no list)", or "(failed)". */
    std::string hgetall(const std::string &key) {
        dal_hash_request request{};
        snprintf(request.key, sizeof request.key, "%s", key.c_str());
        if (dal_hgetall(ctx, &request) != 0) {
            EXPECT_EQ(request.kvlist, nullptr);
            return "(failed)";
        }
        if (!request.kvlist)
            return "(no list)";
        std::string text;
        ListGet(request.kvlist, LIST_REWIND);
        while (const auto *entry = static_cast<const dal_kv *>(ListGet(request.kvlist, LIST_NEXT)))
            text += std::string(entry->key, entry->key_len) + "=" + std::string(entry->value, entry->value_len) + ";";
        dal_free_slist(request.kvlist);
        ListDestroy(request.kvlist);
        return text;
    }

    std::string hget(const std::string &key, const std::string &field, uint32_t size) {
        std::string value(size, '#');
        uint32_t length = size;
        if (dal_hget(ctx, key.c_str(), field.c_str(), value.data(), &length) != 0) {
            EXPECT_EQ(length, size);
            return "(failed)";
        }
        return value.substr(0, length);
    }
};

const std::string kWithNul("a\0b\0", 4);

TEST_F(DalRead, GetCopiesTheValueAndItsLength) {
    redis("SET k value");
    EXPECT_EQ(get("k"), "value");
}

TEST_F(DalRead, GetCutsAtTheGivenLengthAndWritesNothingBehindIt) {
    redis("SET k value");
    char buffer[8] = "#######";
    uint32_t length = 3;
    EXPECT_EQ(dal_get(ctx, "k", 1, buffer, &length), 0);
    EXPECT_EQ(length, 3U);
    EXPECT_STREQ(buffer, "val####");
}

TEST_F(DalRead, GetKeepsNulBytesOfTheValue) {
    redis.run({"SET", "k", kWithNul});
    EXPECT_EQ(get("k"), kWithNul);
}

TEST_F(DalRead, GetTakesAnEmptyValue) {
    redis.run({"SET", "k", ""});
    EXPECT_EQ(get("k"), "");
}

TEST_F(DalRead, GetOfNoLengthCopiesNothing) {
    redis("SET k value");
    uint32_t length = 0;
    EXPECT_EQ(dal_get(ctx, "k", 1, nullptr, &length), 0);
    EXPECT_EQ(length, 0U);
}

TEST_F(DalRead, GetUsesTheKeyLengthGiven) {
    redis("SET k value");
    uint32_t length = 5;
    char buffer[5];
    EXPECT_EQ(dal_get(ctx, "kxyz", 1, buffer, &length), 0);
}

TEST_F(DalRead, GetFailsForAMissingKeyAndLeavesTheLength) {
    EXPECT_EQ(get("k"), "(failed)");
}

TEST_F(DalRead, GetFailsForAHashAndLogsTheReason) {
    redis("HSET k f v");
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_EQ(loop::log_lines.back(),
              "4 <DAL>: GET k: WRONGTYPE Operation against a key holding the wrong kind of value");
    EXPECT_EQ(get("k"), "(failed)") << "the connection goes on";
    EXPECT_EQ(losses, 0);
}

TEST_F(DalRead, KeysWithGlobCharactersBlanksAndPercentsAreTakenAsTheyAre) {
    for (const char *key : {"/x/{10.0.0.0:255.0.0.0:1:[*?]}", "a b", "%s%n", "\r\n", "\xff\xfe"}) {
        redis.run({"SET", key, key});
        EXPECT_EQ(get(key), key);
        EXPECT_TRUE(exists(key));
    }
    EXPECT_FALSE(exists("/x/*"));
}

TEST_F(DalRead, LongKeysAndValuesAreTaken) {
    const std::string key(100000, 'k');
    const std::string value(3000000, 'v');
    redis.run({"SET", key, value});
    EXPECT_EQ(get(key, 4000000), value);
}

TEST_F(DalRead, HgetReadsOneField) {
    redis.run({"HSET", "k", "f", kWithNul, "g", "value"});
    EXPECT_EQ(hget("k", "f", 9), kWithNul);
    EXPECT_EQ(hget("k", "g", 3), "val");
}

TEST_F(DalRead, HgetFailsForAMissingFieldKeyOrAString) {
    redis("HSET k f v");
    redis("SET s v");
    EXPECT_EQ(hget("k", "g", 9), "(failed)");
    EXPECT_EQ(hget("l", "f", 9), "(failed)");
    EXPECT_EQ(hget("s", "f", 9), "(failed)");
}

TEST_F(DalRead, HgetallReadsAllFields) {
    redis.run({"HSET", "k", "f", kWithNul, "g", ""});
    EXPECT_EQ(hgetall("k"), "f=" + kWithNul + ";g=;");
}

TEST_F(DalRead, HgetallOfAMissingKeySucceedsWithoutAList) {
    EXPECT_EQ(hgetall("k"), "(no list)");
}

TEST_F(DalRead, HgetallOfAStringFails) {
    redis("SET k v");
    EXPECT_EQ(hgetall("k"), "(failed)");
}

TEST_F(DalRead, ExistsTellsKeysOfAnyType) {
    redis("SET s v");
    redis("HSET h f v");
    EXPECT_TRUE(exists("s"));
    EXPECT_TRUE(exists("h"));
    EXPECT_FALSE(exists("x"));
}

TEST_F(DalRead, ScanGivesEachMatchingKeyOnceAndSorted) {
    for (const char *key : {"/p/b", "/p/a", "/q/a", "/p/c*", "/p/"})
        redis.run({"SET", key, "v"});
    redis("HSET /p/h f v");
    EXPECT_EQ(scan("/p/*"), (Texts{"/p/", "/p/a", "/p/b", "/p/c*", "/p/h"}));
    EXPECT_EQ(scan("/none/*"), Texts{});
}

TEST_F(DalRead, ScanAddsBehindWhatTheListHolds) {
    redis("SET b v");
    List *list = ListCreate();
    EXPECT_EQ(dal_scan(ctx, "b", list), 0);
    EXPECT_EQ(dal_scan(ctx, "b", list), 0);
    EXPECT_EQ(ListCount(list), 2U);
    dal_free_slist(list);
    ListDestroy(list);
}

TEST_F(DalRead, ScanWalksManyKeysWithoutKeys) {
    std::vector<std::string> command = {"MSET"};
    for (int i = 0; i < 5000; i++) {
        command.push_back("many:" + std::to_string(i));
        command.push_back("v");
    }
    redis.run(command);
    EXPECT_EQ(scan("many:*").size(), 5000U);
    EXPECT_NE(redis("INFO commandstats").find("cmdstat_scan:"), std::string::npos);
    EXPECT_EQ(redis("INFO commandstats").find("cmdstat_keys:"), std::string::npos);
}

TEST_F(DalRead, MgetReadsManyStringsInBatches) {
    for (int i = 0; i < 300; i++)
        redis.run({"SET", "m" + std::to_string(1000 + i), "v" + std::to_string(i)});
    const Texts found = mget("m*");
    ASSERT_EQ(found.size(), 300U);
    EXPECT_EQ(found.front(), "m1000=v0");
    EXPECT_EQ(found.back(), "m1299=v299");
    EXPECT_NE(redis("INFO commandstats").find("cmdstat_mget:calls=2,"), std::string::npos);
}

TEST_F(DalRead, MgetLeavesOutWhatIsNoString) {
    redis("SET /m/s v");
    redis("HSET /m/h f v");
    redis.run({"SET", "/m/n", kWithNul});
    redis.run({"SET", "/m/e", ""});
    EXPECT_EQ(mget("/m/*"), (Texts{"/m/e=", "/m/n=" + kWithNul, "/m/s=v"}));
}

TEST_F(DalRead, KeysWithNulAreLeftOutOfWalksWithALogLine) {
    redis.run({"SET", std::string("/n/a\0b", 6), "v"});
    redis("SET /n/c v");
    EXPECT_EQ(scan("/n/*"), Texts{"/n/c"});
    EXPECT_EQ(loop::log_count("3 <DAL>: a key with a NUL in it is not read; it begins /n/a"), 1U);
}

TEST_F(DalRead, FreeingNoListIsAllowed) {
    dal_free_slist(nullptr);
}

TEST_F(DalRead, AReaderThatTheServerClosedIsOpenedAgainAndTheReadRepeated) {
    redis("SET k value");
    ASSERT_EQ(subscribe("p"), 0);
    for (int i = 0; i < 3; i++) {
        redis("CLIENT KILL TYPE normal");
        EXPECT_EQ(get("k"), "value");
    }
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
    loop::drain();
    EXPECT_EQ(losses, 0);
    EXPECT_FALSE(loop::logged("lost"));
}

TEST_F(DalRead, AHungServerIsLostAfterTheBoundAndThenCallsFailAtOnce) {
    redis("SET k value");
    redis.freeze();
    int64_t begin = monotonic_ms();
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_GE(monotonic_ms() - begin, 1900);
    EXPECT_LT(monotonic_ms() - begin, 3000);
    EXPECT_TRUE(loop::logged("3 <DAL>: lost the server unix:///tmp/redis.sock: no answer"));
    begin = monotonic_ms();
    int found = 7;
    uint32_t length = 0;
    dal_hash_request request{};
    List *list = ListCreate();
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_EQ(dal_hget(ctx, "k", "f", nullptr, &length), -1);
    EXPECT_EQ(dal_hgetall(ctx, &request), -1);
    EXPECT_EQ(dal_scan(ctx, "*", list), -1);
    EXPECT_EQ(dal_mget_by_wildcard(ctx, "*", list, &ctx), -1);
    EXPECT_EQ(dal_is_key_exist(ctx, "k", 1, &found), -1);
    EXPECT_EQ(found, 7);
    EXPECT_EQ(dal_sync_ctx_chk(ctx), -1);
    EXPECT_EQ(dal_sub_ctx_chk(ctx), -1);
    EXPECT_EQ(subscribe("x"), -1);
    EXPECT_EQ(dal_async_pub(ctx, "c", 1, "d", 1), -1);
    EXPECT_LT(monotonic_ms() - begin, 200);
    ListDestroy(list);
    redis.thaw();
    EXPECT_TRUE(run_until_back());
    EXPECT_EQ(get("k"), "value") << "no late answer is taken for this one";
    EXPECT_EQ(losses, 1);
}

TEST_F(DalRead, ASignalWhileAnAnswerIsAwaitedIsNoLoss) {
    redis("SET k value");
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 20000}, {0, 20000}};
    const itimerval never = {};
    redis("CLIENT PAUSE 200");
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(get("k"), "value");
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST_F(DalRead, CallsWithoutAContextFail) {
    uint32_t length = 0;
    int found = 0;
    EXPECT_EQ(dal_get(nullptr, "k", 1, nullptr, &length), -1);
    EXPECT_EQ(dal_is_key_exist(nullptr, "k", 1, &found), -1);
    EXPECT_EQ(dal_sync_ctx_chk(nullptr), -1);
    EXPECT_EQ(dal_sub_ctx_chk(nullptr), -1);
    EXPECT_EQ(dal_async_pub(nullptr, "c", 1, "d", 1), -1);
    EXPECT_EQ(dal_sub_command(nullptr, record, nullptr, "PSUBSCRIBE x"), -1);
    EXPECT_EQ(dal_hget(nullptr, "k", "f", nullptr, &length), -1);
    dal_hash_request request{};
    EXPECT_EQ(dal_hgetall(nullptr, &request), -1);
    EXPECT_EQ(request.kvlist, nullptr);
    List *list = ListCreate();
    EXPECT_EQ(dal_scan(nullptr, "*", list), -1);
    EXPECT_EQ(dal_mget_by_wildcard(nullptr, "*", list, nullptr), -1);
    EXPECT_EQ(ListCount(list), 0U);
    ListDestroy(list);
}

}  // namespace
