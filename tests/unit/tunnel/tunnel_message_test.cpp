/* Messages made from records, and sending them. */
#include "tunnel/tunnel_message.h"

#include <errno.h>

#include <array>

#include "tunnel/fixture.h"

namespace {

class TunnelMessageTest : public TunnelTest {
protected:
    void SetUp() override {
        TunnelTest::SetUp();
        fake::hashes["/op/tunnel/t"] = tunnel_fields("t", 17, 0);
        memset(&record_, 0, sizeof record_);
        ASSERT_EQ(vyrwrap_read_tunnel_info_from_dal("t", &record_), 0);
        fake::log_lines.clear();
    }

    /** The message's bytes, made over a buffer full of something else. */
    std::string prepared(uint32_t opcode) {
        RoutingAppMsg message;
        memset(&message, 0xa5, sizeof message);
        EXPECT_EQ(vyrwrap_prep_tunnel_msg_for_vyr(&record_, opcode, &message), 0);
        return std::string(reinterpret_cast<const char *>(&message), sizeof message);
    }

    vpninfo record_;
};

/** Bytes of a number of any width, as they stand in memory. */
template <typename Number>
std::string bytes_of(Number number) {
    return std::string(reinterpret_cast<const char *>(&number), sizeof number);
}

TEST_F(TunnelMessageTest, HasEveryMemberAtItsOffsetAndZerosElsewhere) {
    std::string expected(348, '\0');
    const auto put = [&](size_t offset, const std::string &bytes) { expected.replace(offset, bytes.size(), bytes); };
    put(4, bytes_of<uint32_t>(2));
    put(8, bytes_of<uint32_t>(1));
    put(12, bytes_of<uint32_t>(3));
    put(16, "t");
    put(216, std::string("\x00\x1b\x2c\x3d\x4e\x5f", 6));
    put(234, "6f1c2a7e-uuid");
    put(308, bytes_of<int32_t>(-7));
    put(312, bytes_of<uint32_t>(17));
    put(316, bytes_of<uint32_t>(0x0A010203));
    put(320, bytes_of<uint32_t>(0xFFFFFFFC));
    put(324, bytes_of<uint32_t>(0x0A010204));
    put(328, bytes_of<uint32_t>(0xC0000209));
    put(332, bytes_of<uint32_t>(66));
    put(336, bytes_of<uint16_t>(4094));
    put(338, bytes_of<uint8_t>(200));
    EXPECT_EQ(prepared(3), expected);
    record_.tunnel_status = 1;
    put(332, bytes_of<uint32_t>(66 | 32));
    put(339, bytes_of<uint8_t>(1));
    EXPECT_EQ(prepared(3), expected);
}

TEST_F(TunnelMessageTest, SendsAnyStatusButOneAsZeroWithTheFlagsAsTheyAre) {
    for (const uint8_t status : std::array<uint8_t, 3>{0, 2, 255}) {
        record_.tunnel_status = status;
        EXPECT_EQ(fake::byte_at(prepared(1), 339), 0);
        EXPECT_EQ(fake::word_at(prepared(1), 332), 66U);
    }
}

TEST_F(TunnelMessageTest, PassesOnAFlagBitThatTheTunnelHasItself) {
    record_.flags = 0xFFFFFFFF;
    EXPECT_EQ(fake::word_at(prepared(1), 332), 0xFFFFFFFFU);
    record_.flags = 0;
    record_.tunnel_status = 1;
    EXPECT_EQ(fake::word_at(prepared(1), 332), 32U);
}

TEST_F(TunnelMessageTest, TerminatesTextsThatFillTheirField) {
    memset(record_.tunnel_name, 'n', sizeof record_.tunnel_name);
    memset(record_.pair_uuid, 'u', sizeof record_.pair_uuid);
    const std::string message = prepared(1);
    EXPECT_EQ(message.substr(16, 200), std::string(199, 'n') + '\0');
    EXPECT_EQ(message.substr(234, 40), std::string(39, 'u') + '\0');
}

TEST_F(TunnelMessageTest, SendsNothingOfTheMacBehindItsSixBytes) {
    memset(record_.dst_mac, 'm', sizeof record_.dst_mac);
    EXPECT_EQ(prepared(1).substr(216, 18), "mmmmmm" + std::string(12, '\0'));
}

TEST_F(TunnelMessageTest, ReportsMissingArgumentsOfThePreparation) {
    RoutingAppMsg message;
    EXPECT_EQ(vyrwrap_prep_tunnel_msg_for_vyr(nullptr, 1, &message), -1);
    EXPECT_EQ(vyrwrap_prep_tunnel_msg_for_vyr(&record_, 1, nullptr), -1);
    const std::string begin = "<VYRWRAP>:vyrwrap_prep_tunnel_msg_for_vyr: invalid input (vpninfo_ptr:";
    EXPECT_EQ(errors(), (Texts{begin + "(nil), msg:" + pointer_text(&message) + ")",
                               begin + pointer_text(&record_) + ", msg:(nil))"}));
}

TEST_F(TunnelMessageTest, CopiesAllButTheOpcode) {
    ipsec_Iface iface{};
    vyrwrap_copy_tunnel_to_vyr(&record_, &iface);
    EXPECT_EQ(iface.opCode, 0U);
    EXPECT_STREQ(iface.tunnel_name, "t");
    EXPECT_EQ(iface.mapid, 17U);
}

TEST_F(TunnelMessageTest, ReportsMissingArgumentsOfTheCopy) {
    ipsec_Iface iface;
    memset(&iface, 0xa5, sizeof iface);
    const ipsec_Iface before = iface;
    vyrwrap_copy_tunnel_to_vyr(nullptr, &iface);
    vyrwrap_copy_tunnel_to_vyr(&record_, nullptr);
    EXPECT_EQ(
        errors(),
        (Texts{
            "vyrwrap_copy_tunnel_to_vyr: vpninfo_ptr ((nil)) or ipsec_iface(" + pointer_text(&iface) + ") is NULL",
            "vyrwrap_copy_tunnel_to_vyr: vpninfo_ptr (" + pointer_text(&record_) + ") or ipsec_iface((nil)) is NULL"}));
    EXPECT_EQ(memcmp(&iface, &before, sizeof iface), 0);
}

TEST_F(TunnelMessageTest, SendsEachOpcodeFromOneToTwelve) {
    record_.tunnel_status = 2;
    for (uint32_t opcode = 1; opcode <= 12; opcode++) {
        fake::log_lines.clear();
        EXPECT_GE(vyrwrap_send_tunnel_msg_to_vyr(&record_, opcode), 0);
        EXPECT_EQ(app_.receive(), Texts{prepared(opcode)});
        ASSERT_EQ(fake::log_lines.size(), 1U);
        EXPECT_EQ(infos(), Texts{"<VYRWRAP>:vyrwrap_send_tunnel_msg_to_vyr: Sent tunnel t (opcode:" +
                                 std::to_string(opcode) + ",ts:2) to VYR"});
    }
}

TEST_F(TunnelMessageTest, RefusesEveryOtherOpcodeBeforeAnythingIsSent) {
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(&record_, 0), -1);
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(&record_, 13), -1);
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(nullptr, 13), -1);
    EXPECT_EQ(errors(), (Texts{"vyrwrap_send_tunnel_msg_to_vyr: Invalid opcode 0 (tunnel t)",
                               "vyrwrap_send_tunnel_msg_to_vyr: Invalid opcode 13 (tunnel t)",
                               "vyrwrap_send_tunnel_msg_to_vyr: Invalid opcode 13 (tunnel NULL)"}));
    EXPECT_EQ(fake::call_count("sendto"), 0);
}

