/* What the lab's routing application makes of datagrams and commands. */
#include <string.h>

#include <array>
#include <random>

#include "cluster/cluster_record.h"
#include "fakes/fakes.h"
#include "fakes/routing_app.h"
#include "lab/rpapp/commands.h"
#include "lab/rpapp/decode.h"
#include "rpapp/message.h"

namespace {

template <typename Record>
std::string bytes_of(const Record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

std::string decoded(const std::string &datagram) {
    return decode_datagram(datagram.data(), datagram.size());
}

RoutingAppMsg tunnel(const char *name) {
    RoutingAppMsg message{};
    message.msgType = 2;
    message.msg.ike_Msg.msgType = 1;
    ipsec_Iface &iface = message.msg.ike_Msg.ipsec_Iface;
    iface.opCode = 9;
    strncpy(iface.tunnel_name, name, sizeof iface.tunnel_name - 1);
    memcpy(iface.dst_mac, "\x00\x1b\x2c\x3d\x4e\x5f", 6);
    strncpy(iface.pair_uuid, "u-1", sizeof iface.pair_uuid);
    iface.tunnel_index = -7;
    iface.mapid = 17;
    iface.tunnel_ip = 0x0A010203;
    iface.mask = 0xFFFFFFFC;
    iface.peer_tunnel_ip = 0x0A010204;
    iface.peer_public_ip = 0xC0000209;
    iface.flags = 0x62;
    iface.vlan_id = 4094;
    iface.link_priority = 200;
    iface.tunnel_status = 1;
    return message;
}

std::string tunnel_line(const std::string &name) {
    return "tunnel added-up op=9 kind=1 name=\"" + name +
           "\" mac=00:1b:2c:3d:4e:5f uuid=\"u-1\" index=-7 mapid=17 ip=10.1.2.3 mask=255.255.255.252 peer=10.1.2.4 "
           "public=192.0.2.9 flags=0x62 vlan=4094 priority=200 status=1\n";
}

/** A cluster message with as many IPv4 nodes. */
std::string cluster(uint8_t nodes) {
    ClusterInfo info{};
    info.opCode = 1;
    strcpy(info.name, "c1");
    info.ddg_ip = 0x0A000001;
    info.cluster_state = 1;
    memcpy(info.peer_mac, "\x01\x02\x03\x04\x05\x06", 6);
    info.node_num = nodes;
    for (uint8_t i = 0; i < nodes && i < kClusterNodeMax; i++) {
        const uint32_t address = 0xC0A80100U + i;
        info.nodelist[i].family = 2;
        memcpy(info.nodelist[i].address, &address, sizeof address);
        info.nodelist[i].flags = i;
    }
    std::string message = fake::word(0) + fake::word(9) + bytes_of(info);
    message.resize(348 + nodes * 24U);
    return message;
}

TEST(LabDecode, PrintsATunnelInOneLine) {
    EXPECT_EQ(decoded(bytes_of(tunnel("hq 1"))), tunnel_line("hq 1"));
}

TEST(LabDecode, PrintsOneLineATunnelAndOneForTheDatagram) {
    EXPECT_EQ(decoded(bytes_of(tunnel("a")) + bytes_of(tunnel("b")) + bytes_of(tunnel("c"))),
              tunnel_line("a") + tunnel_line("b") + tunnel_line("c") + "datagram 1044 bytes, 3 records\n");
}

TEST(LabDecode, PrintsAVlanInOneLine) {
    RoutingAppMsg message{};
    message.msgType = 1;
    message.msg.im_Msg.msgType = 2;
    message.msg.im_Msg.vlan_Iface = {4, 10, 0xC0A80A01, 0xFFFFFF00};
    EXPECT_EQ(decoded(bytes_of(message)), "vlan announced op=4 kind=2 id=10 ip=192.168.10.1 mask=255.255.255.0\n");
    message.msg.im_Msg.vlan_Iface.opCode = 5;
    EXPECT_EQ(decoded(bytes_of(message)), "vlan withdrawn op=5 kind=2 id=10 ip=192.168.10.1 mask=255.255.255.0\n");
}

TEST(LabDecode, PrintsAClusterWithItsNodesInOneLine) {
    EXPECT_EQ(decoded(cluster(2)),
              "cluster updated op=1 name=\"c1\" ddg_ip=10.0.0.1 state=1 mac=01:02:03:04:05:06 "
              "nodes=2 node=192.168.1.0/family:2/flags:0x0 node=192.168.1.1/family:2/flags:0x1\n");
    EXPECT_EQ(decoded(cluster(0)),
              "cluster updated op=1 name=\"c1\" ddg_ip=10.0.0.1 state=1 mac=01:02:03:04:05:06 nodes=0\n");
}

TEST(LabDecode, TakesAClusterOfNoValidNodeCountOrLengthForUnknown) {
    EXPECT_EQ(decoded(cluster(13)).substr(0, 18), "unknown 660 bytes:");
    EXPECT_EQ(decoded(cluster(2).substr(0, 395)).substr(0, 18), "unknown 395 bytes:");
}

TEST(LabDecode, NotesBytesThatShouldBeZero) {
    RoutingAppMsg message = tunnel("a");
    message.msg.ike_Msg.ipsec_Iface.reserved2[33] = 1;
    message.srcId = 3;
    std::string line = tunnel_line("a");
    line.pop_back();
    EXPECT_EQ(decoded(bytes_of(message)), line + " RESERVED-BYTES-SET src=3 dest=0\n");
    EXPECT_EQ(decoded(cluster(1) + "").find("RESERVED"), std::string::npos);
    std::string padded = cluster(1);
    padded.back() = 'x';
    EXPECT_NE(decoded(padded).find(" RESERVED-BYTES-SET\n"), std::string::npos);
}

TEST(LabDecode, PrintsWhatItDoesNotKnowAsBytes) {
    EXPECT_EQ(decoded(""), "unknown 0 bytes: \n");
    EXPECT_EQ(decoded("\x01\xff"), "unknown 2 bytes: 01ff\n");
    EXPECT_EQ(decoded(bytes_of(tunnel("a")) + "x"),
              tunnel_line("a") + "unknown 1 bytes: 78\ndatagram 349 bytes, 2 records\n");
}

TEST(LabDecode, LetsNoNameForgeALine) {
    EXPECT_EQ(decoded(bytes_of(tunnel("a\"\n\\"))), tunnel_line("a\\\"\\x0a\\\\"));
}

TEST(LabDecode, SurvivesAnyBytes) {
    std::mt19937 random(7);
    for (size_t length = 0; length < 2000; length++) {
        std::string datagram(length, '\0');
        for (char &byte : datagram)
            byte = static_cast<char>(random());
        if (length >= 8)
            datagram.replace(4, 4, fake::word(std::array<uint32_t, 3>{9, 1, 2}[length % 3]));
        EXPECT_EQ(decoded(datagram).back(), '\n');
    }
}

TEST(LabCommands, AskForTheThreeReplays) {
    const std::string tunnels = parse_command("replay tunnels").datagram;
    const std::string vlans = parse_command("replay vlans").datagram;
    const std::string clusters = parse_command("replay clusters").datagram;
    EXPECT_EQ(tunnels.substr(0, 16), fake::word(0) + fake::word(2) + fake::word(1) + fake::word(6));
    EXPECT_EQ(vlans.substr(0, 16), fake::word(0) + fake::word(1) + fake::word(7) + fake::word(0));
    EXPECT_EQ(clusters.substr(0, 16), fake::word(0) + fake::word(9) + fake::word(4) + fake::word(0));
    for (const std::string &datagram : {tunnels, vlans, clusters})
        EXPECT_EQ(datagram.substr(16), std::string(332, '\0'));
    EXPECT_EQ(parse_command("replay routes").kind, Command::INVALID);
    EXPECT_EQ(parse_command("replay").kind, Command::INVALID);
}

TEST(LabCommands, SendAnyBytes) {
    EXPECT_EQ(parse_command("send").kind, Command::SEND);
    EXPECT_EQ(parse_command("send").datagram, "");
    EXPECT_EQ(parse_command("send 00 fF41").datagram, std::string("\0\xff\x41", 3));
    EXPECT_EQ(parse_command("send 123").kind, Command::INVALID);
    EXPECT_EQ(parse_command("send 0g").kind, Command::INVALID);
}

TEST(LabCommands, KnowTheirWords) {
    EXPECT_EQ(parse_command("").kind, Command::NOTHING);
    EXPECT_EQ(parse_command("stop").kind, Command::STOP);
    EXPECT_EQ(parse_command("go").kind, Command::GO);
    EXPECT_EQ(parse_command("quit").kind, Command::QUIT);
    EXPECT_EQ(parse_command("help").kind, Command::HELP);
    EXPECT_EQ(parse_command("stop now").kind, Command::INVALID);
    EXPECT_EQ(parse_command("halt").kind, Command::INVALID);
}

}  // namespace
