/*
 * The DAL: the access point's configuration and state database, a Redis-style key-value store with keyspace
 * notifications.
 *
 * Every call runs on the one thread of the daemon. Callbacks are made from the Dispatcher loop only, never from
 * inside a call declared here. Keys, fields and values are bytes: a value may hold NUL, a key given to a callback
 * never does. Every call takes a NULL context, and fails: the daemon goes on when none could be made.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/cmnutil.h"
#include "platform/dispatcher.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A connection to the DAL. */
typedef struct dal_ctx dal_ctx;

/** Reply kinds, numbered as in the RESP protocol libraries. */
enum {
    DAL_REPLY_STRING = 1,
    DAL_REPLY_ARRAY = 2,
    DAL_REPLY_INTEGER = 3,
    DAL_REPLY_NIL = 4,
    DAL_REPLY_STATUS = 5,
    DAL_REPLY_ERROR = 6,
};

/**
 * A reply. Owned by the DAL library and valid only during the callback that received it.
 * A notification is an array of four strings: the kind ("pmessage"), the pattern, the channel, and the data
 * (for keyspace notifications the event text).
 */
typedef struct dal_reply {
    int type;
    long long integer;          /**< DAL_REPLY_INTEGER */
    size_t len;                 /**< bytes in str, without the terminating NUL that always follows them */
    char *str;                  /**< strings, states and errors; may hold NUL; NULL for other kinds */
    size_t elements;            /**< entries of element */
    struct dal_reply **element; /**< DAL_REPLY_ARRAY */
} dal_reply;

/** Called from the loop for each notification on a subscribed pattern; arg is dal_sub_command's. */
typedef void (*dal_sub_callback)(dal_ctx *ctx, const dal_reply *reply, void *arg);

/**
 * One asynchronous connection of the DAL library, as its event-loop adapter sees it. The library owns the record;
 * `timer_slot`, `mask` and `errors` belong to the adapter.
 */
typedef struct dal_evloop_conn {
    Dispatcher *dispatcher;                  /**< the loop that the connection runs in */
    uint32_t *timer_slot;                    /**< 4-byte slot for a timer id, 0 when no timer runs; made by attach */
    int fd;                                  /**< socket descriptor */
    uint32_t mask;                           /**< bit 0: reading is registered, bit 1: writing is registered */
    uint32_t errors;                         /**< registrations that failed */
    void *connection;                        /**< handed to the two handlers */
    void (*read_handler)(void *connection);  /**< the library's; may be NULL */
    void (*write_handler)(void *connection); /**< the library's; may be NULL */
} dal_evloop_conn;

typedef void (*dal_evloop_op)(dal_evloop_conn *conn);
typedef int (*dal_evloop_attach)(dal_evloop_conn *conn);

/** The adapter's six operations and the loop that they drive. */
typedef struct dal_evloop_ctx {
    char adapter_name[32]; /**< for the library's messages */
    Dispatcher *dispatcher;
    dal_evloop_op add_read;
    dal_evloop_op delete_read;
    dal_evloop_op add_write;
    dal_evloop_op delete_write;
    dal_evloop_op cleanup;
    dal_evloop_attach attach; /**< 0 on success; called once for each new connection */
} dal_evloop_ctx;

/**
 * Makes the record that binds asynchronous DAL connections to a Dispatcher. The two last arguments are reserved.
 * Each call makes a new one, memory of malloc's: the caller gives it to dal_ctx_init or frees it. NULL when memory is
 * short.
 */
dal_evloop_ctx *dal_evloop_ctx_init(Dispatcher *dispatcher, dal_evloop_op add_read, dal_evloop_op delete_read,
                                    dal_evloop_op add_write, dal_evloop_op delete_write, dal_evloop_op cleanup,
                                    dal_evloop_attach attach, void *reserved1, void *reserved2);

/** Connections that a context may open: the bits of dal_ctx_init's first argument. */
enum {
    DAL_CTX_SYNC = 1,      /**< blocking reads */
    DAL_CTX_SUBSCRIBE = 2, /**< notifications */
    DAL_CTX_PUBLISH = 4,   /**< publications */
};

