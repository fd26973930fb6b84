#include "cluster_fixture.h"

namespace {

constexpr char kKey[] = "/op/clusters/c";
constexpr char kOne[] = "<VYRWRAP>:vyrwrap_read_cluster_info_one_param_from_dal:";

class ClusterNameTest : public fake::Test {
protected:
    int extract(const std::string &key) { return extract_cluster_name_from_cluster_key(key.c_str(), name_); }

    char name_[33] = {};
};

TEST_F(ClusterNameTest, IsTheRestOfTheKey) {
    EXPECT_EQ(extract("/op/clusters/east"), 0);
    EXPECT_STREQ(name_, "east");
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(6), Texts{"<VYRWRAP>:extract_cluster_name_from_cluster_key:cluster name: east"});
}

TEST_F(ClusterNameTest, Of32CharactersIsTaken) {
    const std::string name(32, 'n');
    EXPECT_EQ(extract("/op/clusters/" + name), 0);
    EXPECT_EQ(name_, name);
}

TEST_F(ClusterNameTest, Of33CharactersIsTooLong) {
    EXPECT_EQ(extract("/op/clusters/" + std::string(33, 'n')), -1);
    EXPECT_STREQ(name_, "");
    EXPECT_EQ(fake::log_texts(6),
              Texts{"<VYRWRAP>:extract_cluster_name_from_cluster_key:cluster name: " + std::string(33, 'n')});
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>:extract_cluster_name_from_cluster_key:cluster name(33) is larger than max len(32)"});
}

TEST_F(ClusterNameTest, MayBeEmpty) {
    EXPECT_EQ(extract("/op/clusters/"), 0);
    EXPECT_STREQ(name_, "");
    EXPECT_EQ(fake::log_texts(6), Texts{"<VYRWRAP>:extract_cluster_name_from_cluster_key:cluster name: "});
}

