/*
 * Floor of the route-table export: on a trigger it writes the same request to the routing daemon's socket, reads the
 * same frame into one buffer made at start, and writes the body to a file opened as the daemon opens it. The request is
 * a constant, the answer is not unpacked, nothing is allocated, checked beyond errors, or logged.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/subject.h"
#include "bench/support.h"

namespace {

int connect_routing_daemon() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unix_address(kExportSocket);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        die(kExportSocket);
    return fd;
}

void read_exact(int fd, void *buffer, size_t size) {
    char *position = static_cast<char *>(buffer);
    while (size > 0) {
        const ssize_t count = read(fd, position, size);
        if (count <= 0)
            die("read");
        position += count;
        size -= static_cast<size_t>(count);
    }
}

void request_export(int fd, uint32_t type) {
    // the six members as protobuf packs them, the request code second
    char request[] = {0x08, 0, 0x10, 0, 0x18, '\x80', 0x05, 0x20, 1, 0x2a, 0, 0x30, 0};
    request[1] = static_cast<char>(kExportAnswers.at(type).request_code);
    write_all(fd, request, sizeof request);
}

void store(const char *body, size_t size) {
    static const std::string path = std::string(kWatchedFolder) + "/" + kFloor.export_file;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        die(path.c_str());
    write_all(fd, body, size);
    close(fd);
}

}  // namespace

int main() {
    static char body[kMaxFrame];
    redisContext *subscription = subscribe(kExportChannel);
    const int fd = connect_routing_daemon();
    for (;;) {
        const Reply trigger = next_reply(subscription);
        uint32_t type = 0;
        memcpy(&type, trigger->element[3]->str, sizeof type);
        request_export(fd, type);
        uint32_t length = 0;
        read_exact(fd, &length, sizeof length);
        read_exact(fd, body, length - sizeof length);
        store(body, length - sizeof length);
    }
}
