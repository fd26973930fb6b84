#include "cluster_fixture.h"

namespace {

constexpr char kMac[] = "\x01\x02\x03\x04\x05\x06";
constexpr char kReplay[] = "<VYRWRAP>:vyrwrap_read_all_send_clusters_from_dal_to_vyr:";
constexpr char kName[] = "<VYRWRAP>:extract_cluster_name_from_cluster_key:cluster name: ";

class ClusterReplayTest : public ClusterTest {
protected:
    void SetUp() override {
        ClusterTest::SetUp();
        add_tunnel("t", 0x0A090807, kMac);
    }

    /** The replay's own lines of a level. */
    static Texts own_texts(int level) {
        Texts texts;
        for (const std::string &text : fake::log_texts(level))
            if (text.rfind(kReplay, 0) == 0)
                texts.push_back(text.substr(strlen(kReplay)));
        return texts;
    }
};

TEST_F(ClusterReplayTest, SubscribesThenSendsEveryActiveCluster) {
    set_cluster("a", "10.9.8.7", "1", 1);
    set_cluster("b", "10.9.8.7", "255", 12);
    fake::strings["/op/other"] = "";
    EXPECT_EQ(vyrwrap_handle_ClusterInfo_replayall(), 0);
    EXPECT_EQ(app_.receive(),
              (Texts{message(1, "a", 0x0A090807, 1, kMac, 1), message(1, "b", 0x0A090807, 255, kMac, 12)}));
    ASSERT_GE(fake::dal_calls.size(), 3U);
    EXPECT_EQ(Texts(fake::dal_calls.begin(), fake::dal_calls.begin() + 3),
              (Texts{"dal_sub_command PSUBSCRIBE __keyspace@0__:/op/clusters/*", "dal_sync_ctx_chk",
                     "dal_scan /op/clusters/*"}));
    EXPECT_EQ(fake::log_texts(7).front(), "<VYRWRAP>:vyrwrap_handle_ClusterInfo_replayall: Entered");
    const std::string own = kReplay;
    EXPECT_EQ(fake::log_texts(6),
              (Texts{"<VYRWRAP>:vyrwrap_cluster_info_subscribe:65 subscribed dal for (PSUBSCRIBE "
                     "__keyspace@0__:/op/clusters/*) done",
                     own + " do scan for pattern /op/clusters/*", own + " dal_scan(): num of cluster keys:2",
                     own + "cluster 1: /op/clusters/a (name len:14)", kName + std::string("a"),
                     own + " Sent Cluster-info (a, cluster-state:1, opCode:1, node_count:1) to VYR",
                     own + "cluster 2: /op/clusters/b (name len:14)", kName + std::string("b"),
                     own + " Sent Cluster-info (b, cluster-state:255, opCode:1, node_count:12) to VYR"}));
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(ClusterReplayTest, GoesOnWhenTheSubscriptionFailed) {
    set_cluster("a", "10.9.8.7", "1", 1);
    fake::failing_calls = {"dal_sub_command"};
    EXPECT_EQ(vyrwrap_handle_ClusterInfo_replayall(), 0);
    EXPECT_EQ(app_.receive().size(), 1U);
}

TEST_F(ClusterReplayTest, AKeyWithoutAUsableNameRepeatsItsNumber) {
    const std::string long_key = "/op/clusters/" + std::string(40, 'b');
    set_cluster("a", "10.9.8.7", "1", 1);
    set_cluster(std::string(40, 'b'), "10.9.8.7", "1", 1);
    set_cluster("c", "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(),
              (Texts{message(1, "a", 0x0A090807, 1, kMac, 1), message(1, "c", 0x0A090807, 1, kMac, 1)}));
    EXPECT_EQ(own_texts(6),
              (Texts{" do scan for pattern /op/clusters/*", " dal_scan(): num of cluster keys:3",
                     "cluster 1: /op/clusters/a (name len:14)",
                     " Sent Cluster-info (a, cluster-state:1, opCode:1, node_count:1) to VYR",
                     "cluster 2: " + long_key + " (name len:53)", "cluster 2: /op/clusters/c (name len:14)",
                     " Sent Cluster-info (c, cluster-state:1, opCode:1, node_count:1) to VYR"}));
    EXPECT_EQ(own_texts(3), Texts{"Failed to extract cluster name from cluster key(" + long_key + ")"});
}

TEST_F(ClusterReplayTest, AnEmptyNameIsTaken) {
    set_cluster("", "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(), Texts{message(1, "", 0x0A090807, 1, kMac, 1)});
}

TEST_F(ClusterReplayTest, ANameOfThirtyTwoCharactersIsTaken) {
    const std::string name(32, 'n');
    set_cluster(name, "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(), Texts{message(1, name, 0x0A090807, 1, kMac, 1)});
}

TEST_F(ClusterReplayTest, TheNameIsSentAsItIs) {
    set_cluster("a%%b%d", "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(), Texts{message(1, "a%%b%d", 0x0A090807, 1, kMac, 1)});
}

TEST_F(ClusterReplayTest, AnInactiveClusterIsPassedOverWithoutAWordAndCounts) {
    set_cluster("a", "10.9.8.7", "0", 1);
    set_cluster("b", "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(), Texts{message(1, "b", 0x0A090807, 1, kMac, 1)});
    EXPECT_TRUE(fake::log_texts(3).empty());
    EXPECT_TRUE(fake::logged(6, kReplay + std::string("cluster 2: /op/clusters/b (name len:14)")));
}

TEST_F(ClusterReplayTest, NothingOfOneClusterIsLeftInTheNext) {
    add_tunnel("u", 0x0A090806, "");
    set_cluster("a-long-name", "10.9.8.7", "9", 12);
    set_cluster("b", "10.9.8.6", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(),
              (Texts{message(1, "a-long-name", 0x0A090807, 9, kMac, 12), message(1, "b", 0x0A090806, 1, "", 1)}));
}

TEST_F(ClusterReplayTest, AClusterThatCannotBeReadIsSkipped) {
    set_cluster("a", "10.9.8.7", "1", "13", nodes(1, ipv4_node));
    set_cluster("b", "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive().size(), 1U);
    EXPECT_EQ(own_texts(3), Texts{" Error reading cluster(a) info from DAL"});
}

TEST_F(ClusterReplayTest, AClusterWithoutADdgIpFailsInTheLookup) {
    set_cluster("a", "nowhere", "1", 1);
    set_cluster("b", "10.9.8.7", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive().size(), 1U);
    EXPECT_EQ(own_texts(3), Texts{" Error in preparing cluster message to VYR-APP"});
    EXPECT_EQ(fake::log_texts(3)[0].find("<VYRWRAP>:vyrwrap_get_peer_mac_from_ddg_ip_for_cluster: Unable to find "
                                         "cluster with ddg IP 0.0.0.0 (clusterinfo_ptr:"),
              0U);
}

TEST_F(ClusterReplayTest, AClusterWithoutADdgIpIsSentWhereATunnelHasNoneEither) {
    add_tunnel("u", 0, "\x09\x09\x09\x09\x09\x09");
    set_cluster("a", "nowhere", "1", 1);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(), Texts{message(1, "a", 0, 1, "\x09\x09\x09\x09\x09\x09", 1)});
}

TEST_F(ClusterReplayTest, AFailedSendIsLoggedAndTheNextClusterSent) {
    set_cluster("a", "10.9.8.7", "1", 2);
    set_cluster("b", "10.9.8.7", "1", 1);
    fake::fail_call("sendto", EAGAIN);
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(app_.receive(), Texts{message(1, "b", 0x0A090807, 1, kMac, 1)});
    EXPECT_EQ(own_texts(3),
              Texts{" Failed sending cluster-info (a, cluster-state:1, opCode:1, node_count:2) to Vyr (ret:-1)"});
}

TEST_F(ClusterReplayTest, ASendOfNothingIsAFailedSend) {
    set_cluster("a", "10.9.8.7", "1", 2);
    fake::on_sendto = [](long *result) {
        *result = 0;
        return true;
    };
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_EQ(fake::log_texts(3),
              Texts{kReplay + std::string(" Failed sending cluster-info (a, cluster-state:1, opCode:1, node_count:2) "
                                          "to Vyr (ret:0)")});
}

TEST_F(ClusterReplayTest, ADalThatDoesNotAnswerEndsTheReplay) {
    set_cluster("a", "10.9.8.7", "1", 1);
    fake::failing_calls = {"dal_sync_ctx_chk"};
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::dal_calls, Texts{"dal_sync_ctx_chk"});
    EXPECT_EQ(fake::log_texts(6), Texts{kReplay + std::string(" do scan for pattern /op/clusters/*")});
    EXPECT_EQ(fake::log_texts(3), Texts{kReplay + std::string(" dal_sync_ctx_chk() returned error(-1)")});
}

TEST_F(ClusterReplayTest, AFailedScanEndsTheReplay) {
    set_cluster("a", "10.9.8.7", "1", 1);
    fake::failing_calls = {"dal_scan"};
    vyrwrap_read_all_send_clusters_from_dal_to_vyr();
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3), Texts{kReplay + std::string(" dal_scan() returned error(-1)")});
}

TEST_F(ClusterReplayTest, WithoutMemoryTheReplayIsGivenUpAndLeavesNothing) {
    set_cluster("a", "10.9.8.7", "1", 1);
    const char *const texts[] = {" Failed to create the list of keys", " Failed to alloc Clusterinfo mem(size:444)",
                                 " Failed to alloc Msgbuf mem(size:636)"};
    for (int skip = 0; skip < 3; skip++) {
        fake::log_lines.clear();
        fake::fail_call("calloc", ENOMEM, skip);
        vyrwrap_read_all_send_clusters_from_dal_to_vyr();
        EXPECT_EQ(fake::log_texts(3), Texts{std::string(kReplay) + texts[skip]});
    }
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(app_.receive().empty());
}

}  // namespace
