/* Tunnel records turned into messages and sent one by one. */
#include "tunnel/tunnel_message.h"

#include <string.h>

#include "core/log.h"
#include "core/text.h"
#include "rpapp/link.h"

namespace {

constexpr uint32_t kOpcodeMin = 1;
constexpr uint32_t kOpcodeMax = 12;

}  // namespace

uint32_t vyrwrap_tunnel_added_opcode(const vpninfo *record) {
    return record->tunnel_status == kTunnelUp ? TUNNEL_ADDED_UP : TUNNEL_ADDED;
}

int vyrwrap_prep_tunnel_msg_for_vyr(const vpninfo *record, uint32_t opcode, RoutingAppMsg *message) {
    if (!record || !message) {
        log_error("<VYRWRAP>:%s: invalid input (vpninfo_ptr:%p, msg:%p)", __func__, static_cast<const void *>(record),
                  static_cast<const void *>(message));
        return -1;
    }
    memset(message, 0, sizeof *message);
    message->msgType = MSG_FAMILY_TUNNEL;
    message->msg.ike_Msg.msgType = kIpsecIfaceMsg;
    vyrwrap_copy_tunnel_to_vyr(record, &message->msg.ike_Msg.ipsec_Iface);
    message->msg.ike_Msg.ipsec_Iface.opCode = opcode;
    return 0;
}

void vyrwrap_copy_tunnel_to_vyr(const vpninfo *record, ipsec_Iface *iface) {
    if (!record || !iface) {
        log_error("%s: vpninfo_ptr (%p) or ipsec_iface(%p) is NULL", __func__, static_cast<const void *>(record),
                  static_cast<const void *>(iface));
        return;
    }
    const bool up = record->tunnel_status == kTunnelUp;
    copy_text(iface->tunnel_name, sizeof iface->tunnel_name, record->tunnel_name);
    memcpy(iface->dst_mac, record->dst_mac, sizeof iface->dst_mac);
    copy_text(iface->pair_uuid, sizeof iface->pair_uuid, record->pair_uuid);
    iface->tunnel_index = record->tunnel_index;
    iface->mapid = record->mapid;
    iface->tunnel_ip = record->tunnel_ip;
    iface->mask = record->mask;
    iface->peer_tunnel_ip = record->peer_tunnel_ip;
    iface->peer_public_ip = record->peer_public_ip;
    iface->flags = up ? record->flags | kTunnelUpFlag : record->flags;
    iface->vlan_id = record->vlan_id;
    iface->link_priority = record->link_priority;
    iface->tunnel_status = up ? 1 : 0;
}

int vyrwrap_send_tunnel_msg_to_vyr(const vpninfo *record, uint32_t opcode) {
    if (opcode < kOpcodeMin || opcode > kOpcodeMax) {
        log_error("%s: Invalid opcode %d (tunnel %s)", __func__, opcode,
                  text_or_null(record ? record->tunnel_name : nullptr));
        return -1;
    }
    RoutingAppMsg message;
    if (vyrwrap_prep_tunnel_msg_for_vyr(record, opcode, &message) != 0) {
        log_error("%s: Error in preparing tunnel message to VYR-APP", __func__);
        return -1;
    }
    const ssize_t sent = vyrwrap_send_to_routing_app(&message, sizeof message);
    if (sent <= 0) {
        log_error("<VYRWRAP>:%s: Failed sending tunnel %s (opcode:%d,ts:%d) to Vyr (ret:%d)", __func__,
                  record->tunnel_name, opcode, record->tunnel_status, static_cast<int>(sent));
        return -1;
    }
    log_info("<VYRWRAP>:%s: Sent tunnel %s (opcode:%d,ts:%d) to VYR", __func__, record->tunnel_name, opcode,
             record->tunnel_status);
    return 0;
}
