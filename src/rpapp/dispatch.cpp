/* What the routing application asks for. */
#include "cluster/cluster_notify.h"
#include "core/log.h"
#include "rpapp/link.h"
#include "tunnel/tunnel_message.h"
#include "vlan/vlan_relay.h"

namespace {

constexpr int kReplayTunnelMax = 200;

}  // namespace

int vyrwrap_process_vyrapp_message(const RoutingAppMsg *msg) {
    log_info("<VYRWRAP>:%s: msg.srcId:%d, destId:%d, msgType:%d", __func__, msg->srcId, msg->destId, msg->msgType);
    switch (msg->msgType) {
        case MSG_FAMILY_TUNNEL:
            vyrwrap_process_vyrapp_msg_ike(msg);
            break;
        case MSG_FAMILY_CLUSTER:
            vyrwrap_process_vyrapp_msg_cluster(msg);
            break;
        case MSG_FAMILY_VLAN:
            vyrwrap_process_vyrapp_msg_im(msg);
            break;
        default:
            log_error("<VYRWRAP>:%s: Unexpected msgType(%d)", __func__, msg->msgType);
    }
    return 0;
}

int vyrwrap_process_vyrapp_msg_ike(const RoutingAppMsg *msg) {
    log_info("<VYRWRAP>:%s: msg.srcId:%d, destId:%d, msgType:%d", __func__, msg->srcId, msg->destId, msg->msgType);
    const auto &ike = msg->msg.ike_Msg;
    if (ike.msgType != kIpsecIfaceMsg) {
        log_error("<VYRWRAP>:%s: Unexpected msgType(%d), ike_Msg.msgType:(%d)", __func__, msg->msgType, ike.msgType);
        return -1;
    }
    log_info("<VYRWRAP>:%s: msg.ike_Msg.msgType:%d, msg.ike_Msg.msg.ipsec_Iface.opCode:%d", __func__, ike.msgType,
             ike.ipsec_Iface.opCode);
    if (ike.ipsec_Iface.opCode == TUNNEL_REPLAY_ALL)
        vyrwrap_handle_ipsec_replayall(nullptr, kReplayTunnelMax);
    else
        log_error("<VYRWRAP>:%s: Unsupported opcode (%d)", __func__, ike.ipsec_Iface.opCode);
    return 0;
}

int vyrwrap_process_vyrapp_msg_im(const RoutingAppMsg *msg) {
    const auto &im = msg->msg.im_Msg;
    log_info("<VYRWRAP>:%s: msg->msg.im_Msg.msgType:%d, msg->msg.im_Msg.msg.vlan_Iface.opCode:%d", __func__, im.msgType,
             im.vlan_Iface.opCode);
    switch (im.msgType) {
        case IM_MSG_VLAN_IFACE:
            break;
        case IM_MSG_REPLAY_ALL:
            vyrwrap_handle_VlanIfaceInfo_replayall();
            break;
        default:
            // The message names the opcode although the kind decides.
            log_error("<VYRWRAP>:%s: Unsupported opcode (%d)", __func__, im.vlan_Iface.opCode);
    }
    return 0;
}

int vyrwrap_process_vyrapp_msg_cluster(const RoutingAppMsg *msg) {
    const uint32_t opcode = msg->msg.cluster_Msg.opCode;
    log_info("<VYRWRAP>:%s: msg->msg.cluster_Msg.opCode:%d", __func__, opcode);
    if (opcode == CLUSTER_REPLAY_ALL)
        vyrwrap_handle_ClusterInfo_replayall();
    else
        log_error("<VYRWRAP>:%s: Unsupported opcode (%d)", __func__, opcode);
    return 0;
}