TEST_F(TunnelMessageTest, ReportsAMessageThatCannotBePrepared) {
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(nullptr, 1), -1);
    ASSERT_EQ(errors().size(), 2U);
    EXPECT_EQ(errors()[1], "vyrwrap_send_tunnel_msg_to_vyr: Error in preparing tunnel message to VYR-APP");
    EXPECT_EQ(fake::call_count("sendto"), 0);
}

TEST_F(TunnelMessageTest, ReportsAMessageThatCannotBeSent) {
    record_.tunnel_status = 1;
    fake::fail_call("sendto", EAGAIN);
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(&record_, 9), -1);
    ASSERT_EQ(errors().size(), 2U);
    EXPECT_EQ(errors()[1],
              "<VYRWRAP>:vyrwrap_send_tunnel_msg_to_vyr: Failed sending tunnel t (opcode:9,ts:1) to Vyr "
              "(ret:-1)");
    EXPECT_TRUE(infos().empty());
}

TEST_F(TunnelMessageTest, ReportsAMessageOfWhichNothingWasSent) {
    fake::on_sendto = [](long *result) {
        *result = 0;
        return true;
    };
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(&record_, 1), -1);
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>:vyrwrap_send_tunnel_msg_to_vyr: Failed sending tunnel t (opcode:1,ts:0) to "
                              "Vyr (ret:0)"});
}

TEST_F(TunnelMessageTest, RefusesAnOpcodeAlsoWithoutARecord) {
    EXPECT_EQ(vyrwrap_send_tunnel_msg_to_vyr(nullptr, 13), -1);
    EXPECT_EQ(errors(), Texts{"vyrwrap_send_tunnel_msg_to_vyr: Invalid opcode 13 (tunnel NULL)"});
}

}  // namespace
