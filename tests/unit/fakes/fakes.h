/*
 * The platform in memory, for the unit tests: what it holds is set by a test, what the daemon does to it is recorded.
 */
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/select.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/global.h"
#include "platform/dal.h"
#include "platform/korvalog.h"

namespace fake {

/** Everything as at process start: the fakes, vyrwrap_global, and no failures. Files under /tmp stay. */
void reset();

/* ---- the log ---- */

struct LogLine {
    int module;
    int level;
    int filter;
    int id;
    std::string wrapper;
    std::string text;
};
extern std::vector<LogLine> log_lines;
extern std::function<void(const LogLine &)> on_log; /**< runs at each line, before the call that logs it goes on */

/** Level of the daemon's modules; 7 after reset, so that everything is recorded. */
void set_log_level(int level);

/** No level table at all, as before logging has been set up. */
void drop_log_levels();

/** Recorded texts of one level, in order. */
std::vector<std::string> log_texts(int level);

/** Whether that very text was logged at that level. */
bool logged(int level, const std::string &text);

extern std::vector<korvaLevelChange> level_changes;
extern std::vector<std::string> log_inits; /**< "712 vyr 4" */
extern int debug_enabled;                  /**< what isDbgLvlEnabled(400) returns */

/* ---- the DAL ---- */

extern std::map<std::string, std::string> strings;
extern std::map<std::string, std::map<std::string, std::string>> hashes;

/**
 * Order in which dal_hgetall gives fields is the map's; these calls fail: "dal_get", "dal_scan", ...;
 * "dal_hgetall late" fails with a list that is to be released.
 */
extern std::set<std::string> failing_calls;

/** Calls made, as "dal_get /op/x" (call, blank, key, pattern, channel or command; dal_hget has its field behind). */
extern std::vector<std::string> dal_calls;

/** Called at the beginning of each DAL call with its dal_calls text. */
extern std::function<void(const std::string &)> on_dal_call;

struct Subscription {
    dal_sub_callback callback;
    void *arg;
};
extern std::map<std::string, Subscription> subscriptions; /**< by pattern */

/** Delivers a notification as the DAL would: to the callback of that pattern, which must be subscribed to. */
void notify(const std::string &pattern, const std::string &channel, const std::string &data);

/** Delivers the keyspace notification `event` for `key` to every subscribed pattern that matches it. */
void notify_key(const std::string &key, const std::string &event);

struct Publication {
    std::string channel;
    std::string data;
};
extern std::vector<Publication> publications;

/** What dal_ctx_init was given; its result is a null pointer while "dal_ctx_init" fails. */
struct ContextArguments {
    uint32_t connections;
    const char *sync_address;
    const char *async_address;
    void (*disconnect_cb)(void);
    void *arg;
    dal_evloop_ctx *evloop;
};
extern std::vector<ContextArguments> contexts;

/** A context of the fake DAL, for vyrwrap_global.dal_ctx. */
dal_ctx *context();
extern dal_ctx *checked_context; /**< what dal_sub_ctx_chk was given last */

/** A reply made of texts; an element of the null text has str NULL. Valid while the object lives. */
class Reply {
public:
    explicit Reply(const std::vector<std::string> &elements, int type = DAL_REPLY_ARRAY);
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;
    const dal_reply *get() const { return &reply_; }
    dal_reply *element(size_t i) { return &elements_[i]; }

private:
    std::vector<std::string> texts_;
    std::vector<dal_reply> elements_;
    std::vector<dal_reply *> pointers_;
    dal_reply reply_{};
};

/* ---- the Dispatcher ---- */

struct Input {
    DispInputHandler handler;
    void *user_data;
};
extern std::map<std::pair<int, int>, Input> inputs; /**< by descriptor and type */

struct Timer {
    uint32_t interval_ms;
    DispTimerHandler handler;
    void *user_data;
    int periodic;
    std::string function;
    int line;
};
extern std::map<uint32_t, Timer> timers; /**< by id */

/** Every Dispatcher call, as "DispAddInput 7 1", "DispatcherCreate", "DispProcess 0", ... */
extern std::vector<std::string> dispatcher_calls;
extern std::function<void()> on_process; /**< what happens while DispProcess runs */

/** Calls that fail: "DispatcherCreate", "DispAddInput", "DispAddTimerInternal". */
extern std::set<std::string> failing_dispatcher_calls;

/** The Dispatcher that DispatcherCreate returns. */
Dispatcher *dispatcher();

/** Runs the handler registered for a descriptor, as the loop would. */
int input_ready(int fd, int type);

/* ---- commands and identity ---- */

extern std::vector<std::string> commands;                   /**< execute_command */
extern std::vector<std::string> status_commands;            /**< execute_command_status */
extern std::function<void(const std::string &)> on_command; /**< runs at each of both */
extern int command_status;                                  /**< what execute_command_status returns */
extern std::string mac;                                     /**< 6 bytes */
extern std::string serial;

/* ---- calls of the C library made to fail ---- */

/**
 * Makes a call of the daemon's fail with an errno value: after `skip` calls that pass, `times` calls fail.
 * Known: malloc calloc realloc fork execvp socket fcntl bind connect listen accept select read write sendto kill
 * rename getsockopt setsockopt ftruncate.
 */
void fail_call(const std::string &call, int error, int skip = 0, int times = 1);

/** Answers a call in place of the C library; return false to let it pass. `result` is what the call returns. */
extern std::function<bool(long *result)> on_fork;
extern std::function<bool(int pid, int signal_number, int *result)> on_kill;
extern std::function<bool(long *result)> on_sendto;
extern long sendto_address_length; /**< of the last sendto; negative after reset */
extern std::function<bool(fd_set *readable, fd_set *writable, timeval *timeout, int *result)> on_select;

extern long peer_uid;      /**< what SO_PEERCRED gives as the user's id; negative after reset: the true one */
extern long effective_uid; /**< what geteuid gives; likewise */

extern unsigned address_length; /**< length of the address given to the last bind or sendto */

/** Calls made since reset, by name. */
int call_count(const std::string &call);

/* ---- files ---- */

std::string read_file(const std::string &path); /**< "(no file)" when it is not there */
void write_file(const std::string &path, const std::string &content);

/** A fixture over all of the above: reset before and after, log at level 7, a Dispatcher and a DAL context. */
class Test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace fake
