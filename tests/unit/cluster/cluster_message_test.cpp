#include "cluster_fixture.h"

namespace {

std::string pointer(const void *address) {
    char text[32];
    snprintf(text, sizeof text, "%p", address);
    return text;
}

class ClusterMessageTest : public ClusterTest {
protected:
    void SetUp() override {
        ClusterTest::SetUp();
        record_.ddg_ip = 0x0A090807;
    }

    /** Prepares a message in memory of just its size, so that a byte too much is seen. */
    int prepare() {
        const std::unique_ptr<char[]> bytes(new char[cluster_message_size(record_.node_num)]());
        const int result = vyrwrap_prep_cluster_msg_for_vyr(&record_, bytes.get());
        message_.assign(bytes.get(), cluster_message_size(record_.node_num));
        return result;
    }

    ClusterInfo record_{};
    std::string message_;
};

TEST_F(ClusterMessageTest, HoldsHeadAndNodesAndIsZeroBehindThem) {
    add_tunnel("t", 0x0A090807, "\x01\x02\x03\x04\x05\x06");
    record_.opCode = 1;
    strcpy(record_.name, "east");
    record_.cluster_state = 7;
    record_.node_num = 2;
    memset(record_.nodelist, 0x5a, sizeof record_.nodelist);
    ASSERT_EQ(prepare(), 0);
    ASSERT_EQ(message_.size(), 396U);
    EXPECT_EQ(fake::half_at(message_, 0), 0U);
    EXPECT_EQ(fake::half_at(message_, 2), 0U);
    EXPECT_EQ(fake::word_at(message_, 4), 9U);
    EXPECT_EQ(fake::word_at(message_, 8), 1U);
    EXPECT_EQ(message_.substr(12, 128), padded("east", 128));
    EXPECT_EQ(fake::word_at(message_, 140), 0x0A090807U);
    EXPECT_EQ(fake::byte_at(message_, 144), 7U);
    EXPECT_EQ(message_.substr(145, 18), padded("\x01\x02\x03\x04\x05\x06", 18));
    EXPECT_EQ(fake::byte_at(message_, 163), 2U);
    EXPECT_EQ(message_.substr(164, 48), std::string(48, 0x5a));
    EXPECT_EQ(message_.substr(212), std::string(184, '\0'));
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterMessageTest, OfTwelveNodesIs636BytesLong) {
    record_.opCode = 2;
    record_.node_num = 12;
    memset(record_.nodelist, 0x5a, sizeof record_.nodelist);
    ASSERT_EQ(prepare(), 0);
    ASSERT_EQ(message_.size(), 636U);
    EXPECT_EQ(message_.substr(164, 288), std::string(288, 0x5a));
    EXPECT_EQ(message_.substr(452), std::string(184, '\0'));
}

TEST_F(ClusterMessageTest, OfADeletionIs348BytesLongAndNeedsNoMac) {
    record_.opCode = 2;
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(message_.size(), 348U);
    EXPECT_EQ(message_.substr(145, 18), std::string(18, '\0'));
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterMessageTest, ACountBeyondTheRecordReadsNothingBehindIt) {
    record_.opCode = 2;
    record_.node_num = 255;
    memset(record_.nodelist, 0x5a, sizeof record_.nodelist);
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(message_.substr(164, 288), std::string(288, 0x5a));
    EXPECT_EQ(message_.substr(452), std::string(message_.size() - 452, '\0'));
}

TEST_F(ClusterMessageTest, NeedsRecordAndMessage) {
    char bytes[kClusterMsgMax] = {};
    EXPECT_EQ(vyrwrap_prep_cluster_msg_for_vyr(nullptr, bytes), -1);
    EXPECT_EQ(vyrwrap_prep_cluster_msg_for_vyr(&record_, nullptr), -1);
    const std::string text = "<VYRWRAP>:vyrwrap_prep_cluster_msg_for_vyr: invalid input (clusterinfo_ptr:";
    EXPECT_EQ(fake::log_texts(3), (Texts{text + pointer(nullptr) + ", msg:" + pointer(bytes) + ")",
                                         text + pointer(&record_) + ", msg:" + pointer(nullptr) + ")"}));
}

TEST_F(ClusterMessageTest, OfAnUpdateNeedsTheMac) {
    record_.opCode = 1;
    EXPECT_EQ(prepare(), -1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>:vyrwrap_get_peer_mac_from_ddg_ip_for_cluster: Unable to find cluster with ddg IP "
                     "10.9.8.7 (clusterinfo_ptr:" +
                         pointer(&record_) + ")",
                     "<VYRWRAP>:vyrwrap_prep_cluster_msg_for_vyr: Error in fetching the peer mac from ddg IP "
                     "(clusterinfo_ptr:" +
                         pointer(&record_) + ") "}));
}

TEST_F(ClusterMessageTest, TheMacIsTheFirstMatchingTunnelsInTheTablesOrder) {
    add_tunnel("z", 0x0A090800, "\x11\x11\x11\x11\x11\x11");
    add_tunnel("m", 0x0A090807, "\x22\x22\x22\x22\x22\x22");
    add_tunnel("a", 0x0A090807, "\x33\x33\x33\x33\x33\x33");
    EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(&record_), 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(record_.peer_mac), 18),
              padded("\x22\x22\x22\x22\x22\x22", 18));
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterMessageTest, TheWholeMacFieldOfTheTunnelIsCopied) {
    add_tunnel("t", 0x0A090807, "123456789012345678");
    EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(&record_), 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(record_.peer_mac), 18), "123456789012345678");
    EXPECT_EQ(record_.node_num, 0);
}

TEST_F(ClusterMessageTest, EachLookupBeginsWithTheFirstTunnel) {
    add_tunnel("a", 0x0A090807, "\x22\x22\x22\x22\x22\x22");
    add_tunnel("b", 1, "\x33\x33\x33\x33\x33\x33");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(&record_), 1);
}

TEST_F(ClusterMessageTest, WithoutAMatchThereIsNoMac) {
    const std::string text =
        "<VYRWRAP>:vyrwrap_get_peer_mac_from_ddg_ip_for_cluster: Unable to find cluster with ddg IP 10.9.8.7 "
        "(clusterinfo_ptr:" +
        pointer(&record_) + ")";
    EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(&record_), 0);
    vyrwrap_global.tunnel_table = table();
    EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(&record_), 0);
    add_tunnel("t", 0x0A090806, "\x11\x11\x11\x11\x11\x11");
    EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(&record_), 0);
    EXPECT_EQ(fake::log_texts(3), (Texts{text, text, text}));
}

TEST_F(ClusterMessageTest, WithoutARecordThereIsNoMac) {
    EXPECT_EQ(vyrwrap_get_peer_mac_from_ddg_ip_for_cluster(nullptr), 0);
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>:vyrwrap_get_peer_mac_from_ddg_ip_for_cluster: Null cluster ptr"});
}

}  // namespace
