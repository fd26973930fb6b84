#include "fakes/fakes.h"
#include "vlan/vlan_relay.h"

namespace {

using Texts = std::vector<std::string>;

class VlanPathTest : public fake::Test {
protected:
    int read(const std::string &path, uint32_t opcode = VLAN_ANNOUNCED) {
        return vyrwrap_read_vlan_interface_info_from_path(path.c_str(), opcode, &record_);
    }

    /** Reads a path that must be refused. Returns the error's text; there must be no other message. */
    std::string refused(const std::string &path) {
        fake::log_lines.clear();
        record_ = {1, 2, 3, 4};
        EXPECT_EQ(read(path), -1) << path;
        EXPECT_EQ(record_.opCode, 1U) << path;
        EXPECT_EQ(record_.vlan_id, 2U) << path;
        EXPECT_EQ(record_.ip, 3U) << path;
        EXPECT_EQ(record_.netmask, 4U) << path;
        EXPECT_EQ(fake::log_lines.size(), 1U) << path;
        const Texts texts = fake::log_texts(3);
        return texts.empty() ? "(no error)" : texts.front();
    }

    vlan_Iface record_{};
};

TEST_F(VlanPathTest, ReadsAddressNetmaskAndId) {
    EXPECT_EQ(read("/op/vlans/route{10.1.1.1:255.255.255.0:12}", VLAN_WITHDRAWN), 0);
    EXPECT_EQ(record_.opCode, 5U);
    EXPECT_EQ(record_.vlan_id, 12U);
    EXPECT_EQ(record_.ip, 0x0A010101U);
    EXPECT_EQ(record_.netmask, 0xFFFFFF00U);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(6),
              Texts{"<VYRWRAP>: vyrwrap_read_vlan_interface_info_from_path: 112: vlan 12, vlan opcode 5, ipaddr "
                    "10.1.1.1, netmask 255.255.255.0"});
}

TEST_F(VlanPathTest, OnlyTheTextFromTheBraceOnIsRead) {
    EXPECT_EQ(read("anything{1.2.3.4:0.0.0.0:1}and more"), 0);
    EXPECT_EQ(record_.ip, 0x01020304U);
    EXPECT_EQ(record_.netmask, 0U);
}

