/* Clusters that change in the DAL. */
#include "cluster/cluster_notify.h"

#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "rpapp/link.h"

namespace {

constexpr char kChannelPattern[] = "__keyspace@0__:/op/clusters/*";
constexpr char kChannelPrefix[] = "__keyspace@0__:/op/clusters/";
constexpr size_t kIpTextSize = 16;

/** Numbers that belong to the messages. */
enum MessageLine {
    LINE_NOT_SUBSCRIBED = 63,
    LINE_SUBSCRIBED = 65,
};

/**
 * Writes the name as the formatter would with the name as its format: "%%" becomes "%". Any other conversion would
 * need an argument that is not there, and is left as it stands. The field is zero behind the name.
 */
void put_formatted_name(ClusterInfo *record, const char *name) {
    memset(record->name, 0, sizeof record->name);
    for (size_t length = 0; *name && length < sizeof record->name - 1; name++) {
        if (name[0] == '%' && name[1] == '%')
            name++;
        record->name[length++] = *name;
    }
}

/** Fills the record of a cluster that was set. Returns whether there is something to send. */
bool read_updated_cluster(const char *name, ClusterInfo *record, const char *function) {
    if (vyrwrap_read_cluster_info_from_dal(name, record) < 0) {
        log_error("%s: Error reading cluster(%s) info from DAL", function, name);
        return false;
    }
    if (record->ddg_ip == 0) {
        log_info("%s: DDGIP of cluster(%s) is not known, hence, ignore the update", function, name);
        return false;
    }
    if (!is_valid_node_count(record->node_num)) {
        log_error("<VYRWRAP>%s: ERROR: Invalid node_count(%d) max(%d)", function, record->node_num, kClusterNodeMax);
        return false;
    }
    record->opCode = record->cluster_state ? CLUSTER_UPDATED : CLUSTER_DELETED;
    put_formatted_name(record, name);
    return true;
}

/** Fills the record by the notification's kind. Returns whether there is something to send. */
bool fill_record(const char *name, int action, ClusterInfo *record, const char *function) {
    switch (action) {
        case DAL_NOTIFY_HSET:
            return read_updated_cluster(name, record, function);
        case DAL_NOTIFY_HDEL:
        case DAL_NOTIFY_DEL:
            record->opCode = CLUSTER_DELETED;
            put_formatted_name(record, name);
            return true;
        default:
            log_error("<VYRWRAP>:%s: invalid action(%d)", function, action);
            return true;
    }
}

void send_record(const char *name, ClusterInfo *record, const char *function) {
    const size_t size = cluster_message_size(record->node_num);
    const Owned<void> message(calloc(1, size));
    if (!message) {
        log_error("<VYRWRAP>:%s: Failed to alloc mem for Msg buf(size:%d)", function, static_cast<int>(size));
        return;
    }
    if (vyrwrap_prep_cluster_msg_for_vyr(record, message.get()) < 0) {
        log_error("%s: Error in preparing cluster message to VYR-APP", function);
        return;
    }
    char ip[kIpTextSize];
    log_info("<VYRWRAP>:%s: Cluster:%s, opcode:%d, DDG-IP:%s, state:%d, Node-count:%d", function, name,
             static_cast<int>(record->opCode), ip_to_str(record->ddg_ip, ip, sizeof ip), record->cluster_state,
             record->node_num);
    vyrwrap_send_to_routing_app(message.get(), size);
}

}  // namespace

int vyrwrap_cluster_info_subscribe() {
    return notification_subscribe(kChannelPattern, vyrwrap_cluster_info_subs_callback,
                                  {__func__, LINE_NOT_SUBSCRIBED, LINE_SUBSCRIBED});
}

int extract_cluster_name_from_dal_notif(const dal_reply *reply, char *name_out, int *action_out) {
    if (!reply || !name_out || !action_out)
        return -1;
    const char *name = notification_hash_name(reply, kChannelPrefix, __func__, action_out);
    if (!name)
        return -1;
    const size_t length = strlen(name);
    if (length < 1 || length > kClusterNameMax) {
        log_error("<VYRWRAP>:%s:cluster-name (%s) has wrong len(%d)", __func__, name, static_cast<int>(length));
        return -1;
    }
    memcpy(name_out, name, length + 1);
    log_info("<VYRWRAP>:%s: Notified cluster key:(%s),%s, len:%d, action:%d", __func__,
             notification_text(reply, NOTIFICATION_CHANNEL), name, static_cast<int>(length), *action_out);
    return 0;
}

void vyrwrap_cluster_info_subs_callback(dal_ctx *, const dal_reply *reply, void *) {
    if (!reply)
        return;
    const Owned<ClusterInfo> record(static_cast<ClusterInfo *>(calloc(1, sizeof(ClusterInfo))));
    if (!record) {
        log_error("<VYRWRAP>:%s: Failed to alloc mem for clusterinfo(%d)", __func__,
                  static_cast<int>(sizeof(ClusterInfo)));
        return;
    }
    char name[kClusterNameMax + 1] = {};
    int action = 0;
    if (extract_cluster_name_from_dal_notif(reply, name, &action) < 0) {
        log_error("<VYRWRAP>:%s: Error in getting cluster name from keyspace notification", __func__);
        return;
    }
    log_info("<VYRWRAP>:%s: cluster_name:%s, action %d", __func__, name, action);
    if (fill_record(name, action, record.get(), __func__))
        send_record(name, record.get(), __func__);
}
