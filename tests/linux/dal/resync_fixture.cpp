#include "resync_fixture.h"

#include <string.h>

#include <algorithm>

#include "linux/dal/context.h"

void read_string(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    const char *key = reply->element[2]->str + strlen("__keyspace@0__:");
    char value[4];
    uint32_t length = sizeof value;
    dal_get(ctx, key, static_cast<uint32_t>(strlen(key)), value, &length);
    record(ctx, reply, arg);
}

void DalResync::SetUp() {
    DalTest::SetUp();
    redis("CONFIG SET notify-keyspace-events KA");
}

void DalResync::follow(const std::string &keys, const char *subscriber, dal_sub_callback callback) {
    if (!ctx)
        open();
    ASSERT_NE(ctx, nullptr);
    const std::string command = "PSUBSCRIBE __keyspace@0__:" + keys;
    ASSERT_EQ(dal_sub_command(ctx, callback, const_cast<char *>(subscriber), command.c_str()), 0);
}

void DalResync::unnoticed(const Texts &commands) {
    redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
    for (const std::string &command : commands)
        redis(command);
}

Texts DalResync::compare() {
    delivered.clear();
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_TRUE(run_until_compared());
    loop::drain();
    return told();
}

Texts DalResync::told() {
    Texts texts;
    for (const Delivered &each : delivered)
        texts.push_back(each.channel.substr(strlen("__keyspace@0__:")) + " " + each.data);
    std::sort(texts.begin(), texts.end());
    return texts;
}

void DalResync::lose() {
    redis("CLIENT KILL TYPE pubsub");
    ASSERT_TRUE(run_until_lost());
}

Texts DalResync::come_back() {
    delivered.clear();
    EXPECT_TRUE(run_until_back());
    EXPECT_TRUE(run_until_compared());
    loop::drain();
    return told();
}

int DalResync::calls(const std::string &command) {
    const std::string stats = redis("INFO commandstats");
    const std::string line = "cmdstat_" + command + ":calls=";
    const size_t at = stats.find(line);
    return at == std::string::npos ? 0 : atoi(stats.c_str() + at + line.size());
}
