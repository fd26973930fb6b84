/* All active clusters, sent on the routing application's request. */
#include <string.h>

#include "cluster/cluster_notify.h"
#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "rpapp/link.h"

namespace {

constexpr char kScanPattern[] = "/op/clusters/*";

/** What one replay uses for every cluster. */
struct Replay {
    ClusterInfo *record;
    void *message; /**< kClusterMsgMax bytes */
    const char *function;
};

void send_message(const Replay &replay) {
    const ClusterInfo *record = replay.record;
    const auto sent =
        static_cast<int>(vyrwrap_send_to_routing_app(replay.message, cluster_message_size(record->node_num)));
    if (sent > 0)
        log_info("<VYRWRAP>:%s: Sent Cluster-info (%s, cluster-state:%d, opCode:%d, node_count:%d) to VYR",
                 replay.function, record->name, record->cluster_state, static_cast<int>(record->opCode),
                 record->node_num);
    else
        log_error(
            "<VYRWRAP>:%s: Failed sending cluster-info (%s, cluster-state:%d, opCode:%d, node_count:%d) to Vyr "
            "(ret:%d)",
            replay.function, record->name, record->cluster_state, static_cast<int>(record->opCode), record->node_num,
            sent);
}

/** Reads and sends one cluster; an inactive one is passed over without a word. */
void send_cluster(const Replay &replay, const char *name) {
    ClusterInfo *record = replay.record;
    if (vyrwrap_read_cluster_info_from_dal(name, record) < 0) {
        log_error("<VYRWRAP>:%s: Error reading cluster(%s) info from DAL", replay.function, name);
        return;
    }
    if (record->cluster_state == 0)
        return;
    record->opCode = CLUSTER_UPDATED;
    if (!is_valid_node_count(record->node_num)) {
        log_error("<VYRWRAP>:%s:ERROR: node count(%d) is more than max allowed(%d)", replay.function, record->node_num,
                  kClusterNodeMax);
        return;
    }
    if (vyrwrap_prep_cluster_msg_for_vyr(record, replay.message) < 0) {
        log_error("<VYRWRAP>:%s: Error in preparing cluster message to VYR-APP", replay.function);
        return;
    }
    send_message(replay);
}

/** Takes one key of the scan. Returns whether a name could be taken from it. */
bool send_cluster_of_key(const Replay &replay, const char *key, int number) {
    log_info("<VYRWRAP>:%s:cluster %d: %s (name len:%d)", replay.function, number, key, static_cast<int>(strlen(key)));
    memset(replay.record, 0, sizeof *replay.record);
    memset(replay.message, 0, kClusterMsgMax);
    char name[kClusterNameMax + 1] = {};
    if (extract_cluster_name_from_cluster_key(key, name) < 0) {
        log_error("<VYRWRAP>:%s:Failed to extract cluster name from cluster key(%s)", replay.function, key);
        return false;
    }
    send_cluster(replay, name);
    return true;
}

}  // namespace

void vyrwrap_read_all_send_clusters_from_dal_to_vyr() {
    const OwnedDalList keys(ListCreate());
    if (!keys) {
        log_error("<VYRWRAP>:%s: Failed to create the list of keys", __func__);
        return;
    }
    const Owned<ClusterInfo> record(static_cast<ClusterInfo *>(calloc(1, sizeof(ClusterInfo))));
    if (!record) {
        log_error("<VYRWRAP>:%s: Failed to alloc Clusterinfo mem(size:%d)", __func__,
                  static_cast<int>(sizeof(ClusterInfo)));
        return;
    }
    const Owned<void> message(calloc(1, kClusterMsgMax));
    if (!message) {
        log_error("<VYRWRAP>:%s: Failed to alloc Msgbuf mem(size:%d)", __func__, static_cast<int>(kClusterMsgMax));
        return;
    }
    if (!notification_scan_hashes(kScanPattern, __func__, keys.get()))
        return;
    log_info("<VYRWRAP>:%s: dal_scan(): num of cluster keys:%d", __func__, static_cast<int>(ListCount(keys.get())));
    const Replay replay = {record.get(), message.get(), __func__};
    int number = 1;
    ListGet(keys.get(), LIST_REWIND);
    while (const auto *entry = static_cast<const dal_kv *>(ListGet(keys.get(), LIST_NEXT)))
        if (send_cluster_of_key(replay, entry->key, number))
            number++;
}

int vyrwrap_handle_ClusterInfo_replayall() {
    log_debug("<VYRWRAP>:%s: Entered", __func__);
    vyrwrap_cluster_info_subscribe();
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    return 0;
}
