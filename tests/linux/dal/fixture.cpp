#include "fixture.h"

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>

#include "core/dal_adapter.h"
#include "linux/dal/context.h"

std::vector<Delivered> DalTest::delivered;
int DalTest::losses;
bool DalTest::in_callback;

namespace {

/** Callbacks run from the loop, one at a time. */
struct Entered {
    Entered() {
        EXPECT_EQ(loop::depth(), 1);
        EXPECT_FALSE(DalTest::in_callback);
        DalTest::in_callback = true;
    }
    Entered(const Entered &) = delete;
    Entered &operator=(const Entered &) = delete;
    ~Entered() { DalTest::in_callback = false; }
};

void on_disconnect() {
    const Entered entered;
    DalTest::losses++;
}

std::vector<std::string> texts_of(List *list, bool values) {
    std::vector<std::string> texts;
    ListGet(list, LIST_REWIND);
    while (const auto *entry = static_cast<const dal_kv *>(ListGet(list, LIST_NEXT))) {
        std::string text(entry->key, entry->key_len);
        EXPECT_EQ(entry->key[entry->key_len], '\0');
        EXPECT_EQ(entry->value != nullptr, values);
        if (values) {
            EXPECT_EQ(entry->value[entry->value_len], '\0');
            text += "=" + std::string(entry->value, entry->value_len);
        }
        texts.push_back(text);
    }
    dal_free_slist(list);
    EXPECT_EQ(ListCount(list), 0U);
    ListDestroy(list);
    return texts;
}

}  // namespace

void PrintTo(const Delivered &delivered, std::ostream *stream) {
    *stream << "{" << delivered.subscriber << ", " << delivered.pattern << ", " << delivered.channel << ", "
            << delivered.data << "}";
}

void record(dal_ctx *, const dal_reply *reply, void *arg) {
    const Entered entered;
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->type, DAL_REPLY_ARRAY);
    ASSERT_EQ(reply->elements, 4U);
    std::string texts[4];
    for (size_t i = 0; i < 4; i++) {
        ASSERT_EQ(reply->element[i]->type, DAL_REPLY_STRING);
        texts[i].assign(reply->element[i]->str, reply->element[i]->len);
        EXPECT_EQ(reply->element[i]->str[texts[i].size()], '\0');
    }
    EXPECT_EQ(texts[0], "pmessage");
    DalTest::delivered.push_back({static_cast<const char *>(arg), texts[1], texts[2], texts[3]});
}

DalTest::DalTest() {
    delivered.clear();
    losses = 0;
    in_callback = false;
    signal(SIGPIPE, SIG_IGN);  // as the program does before anything else
}

void DalTest::SetUp() {
    loop::reset();
    redis.start();
}

void DalTest::TearDown() {
    close();
}

void DalTest::open(uint32_t connections) {
    open_at(redis.url(), connections);
}

void DalTest::open_at(const std::string &address, uint32_t connections) {
    setenv("DAL_URL", address.c_str(), 1);
    dal_evloop_ctx *evloop =
        dal_evloop_ctx_init(loop::reset(), vyrwrap_dal_add_read, vyrwrap_dal_delete_read, vyrwrap_dal_add_write,
                            vyrwrap_dal_delete_write, redisDispatcherCleanup, vyrwrap_dal_attach, nullptr, nullptr);
    ctx = dal_ctx_init(connections, nullptr, nullptr, on_disconnect, nullptr, evloop);
}

void DalTest::close() {
    dal::context_free(ctx);
    ctx = nullptr;
    EXPECT_EQ(loop::input_count(), 0U);
    EXPECT_EQ(loop::timer_count(), 0U);
}

int DalTest::subscribe(const std::string &patterns, const char *subscriber) {
    return dal_sub_command(ctx, record, const_cast<char *>(subscriber), ("PSUBSCRIBE " + patterns).c_str());
}

bool DalTest::run_until_delivered(size_t count) {
    return loop::run_until([count] { return delivered.size() >= count; });
}

bool DalTest::run_until_lost() {
    return loop::run_until([this] { return ctx->state != dal::State::up; });
}

bool DalTest::run_until_back() {
    loop::advance(10000);
    return loop::run_until([this] { return ctx->state == dal::State::up; });
}

bool DalTest::run_until_compared() {
    return loop::run_until(
        [this] { return ctx->audit.phase == dal::AuditPhase::none && !ctx->audit.wanted && !ctx->waiting.first; });
}

std::string DalTest::get(const std::string &key, uint32_t size) {
    std::string value(size, '#');
    uint32_t length = size;
    if (dal_get(ctx, key.data(), static_cast<uint32_t>(key.size()), value.data(), &length) != 0) {
        EXPECT_EQ(length, size);
        return "(failed)";
    }
    EXPECT_LE(length, size);
    return value.substr(0, length);
}

bool DalTest::exists(const std::string &key) {
    int found = -1;
    EXPECT_EQ(dal_is_key_exist(ctx, key.data(), static_cast<uint32_t>(key.size()), &found), 0);
    return found == 1;
}

std::vector<std::string> DalTest::scan(const std::string &pattern) {
    List *list = ListCreate();
    EXPECT_EQ(dal_scan(ctx, pattern.c_str(), list), 0);
    return texts_of(list, false);
}

std::vector<std::string> DalTest::mget(const std::string &pattern) {
    List *list = ListCreate();
    EXPECT_EQ(dal_mget_by_wildcard(ctx, pattern.c_str(), list, &ctx), 0);
    return texts_of(list, true);
}

std::vector<int> open_descriptors() {
    std::vector<int> found;
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory))
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(directory))
            found.push_back(atoi(entry->d_name));
    closedir(directory);
    return found;
}
