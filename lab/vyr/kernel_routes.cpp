#include "lab/vyr/kernel_routes.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

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

/** A copy of what the bytes begin with; zero when they are too few. */
template <typename Record>
Record record_at(std::string_view bytes) {
    Record record{};
    if (bytes.size() >= sizeof record)
        memcpy(&record, bytes.data(), sizeof record);
    return record;
}

/** The rest behind a record of that length, padding included. */
std::string_view behind(std::string_view bytes, size_t length) {
    static_assert(NLMSG_ALIGNTO == RTA_ALIGNTO);
    return bytes.substr(std::min<size_t>(bytes.size(), NLMSG_ALIGN(length)));
}

/** The route as a key when it is BIRD's. */
std::optional<RouteKey> key_of(std::string_view message) {
    const auto route = record_at<rtmsg>(message);
    if (route.rtm_table != RT_TABLE_MAIN || route.rtm_protocol != RTPROT_BIRD)
        return std::nullopt;
    RouteKey key{0, route.rtm_dst_len, 0};
    std::string_view attributes = behind(message, sizeof route);
    while (attributes.size() >= sizeof(rtattr)) {
        const auto attribute = record_at<Attribute>(attributes);
        const auto head = record_at<rtattr>(attributes);
        if (head.rta_len < sizeof(rtattr))
            break;
        if (head.rta_type == RTA_DST && head.rta_len == kAttributeLength)
            key.address = ntohl(attribute.value);
        if (head.rta_type == RTA_PRIORITY && head.rta_len == kAttributeLength)
            key.metric = attribute.value;
        attributes = behind(attributes, head.rta_len);
    }
    return key;
}

/** Adds the routes of one datagram. False when it was the last one. */
bool add_routes(std::string_view datagram, std::vector<RouteKey> &keys) {
    while (datagram.size() >= sizeof(nlmsghdr)) {
        const auto head = record_at<nlmsghdr>(datagram);
        if (head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR || head.nlmsg_len < sizeof head)
            return false;
        if (const auto key = key_of(behind(datagram.substr(0, head.nlmsg_len), sizeof head)))
            keys.push_back(*key);
        datagram = behind(datagram, head.nlmsg_len);
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
            if (length > 0 && !add_routes({buffer.get(), static_cast<size_t>(length)}, keys))
                break;
        }
    close(fd);
    return keys;
}

}  // namespace vyr
