/*
 * Cluster records: read from one DAL hash "/op/clusters/NAME" a cluster, and sent as they are.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

inline constexpr int kClusterNodeMax = 12;
inline constexpr size_t kClusterNameMax = 32; /**< characters of a cluster name taken from a key */

/**
 * One node, in the DAL and on the link alike but for one thing: an IPv4 address, the first 4 bytes of address, is in
 * network order in the DAL and one host-order word in a record. Family and flags are in host order in both.
 */
struct ClusterNode {
    uint16_t family; /**< 2: IPv4 */
    uint16_t reserved;
    uint8_t address[16];
    uint32_t flags; /**< passed on */
};

static_assert(sizeof(ClusterNode) == 24);
static_assert(offsetof(ClusterNode, family) == 0);
static_assert(offsetof(ClusterNode, reserved) == 2);
static_assert(offsetof(ClusterNode, address) == 4);
static_assert(offsetof(ClusterNode, flags) == 20);

/** One cluster. */
struct ClusterInfo {
    uint32_t opCode;       /**< ClusterOpCode */
    char name[128];        /**< NUL-padded */
    uint32_t ddg_ip;       /**< str_to_ip's; 0: not known */
    uint8_t cluster_state; /**< 0: inactive */
    uint8_t peer_mac[18];  /**< 6 bytes of MAC, the rest as in the tunnel record */
    uint8_t node_num;      /**< 1 to kClusterNodeMax when valid */
    ClusterNode nodelist[kClusterNodeMax];
};

inline constexpr size_t kClusterHeadSize = offsetof(ClusterInfo, nodelist);

static_assert(sizeof(ClusterInfo) == 444);
static_assert(offsetof(ClusterInfo, opCode) == 0);
static_assert(offsetof(ClusterInfo, name) == 4);
static_assert(offsetof(ClusterInfo, ddg_ip) == 132);
static_assert(offsetof(ClusterInfo, cluster_state) == 136);
static_assert(offsetof(ClusterInfo, peer_mac) == 137);
static_assert(offsetof(ClusterInfo, node_num) == 155);
static_assert(kClusterHeadSize == 156);
static_assert(alignof(ClusterInfo) == 4);

inline bool is_valid_node_count(int count) {
    return count >= 1 && count <= kClusterNodeMax;
}

/** Takes the name out of a key; `name_out` holds 33 bytes. Returns 0 or -1. */
int extract_cluster_name_from_cluster_key(const char *key, char *name_out);

/** Fills a zeroed record from the DAL hash of the cluster `name`. Returns 0 when every field was read, else -1. */
int vyrwrap_read_cluster_info_from_dal(const char *name, ClusterInfo *record);

/** Reads one field (0 to 3: ddg_ip, cluster_state, node_num, nodelist) of the hash `key`. Returns 1, or 0 on failure.
 * The nodes are checked against the record's node_num. */
int vyrwrap_read_cluster_info_one_param_from_dal(ClusterInfo *record, const char *key, int field_index);
