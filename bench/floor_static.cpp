/*
 * Floor of the static routes: reads what it must from Redis and rewrites a file as large as the daemon's, in the same
 * way (a new file beside, renamed over). It parses no key, keeps no table, renders nothing and logs nothing: the file
 * is filler behind one line that shows the last key and value.
 *
 * Usage: floor_static FILE_SIZE
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "bench/subject.h"
#include "bench/support.h"

namespace {

/** The first `size` bytes become the file. */
void rewrite(const std::string &text, size_t size) {
    static const std::string path = std::string(kWatchedFolder) + "/" + kFloor.static_file;
    static const std::string new_path = path + ".new";
    const int fd = open(new_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        die(new_path.c_str());
    write_all(fd, text.data(), size);
    if (close(fd) < 0 || rename(new_path.c_str(), path.c_str()) < 0)
        die(path.c_str());
}

void show(std::string &text, const std::string &key, const redisReply &value) {
    const std::string line = key + " " + (value.str ? value.str : "") + "\n";
    text.replace(0, std::min(line.size(), text.size()), line, 0, text.size());
}

/** Reads every route there is, keys first and values in one batch; one rewriting a route, each larger by a route. */
void load(redisContext *dal, std::string &text) {
    const std::vector<std::string> keys = scan(dal, kRoutePattern);
    if (keys.empty())
        return;
    std::vector<const char *> words = {"MGET"};
    for (const std::string &key : keys)
        words.push_back(key.c_str());
    redisAppendCommandArgv(dal, static_cast<int>(words.size()), words.data(), nullptr);
    const Reply values = next_reply(dal);
    for (size_t i = 0; i < keys.size(); i++) {
        show(text, keys[i], *values->element[i]);
        rewrite(text, text.size() * (i + 1) / keys.size());
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE_SIZE\n", argv[0]);
        return 2;
    }
    std::string text(strtoul(argv[1], nullptr, 10), '\n');
    redisContext *subscription = subscribe((std::string(kKeyspacePrefix) + kRoutePattern).c_str());
    redisContext *dal = connect_dal(kFloor.dal);
    load(dal, text);
    for (;;) {
        const std::string key = notified_key(*next_reply(subscription));
        show(text, key, *command(dal, "GET %s", key.c_str()));
        rewrite(text, text.size());
    }
}
