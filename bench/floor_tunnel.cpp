/*
 * Floor of the tunnels: makes the DAL reads that the defined interface asks for (a SCAN walk, then HGETALL of one
 * tunnel after the other; on a change HGETALL of that tunnel) and sends a datagram of the daemon's size. The
 * subscription is made once, at start; no field is looked at, no table kept, nothing logged.
 */
#include <poll.h>
#include <sys/socket.h>

#include "bench/subject.h"
#include "bench/support.h"

namespace {

void send_messages(int fd, size_t count) {
    static const std::string filler(kMaxTunnels * kTunnelMessageSize, '\0');
    static const sockaddr_un application = unix_address(kApplicationSocket);
    if (sendto(fd, filler.data(), count * kTunnelMessageSize, 0, reinterpret_cast<const sockaddr *>(&application),
               sizeof application) < 0)
        die("sendto");
}

void read_tunnel(redisContext *dal, const std::string &key) {
    command(dal, "HGETALL %s", key.c_str());
}

void answer_replay(int fd, redisContext *dal) {
    char request[1024];
    if (recv(fd, request, sizeof request, 0) < 0)
        die("recv");
    const std::vector<std::string> keys = scan(dal, kTunnelPattern);
    for (const std::string &key : keys)
        read_tunnel(dal, key);
    send_messages(fd, keys.size());
}

void follow_changes(int fd, redisContext *dal, redisContext *subscription) {
    for (Reply change = next_reply(subscription); change; change = buffered_reply(subscription)) {
        read_tunnel(dal, notified_key(*change));
        send_messages(fd, 1);
    }
}

}  // namespace

int main() {
    redisContext *subscription = subscribe((std::string(kKeyspacePrefix) + kTunnelPattern).c_str());
    redisContext *dal = connect_dal(kFloor.dal);
    const int fd = bind_unix_socket(SOCK_DGRAM, kFloor.own_socket);
    pollfd inputs[] = {{fd, POLLIN, 0}, {subscription->fd, POLLIN, 0}};
    for (;;) {
        if (poll(inputs, 2, -1) < 0)
            die("poll");
        if (inputs[0].revents)
            answer_replay(fd, dal);
        if (inputs[1].revents)
            follow_changes(fd, dal, subscription);
    }
}
