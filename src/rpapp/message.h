/*
 * Records of the routing-application link: fixed layout, host byte order, the same on 32-bit and 64-bit builds.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

/** RoutingAppMsg::msgType. */
enum RoutingAppFamily : uint32_t {
    MSG_FAMILY_VLAN = 1,
    MSG_FAMILY_TUNNEL = 2,
    MSG_FAMILY_CLUSTER = 9,
};

/** ike_Msg::msgType. */
inline constexpr uint32_t kIpsecIfaceMsg = 1;

/** im_Msg::msgType. */
enum ImMsgType : uint32_t {
    IM_MSG_VLAN_IFACE = 2,
    IM_MSG_REPLAY_ALL = 7, /**< inbound */
};

/** ipsec_Iface::opCode. 1 to 12 may be sent. */
enum TunnelOpCode : uint32_t {
    TUNNEL_ADDED = 1, /**< new or replayed, status not 1 */
    TUNNEL_DELETED = 2,
    TUNNEL_UPDATED = 3,    /**< status unchanged */
    TUNNEL_WENT_UP = 4,    /**< status changed to 1 */
    TUNNEL_WENT_DOWN = 5,  /**< status changed from 1 to something else */
    TUNNEL_REPLAY_ALL = 6, /**< inbound */
    TUNNEL_ADDED_UP = 9,   /**< new or replayed, status 1 */
};

/** vlan_Iface::opCode. */
enum VlanOpCode : uint32_t {
    VLAN_ANNOUNCED = 4,
    VLAN_WITHDRAWN = 5,
};

/** cluster_Msg's opCode. */
enum ClusterOpCode : uint32_t {
    CLUSTER_UPDATED = 1,
    CLUSTER_DELETED = 2,
    CLUSTER_REPLAY_ALL = 4, /**< inbound */
};

/** One IPsec tunnel. Addresses are str_to_ip's; texts are NUL-terminated and NUL-padded. */
struct ipsec_Iface {
    uint32_t opCode; /**< TunnelOpCode */
    char tunnel_name[200];
    uint8_t dst_mac[6];
    uint8_t reserved1[12];
    char pair_uuid[40];
    uint8_t reserved2[34];
    int32_t tunnel_index;
    uint32_t mapid;
    uint32_t tunnel_ip;
    uint32_t mask;
    uint32_t peer_tunnel_ip;
    uint32_t peer_public_ip;
    uint32_t flags; /**< with kTunnelUpFlag while tunnel_status is 1 */
    uint16_t vlan_id;
    uint8_t link_priority;
    uint8_t tunnel_status; /**< 1 or 0 */
    uint8_t reserved3[8];
};

inline constexpr uint32_t kTunnelUpFlag = 0x20;

/** One VLAN interface. */
struct vlan_Iface {
    uint32_t opCode; /**< VlanOpCode */
    uint32_t vlan_id;
    uint32_t ip;
    uint32_t netmask;
};

/** One message; a cluster message goes on behind it (cluster/cluster_record.h). */
struct RoutingAppMsg {
    uint16_t srcId;   /**< 0 on send */
    uint16_t destId;  /**< 0 on send */
    uint32_t msgType; /**< RoutingAppFamily */
    union {
        struct {
            uint32_t msgType; /**< kIpsecIfaceMsg */
            struct ipsec_Iface ipsec_Iface;
        } ike_Msg;
        struct {
            uint32_t msgType; /**< ImMsgType */
            struct vlan_Iface vlan_Iface;
        } im_Msg;
        struct {
            uint32_t opCode; /**< ClusterOpCode */
        } cluster_Msg;
        uint8_t bytes[340];
    } msg;
};

static_assert(sizeof(ipsec_Iface) == 336);
static_assert(offsetof(RoutingAppMsg, srcId) == 0);
static_assert(offsetof(RoutingAppMsg, destId) == 2);
static_assert(offsetof(RoutingAppMsg, msgType) == 4);
static_assert(offsetof(RoutingAppMsg, msg) == 8);
static_assert(sizeof(RoutingAppMsg) == 348);
static_assert(alignof(RoutingAppMsg) == 4);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.msgType) == 8);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.opCode) == 12);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.tunnel_name) == 16);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.dst_mac) == 216);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.reserved1) == 222);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.pair_uuid) == 234);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.reserved2) == 274);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.tunnel_index) == 308);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.mapid) == 312);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.tunnel_ip) == 316);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.mask) == 320);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.peer_tunnel_ip) == 324);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.peer_public_ip) == 328);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.flags) == 332);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.vlan_id) == 336);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.link_priority) == 338);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.tunnel_status) == 339);
static_assert(offsetof(RoutingAppMsg, msg.ike_Msg.ipsec_Iface.reserved3) == 340);
static_assert(offsetof(RoutingAppMsg, msg.im_Msg.msgType) == 8);
static_assert(offsetof(RoutingAppMsg, msg.im_Msg.vlan_Iface.opCode) == 12);
static_assert(offsetof(RoutingAppMsg, msg.im_Msg.vlan_Iface.vlan_id) == 16);
static_assert(offsetof(RoutingAppMsg, msg.im_Msg.vlan_Iface.ip) == 20);
static_assert(offsetof(RoutingAppMsg, msg.im_Msg.vlan_Iface.netmask) == 24);
static_assert(offsetof(RoutingAppMsg, msg.cluster_Msg.opCode) == 8);
