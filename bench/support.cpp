#include "bench/support.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/subject.h"

namespace {

Reply take(int status, void *reply, const redisContext *dal) {
    if (status != REDIS_OK) {
        fprintf(stderr, "Redis: %s\n", dal->errstr);
        exit(1);
    }
    return Reply(static_cast<redisReply *>(reply));
}

}  // namespace

void die(const char *what) {
    fprintf(stderr, "%s: %s\n", what, strerror(errno));
    exit(1);
}

redisContext *connect_dal(const char *path) {
    redisContext *dal = redisConnectUnix(path);
    if (!dal || dal->err)
        die(path);
    return dal;
}

Reply command(redisContext *dal, const char *format, ...) {
    va_list args;
    va_start(args, format);
    void *reply = redisvCommand(dal, format, args);
    va_end(args);
    return take(reply ? REDIS_OK : REDIS_ERR, reply, dal);
}

redisContext *subscribe(const char *pattern) {
    redisContext *subscription = connect_dal(kFloor.dal);
    command(subscription, "PSUBSCRIBE %s", pattern);
    return subscription;
}

Reply next_reply(redisContext *dal) {
    void *reply = nullptr;
    const int status = redisGetReply(dal, &reply);
    return take(status, reply, dal);
}

Reply buffered_reply(redisContext *dal) {
    void *reply = nullptr;
    const int status = redisGetReplyFromReader(dal, &reply);
    return take(status, reply, dal);
}

std::string notified_key(const redisReply &notification) {
    const redisReply &channel = *notification.element[2];
    constexpr size_t kPrefix = sizeof kKeyspacePrefix - 1;
    return {channel.str + kPrefix, channel.len - kPrefix};
}

std::vector<std::string> scan(redisContext *dal, const char *pattern) {
    constexpr int kBatch = 1000;
    std::vector<std::string> keys;
    std::string cursor = "0";
    do {
        const Reply page = command(dal, "SCAN %s MATCH %s COUNT %d", cursor.c_str(), pattern, kBatch);
        cursor = page->element[0]->str;
        const redisReply &found = *page->element[1];
        for (size_t i = 0; i < found.elements; i++)
            keys.emplace_back(found.element[i]->str, found.element[i]->len);
    } while (cursor != "0");
    return keys;
}

sockaddr_un unix_address(const char *path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

int bind_unix_socket(int type, const char *path) {
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unix_address(path);
    unlink(path);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        die(path);
    return fd;
}

void write_all(int fd, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t count = write(fd, data, size);
        if (count < 0)
            die("write");
        data += count;
        size -= static_cast<size_t>(count);
    }
}
