/* Clusters as their hashes hold them, their lists of nodes among it, relayed and replayed. */
#include <arpa/inet.h>
#include <string.h>

#include <utility>

#include "cluster/cluster_notify.h"
#include "core/global.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "tunnel/tunnel_table.h"

using namespace fuzz;

namespace {

constexpr char kFolder[] = "/op/clusters/";
constexpr const char *kEvents[] = {"hset", "hset", "del", "hdel", "set", ""};
constexpr size_t kNodelistMost = 12 * sizeof(ClusterNode);
constexpr size_t kRecordAt = 8;

std::string_view value_of(const char *key, const char *field) {
    const std::string_view *value = store_find(key, field);
    return value ? *value : std::string_view();
}

/** As the daemon sees a text: up to a NUL. */
std::string_view text_of(const char *key, const char *field) {
    const std::string_view value = value_of(key, field).substr(0, kNodelistMost + 1);
    return value.substr(0, value.find('\0'));
}

/** The number of nodes of a hash that can be read whole, 0 for one that cannot. */
int node_count(const char *key) {
    for (const char *field : {"ddg_ip", "cluster_state", "node_num", "nodelist"})
        if (value_of(key, field).empty())
            return 0;
    const int count = read_int(text_of(key, "node_num"));
    if (count < 1 || count > 12 || value_of(key, "nodelist").size() != static_cast<size_t>(count) * sizeof(ClusterNode))
        return 0;
    return count;
}

void check_nodes(const char *key, int count) {
    const std::string_view list = value_of(key, "nodelist");
    for (int i = 0; i < count; i++) {
        ClusterNode stored;
        ClusterNode sent;
        const size_t at = static_cast<size_t>(i) * sizeof stored;
        memcpy(&stored, list.data() + at, sizeof stored);
        memcpy(&sent, last_datagram + kRecordAt + kClusterHeadSize + at, sizeof sent);
        HOLDS(sent.family == stored.family && sent.flags == stored.flags);
        uint32_t stored_ip;
        uint32_t sent_ip;
        memcpy(&stored_ip, stored.address, sizeof stored_ip);
        memcpy(&sent_ip, sent.address, sizeof sent_ip);
        if (stored.family == 2)
            HOLDS(sent_ip == ntohl(stored_ip));
        else
            HOLDS(memcmp(&sent, &stored, sizeof sent) == 0);
    }
}

/** A tunnel to that peer, so that a cluster behind it has a MAC. */
void make_tunnel(uint32_t peer_ip) {
    vyrwrap_ipsec_tunnel_info_init();
    Owned<vpninfo> record(static_cast<vpninfo *>(calloc(1, sizeof(vpninfo))));
    record->mapid = 1;
    record->peer_tunnel_ip = peer_ip;
    memcpy(record->dst_mac, "\1\2\3\4\5\6", 6);
    vyrwrap_insert_tunnel("t1", std::move(record));
}

void check_message(const char *key, int count) {
    ClusterInfo sent;
    memcpy(&sent, last_datagram + kRecordAt, kClusterHeadSize);
    HOLDS(sent.node_num == count && sent.ddg_ip == ipv4_or_0(text_of(key, "ddg_ip")));
    HOLDS(sent.cluster_state == static_cast<uint8_t>(read_int(text_of(key, "cluster_state"))));
    HOLDS(sent.opCode == (sent.cluster_state ? CLUSTER_UPDATED : CLUSTER_DELETED));
    HOLDS(sent.opCode != CLUSTER_UPDATED || memcmp(sent.peer_mac, "\1\2\3\4\5\6", 6) == 0);
    check_nodes(key, count);
}

void check_notified(const char *key, const char *event, bool has_tunnel) {
    const size_t length = strlen(key) - strlen(kFolder);
    const bool named = length >= 1 && length <= kClusterNameMax;
    const int count = node_count(key);
    const uint8_t state = static_cast<uint8_t>(read_int(text_of(key, "cluster_state")));
    notify(vyrwrap_cluster_info_subs_callback, keep_text("__keyspace@0__:", key), event);
    const bool deletes = strcmp(event, "del") == 0 || strcmp(event, "hdel") == 0;
    const bool updates =
        strcmp(event, "hset") == 0 && count > 0 && ipv4_or_0(text_of(key, "ddg_ip")) != 0 && (state == 0 || has_tunnel);
    HOLDS(datagram_count == (named && (deletes || updates) ? 1 : 0));
    if (datagram_count == 1 && updates)
        check_message(key, count);
    else if (datagram_count == 1)
        HOLDS(last_opcode == CLUSTER_DELETED && last_datagram_size == sizeof(RoutingAppMsg));
}

void check_replayed(const char *key, bool has_tunnel) {
    const int count = node_count(key);
    const uint8_t state = static_cast<uint8_t>(read_int(text_of(key, "cluster_state")));
    const bool sends = strlen(key) - strlen(kFolder) <= kClusterNameMax && count > 0 && state != 0 && has_tunnel;
    vyrwrap_handle_ClusterInfo_replayall();
    HOLDS(datagram_count == (sends ? 1 : 0));
    if (sends)
        check_message(key, count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kReplay = 8;
    constexpr uint8_t kTunnel = 16;
    constexpr uint8_t kNoList = 32;
    constexpr uint8_t kCutList = 64;
    Input input = begin_with_application(data, size);
    const uint8_t bits = take_byte(&input);
    const char *key = keep_text(kFolder, take_text(&input));
    for (const char *field : {"ddg_ip", "cluster_state", "node_num"})
        store_hset(key, field, take_text(&input));
    if (!(bits & kNoList)) {
        // mostly as long as it has to be
        const auto wanted = static_cast<size_t>(read_int(text_of(key, "node_num"))) * sizeof(ClusterNode);
        store_hset(key, "nodelist", take_bytes(&input, bits & kCutList ? input.left : wanted));
    }
    if (bits & kTunnel)
        make_tunnel(ipv4_or_0(text_of(key, "ddg_ip")));
    if (bits & kReplay)
        check_replayed(key, bits & kTunnel);
    else
        check_notified(key, kEvents[bits % 6], bits & kTunnel);
    end(check_tunnel_table());
    return 0;
}