TEST_F(ClusterNameTest, OfAnotherKeyOrOfNoneIsRefusedWithoutAWord) {
    EXPECT_EQ(extract("/op/cluster/x"), -1);
    EXPECT_EQ(extract("/op/clusters"), -1);
    EXPECT_EQ(extract_cluster_name_from_cluster_key(nullptr, name_), -1);
    EXPECT_EQ(extract_cluster_name_from_cluster_key("/op/clusters/x", nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

class ClusterFieldTest : public ClusterTest {
protected:
    int read(int field, const std::string &value) {
        static constexpr const char *kNames[] = {"ddg_ip", "cluster_state", "node_num", "nodelist"};
        fake::hashes[kKey] = {{kNames[field], value}};
        return vyrwrap_read_cluster_info_one_param_from_dal(&record_, kKey, field);
    }

    std::string nodelist(size_t size) const {
        return std::string(reinterpret_cast<const char *>(record_.nodelist), size);
    }

    ClusterInfo record_{};
};

TEST_F(ClusterFieldTest, RefusesMissingArgumentsWithoutAWord) {
    EXPECT_EQ(vyrwrap_read_cluster_info_one_param_from_dal(nullptr, kKey, 0), 0);
    EXPECT_EQ(vyrwrap_read_cluster_info_one_param_from_dal(&record_, nullptr, 0), 0);
    EXPECT_EQ(vyrwrap_read_cluster_info_one_param_from_dal(&record_, "", 0), 0);
    EXPECT_EQ(vyrwrap_read_cluster_info_one_param_from_dal(&record_, kKey, 4), 0);
    EXPECT_EQ(vyrwrap_read_cluster_info_one_param_from_dal(&record_, kKey, -1), 0);
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterFieldTest, AMissingFieldIsLogged) {
    const Texts names = {"ddg_ip", "cluster_state", "node_num", "nodelist"};
    Texts expected;
    for (size_t i = 0; i < names.size(); i++) {
        EXPECT_EQ(vyrwrap_read_cluster_info_one_param_from_dal(&record_, kKey, static_cast<int>(i)), 0);
        expected.push_back(kOne + std::string("  ret:-1 dal_hget failed(cluster-key:/op/clusters/c, field:") +
                           std::to_string(i) + "/" + names[i] + ")");
    }
    EXPECT_EQ(fake::log_texts(3), expected);
    EXPECT_EQ(fake::dal_calls, (Texts{"dal_hget /op/clusters/c ddg_ip", "dal_hget /op/clusters/c cluster_state",
                                      "dal_hget /op/clusters/c node_num", "dal_hget /op/clusters/c nodelist"}));
}

TEST_F(ClusterFieldTest, AnEmptyFieldIsAsAMissingOne) {
    EXPECT_EQ(read(0, ""), 0);
    EXPECT_EQ(fake::log_texts(3),
              Texts{kOne + std::string("  ret:0 dal_hget failed(cluster-key:/op/clusters/c, field:0/ddg_ip)")});
}

TEST_F(ClusterFieldTest, AnAddressIsStoredAsStrToIpReadsIt) {
    EXPECT_EQ(read(0, "10.1.2.3"), 1);
    EXPECT_EQ(record_.ddg_ip, 0x0A010203U);
    EXPECT_EQ(read(0, "nowhere"), 1);
    EXPECT_EQ(record_.ddg_ip, 0U);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterFieldTest, AStateIsTheLow8BitsOfItsNumber) {
    EXPECT_EQ(read(1, "1"), 1);
    EXPECT_EQ(record_.cluster_state, 1);
    EXPECT_EQ(read(1, "256"), 1);
    EXPECT_EQ(record_.cluster_state, 0);
    EXPECT_EQ(read(1, "-1"), 1);
    EXPECT_EQ(record_.cluster_state, 255);
    EXPECT_EQ(read(1, "up"), 1);
    EXPECT_EQ(record_.cluster_state, 0);
}

TEST_F(ClusterFieldTest, ANodeCountFrom1To12IsStored) {
    EXPECT_EQ(read(2, "1"), 1);
    EXPECT_EQ(record_.node_num, 1);
    EXPECT_EQ(read(2, "12"), 1);
    EXPECT_EQ(record_.node_num, 12);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterFieldTest, AnyOtherNodeCountIsRefusedAndTheOneBeforeStays) {
    record_.node_num = 7;
    EXPECT_EQ(read(2, "0"), 0);
    EXPECT_EQ(read(2, "13"), 0);
    EXPECT_EQ(read(2, "-1"), 0);
    EXPECT_EQ(read(2, "257"), 0);
    EXPECT_EQ(read(2, "many"), 0);
    EXPECT_EQ(record_.node_num, 7);
    const std::string text = kOne + std::string(" ERROR: Invalid node count from DAL:");
    EXPECT_EQ(fake::log_texts(3),
              (Texts{text + "0 (0)", text + "13 (13)", text + "-1 (-1)", text + "257 (257)", text + "0 (many)"}));
}

TEST_F(ClusterFieldTest, AValueThatFillsTheBufferIsReadToItsEndAndNoFurther) {
    EXPECT_EQ(read(2, std::string(287, ' ') + "5"), 1);
    EXPECT_EQ(record_.node_num, 5);
    EXPECT_EQ(read(2, std::string(400, '9')), 0);
}

TEST_F(ClusterFieldTest, NodesNeedAValidCount) {
    EXPECT_EQ(read(3, std::string(24, 'x')), 0);
    record_.node_num = 13;
    EXPECT_EQ(read(3, std::string(312, 'x')), 0);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{kOne + std::string(" Invalid Cluster nodecount (0), skip reading nodelist"),
                     kOne + std::string(" Invalid Cluster nodecount (13), skip reading nodelist")}));
    EXPECT_EQ(nodelist(288), std::string(288, '\0'));
}

TEST_F(ClusterFieldTest, NodesMustHaveExactlyTheirLength) {
    record_.node_num = 2;
    EXPECT_EQ(read(3, std::string(47, 'x')), 0);
    EXPECT_EQ(read(3, std::string(49, 'x')), 0);
    EXPECT_EQ(read(3, std::string(24, 'x')), 0);
    const std::string text = kOne + std::string(" ERROR: nodelist len (");
    EXPECT_EQ(fake::log_texts(3),
              (Texts{text + "47) mismatch (node-size:24,count:2)", text + "49) mismatch (node-size:24,count:2)",
                     text + "24) mismatch (node-size:24,count:2)"}));
    EXPECT_EQ(nodelist(288), std::string(288, '\0'));
}

TEST_F(ClusterFieldTest, MoreBytesThan12NodesAreRefusedToo) {
    record_.node_num = 12;
    EXPECT_EQ(read(3, std::string(312, 'x')), 0);
    EXPECT_EQ(fake::log_texts(3),
              Texts{kOne + std::string(" ERROR: nodelist len (289) mismatch (node-size:24,count:12)")});
}

TEST_F(ClusterFieldTest, AnIpv4NodesAddressIsReversedAndTheRestOfItCleared) {
    record_.node_num = 1;
    EXPECT_EQ(read(3, node(2, "\xff\xff", "\xc0\xa8\x01\x02garbage-here", 5)), 1);
    EXPECT_EQ(nodelist(24), node(2, std::string(2, '\0'), "\x02\x01\xa8\xc0", 5));
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(7), Texts{kOne + std::string(" i:0, node.flags:0x5, node.ip:192.168.1.2")});
}

