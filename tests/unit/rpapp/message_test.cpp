/* The records' places, each found by writing the member and looking at the bytes. */
#include "rpapp/message.h"

#include <string.h>

#include "fakes/fakes.h"
#include "fakes/routing_app.h"

namespace {

std::string bytes_of(const RoutingAppMsg &msg) {
    return std::string(reinterpret_cast<const char *>(&msg), sizeof msg);
}

/** What 348 zero bytes become with `bytes` at `offset`. */
std::string zeros_but(size_t offset, const std::string &bytes) {
    std::string record(348, '\0');
    return record.replace(offset, bytes.size(), bytes);
}

template <typename Set>
std::string written_by(Set set) {
    RoutingAppMsg msg;
    memset(&msg, 0, sizeof msg);
    set(msg);
    return bytes_of(msg);
}

TEST(RoutingAppRecord, PutsTheEnvelopeFirst) {
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.srcId = 0x0201; }), zeros_but(0, "\x01\x02"));
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.destId = 0x0403; }), zeros_but(2, "\x03\x04"));
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msgType = 0x08070605; }), zeros_but(4, "\x05\x06\x07\x08"));
}

TEST(RoutingAppRecord, PutsTheMembersOfATunnelAtTheirOffsets) {
    const std::string w = "\x11\x22\x33\x44";
    constexpr uint32_t kWord = 0x44332211;
    const auto tunnel = [](auto set) { return written_by([&](RoutingAppMsg &m) { set(m.msg.ike_Msg.ipsec_Iface); }); };
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.ike_Msg.msgType = kWord; }), zeros_but(8, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.opCode = kWord; }), zeros_but(12, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { memset(t.tunnel_name, 'n', 200); }), zeros_but(16, std::string(200, 'n')));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { memset(t.dst_mac, 'm', 6); }), zeros_but(216, "mmmmmm"));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { memset(t.pair_uuid, 'u', 40); }), zeros_but(234, std::string(40, 'u')));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.tunnel_index = kWord; }), zeros_but(308, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.mapid = kWord; }), zeros_but(312, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.tunnel_ip = kWord; }), zeros_but(316, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.mask = kWord; }), zeros_but(320, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.peer_tunnel_ip = kWord; }), zeros_but(324, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.peer_public_ip = kWord; }), zeros_but(328, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.flags = kWord; }), zeros_but(332, w));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.vlan_id = 0x2211; }), zeros_but(336, "\x11\x22"));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.link_priority = 0x11; }), zeros_but(338, "\x11"));
    EXPECT_EQ(tunnel([](ipsec_Iface &t) { t.tunnel_status = 0x11; }), zeros_but(339, "\x11"));
}

TEST(RoutingAppRecord, PutsTheMembersOfAVlanAtTheirOffsets) {
    const std::string w = "\x11\x22\x33\x44";
    constexpr uint32_t kWord = 0x44332211;
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.im_Msg.msgType = kWord; }), zeros_but(8, w));
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.im_Msg.vlan_Iface.opCode = kWord; }), zeros_but(12, w));
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.im_Msg.vlan_Iface.vlan_id = kWord; }), zeros_but(16, w));
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.im_Msg.vlan_Iface.ip = kWord; }), zeros_but(20, w));
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.im_Msg.vlan_Iface.netmask = kWord; }), zeros_but(24, w));
}

TEST(RoutingAppRecord, PutsTheClusterOpcodeBehindTheEnvelope) {
    EXPECT_EQ(written_by([](RoutingAppMsg &m) { m.msg.cluster_Msg.opCode = 0x44332211; }),
              zeros_but(8, "\x11\x22\x33\x44"));
}

}  // namespace
