/*
 * Tunnel records as read from the DAL: one hash "/op/tunnel/NAME" a tunnel.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/cmnutil.h"

inline constexpr int kTunnelNameMax = 200; /**< characters of a tunnel name taken from a key */
inline constexpr int kTunnelFieldCount = 13;
inline constexpr size_t kTunnelFailedSize = 416; /**< bytes for the names of the fields that failed */

/** vpninfo::tunnel_status of a tunnel that is up. */
inline constexpr uint8_t kTunnelUp = 1;

/** One tunnel. Allocated zeroed with calloc; owned by the tunnel table once inserted. */
struct vpninfo {
    char tunnel_name[200];
    uint8_t dst_mac[18]; /**< 6 bytes of MAC, the rest zero */
    char pair_uuid[40];
    int32_t tunnel_index;
    uint32_t mapid;
    uint32_t tunnel_ip;
    uint32_t mask;
    uint32_t peer_tunnel_ip;
    uint32_t peer_public_ip;
    uint32_t flags;
    uint16_t vlan_id;
    uint8_t link_priority;
    uint8_t tunnel_status; /**< kTunnelUp, or anything else */
};

/** Takes the name out of a key; `name_out` holds at least 201 bytes. Returns 0 or -1. */
int extract_tun_name_from_tun_key(const char *key, char *name_out);

/** Fills `record` from the DAL hash of the tunnel `name`. Returns 0 when all fields were read, else -1. */
int vyrwrap_read_tunnel_info_from_dal(const char *name, vpninfo *record);

/** Reads the hash `key`; names of fields that failed go to `failed_out`, a comma behind each. Returns 0 or -1. */
int vyrwrap_read_tunnel_info_all_param_from_dal(vpninfo *record, const char *key, char *failed_out, size_t failed_size);

/** Parses one field (0 to 12) out of a list of dal_kv; `name` is for messages. Returns 1, or 0 on failure. */
int get_tun_field_from_kvlist(const char *name, List *kvlist, int field_number, vpninfo *record);
