#include "platform/dal.h"

#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>

#include "core/owned.h"
#include "fakes/fakes.h"
#include "fakes/internal.h"
#include "linux/key_values.h"

struct dal_ctx {
    int unused;
};

namespace fake {

std::map<std::string, std::string> strings;
std::map<std::string, std::map<std::string, std::string>> hashes;
std::set<std::string> failing_calls;
std::vector<std::string> dal_calls;
std::function<void(const std::string &)> on_dal_call;
std::map<std::string, Subscription> subscriptions;
std::vector<Publication> publications;
std::vector<ContextArguments> contexts;
dal_ctx *checked_context;

namespace {

struct dal_ctx the_context;
std::vector<Owned<dal_evloop_ctx>> evloops; /**< taken over by contexts */

/** Records a call. Returns whether it shall fail. */
bool enter(const std::string &name, const std::string &what) {
    const std::string text = what.empty() ? name : name + " " + what;
    dal_calls.push_back(text);
    if (on_dal_call)
        on_dal_call(text);
    return failing_calls.count(name) > 0;
}

bool matches(const std::string &pattern, const std::string &text) {
    return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

int copy_out(const std::string &found, void *value, uint32_t *value_len) {
    const auto count = std::min<size_t>(*value_len, found.size());
    memcpy(value, found.data(), count);
    *value_len = static_cast<uint32_t>(count);
    return 0;
}

char *copy_of(const std::string &text) {
    auto *copy = static_cast<char *>(__real_malloc(text.size() + 1));
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

/** Appends an entry. Fails as the list does. */
int append(List *list, const std::string &key, const std::string *value) {
    auto *entry = static_cast<dal_kv *>(__real_calloc(1, sizeof(dal_kv)));
    entry->key = copy_of(key);
    entry->key_len = static_cast<uint32_t>(key.size());
    if (value) {
        entry->value = copy_of(*value);
        entry->value_len = static_cast<uint32_t>(value->size());
    }
    if (ListAppend(list, entry) == 0)
        return 0;
    kv_free(entry);
    return -1;
}

}  // namespace

dal_ctx *context() {
    return &the_context;
}

void reset_dal() {
    strings.clear();
    hashes.clear();
    failing_calls.clear();
    dal_calls.clear();
    on_dal_call = nullptr;
    subscriptions.clear();
    publications.clear();
    contexts.clear();
    evloops.clear();
    checked_context = nullptr;
}

Reply::Reply(const std::vector<std::string> &elements, int type) : texts_(elements) {
    elements_.resize(texts_.size());
    for (size_t i = 0; i < texts_.size(); i++) {
        elements_[i] = {DAL_REPLY_STRING, 0, texts_[i].size(), texts_[i].data(), 0, nullptr};
        pointers_.push_back(&elements_[i]);
    }
    reply_ = {type, 0, 0, nullptr, pointers_.size(), pointers_.data()};
}

void notify(const std::string &pattern, const std::string &channel, const std::string &data) {
    const Subscription subscription = subscriptions.at(pattern);
    const Reply reply({"pmessage", pattern, channel, data});
    subscription.callback(&the_context, reply.get(), subscription.arg);
}

void notify_key(const std::string &key, const std::string &event) {
    const std::string channel = "__keyspace@0__:" + key;
    const auto standing = subscriptions;
    for (const auto &[pattern, subscription] : standing)
        if (matches(pattern, channel))
            notify(pattern, channel, event);
}

}  // namespace fake

using fake::enter;

dal_evloop_ctx *dal_evloop_ctx_init(Dispatcher *dispatcher, dal_evloop_op add_read, dal_evloop_op delete_read,
                                    dal_evloop_op add_write, dal_evloop_op delete_write, dal_evloop_op cleanup,
                                    dal_evloop_attach attach, void *, void *) {
    if (enter("dal_evloop_ctx_init", ""))
        return nullptr;
    auto *evloop = static_cast<dal_evloop_ctx *>(__real_malloc(sizeof(dal_evloop_ctx)));
    *evloop = {"", dispatcher, add_read, delete_read, add_write, delete_write, cleanup, attach};
    return evloop;
}

dal_ctx *dal_ctx_init(uint32_t connections, const char *sync_address, const char *async_address,
                      void (*disconnect_cb)(void), void *arg, dal_evloop_ctx *evloop) {
    fake::contexts.push_back({connections, sync_address, async_address, disconnect_cb, arg, evloop});
    fake::evloops.emplace_back(evloop);
    return enter("dal_ctx_init", "") ? nullptr : &fake::the_context;
}

int dal_sub_command(dal_ctx *, dal_sub_callback callback, void *arg, const char *command) {
    const bool fails = enter("dal_sub_command", command);
    const std::string text = command;
    fake::subscriptions[text.substr(text.find(' ') + 1)] = {callback, arg};
    return fails ? -1 : 0;
}

int dal_get(dal_ctx *, const char *key, uint32_t key_len, void *value, uint32_t *value_len) {
    const std::string name(key, key_len);
    if (enter("dal_get", name) || !fake::strings.count(name))
        return -1;
    return fake::copy_out(fake::strings[name], value, value_len);
}

int dal_hget(dal_ctx *, const char *key, const char *field, void *value, uint32_t *value_len) {
    if (enter("dal_hget", std::string(key) + " " + field) || !fake::hashes.count(key) ||
        !fake::hashes[key].count(field))
        return -1;
    return fake::copy_out(fake::hashes[key][field], value, value_len);
}

int dal_hgetall(dal_ctx *, dal_hash_request *request) {
    if (enter("dal_hgetall", request->key))
        return -1;
    const auto hash = fake::hashes.find(request->key);
    if (hash == fake::hashes.end())
        return 0;
    request->kvlist = ListCreate();
    if (!request->kvlist)
        return -1;
    int result = 0;
    for (const auto &[field, value] : hash->second)
        result |= fake::append(request->kvlist, field, &value);
    return result != 0 || fake::failing_calls.count("dal_hgetall late") ? -1 : 0;
}

int dal_scan(dal_ctx *, const char *pattern, List *keys) {
    const bool fails = enter("dal_scan", pattern);
    std::set<std::string> found;
    for (const auto &[key, value] : fake::strings)
        if (fake::matches(pattern, key))
            found.insert(key);
    for (const auto &[key, fields] : fake::hashes)
        if (fake::matches(pattern, key))
            found.insert(key);
    int result = 0;
    for (const std::string &key : found)
        result |= fake::append(keys, key, nullptr);
    return fails ? -1 : result;
}

int dal_mget_by_wildcard(dal_ctx *, const char *pattern, List *kvlist, dal_ctx **) {
    if (enter("dal_mget_by_wildcard", pattern))
        return -1;
    int result = 0;
    for (const auto &[key, value] : fake::strings)
        if (fake::matches(pattern, key))
            result |= fake::append(kvlist, key, &value);
    return result;
}

int dal_is_key_exist(dal_ctx *, const char *key, uint32_t key_len, int *exists) {
    const std::string name(key, key_len);
    if (enter("dal_is_key_exist", name))
        return -1;
    *exists = fake::strings.count(name) || fake::hashes.count(name) ? 1 : 0;
    return 0;
}

int dal_sync_ctx_chk(dal_ctx *) {
    return enter("dal_sync_ctx_chk", "") ? -1 : 0;
}

int dal_sub_ctx_chk(dal_ctx *ctx) {
    fake::checked_context = ctx;
    return enter("dal_sub_ctx_chk", "") ? -1 : 0;
}

int dal_keyspace_notify_type(const char *event) {
    static const std::map<std::string, int> kTypes = {
        {"set", DAL_NOTIFY_SET},         {"del", DAL_NOTIFY_DEL},       {"append", DAL_NOTIFY_CHANGE},
        {"setrange", DAL_NOTIFY_CHANGE}, {"incrby", DAL_NOTIFY_CHANGE}, {"expire", DAL_NOTIFY_EXPIRE},
        {"hset", DAL_NOTIFY_HSET},       {"hdel", DAL_NOTIFY_HDEL},
    };
    const auto found = kTypes.find(event);
    return found == kTypes.end() ? 0 : found->second;
}

int dal_async_pub(dal_ctx *, const char *channel, uint32_t channel_len, const void *data, uint32_t data_len) {
    const std::string name(channel, channel_len);
    fake::publications.push_back({name, std::string(static_cast<const char *>(data), data_len)});
    return enter("dal_async_pub", name) ? -1 : 0;
}
