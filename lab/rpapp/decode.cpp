#include "lab/rpapp/decode.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "cluster/cluster_record.h"
#include "platform/cmnutil.h"
#include "rpapp/message.h"

namespace {

constexpr size_t kEnvelopeSize = offsetof(RoutingAppMsg, msg);
constexpr size_t kPrintedBytes = 32; /**< of a record that is none of the known ones */

__attribute__((format(printf, 1, 2))) std::string format(const char *text, ...) {
    char buffer[512];
    va_list args;
    va_start(args, text);
    vsnprintf(buffer, sizeof buffer, text, args);
    va_end(args);
    return buffer;
}

/** A text field between quotes, with C escapes for what would end the text or the line. */
std::string quoted(const char *field, size_t size) {
    std::string text = "\"";
    for (size_t i = 0; i < size && field[i]; i++) {
        const auto byte = static_cast<unsigned char>(field[i]);
        if (byte < ' ' || byte == 0x7f)
            text += format("\\x%02x", byte);
        else if (byte == '"' || byte == '\\')
            text += {'\\', field[i]};
        else
            text += field[i];
    }
    return text + '"';
}

std::string mac_text(const uint8_t *mac) {
    return format("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::string ip_text(uint32_t ip) {
    char text[16];
    return ip_to_str(ip, text, sizeof text);
}

std::string hex_text(const uint8_t *bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < std::min(length, kPrintedBytes); i++)
        text += format("%02x", bytes[i]);
    return length > kPrintedBytes ? text + "..." : text;
}

bool is_zero(const void *bytes, size_t size) {
    const auto *begin = static_cast<const uint8_t *>(bytes);
    return std::all_of(begin, begin + size, [](uint8_t byte) { return byte == 0; });
}

const char *zeros_note(bool zero) {
    return zero ? "" : " RESERVED-BYTES-SET";
}

const char *tunnel_operation(uint32_t opcode) {
    switch (opcode) {
        case TUNNEL_ADDED:
            return "added";
        case TUNNEL_DELETED:
            return "deleted";
        case TUNNEL_UPDATED:
            return "updated";
        case TUNNEL_WENT_UP:
            return "went-up";
        case TUNNEL_WENT_DOWN:
            return "went-down";
        case TUNNEL_ADDED_UP:
            return "added-up";
        default:
            return "unknown";
    }
}

std::string decode_tunnel(const RoutingAppMsg &message) {
    const ipsec_Iface &tunnel = message.msg.ike_Msg.ipsec_Iface;
    const bool zero = is_zero(tunnel.reserved1, sizeof tunnel.reserved1) &&
                      is_zero(tunnel.reserved2, sizeof tunnel.reserved2) &&
                      is_zero(tunnel.reserved3, sizeof tunnel.reserved3);
    return format("tunnel %s op=%u kind=%u name=", tunnel_operation(tunnel.opCode), tunnel.opCode,
                  message.msg.ike_Msg.msgType) +
           quoted(tunnel.tunnel_name, sizeof tunnel.tunnel_name) + " mac=" + mac_text(tunnel.dst_mac) +
           " uuid=" + quoted(tunnel.pair_uuid, sizeof tunnel.pair_uuid) +
           format(" index=%d mapid=%u", tunnel.tunnel_index, tunnel.mapid) + " ip=" + ip_text(tunnel.tunnel_ip) +
           " mask=" + ip_text(tunnel.mask) + " peer=" + ip_text(tunnel.peer_tunnel_ip) +
           " public=" + ip_text(tunnel.peer_public_ip) +
           format(" flags=0x%x vlan=%u priority=%u status=%u", tunnel.flags, tunnel.vlan_id, tunnel.link_priority,
                  tunnel.tunnel_status) +
           zeros_note(zero);
}

std::string decode_vlan(const RoutingAppMsg &message) {
    const vlan_Iface &vlan = message.msg.im_Msg.vlan_Iface;
    const char *operation = vlan.opCode == VLAN_ANNOUNCED   ? "announced"
                            : vlan.opCode == VLAN_WITHDRAWN ? "withdrawn"
                                                            : "unknown";
    const size_t used = offsetof(RoutingAppMsg, msg.im_Msg.vlan_Iface) + sizeof vlan;
    const auto *bytes = reinterpret_cast<const uint8_t *>(&message);
    return format("vlan %s op=%u kind=%u id=%u", operation, vlan.opCode, message.msg.im_Msg.msgType, vlan.vlan_id) +
           " ip=" + ip_text(vlan.ip) + " mask=" + ip_text(vlan.netmask) +
           zeros_note(is_zero(bytes + used, sizeof message - used));
}

/** The record has at least the length that its node count asks for. */
std::string decode_cluster(const uint8_t *record, size_t length) {
    ClusterInfo cluster{};
    memcpy(&cluster, record + kEnvelopeSize, kClusterHeadSize);
    const size_t used = kClusterHeadSize + cluster.node_num * sizeof(ClusterNode);
    memcpy(&cluster, record + kEnvelopeSize, used);
    const char *operation = cluster.opCode == CLUSTER_UPDATED   ? "updated"
                            : cluster.opCode == CLUSTER_DELETED ? "deleted"
                                                                : "unknown";
    std::string line = format("cluster %s op=%u name=", operation, cluster.opCode) +
                       quoted(cluster.name, sizeof cluster.name) + " ddg_ip=" + ip_text(cluster.ddg_ip) +
                       format(" state=%u mac=", cluster.cluster_state) + mac_text(cluster.peer_mac) +
                       format(" nodes=%u", cluster.node_num);
    for (size_t i = 0; i < cluster.node_num; i++) {
        const ClusterNode &node = cluster.nodelist[i];
        char address[46];
        korva_ip_to_str_hton(&node, address, sizeof address);
        line += format(" node=%s/family:%u/flags:0x%x", address, node.family, node.flags);
    }
    const bool zero = is_zero(cluster.peer_mac + 6, sizeof cluster.peer_mac - 6) &&
                      is_zero(record + kEnvelopeSize + used, length - kEnvelopeSize - used);
    return line + zeros_note(zero);
}

/** Length of the record that begins here; 0 when it is none, or is cut off. */
size_t record_length(const uint8_t *bytes, size_t left) {
    if (left < sizeof(RoutingAppMsg))
        return 0;
    uint32_t family;
    memcpy(&family, bytes + offsetof(RoutingAppMsg, msgType), sizeof family);
    if (family == MSG_FAMILY_VLAN || family == MSG_FAMILY_TUNNEL)
        return sizeof(RoutingAppMsg);
    if (family != MSG_FAMILY_CLUSTER)
        return 0;
    const size_t nodes = bytes[kEnvelopeSize + offsetof(ClusterInfo, node_num)];
    const size_t length = sizeof(RoutingAppMsg) + nodes * sizeof(ClusterNode);
    return nodes <= static_cast<size_t>(kClusterNodeMax) && length <= left ? length : 0;
}

std::string decode_record(const uint8_t *bytes, size_t length) {
    RoutingAppMsg message;
    memcpy(&message, bytes, sizeof message);
    std::string line = message.msgType == MSG_FAMILY_TUNNEL ? decode_tunnel(message)
                       : message.msgType == MSG_FAMILY_VLAN ? decode_vlan(message)
                                                            : decode_cluster(bytes, length);
    if (message.srcId != 0 || message.destId != 0)
        line += format(" src=%u dest=%u", message.srcId, message.destId);
    return line + "\n";
}

}  // namespace

std::string decode_datagram(const void *datagram, size_t length) {
    const auto *bytes = static_cast<const uint8_t *>(datagram);
    std::string lines;
    size_t records = 0;
    for (size_t offset = 0; offset < length || records == 0; records++) {
        const size_t left = length - offset;
        const size_t record = record_length(bytes + offset, left);
        if (record == 0) {
            lines += format("unknown %zu bytes: ", left) + hex_text(bytes + offset, left) + "\n";
            offset = length;
        } else {
            lines += decode_record(bytes + offset, record);
            offset += record;
        }
    }
    if (records > 1)
        lines += format("datagram %zu bytes, %zu records\n", length, records);
    return lines;
}
