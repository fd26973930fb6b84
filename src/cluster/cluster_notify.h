/*
 * Clusters relayed to the routing application, one by one and on replay.
 */
#pragma once

#include "cluster/cluster_record.h"
#include "platform/dal.h"
#include "rpapp/message.h"

/** A cluster's nodes go on behind the message of fixed size. */
inline constexpr size_t cluster_message_size(int node_num) {
    return sizeof(RoutingAppMsg) + sizeof(ClusterNode) * static_cast<size_t>(node_num);
}

inline constexpr size_t kClusterMsgMax = cluster_message_size(kClusterNodeMax);

static_assert(kClusterMsgMax == 636);
static_assert(offsetof(RoutingAppMsg, msg) + sizeof(ClusterInfo) <= kClusterMsgMax);

/** Subscribes to the clusters' keys. Returns dal_sub_command's result. */
int vyrwrap_cluster_info_subscribe();

void vyrwrap_cluster_info_subs_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Takes name and notification type out of a notification; `name_out` holds 33 bytes. Returns 0 or -1. */
int extract_cluster_name_from_dal_notif(const dal_reply *reply, char *name_out, int *action_out);

/**
 * Fills a zeroed message of cluster_message_size(record->node_num) bytes from a record with at most kClusterNodeMax
 * nodes; for an update the peer's MAC is looked up first. Returns 0, or -1 when there is none.
 */
int vyrwrap_prep_cluster_msg_for_vyr(ClusterInfo *record, void *message);

/** Fills peer_mac from the tunnel whose peer address is the record's ddg_ip. Returns 1 when found, else 0. */
int vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(ClusterInfo *record);

/** Sends every active cluster of the DAL. */
void vyrwrap_read_all_send_clusters_from_dal_to_vyr();

/** Subscribes and sends every active cluster. Returns 0. */
int vyrwrap_handle_ClusterInfo_replayall();
