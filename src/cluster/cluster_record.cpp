#include "cluster/cluster_record.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/parse.h"
#include "core/text.h"
#include "platform/cmnutil.h"
#include "platform/dal.h"

namespace {

constexpr char kKeyPrefix[] = "/op/clusters/";
constexpr size_t kKeySize = 192;
constexpr size_t kNodelistSize = sizeof(ClusterInfo::nodelist);
constexpr uint16_t kFamilyIpv4 = 2;
constexpr size_t kAddressTextSize = 46;

/** The hash's fields in the order in which they are read: the nodes are checked against their number. */
enum Field { FIELD_DDG_IP, FIELD_CLUSTER_STATE, FIELD_NODE_NUM, FIELD_NODELIST, FIELD_COUNT };

constexpr const char *kFieldNames[FIELD_COUNT] = {"ddg_ip", "cluster_state", "node_num", "nodelist"};

int take_node_num(ClusterInfo *record, const char *text, const char *function) {
    const int count = parse_int(text);
    if (!is_valid_node_count(count)) {
        log_error("<VYRWRAP>:%s: ERROR: Invalid node count from DAL:%d (%s)", function, count, text);
        return 0;
    }
    record->node_num = static_cast<uint8_t>(count);
    return 1;
}

/** Clears an IPv4 node's address but for its first word, which goes from network to host order. */
void normalise(ClusterNode *node) {
    if (node->family != kFamilyIpv4)
        return;
    uint32_t address;
    memcpy(&address, node->address, sizeof address);
    address = ntohl(address);
    node->reserved = 0;
    memset(node->address, 0, sizeof node->address);
    memcpy(node->address, &address, sizeof address);
}

int take_nodelist(ClusterInfo *record, const char *value, uint32_t length, const char *function) {
    if (!is_valid_node_count(record->node_num)) {
        log_error("<VYRWRAP>:%s: Invalid Cluster nodecount (%d), skip reading nodelist", function, record->node_num);
        return 0;
    }
    if (length != record->node_num * sizeof(ClusterNode)) {
        log_error("<VYRWRAP>:%s: ERROR: nodelist len (%d) mismatch (node-size:%d,count:%d)", function,
                  static_cast<int>(length), static_cast<int>(sizeof(ClusterNode)), record->node_num);
        return 0;
    }
    memcpy(record->nodelist, value, length);
    for (int i = 0; i < record->node_num; i++) {
        ClusterNode *node = &record->nodelist[i];
        normalise(node);
        char text[kAddressTextSize];
        log_debug("<VYRWRAP>:%s: i:%d, node.flags:0x%x, node.ip:%s", function, i, node->flags,
                  korva_ip_to_str_hton(node, text, sizeof text));
    }
    return 1;
}

}  // namespace

int extract_cluster_name_from_cluster_key(const char *key, char *name_out) {
    const char *name = text_behind(key, kKeyPrefix);
    if (!name || !name_out)
        return -1;
    log_info("<VYRWRAP>:%s:cluster name: %s", __func__, name);
    const size_t length = strlen(name);
    if (length > kClusterNameMax) {
        log_error("<VYRWRAP>:%s:cluster name(%d) is larger than max len(%d)", __func__, static_cast<int>(length),
                  static_cast<int>(kClusterNameMax));
        return -1;
    }
    memcpy(name_out, name, length + 1);
    return 0;
}

int vyrwrap_read_cluster_info_from_dal(const char *name, ClusterInfo *record) {
    if (!name || !record)
        return -1;
    char key[kKeySize];
    snprintf(key, sizeof key, "%s%s", kKeyPrefix, name);
    copy_text(record->name, sizeof record->name, name);
    char problems[128] = "";
    size_t problems_length = 0;
    int problem_count = 0;
    for (int field = 0; field < FIELD_COUNT; field++) {
        if (vyrwrap_read_cluster_info_one_param_from_dal(record, key, field))
            continue;
        problem_count++;
        problems_length += static_cast<size_t>(
            snprintf(problems + problems_length, sizeof problems - problems_length, "%s,", kFieldNames[field]));
    }
    if (problem_count == 0)
        return 0;
    log_error("<VYRWRAP>:%s: For Cluster %s, %d fields have problem: %s", __func__, name, problem_count, problems);
    return -1;
}

int vyrwrap_read_cluster_info_one_param_from_dal(ClusterInfo *record, const char *key, int field_index) {
    if (!record || !key || !*key || field_index < 0 || field_index >= FIELD_COUNT)
        return 0;
    // One byte more is asked for than any value may have, so that a longer one is seen as such; one ends the text.
    char value[kNodelistSize + 2] = {};
    uint32_t length = kNodelistSize + 1;
    const char *field = kFieldNames[field_index];
    const int result = dal_hget(vyrwrap_global.dal_ctx, key, field, value, &length);
    if (result < 0 || length == 0) {
        log_error("<VYRWRAP>:%s:  ret:%d dal_hget failed(cluster-key:%s, field:%d/%s)", __func__, result, key,
                  field_index, field);
        return 0;
    }
    switch (field_index) {
        case FIELD_DDG_IP:
            record->ddg_ip = str_to_ip(value);
            return 1;
        case FIELD_CLUSTER_STATE:
            record->cluster_state = static_cast<uint8_t>(parse_int(value));
            return 1;
        case FIELD_NODE_NUM:
            return take_node_num(record, value, __func__);
        default:  // FIELD_NODELIST
            return take_nodelist(record, value, length, __func__);
    }
}
