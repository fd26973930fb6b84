/* Requests by family. */
#include "fakes/fakes.h"
#include "rpapp/link.h"

namespace {

/** A record with the words at offsets 8 and 12. */
RoutingAppMsg record(uint32_t family, uint32_t word8, uint32_t word12) {
    RoutingAppMsg msg{};
    msg.srcId = 3;
    msg.destId = 65535;
    msg.msgType = family;
    msg.msg.im_Msg.msgType = word8;
    msg.msg.im_Msg.vlan_Iface.opCode = word12;
    return msg;
}

class DispatchTest : public fake::Test {
protected:
    static void dispatch(uint32_t family, uint32_t word8, uint32_t word12) {
        const RoutingAppMsg msg = record(family, word8, word12);
        EXPECT_EQ(vyrwrap_process_vyrapp_message(&msg), 0);
    }

    static std::vector<std::string> errors() { return fake::log_texts(3); }
    static std::vector<std::string> infos() { return fake::log_texts(6); }
};

using Texts = std::vector<std::string>;

const std::string kDispatched = "<VYRWRAP>:vyrwrap_process_vyrapp_message: msg.srcId:3, destId:65535, msgType:";
const std::string kIke = "<VYRWRAP>:vyrwrap_process_vyrapp_msg_ike: ";
const std::string kIm = "<VYRWRAP>:vyrwrap_process_vyrapp_msg_im: ";
const std::string kCluster = "<VYRWRAP>:vyrwrap_process_vyrapp_msg_cluster: ";

TEST_F(DispatchTest, RefusesEveryOtherFamily) {
    for (const uint32_t family : {0U, 3U, 8U, 10U, 0x02000000U}) {
        fake::log_lines.clear();
        dispatch(family, 1, 6);
        EXPECT_EQ(infos(), Texts{kDispatched + std::to_string(family)});
        EXPECT_EQ(errors(), Texts{"<VYRWRAP>:vyrwrap_process_vyrapp_message: Unexpected msgType(" +
                                  std::to_string(family) + ")"});
    }
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(DispatchTest, ReplaysAtMostTwoHundredTunnelsOnRequest) {
    dispatch(2, 1, 6);
    ASSERT_GE(infos().size(), 3U);
    EXPECT_EQ(infos()[0], kDispatched + "2");
    EXPECT_EQ(infos()[1], kIke + "msg.srcId:3, destId:65535, msgType:2");
    EXPECT_EQ(infos()[2], kIke + "msg.ike_Msg.msgType:1, msg.ike_Msg.msg.ipsec_Iface.opCode:6");
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>:vyrwrap_handle_ipsec_replayall: Entered, last_name:NULL, max_count:200"});
}

TEST_F(DispatchTest, RefusesATunnelMessageOfAnotherKind) {
    for (const uint32_t kind : {0U, 2U, 7U}) {
        fake::log_lines.clear();
        const RoutingAppMsg msg = record(2, kind, 6);
        EXPECT_EQ(vyrwrap_process_vyrapp_msg_ike(&msg), -1);
        EXPECT_EQ(infos(), Texts{kIke + "msg.srcId:3, destId:65535, msgType:2"});
        EXPECT_EQ(errors(), Texts{kIke + "Unexpected msgType(2), ike_Msg.msgType:(" + std::to_string(kind) + ")"});
    }
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(DispatchTest, RefusesEveryOtherTunnelOpcode) {
    for (const uint32_t opcode : {0U, 1U, 2U, 5U, 7U, 9U, 13U}) {
        fake::log_lines.clear();
        const RoutingAppMsg msg = record(2, 1, opcode);
        EXPECT_EQ(vyrwrap_process_vyrapp_msg_ike(&msg), 0);
        EXPECT_EQ(errors(), Texts{kIke + "Unsupported opcode (" + std::to_string(opcode) + ")"});
    }
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(DispatchTest, IgnoresAVlanRecord) {
    dispatch(1, 2, 4);
    EXPECT_EQ(infos(),
              (Texts{kDispatched + "1", kIm + "msg->msg.im_Msg.msgType:2, msg->msg.im_Msg.msg.vlan_Iface.opCode:4"}));
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(DispatchTest, ReplaysTheVlansOnRequestWhateverTheOpcode) {
    dispatch(1, 7, 0);
    EXPECT_EQ(infos()[1], kIm + "msg->msg.im_Msg.msgType:7, msg->msg.im_Msg.msg.vlan_Iface.opCode:0");
    ASSERT_FALSE(fake::dal_calls.empty());
    EXPECT_EQ(fake::dal_calls[0], "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vlans/route*");
    EXPECT_FALSE(fake::logged(3, kIm + "Unsupported opcode (0)"));
}

TEST_F(DispatchTest, ReplaysTheClustersOnRequest) {
    dispatch(9, 4, 0);
    EXPECT_EQ(infos()[1], kCluster + "msg->msg.cluster_Msg.opCode:4");
    ASSERT_FALSE(fake::dal_calls.empty());
    EXPECT_EQ(fake::dal_calls[0], "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/clusters/*");
    EXPECT_FALSE(fake::logged(3, kCluster + "Unsupported opcode (4)"));
}

TEST_F(DispatchTest, RefusesAVlanMessageOfAnotherKindNamingItsOpcode) {
    dispatch(1, 5, 77);
    EXPECT_EQ(infos()[1], kIm + "msg->msg.im_Msg.msgType:5, msg->msg.im_Msg.msg.vlan_Iface.opCode:77");
    EXPECT_EQ(errors(), Texts{kIm + "Unsupported opcode (77)"});
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(DispatchTest, DoesNotTakeAVlanOpcodeForTheKind) {
    dispatch(1, 6, 7);
    EXPECT_EQ(errors(), Texts{kIm + "Unsupported opcode (7)"});
}

TEST_F(DispatchTest, NoClusterMessageIsAFailure) {
    for (const uint32_t opcode : {0U, 4U}) {
        const RoutingAppMsg msg = record(9, opcode, 0);
        EXPECT_EQ(vyrwrap_process_vyrapp_msg_cluster(&msg), 0) << opcode;
    }
}

TEST_F(DispatchTest, RefusesEveryOtherClusterOpcode) {
    for (const uint32_t opcode : {0U, 1U, 2U, 3U, 5U}) {
        fake::log_lines.clear();
        dispatch(9, opcode, 4);
        EXPECT_EQ(infos(),
                  (Texts{kDispatched + "9", kCluster + "msg->msg.cluster_Msg.opCode:" + std::to_string(opcode)}));
        EXPECT_EQ(errors(), Texts{kCluster + "Unsupported opcode (" + std::to_string(opcode) + ")"});
    }
    EXPECT_TRUE(fake::dal_calls.empty());
}

}  // namespace