TEST_F(VlanPathTest, RefusesNullArguments) {
    EXPECT_EQ(vyrwrap_read_vlan_interface_info_from_path(nullptr, 4, &record_), -1);
    EXPECT_EQ(vyrwrap_read_vlan_interface_info_from_path("{1.2.3.4:0.0.0.0:1}", 4, nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(VlanPathTest, NeedsABrace) {
    EXPECT_EQ(refused(""), "<VYRWRAP>: Error in Path, no '{' symbol");
    EXPECT_EQ(refused("/op/vlans/route10.1.1.1:255.255.255.0:12}"), "<VYRWRAP>: Error in Path, no '{' symbol");
}

TEST_F(VlanPathTest, NeedsTwoColons) {
    EXPECT_EQ(refused("/r{10.1.1.1}"), "<VYRWRAP>: 68: Error in Path, no ':' symbol");
    EXPECT_EQ(refused("/r{10.1.1.1:255.255.255.0}"), "<VYRWRAP>: 82: Error in Path, no ':' symbol");
}

TEST_F(VlanPathTest, NeedsAValidAddress) {
    const std::string text = "<VYRWRAP>: Error in Path, Invalid dest ip ";
    EXPECT_EQ(refused("/r{10.1.1.256:255.255.255.0:1}"), text + "10.1.1.256");
    EXPECT_EQ(refused("/r{:255.255.255.0:1}"), text);
    EXPECT_EQ(refused("/r{x:255.255.255.0:1}"), text + "x");
    EXPECT_EQ(refused("/r{{1.2.3.4:255.255.255.0:1}"), text + "{1.2.3.4");
}

TEST_F(VlanPathTest, AColonBeforeTheBraceMakesTheAddressEmpty) {
    EXPECT_EQ(refused("a:b{10.1.1.1:255.255.255.0:1}"), "<VYRWRAP>: Error in Path, Invalid dest ip ");
    EXPECT_EQ(refused(":{10.1.1.1:255.255.255.0:1}"), "<VYRWRAP>: Error in Path, Invalid dest ip ");
}

TEST_F(VlanPathTest, NeedsAValidNetmask) {
    const std::string text = "<VYRWRAP>: Error in Path, Invalid mask ip ";
    EXPECT_EQ(refused("/r{10.1.1.1:255.255.255.0}:1"), text + "255.255.255.0}");
    EXPECT_EQ(refused("/r{10.1.1.1::1}"), text);
    EXPECT_EQ(refused("/r{10.1.1.1:mask:1}"), text + "mask");
}

TEST_F(VlanPathTest, AddressesOfUpTo15CharactersFitAndLongerOnesAreNeverCut) {
    EXPECT_EQ(read("/r{100.100.100.100:255.255.255.255:1}"), 0);
    EXPECT_EQ(record_.ip, 0x64646464U);
    EXPECT_EQ(record_.netmask, 0xFFFFFFFFU);
    EXPECT_EQ(refused("/r{0100.100.100.100:255.0.0.0:1}"),
              "<VYRWRAP>: Error in Path, Invalid dest ip 0100.100.100.100");
    EXPECT_EQ(refused("/r{100.100.100.100 x:255.0.0.0:1}"),
              "<VYRWRAP>: Error in Path, Invalid dest ip 100.100.100.100 x");
    EXPECT_EQ(refused("/r{10.0.0.1:0255.255.255.255:1}"), "<VYRWRAP>: Error in Path, Invalid mask ip 0255.255.255.255");
}

TEST_F(VlanPathTest, TakesWhateverInetAtonTakes) {
    EXPECT_EQ(read("/r{10.1:0xffffff00:1}"), 0);
    EXPECT_EQ(record_.ip, 0x0A000001U);
    EXPECT_EQ(record_.netmask, 0xFFFFFF00U);
}

TEST_F(VlanPathTest, AnAddressMayBeOneDigit) {
    EXPECT_EQ(read("/r{1:0:1}"), 0);
    EXPECT_EQ(record_.ip, 1U);
    EXPECT_EQ(record_.netmask, 0U);
}

TEST_F(VlanPathTest, ARefusedAddressIsLoggedAsFarAsALineGoes) {
    const std::string text = "<VYRWRAP>: Error in Path, Invalid dest ip ";
    const std::string address(3000, 'a');
    EXPECT_EQ(refused("/r{" + address + ":255.255.255.0:1}"), (text + address).substr(0, KORVA_LOG_BUFFER_SIZE - 1));
}

TEST_F(VlanPathTest, NeedsAClosingBraceBehindTheSecondColon) {
    EXPECT_EQ(refused("/r{10.1.1.1:255.255.255.0:12"), "<VYRWRAP>: Error in Path, no '}' symbol");
}

TEST_F(VlanPathTest, TakesIdsFrom1To4095) {
    const auto path = [](const std::string &id) { return "/r{10.1.1.1:255.255.255.0:" + id + "}"; };
    const std::string text = "<VYRWRAP>: vyrwrap_read_vlan_interface_info_from_path: 107: Invalid vlan ";
    EXPECT_EQ(read(path("1")), 0);
    EXPECT_EQ(record_.vlan_id, 1U);
    EXPECT_EQ(read(path("4095")), 0);
    EXPECT_EQ(record_.vlan_id, 4095U);
    EXPECT_EQ(refused(path("0")), text + "0");
    EXPECT_EQ(refused(path("4096")), text + "4096");
    EXPECT_EQ(refused(path("")), text + "0");
    EXPECT_EQ(refused(path("vlan")), text + "0");
    EXPECT_EQ(refused(path("-1")), text + "4294967295");
    EXPECT_EQ(refused(path("4294967297")), text + "2147483647");
}

TEST_F(VlanPathTest, ReadsAnIdOfAnyLengthAsAtoiWould) {
    EXPECT_EQ(read("/r{10.1.1.1:255.255.255.0:" + std::string(300, '0') + "12}"), 0);
    EXPECT_EQ(record_.vlan_id, 12U);
    EXPECT_EQ(read("/r{10.1.1.1:255.255.255.0: 13x:14}"), 0);
    EXPECT_EQ(record_.vlan_id, 13U);
}

class VlanChannelTest : public fake::Test {
protected:
    int read(const char *channel) {
        return vyrwrap_read_vlan_interface_info_from_notify_key(channel, VLAN_ANNOUNCED, &record_);
    }

    vlan_Iface record_{};
};

TEST_F(VlanChannelTest, ReadsThePathBehindTheFirstColon) {
    EXPECT_EQ(read("__keyspace@0__:/op/vlans/route{10.1.1.1:255.255.255.0:12}"), 0);
    EXPECT_EQ(record_.opCode, 4U);
    EXPECT_EQ(record_.vlan_id, 12U);
    EXPECT_EQ(record_.ip, 0x0A010101U);
    EXPECT_EQ(record_.netmask, 0xFFFFFF00U);
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(VlanChannelTest, LogsThePathThatCannotBeRead) {
    EXPECT_EQ(read("__keyspace@0__:/op/vlans/route_redistributed_vlans"), -1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: Error in Path, no '{' symbol",
                     "<VYRWRAP>:vyrwrap_read_vlan_interface_info_from_notify_key:137: Error in extracting vlan "
                     "parameters from path /op/vlans/route_redistributed_vlans"}));
}

TEST_F(VlanChannelTest, AChannelWithoutAColonHasAnEmptyPath) {
    const Texts expected = {"<VYRWRAP>: Error in Path, no '{' symbol",
                            "<VYRWRAP>:vyrwrap_read_vlan_interface_info_from_notify_key:137: Error in extracting vlan "
                            "parameters from path "};
    EXPECT_EQ(read("/op/vlans/route{"), -1);
    EXPECT_EQ(fake::log_texts(3), expected);
    fake::log_lines.clear();
    EXPECT_EQ(read(nullptr), -1);
    EXPECT_EQ(fake::log_texts(3), expected);
}

TEST_F(VlanChannelTest, APathIsHeldUpTo127Characters) {
    const std::string end = "{10.1.1.1:255.255.255.0:12}";
    const std::string fits = std::string(127 - end.size(), 'p') + end;
    EXPECT_EQ(read(("c:" + fits).c_str()), 0);
    EXPECT_EQ(read(("c:p" + fits).c_str()), -1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: Error in Path, no '}' symbol",
                     "<VYRWRAP>:vyrwrap_read_vlan_interface_info_from_notify_key:137: Error in extracting vlan "
                     "parameters from path " +
                         ("p" + fits).substr(0, 127)}));
}

}  // namespace
