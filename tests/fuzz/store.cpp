/* The DAL in memory: a table of strings and of hashes' fields. */
#include <stdlib.h>
#include <string.h>

#include "core/global.h"
#include "linux/key_values.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"

struct dal_ctx {
    int unused;
};

namespace fuzz {

bool dal_fails;
unsigned dal_call_count;
unsigned publication_count;
std::string_view last_publication;

namespace {

constexpr size_t kValueMax = 512;
constexpr size_t kSubscriptionMax = 32;
constexpr size_t kPublicationMax = 16384;

/** A string has no field: its text is NULL. */
struct Value {
    std::string_view key;
    std::string_view field;
    std::string_view value;
};

struct Subscription {
    char pattern[256];
    dal_sub_callback callback;
};

dal_ctx the_context;
Value values[kValueMax];
size_t value_count;
Subscription subscriptions[kSubscriptionMax];
size_t subscription_count;
uint8_t publication[kPublicationMax];

Value *find(std::string_view key, std::string_view field) {
    for (size_t i = 0; i < value_count; i++)
        if (same(values[i].key, key) && same(values[i].field, field) &&
            (values[i].field.data() == nullptr) == (field.data() == nullptr))
            return &values[i];
    return nullptr;
}

bool exists(std::string_view key) {
    for (size_t i = 0; i < value_count; i++)
        if (same(values[i].key, key))
            return true;
    return false;
}

/** Patterns are texts, or beginnings with a star behind them. */
bool matches(std::string_view pattern, std::string_view text) {
    if (pattern.empty() || pattern.back() != '*')
        return same(pattern, text);
    return same(text.substr(0, pattern.size() - 1), pattern.substr(0, pattern.size() - 1));
}

bool fails(const dal_ctx *ctx) {
    dal_call_count++;
    return dal_fails || !ctx;
}

int copy_out(const Value *found, void *value, uint32_t *value_len) {
    if (!found)
        return -1;
    const size_t count = *value_len < found->value.size() ? *value_len : found->value.size();
    if (count > 0)
        memcpy(value, found->value.data(), count);
    *value_len = static_cast<uint32_t>(count);
    return 0;
}

char *copy_of(std::string_view text) {
    auto *copy = static_cast<char *>(malloc(text.size() + 1));
    if (!copy)
        return nullptr;
    if (!text.empty())
        memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

int append(List *list, std::string_view key, const std::string_view *value) {
    auto *entry = static_cast<dal_kv *>(calloc(1, sizeof(dal_kv)));
    if (!entry)
        return -1;
    entry->key = copy_of(key);
    entry->key_len = static_cast<uint32_t>(key.size());
    if (value) {
        entry->value = copy_of(*value);
        entry->value_len = static_cast<uint32_t>(value->size());
    }
    if (entry->key && (entry->value || !value) && ListAppend(list, entry) == 0)
        return 0;
    kv_free(entry);
    return -1;
}

dal_reply text_reply(const char *text, size_t length) {
    return {DAL_REPLY_STRING, 0, length, const_cast<char *>(text), 0, nullptr};
}

void deliver(dal_sub_callback callback, const char *pattern, const char *channel, std::string_view data) {
    dal_reply texts[] = {text_reply("pmessage", 8), text_reply(pattern, strlen(pattern)),
                         text_reply(channel, strlen(channel)), text_reply(keep_text(data), data.size())};
    dal_reply *elements[] = {&texts[0], &texts[1], &texts[2], &texts[3]};
    const dal_reply reply = {DAL_REPLY_ARRAY, 0, 0, nullptr, 4, elements};
    callback(&the_context, &reply, nullptr);
}

}  // namespace

dal_ctx *context() {
    return &the_context;
}

Input begin_over_store(const uint8_t *data, size_t size) {
    const Input input = begin(data, size);
    vyrwrap_global.dal_ctx = &the_context;
    value_count = 0;
    subscription_count = 0;
    dal_fails = false;
    dal_call_count = 0;
    publication_count = 0;
    last_publication = {};
    return input;
}

Input begin_with_application(const uint8_t *data, size_t size) {
    const Input input = begin_over_store(data, size);
    vyrwrap_global.app_sock_fd = open_socket();
    on_datagram = check_datagram;
    return input;
}

void store_hset(std::string_view key, std::string_view field, std::string_view value) {
    if (Value *found = find(key, field)) {
        found->value = value;
        return;
    }
    if (value_count < kValueMax)
        values[value_count++] = {key, field, value};
}

void store_set(std::string_view key, std::string_view value) {
    store_hset(key, {}, value);
}

void store_delete(std::string_view key) {
    size_t kept = 0;
    for (size_t i = 0; i < value_count; i++)
        if (!same(values[i].key, key))
            values[kept++] = values[i];
    value_count = kept;
}

const std::string_view *store_find(std::string_view key, std::string_view field) {
    const Value *found = find(key, field);
    return found ? &found->value : nullptr;
}

void notify(dal_sub_callback callback, const char *channel, const char *event) {
    deliver(callback, "pattern", channel, {event, strlen(event)});
}

unsigned publish(const char *channel, std::string_view data) {
    unsigned count = 0;
    for (size_t i = 0; i < subscription_count; i++)
        if (matches(subscriptions[i].pattern, channel)) {
            deliver(subscriptions[i].callback, subscriptions[i].pattern, channel, data);
            count++;
        }
    return count;
}

unsigned notify_key(const char *key, const char *event) {
    return publish(keep_text("__keyspace@0__:", key), keep_text(event));
}

}  // namespace fuzz

using namespace fuzz;

dal_evloop_ctx *dal_evloop_ctx_init(Dispatcher *dispatcher, dal_evloop_op add_read, dal_evloop_op delete_read,
                                    dal_evloop_op add_write, dal_evloop_op delete_write, dal_evloop_op cleanup,
                                    dal_evloop_attach attach, void *, void *) {
    auto *evloop = static_cast<dal_evloop_ctx *>(malloc(sizeof(dal_evloop_ctx)));
    if (evloop)
        *evloop = {"", dispatcher, add_read, delete_read, add_write, delete_write, cleanup, attach};
    return evloop;
}

dal_ctx *dal_ctx_init(uint32_t, const char *, const char *, void (*)(void), void *, dal_evloop_ctx *evloop) {
    free(evloop);
    return evloop ? &the_context : nullptr;
}

int dal_sub_command(dal_ctx *ctx, dal_sub_callback callback, void *, const char *command) {
    if (!ctx)
        return -1;
    constexpr std::string_view kWord = "PSUBSCRIBE ";
    HOLDS(std::string_view(command).substr(0, kWord.size()) == kWord);
    const char *pattern = command + kWord.size();
    size_t at = 0;
    while (at < subscription_count && !same(subscriptions[at].pattern, pattern))
        at++;
    HOLDS(at < kSubscriptionMax && strlen(pattern) < sizeof subscriptions[at].pattern);
    strcpy(subscriptions[at].pattern, pattern);
    subscriptions[at].callback = callback;
    if (at == subscription_count)
        subscription_count++;
    return fails(ctx) ? -1 : 0;
}

int dal_get(dal_ctx *ctx, const char *key, uint32_t key_len, void *value, uint32_t *value_len) {
    return fails(ctx) ? -1 : copy_out(find({key, key_len}, {}), value, value_len);
}

int dal_hget(dal_ctx *ctx, const char *key, const char *field, void *value, uint32_t *value_len) {
    return fails(ctx) ? -1 : copy_out(find(key, field), value, value_len);
}

int dal_hgetall(dal_ctx *ctx, dal_hash_request *request) {
    HOLDS(memchr(request->key, '\0', sizeof request->key));
    request->kvlist = nullptr;
    if (fails(ctx))
        return -1;
    for (size_t i = 0; i < value_count; i++) {
        if (!same(values[i].key, request->key) || !values[i].field.data())
            continue;
        if (!request->kvlist && !(request->kvlist = ListCreate()))
            return -1;
        if (append(request->kvlist, values[i].field, &values[i].value) < 0)
            return -1;
    }
    return 0;
}

int dal_scan(dal_ctx *ctx, const char *pattern, List *keys) {
    if (fails(ctx))
        return -1;
    for (size_t i = 0; i < value_count; i++) {
        bool first = true;
        for (size_t j = 0; j < i && first; j++)
            first = !same(values[j].key, values[i].key);
        if (first && matches(pattern, values[i].key) && append(keys, values[i].key, nullptr) < 0)
            return -1;
    }
    return 0;
}

int dal_mget_by_wildcard(dal_ctx *ctx, const char *pattern, List *kvlist, dal_ctx **) {
    if (fails(ctx))
        return -1;
    for (size_t i = 0; i < value_count; i++)
        if (!values[i].field.data() && matches(pattern, values[i].key) &&
            append(kvlist, values[i].key, &values[i].value) < 0)
            return -1;
    return 0;
}

int dal_is_key_exist(dal_ctx *ctx, const char *key, uint32_t key_len, int *found) {
    if (fails(ctx))
        return -1;
    *found = exists({key, key_len}) ? 1 : 0;
    return 0;
}

int dal_sync_ctx_chk(dal_ctx *ctx) {
    return fails(ctx) ? -1 : 0;
}

int dal_sub_ctx_chk(dal_ctx *ctx) {
    return fails(ctx) ? -1 : 0;
}

int dal_keyspace_notify_type(const char *event) {
    constexpr struct {
        const char *event;
        int type;
    } kTypes[] = {
        {"set", DAL_NOTIFY_SET},         {"del", DAL_NOTIFY_DEL},       {"append", DAL_NOTIFY_CHANGE},
        {"setrange", DAL_NOTIFY_CHANGE}, {"incrby", DAL_NOTIFY_CHANGE}, {"expire", DAL_NOTIFY_EXPIRE},
        {"hset", DAL_NOTIFY_HSET},       {"hdel", DAL_NOTIFY_HDEL},
    };
    for (const auto &each : kTypes)
        if (same(event, each.event))
            return each.type;
    return 0;
}

int dal_async_pub(dal_ctx *ctx, const char *, uint32_t, const void *data, uint32_t data_len) {
    HOLDS(data_len <= kPublicationMax);
    memcpy(publication, data, data_len);
    last_publication = {reinterpret_cast<const char *>(publication), data_len};
    publication_count++;
    return fails(ctx) ? -1 : 0;
}