/**
 * Opens a context. A NULL address stands for the platform's default server. The context is made also while the server
 * cannot be reached: the library connects by itself from the loop, and calls fail at once until then.
 *
 * @param disconnect_cb  called from the loop once for each loss, when the server is back and answers again
 * @param evloop         taken over, also when no context is made
 * @return NULL only when the context itself cannot be made: without a record, an address or memory
 */
dal_ctx *dal_ctx_init(uint32_t connections, const char *sync_address, const char *async_address,
                      void (*disconnect_cb)(void), void *arg, dal_evloop_ctx *evloop);

/**
 * Subscribes. `command` is "PSUBSCRIBE" and one or more patterns, each separated by one blank. Returns 0 once the
 * server has confirmed, so that no later change is missed; non-zero when it could not (the pattern is remembered and
 * subscribed to as soon as the server can be reached). A pattern subscribed to again gets the new callback in place
 * of the old one. Waits for at most the platform's bound on a call.
 */
int dal_sub_command(dal_ctx *ctx, dal_sub_callback callback, void *arg, const char *command);

/**
 * Reads a string value. At most *value_len bytes are copied, without a terminating NUL, and *value_len is set to
 * their number. Returns 0, or -1 when there is no such key or on any error; then *value_len is left as it was.
 */
int dal_get(dal_ctx *ctx, const char *key, uint32_t key_len, void *value, uint32_t *value_len);

/** Reads one field of a hash; as dal_get. */
int dal_hget(dal_ctx *ctx, const char *key, const char *field, void *value, uint32_t *value_len);

/** One key, or one field of a hash, with its value. `key` and `value` are NUL-terminated beyond their lengths. */
typedef struct dal_kv {
    char *key;          /**< the key, or the field's name */
    uint32_t key_len;   /**< bytes in key */
    char *value;        /**< NULL from dal_scan, which reads no values */
    uint32_t value_len; /**< bytes in value */
} dal_kv;

/** A request for all fields of a hash. */
typedef struct dal_hash_request {
    char key[192]; /**< NUL-terminated */
    List *kvlist;  /**< out: the fields, a list of dal_kv; NULL when there is nothing to release */
} dal_hash_request;

/** Reads all fields of the hash request->key. Returns 0 on success; a missing key yields 0 and no list. */
int dal_hgetall(dal_ctx *ctx, dal_hash_request *request);

/** Appends a dal_kv without value for each key that matches the glob pattern, each key once, sorted. 0 on success. */
int dal_scan(dal_ctx *ctx, const char *pattern, List *keys);

/**
 * Appends a dal_kv with its value for each string key that matches the glob pattern, each key once, sorted.
 * 0 on success. The last argument is for the platform's own use.
 */
int dal_mget_by_wildcard(dal_ctx *ctx, const char *pattern, List *kvlist, dal_ctx **platform);

/** Sets *exists to 1 or 0. Returns 0, or -1 on error. */
int dal_is_key_exist(dal_ctx *ctx, const char *key, uint32_t key_len, int *exists);

/** Frees the dal_kv entries of a list, which is empty afterwards; the list itself stays. NULL is allowed. */
void dal_free_slist(List *list);

/** 0 while the connection for reads answers, or could be made again. */
int dal_sync_ctx_chk(dal_ctx *ctx);

/**
 * Asks the library to look after its subscription connection; 0 while it stands. Never waits. What keyspace patterns
 * missed is delivered from the loop as if it had just happened.
 */
int dal_sub_ctx_chk(dal_ctx *ctx);

/** What a keyspace notification's event text says; 0 for any text not listed. */
enum {
    DAL_NOTIFY_SET = 1,    /**< "set" */
    DAL_NOTIFY_DEL = 2,    /**< "del" */
    DAL_NOTIFY_CHANGE = 3, /**< a value changed in place: "append", "setrange", "incrby" */
    DAL_NOTIFY_EXPIRE = 4, /**< "expire": the key was given a lifetime */
    DAL_NOTIFY_HSET = 9,   /**< "hset" */
    DAL_NOTIFY_HDEL = 10,  /**< "hdel" */
};
int dal_keyspace_notify_type(const char *event);

/** Queues one publication; returns 0 when it was queued. Nothing waits for its delivery. */
int dal_async_pub(dal_ctx *ctx, const char *channel, uint32_t channel_len, const void *data, uint32_t data_len);

#ifdef __cplusplus
}
#endif
