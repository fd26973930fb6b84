/*
 * What the programs of this folder share: the plainest way to Redis that hiredis offers. A program that meets an error
 * ends.
 */
#pragma once

#include <hiredis/hiredis.h>
#include <sys/un.h>

#include <memory>
#include <string>
#include <vector>

struct ReplyDeleter {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

/** Says what failed, with errno's text, and ends the program. */
[[noreturn]] void die(const char *what);

/** A blocking connection to the Redis at a Unix socket. */
redisContext *connect_dal(const char *path);

/** Runs one command and waits for its answer. */
Reply command(redisContext *dal, const char *format, ...) __attribute__((format(printf, 2, 3)));

/** A connection of its own, to the floors' Redis, for one pattern; returns once Redis has confirmed. */
redisContext *subscribe(const char *pattern);

/** The next answer or notification on a connection, waited for. */
Reply next_reply(redisContext *dal);

/** One that has been read from the socket already, which poll does not tell of; null when there is none. */
Reply buffered_reply(redisContext *dal);

/** The key that a keyspace notification is about. */
std::string notified_key(const redisReply &notification);

/** Every key that matches, walked with SCAN as the daemon's DAL client walks. */
std::vector<std::string> scan(redisContext *dal, const char *pattern);

/** Address of a Unix socket, to be given with its full size. */
sockaddr_un unix_address(const char *path);

/** A socket bound to a path, in place of what may stand there. */
int bind_unix_socket(int type, const char *path);

/** Writes all bytes to a descriptor. */
void write_all(int fd, const char *data, size_t size);
