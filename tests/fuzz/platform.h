/*
 * The platform for fuzzing: in memory, with as few system calls and allocations as can be, since every execution pays
 * for them. What is behind the C library's calls (files, sockets, processes) is in memory too.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <string_view>

#include "platform/dal.h"

/** A door: one input, one execution. Returns 0. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

/* ---- what has to hold ---- */

[[noreturn]] void broken(const char *what, const char *file, int line);

/** Ends the process, with the input kept by whoever runs it, where the condition does not hold. */
#define HOLDS(condition) ((condition) ? (void)0 : fuzz::broken(#condition, __FILE__, __LINE__))

/** Compares without the C library, whose comparisons libFuzzer takes for hints about the input. */
inline bool same(std::string_view a, std::string_view b) {
    size_t i = 0;
    if (a.size() == b.size())
        while (i < a.size() && a[i] == b[i])
            i++;
    return a.size() == b.size() && i == a.size();
}

/* ---- one execution ---- */

/** What is left of an input. */
struct Input {
    const uint8_t *at;
    size_t left;
};

uint8_t take_byte(Input *input);                        /**< 0 behind the end */
std::string_view take_bytes(Input *input, size_t most); /**< a copy of its own on the heap */
const char *take_text(Input *input);                    /**< up to a NUL; a copy of exactly its size on the heap */
std::string_view take_rest(Input *input);               /**< a copy of its own on the heap */
const char *keep_text(std::string_view a, std::string_view b = {}); /**< both, NUL-terminated, until the end */

/** Everything as at process start. Some of the executions log at debug level, the others nothing. */
Input begin(const uint8_t *data, size_t size);

/** Ends an execution that has to have left that many allocations and its descriptors; they are freed. */
void end(size_t allocations);

/** Replaying, not fuzzing: every execution is a careful one, and takes the time it takes. */
extern bool replaying;

/** Chosen by the input: logs at debug level, and looks closer where that takes time. */
extern bool careful;

/** One in sixteen of the careful ones: with what takes many times as long, such as real files. */
extern bool thorough;

/* ---- the log ---- */

void set_log_level(int level);
extern unsigned log_line_count;
extern std::string_view last_error; /**< text of the last line at error level */

/* ---- the DAL ---- */

/** begin, with an empty store behind the DAL's calls. */
Input begin_over_store(const uint8_t *data, size_t size);

/** begin_over_store, with a socket to the routing application; the datagrams that it gets are checked. */
Input begin_with_application(const uint8_t *data, size_t size);

/** What the store holds is not copied: use texts that live until the end of the execution. */
void store_set(std::string_view key, std::string_view value);
void store_hset(std::string_view key, std::string_view field, std::string_view value);
void store_delete(std::string_view key);
const std::string_view *store_find(std::string_view key, std::string_view field);
extern bool dal_fails;
extern unsigned dal_call_count;

dal_ctx *context();

/** Hands a notification of four texts to a callback. */
void notify(dal_sub_callback callback, const char *channel, const char *event);

/** Hands the keyspace notification on a key to every pattern subscribed to that matches. Returns how many do. */
unsigned notify_key(const char *key, const char *event);
unsigned publish(const char *channel, std::string_view data);

extern unsigned publication_count;
extern std::string_view last_publication; /**< valid until the next one */

/* ---- the Dispatcher ---- */

struct Registered {
    int fd;
    int type;
    DispInputHandler handler;
    void *user_data;
};
Registered *find_input(int fd, int type);
extern Registered inputs[16];
extern unsigned input_count;

struct RunningTimer {
    uint32_t id;
    int periodic;
    DispTimerHandler handler;
    void *user_data;
};
extern RunningTimer timers[16];
extern unsigned timer_count;
void run_timer(uint32_t id);

extern void (*on_process)(); /**< what happens while DispProcess runs */

extern unsigned command_count;
extern std::string_view serial; /**< the device's */

/* ---- files ---- */

/** Content of a file; NULL data when it is not there. Valid until the next call that writes. */
std::string_view file(const char *path);
void put_file(const char *path, std::string_view content);
void put_folder(const char *path);
void remove_file(const char *path);

/** A file was put in its place by renaming. */
extern void (*on_renamed)(const char *path, std::string_view content);

/** Files are the system's own, under /tmp. */
extern bool real_files;

/** Bits of the calls on files that fail from now on. */
enum FailingFileCall { FAIL_OPEN = 1, FAIL_WRITE = 2, FAIL_RENAME = 4 };
extern unsigned failing_file_calls;

/* ---- descriptors, memory and processes ---- */

int open_socket(); /**< a descriptor of a socket that stands for itself */
bool is_open_socket(int fd);
unsigned descriptors_open();

/** Closes sockets that stand open although nothing of the daemon's names them any more. */
void close_given_up_sockets();

/** What a read from a socket gives, as read(2); the end of the stream when NULL. */
extern ssize_t (*on_read)(int fd, void *buffer, size_t size);
extern ssize_t (*on_write)(int fd, const void *buffer, size_t size);
extern short (*on_poll)(int fd, short events); /**< revents; NULL: all that is asked for */
extern void (*on_connect)(int fd, const sockaddr *address);
extern int select_result;
extern bool connect_fails;
extern bool accept_fails;

/** A datagram went to the routing application. */
extern void (*on_datagram)(const uint8_t *bytes, size_t size);
extern unsigned datagram_count;
extern bool sendto_fails;

size_t allocations();           /**< that the daemon's code has made and not freed */
void fail_allocation(int skip); /**< the one after so many fails; negative: none */

extern int next_pid; /**< what fork gives; -1: it fails */
struct Ended {
    pid_t pid;
    int status;
};
extern Ended ended[4]; /**< what waitpid gives, the first first */
extern unsigned ended_count;
extern int last_signal;

/** Runs `action` and returns -1, or the status when it has called exit. */
int run_until_exit(void (*action)());

/* ---- between the platform's own files ---- */

void begin_calls();
void begin_files();
void free_allocations();
unsigned files_open();
bool is_open_file(int fd);
bool close_file(int fd);
ssize_t write_to_file(int fd, const void *bytes, size_t size);
void *allocate(size_t size); /**< the C library's own */
void release(void *memory);
void begin_arena(bool use);
void *take_from_arena(size_t size); /**< NULL: not in use, or used up */
bool is_of_arena(const void *memory);
void poison(const void *memory, size_t size);
void unpoison(const void *memory, size_t size);
extern bool inside; /**< an execution is under way */

}  // namespace fuzz
