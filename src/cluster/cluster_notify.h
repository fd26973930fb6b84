/*
 * Clusters relayed to the routing application, one by one and on replay.
 */
#pragma once

#include "cluster/cluster_record.h"
#include "platform/dal.h"
#include "rpapp/message.h"

/** Returns dal_sub_command's result. */
int vyrwrap_cluster_info_subscribe();

void vyrwrap_cluster_info_subs_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Takes name and notification type out of a notification; `name_out` holds 33 zeroed bytes. Returns 0 or -1. */
int extract_cluster_name_from_dal_notif(const dal_reply *reply, char *name_out, int *action_out);

/** Fills a zeroed message of kClusterMsgMax bytes at most from a record. Returns 0 or -1. */
int vyrwrap_prep_cluster_msg_for_vyr(ClusterInfo *record, void *message);

/** Fills peer_mac from the tunnel whose peer address is the record's ddg_ip. Returns 1 when found, else 0. */
int vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(ClusterInfo *record);

void vyrwrap_read_all_send_clusters_from_dal_to_vyr();

/** Returns 0. */
int vyrwrap_handle_ClusterInfo_replayall();
