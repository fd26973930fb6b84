#include "lab/vyr/kernel_routes.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

namespace vyr {

namespace {

struct Attribute {
    rtattr head;
    uint32_t value;
};

struct Request {
    nlmsghdr head;
    rtmsg route;
    Attribute destination;
    Attribute priority;
};

constexpr unsigned short kAttributeLength = RTA_LENGTH(sizeof(uint32_t));

/** A netlink socket, -1 on failure. Answers come from the kernel at once. */
int open_netlink() {
    return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
}

Request removal(const RouteKey &key) {
    Request request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = RTM_DELROUTE;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.route.rtm_family = AF_INET;
    request.route.rtm_dst_len = static_cast<unsigned char>(key.length);
    request.route.rtm_table = RT_TABLE_MAIN;
    request.route.rtm_protocol = RTPROT_BIRD;
    request.route.rtm_scope = RT_SCOPE_NOWHERE;
    request.destination = {{kAttributeLength, RTA_DST}, htonl(key.address)};
    request.priority = {{kAttributeLength, RTA_PRIORITY}, key.metric};
    return request;
}

bool remove_one(int fd, const RouteKey &key) {
    const Request request = removal(key);
    struct {
        nlmsghdr head;
        nlmsgerr error;
        char rest[256];
    } answer{};
    return send(fd, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request) &&
           recv(fd, &answer, sizeof answer, 0) > 0 && answer.head.nlmsg_type == NLMSG_ERROR && answer.error.error == 0;
}

/** The route as a key when it is BIRD's. */
std::optional<RouteKey> key_of(const nlmsghdr *message) {
    const auto *route = static_cast<const rtmsg *>(NLMSG_DATA(message));
    if (route->rtm_table != RT_TABLE_MAIN || route->rtm_protocol != RTPROT_BIRD)
        return std::nullopt;
    RouteKey key{0, route->rtm_dst_len, 0};
    const char *place = reinterpret_cast<const char *>(route) + NLMSG_ALIGN(sizeof(rtmsg));
    const char *end = reinterpret_cast<const char *>(message) + message->nlmsg_len;
    while (end - place >= static_cast<std::ptrdiff_t>(sizeof(rtattr))) {
        rtattr attribute;
        uint32_t value = 0;
        memcpy(&attribute, place, sizeof attribute);
        if (attribute.rta_len == kAttributeLength)
            memcpy(&value, place + RTA_LENGTH(0), sizeof value);
        if (attribute.rta_type == RTA_DST)
            key.address = ntohl(value);
        if (attribute.rta_type == RTA_PRIORITY)
            key.metric = value;
        place += RTA_ALIGN(attribute.rta_len);
    }
    return key;
}

/** Adds the routes of one datagram. False when it was the last one. */
bool add_routes(const char *data, size_t length, std::vector<RouteKey> &keys) {
    auto *message = reinterpret_cast<const nlmsghdr *>(data);
    for (; NLMSG_OK(message, length); message = NLMSG_NEXT(message, length)) {
        if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR)
            return false;
        if (const auto key = key_of(message))
            keys.push_back(*key);
    }
    return true;
}

}  // namespace

unsigned remove_kernel_routes(const std::vector<RouteKey> &routes) {
    const int fd = open_netlink();
    unsigned removed = 0;
    for (const RouteKey &key : routes)
        removed += fd >= 0 && remove_one(fd, key) ? 1U : 0U;
    if (fd >= 0)
        close(fd);
    return removed;
}

std::vector<RouteKey> kernel_routes_of_bird() {
    struct {
        nlmsghdr head;
        rtmsg route;
    } request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = RTM_GETROUTE;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.route.rtm_family = AF_INET;

    std::vector<RouteKey> keys;
    const int fd = open_netlink();
    if (fd < 0)
        return keys;
    constexpr size_t kBufferSize = 65536;
    const auto buffer = std::make_unique<char[]>(kBufferSize);
    if (send(fd, &request, sizeof request, 0) > 0)
        for (ssize_t length = 1; length > 0;) {
            length = recv(fd, buffer.get(), kBufferSize, 0);
            if (length > 0 && !add_routes(buffer.get(), static_cast<size_t>(length), keys))
                break;
        }
    close(fd);
    return keys;
}

}  // namespace vyr