TEST_F(ClusterFieldTest, ANodeOfAnotherFamilyIsCopiedUnchanged) {
    const std::string ipv6 = node(10, "\x12\x34", "\x20\x01\x0d\xb8sixteen-byte", 0xdeadbeef);
    record_.node_num = 2;
    EXPECT_EQ(read(3, ipv6 + node(99, "ab", "unknown", 0)), 1);
    EXPECT_EQ(nodelist(48), ipv6 + node(99, "ab", "unknown", 0));
    EXPECT_EQ(fake::log_texts(7).size(), 2U);
    EXPECT_EQ(fake::log_texts(7)[1], kOne + std::string(" i:1, node.flags:0x0, node.ip:"));
}

TEST_F(ClusterFieldTest, TwelveNodesFillTheRecord) {
    record_.node_num = 12;
    EXPECT_EQ(read(3, nodes(12, ipv4_node)), 1);
    EXPECT_EQ(nodelist(288), nodes(12, sent_node));
    EXPECT_EQ(fake::log_texts(7)[11], kOne + std::string(" i:11, node.flags:0xc, node.ip:10.0.0.12"));
}

class ClusterRecordTest : public ClusterTest {
protected:
    int read(const char *name) { return vyrwrap_read_cluster_info_from_dal(name, &record_); }

    ClusterInfo record_{};
};

TEST_F(ClusterRecordTest, IsFilledByteForByte) {
    set_cluster("east", "10.9.8.7", "3", 2);
    EXPECT_EQ(read("east"), 0);
    const std::string expected = fake::word(0) + padded("east", 128) + fake::word(0x0A090807) + std::string(1, '\3') +
                                 std::string(18, '\0') + std::string(1, '\2') +
                                 padded(nodes(2, sent_node), sizeof record_.nodelist);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&record_), sizeof record_), expected);
    EXPECT_EQ(fake::dal_calls, (Texts{"dal_hget /op/clusters/east ddg_ip", "dal_hget /op/clusters/east cluster_state",
                                      "dal_hget /op/clusters/east node_num", "dal_hget /op/clusters/east nodelist"}));
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(ClusterRecordTest, NeedsBothArguments) {
    EXPECT_EQ(read(nullptr), -1);
    EXPECT_EQ(vyrwrap_read_cluster_info_from_dal("x", nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(ClusterRecordTest, ABadCountIsTwoProblems) {
    for (const char *count : {"0", "13", "none"}) {
        fake::log_lines.clear();
        record_ = {};
        set_cluster("c", "10.0.0.1", "1", count, nodes(1, ipv4_node));
        EXPECT_EQ(read("c"), -1);
        EXPECT_EQ(fake::log_texts(3).back(),
                  "<VYRWRAP>:vyrwrap_read_cluster_info_from_dal: For Cluster c, 2 fields have problem: "
                  "node_num,nodelist,");
        EXPECT_EQ(record_.ddg_ip, 0x0A000001U);
    }
}

TEST_F(ClusterRecordTest, AMissingAddressFailsTheReadAndTheOtherFieldsAreStored) {
    set_cluster("c", "", "1", 1);
    EXPECT_EQ(read("c"), -1);
    EXPECT_EQ(fake::log_texts(3),
              (Texts{kOne + std::string("  ret:0 dal_hget failed(cluster-key:/op/clusters/c, field:0/ddg_ip)"),
                     "<VYRWRAP>:vyrwrap_read_cluster_info_from_dal: For Cluster c, 1 fields have problem: ddg_ip,"}));
    EXPECT_EQ(record_.cluster_state, 1);
    EXPECT_EQ(record_.node_num, 1);
    EXPECT_EQ(record_.nodelist[0].flags, 1U);
}

TEST_F(ClusterRecordTest, AMissingClusterIsFourProblems) {
    EXPECT_EQ(read("gone"), -1);
    EXPECT_EQ(fake::log_texts(3).back(),
              "<VYRWRAP>:vyrwrap_read_cluster_info_from_dal: For Cluster gone, 4 fields have problem: "
              "ddg_ip,cluster_state,node_num,nodelist,");
    EXPECT_EQ(fake::dal_calls.size(), 4U);
    EXPECT_STREQ(record_.name, "gone");
}

TEST_F(ClusterRecordTest, ANameBeyondItsFieldIsCutWithinIt) {
    EXPECT_EQ(read(std::string(300, 'n').c_str()), -1);
    EXPECT_EQ(record_.name, std::string(127, 'n'));
    EXPECT_EQ(record_.ddg_ip, 0U);
    EXPECT_EQ(fake::dal_calls[0], "dal_hget /op/clusters/" + std::string(178, 'n') + " ddg_ip");
}

}  // namespace
