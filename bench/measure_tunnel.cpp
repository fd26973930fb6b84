// Tunnels: from a replay request or a changed field to the datagram at the routing application.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "bench/measure.h"
#include "rpapp/message.h"

namespace {

static_assert(sizeof(RoutingAppMsg) == kTunnelMessageSize);

std::string tunnel_key(int tunnel) {
    return "/op/tunnel/branch-" + std::to_string(tunnel);
}

std::string set_tunnel(int tunnel) {
    const std::string number = std::to_string(tunnel);
    return "HSET " + tunnel_key(tunnel) + " tunnel_name branch-" + number +
           " dst_mac 02:00:00:00:00:01 pair_uuid 6a1f0c52-9b1e-4f57-8a44-0d5f1c2b3e4d tunnel_index " + number +
           " mapid " + std::to_string(tunnel + 1) + " tunnel_ip 10.200.0.1 mask 255.255.255.0" +
           " peer_tunnel_ip 10.200.0.2 peer_public_ip 198.51.100.7 flags 1 vlan_id 100 link_priority 1 tunnel_status 1";
}

int bind_application() {
    const int fd = bind_unix_socket(SOCK_DGRAM, kApplicationSocket);
    const timeval patience = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return fd;
}

/** Receives one datagram, which must carry that many messages. */
void receive_messages(int fd, int count) {
    static char buffer[kMaxTunnels * kTunnelMessageSize + 1];
    const ssize_t expected = count * static_cast<ssize_t>(kTunnelMessageSize);
    const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
    if (size != expected) {
        errno = size < 0 ? errno : EMSGSIZE;
        die("no datagram of the size that was waited for");
    }
}

void request_replay(int fd, const Subject &subject) {
    RoutingAppMsg request = {};
    request.msgType = MSG_FAMILY_TUNNEL;
    request.msg.ike_Msg.msgType = kIpsecIfaceMsg;
    request.msg.ike_Msg.ipsec_Iface.opCode = TUNNEL_REPLAY_ALL;
    const sockaddr_un to = unix_address(subject.names->own_socket);
    if (sendto(fd, &request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
        die(subject.names->own_socket);
}

}  // namespace

void fill_tunnels(Subjects &subjects, int tunnels) {
    for (const Subject &subject : subjects) {
        queue(subject, "FLUSHDB");
        for (int tunnel = 0; tunnel < tunnels; tunnel++)
            queue(subject, set_tunnel(tunnel));
        put_on_wire(subject);
        take_answers(subject, tunnels + 1);
    }
}

void measure_replay(Subjects &subjects, int samples, int tunnels) {
    const int fd = bind_application();
    interleave(subjects, samples, [&](Subject &subject, int) {
        const int64_t start = now_ns();
        request_replay(fd, subject);
        receive_messages(fd, tunnels);
        return now_ns() - start;
    });
}

void measure_hset(Subjects &subjects, int samples, int tunnels) {
    const int fd = bind_application();
    for (const Subject &subject : subjects) {  // the daemon follows tunnels from the first replay on
        request_replay(fd, subject);
        receive_messages(fd, tunnels);
    }
    interleave(subjects, samples, [&](Subject &subject, int i) {
        queue(subject, "HSET " + tunnel_key(i % tunnels) + " link_priority " + std::to_string(i % 100));
        const int64_t start = now_ns();
        put_on_wire(subject);
        receive_messages(fd, 1);
        const int64_t taken = now_ns() - start;
        take_answers(subject, 1);
        return taken;
    });
}
