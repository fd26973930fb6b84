/* A cluster's message, and the peer's MAC that goes into it. */
#include <string.h>

#include <algorithm>

#include "cluster/cluster_notify.h"
#include "core/global.h"
#include "core/log.h"
#include "tunnel/tunnel_record.h"

namespace {

static_assert(sizeof(ClusterInfo::peer_mac) == sizeof(vpninfo::dst_mac));

constexpr size_t kIpTextSize = 16;

const vpninfo *find_tunnel_to(uint32_t peer_tunnel_ip) {
    HashTable *table = vyrwrap_global.tunnel_table;
    if (!table)
        return nullptr;
    auto *tunnel = static_cast<const vpninfo *>(HashGet(table, HASH_FIRST));
    while (tunnel && tunnel->peer_tunnel_ip != peer_tunnel_ip)
        tunnel = static_cast<const vpninfo *>(HashGet(table, HASH_NEXT));
    return tunnel;
}

}  // namespace

int vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(ClusterInfo *record) {
    if (!record) {
        log_error("<VYRWRAP>:%s: Null cluster ptr", __func__);
        return 0;
    }
    const vpninfo *tunnel = find_tunnel_to(record->ddg_ip);
    if (!tunnel) {
        char ip[kIpTextSize];
        log_error("<VYRWRAP>:%s: Unable to find cluster with ddg IP %s (clusterinfo_ptr:%p)", __func__,
                  ip_to_str(record->ddg_ip, ip, sizeof ip), static_cast<void *>(record));
        return 0;
    }
    memcpy(record->peer_mac, tunnel->dst_mac, sizeof record->peer_mac);
    return 1;
}

int vyrwrap_prep_cluster_msg_for_vyr(ClusterInfo *record, void *message) {
    if (!record || !message) {
        log_error("<VYRWRAP>:%s: invalid input (clusterinfo_ptr:%p, msg:%p)", __func__, static_cast<void *>(record),
                  message);
        return -1;
    }
    auto *bytes = static_cast<uint8_t *>(message);
    constexpr uint32_t kFamily = MSG_FAMILY_CLUSTER;
    memcpy(bytes + offsetof(RoutingAppMsg, msgType), &kFamily, sizeof kFamily);
    if (record->opCode == CLUSTER_UPDATED && !vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(record)) {
        log_error("<VYRWRAP>:%s: Error in fetching the peer mac from ddg IP (clusterinfo_ptr:%p) ", __func__,
                  static_cast<void *>(record));
        return -1;
    }
    const size_t nodes = std::min<size_t>(record->node_num, kClusterNodeMax);
    memcpy(bytes + offsetof(RoutingAppMsg, msg), record, kClusterHeadSize + nodes * sizeof(ClusterNode));
    return 0;
}
