/* A store with two keys, a route and that the overlay is on; they never change. */
#include "platform/dal.h"

#include <stdlib.h>
#include <string.h>

static const struct Pair {
    const char *key;
    const char *value;
} kStore[] = {
    {"/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.2}", "5"},
    {"/config/vyr/oap/proto_oap_enable", "\1"},
};
static const struct Pair *const kRoute = &kStore[0];

struct dal_ctx {
    dal_evloop_ctx *evloop;
};

dal_evloop_ctx *dal_evloop_ctx_init(Dispatcher *dispatcher, dal_evloop_op add_read, dal_evloop_op delete_read,
                                    dal_evloop_op add_write, dal_evloop_op delete_write, dal_evloop_op cleanup,
                                    dal_evloop_attach attach, void *reserved1, void *reserved2) {
    (void)reserved1;
    (void)reserved2;
    dal_evloop_ctx *evloop = calloc(1, sizeof *evloop);
    if (!evloop)
        return NULL;
    evloop->dispatcher = dispatcher;
    evloop->add_read = add_read;
    evloop->delete_read = delete_read;
    evloop->add_write = add_write;
    evloop->delete_write = delete_write;
    evloop->cleanup = cleanup;
    evloop->attach = attach;
    return evloop;
}

dal_ctx *dal_ctx_init(uint32_t connections, const char *sync_address, const char *async_address,
                      void (*disconnect_cb)(void), void *arg, dal_evloop_ctx *evloop) {
    static dal_ctx context;
    (void)connections;
    (void)sync_address;
    (void)async_address;
    (void)disconnect_cb;
    (void)arg;
    context.evloop = evloop;
    return &context;
}

int dal_sub_command(dal_ctx *ctx, dal_sub_callback callback, void *arg, const char *command) {
    (void)callback;
    (void)arg;
    (void)command;
    return ctx ? 0 : -1;
}

static const struct Pair *find(const char *key, uint32_t length) {
    for (size_t i = 0; i < sizeof kStore / sizeof kStore[0]; i++)
        if (length == strlen(kStore[i].key) && memcmp(key, kStore[i].key, length) == 0)
            return &kStore[i];
    return NULL;
}

/* Copies what fits, without a terminator. */
static void give(const char *text, void *value, uint32_t *length) {
    if (strlen(text) < *length)
        *length = (uint32_t)strlen(text);
    memcpy(value, text, *length);
}

int dal_get(dal_ctx *ctx, const char *key, uint32_t key_len, void *value, uint32_t *value_len) {
    const struct Pair *pair = find(key, key_len);
    if (!ctx || !pair)
        return -1;
    give(pair->value, value, value_len);
    return 0;
}

int dal_hget(dal_ctx *ctx, const char *key, const char *field, void *value, uint32_t *value_len) {
    (void)ctx;
    (void)key;
    (void)field;
    (void)value;
    (void)value_len;
    return -1;
}

int dal_hgetall(dal_ctx *ctx, dal_hash_request *request) {
    request->kvlist = NULL;
    return ctx ? 0 : -1;
}

int dal_scan(dal_ctx *ctx, const char *pattern, List *keys) {
    (void)pattern;
    (void)keys;
    return ctx ? 0 : -1;
}

static dal_kv *make_entry(void) {
    dal_kv *entry = calloc(1, sizeof *entry);
    if (!entry)
        return NULL;
    entry->key = strdup(kRoute->key);
    entry->value = strdup(kRoute->value);
    entry->key_len = (uint32_t)strlen(kRoute->key);
    entry->value_len = (uint32_t)strlen(kRoute->value);
    return entry;
}

static void free_entry(dal_kv *entry) {
    if (!entry)
        return;
    free(entry->key);
    free(entry->value);
    free(entry);
}

int dal_mget_by_wildcard(dal_ctx *ctx, const char *pattern, List *kvlist, dal_ctx **platform) {
    (void)platform;
    if (!ctx)
        return -1;
    if (strcmp(pattern, "/op/staticroute/*") != 0)
        return 0;
    dal_kv *entry = make_entry();
    if (entry && entry->key && entry->value && ListAppend(kvlist, entry) == 0)
        return 0;
    free_entry(entry);
    return -1;
}

int dal_is_key_exist(dal_ctx *ctx, const char *key, uint32_t key_len, int *exists) {
    if (!ctx)
        return -1;
    *exists = find(key, key_len) != NULL;
    return 0;
}

void dal_free_slist(List *list) {
    if (!list)
        return;
    ListGet(list, LIST_REWIND);
    for (dal_kv *entry; (entry = ListGet(list, LIST_NEXT));)
        free_entry(entry);
    ListClear(list);
}

int dal_sync_ctx_chk(dal_ctx *ctx) {
    return ctx ? 0 : -1;
}

int dal_sub_ctx_chk(dal_ctx *ctx) {
    return ctx ? 0 : -1;
}

int dal_keyspace_notify_type(const char *event) {
    return strcmp(event, "set") == 0 ? DAL_NOTIFY_SET : 0;
}

int dal_async_pub(dal_ctx *ctx, const char *channel, uint32_t channel_len, const void *data, uint32_t data_len) {
    (void)channel;
    (void)channel_len;
    (void)data;
    (void)data_len;
    return ctx ? 0 : -1;
}
