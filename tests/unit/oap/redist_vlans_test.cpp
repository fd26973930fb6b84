#include "oap_fixture.h"

namespace {

constexpr char kKey[] = "/op/vlans/route_redistributed_vlans";

std::string invalid(const std::string &number) {
    return "<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: 179: Invalid vlan " + number;
}

std::string value_line(const std::string &value, size_t length) {
    return "<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: DAL key: " + std::string(kKey) +
           ", value read: " + value + ", value length " + std::to_string(length);
}

class RedistVlansTest : public OapTest {
protected:
    void SetUp() override {
        OapTest::SetUp();
        oapCfg_g.distance = 90;
        set_vlans({1, 2, 3});
    }

    static int update(const std::string &value) {
        fake::strings[kKey] = value;
        return vyrwrap_update_redistvlan_oap_config_from_key(kKey);
    }

    static bool list_is_zero() {
        for (uint32_t id : oapCfg_g.redist_vlans)
            if (id != 0)
                return false;
        return oapCfg_g.redist_vlan_count == 0;
    }
};

TEST_F(RedistVlansTest, TakesTheIdsInTheirOrderDuplicatesKept) {
    EXPECT_EQ(update("{20:10:20:1:4095}"), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{20, 10, 20, 1, 4095}));
    EXPECT_EQ(fake::log_texts(3), Texts{value_line("{20:10:20:1:4095}", 17)});
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::dal_calls, (Texts{std::string("dal_is_key_exist ") + kKey, std::string("dal_get ") + kKey}));
}

TEST_F(RedistVlansTest, OneIdNeedsNoSeparator) {
    EXPECT_EQ(update("{7}"), 0);
    EXPECT_EQ(vlans(), std::vector<uint32_t>{7});
}

TEST_F(RedistVlansTest, InvalidIdsAreLoggedAndSkipped) {
    EXPECT_EQ(update("{10:4096:0:20}"), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{10, 20}));
    EXPECT_EQ(fake::log_texts(3), (Texts{value_line("{10:4096:0:20}", 14), invalid("4096"), invalid("0")}));
}

TEST_F(RedistVlansTest, IdsAreReadAsAtoiReadsThem) {
    EXPECT_EQ(update("{ 12:+13:14x:x15:-1::16}"), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{12, 13, 14, 16}));
    EXPECT_EQ(fake::log_texts(3),
              (Texts{value_line("{ 12:+13:14x:x15:-1::16}", 24), invalid("0"), invalid("4294967295"), invalid("0")}));
}

TEST_F(RedistVlansTest, AnIdLongerThanItsBufferIsInvalidWhateverItsNumber) {
    EXPECT_EQ(update("{00000000012:000000000013:99999999999999999999}"), 0);
    EXPECT_EQ(vlans(), std::vector<uint32_t>{12});
    EXPECT_EQ(fake::log_texts(3), (Texts{value_line("{00000000012:000000000013:99999999999999999999}", 47),
                                         invalid("13"), invalid("2147483647")}));
}

TEST_F(RedistVlansTest, EmptyBracesAreNoVlans) {
    EXPECT_EQ(update("{}"), 0);
    EXPECT_TRUE(list_is_zero());
    EXPECT_EQ(fake::log_texts(3), (Texts{value_line("{}", 2),
                                         "<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: path "
                                         "/op/vlans/route_redistributed_vlans, No vlans configured"}));
}

TEST_F(RedistVlansTest, TheComparisonWithEmptyBracesGoesOverTheValuesLength) {
    for (const char *value : {"", "{"}) {
        EXPECT_EQ(update(value), 0);
        EXPECT_TRUE(list_is_zero());
        EXPECT_EQ(fake::log_texts(3).back(),
                  "<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: path "
                  "/op/vlans/route_redistributed_vlans, No vlans configured");
    }
    EXPECT_EQ(update("{}5"), 0);
    EXPECT_EQ(fake::log_texts(3).back(), invalid("0"));
}

TEST_F(RedistVlansTest, WithoutAnOpeningBraceThereIsNoList) {
    EXPECT_EQ(update("10:20"), -1);
    EXPECT_TRUE(list_is_zero());
    EXPECT_EQ(fake::log_texts(3), (Texts{value_line("10:20", 5), "<VYRWRAP>: Error in Path, no '{' symbol"}));
}

TEST_F(RedistVlansTest, WithoutAClosingBraceTheLastIdIsNotTaken) {
    EXPECT_EQ(update("{10:20"), 0);
    EXPECT_EQ(vlans(), std::vector<uint32_t>{10});
    EXPECT_EQ(update("{10"), 0);
    EXPECT_TRUE(list_is_zero());
}

TEST_F(RedistVlansTest, WhatStandsBeforeTheBraceIsPassedOver) {
    EXPECT_EQ(update("5:6{10:20}"), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{10, 20}));
}

TEST_F(RedistVlansTest, TheColonSeparatesBeforeTheBraceDoes) {
    EXPECT_EQ(update("{10}{20:30}"), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{10, 30}));
    EXPECT_EQ(update("{10}20}"), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{10, 20}));
}

TEST_F(RedistVlansTest, AValueEndsAtANulByte) {
    EXPECT_EQ(update(std::string("{10:20\0:30}", 11)), 0);
    EXPECT_EQ(vlans(), std::vector<uint32_t>{10});
    EXPECT_EQ(fake::log_texts(3), Texts{value_line("{10:20", 11)});
}

TEST_F(RedistVlansTest, TheListTakes4096IdsAndNoMore) {
    std::string value = "{";
    for (int i = 0; i < 4096; i++)
        value += (i ? ":" : "") + std::to_string(i % 9 + 1);
    EXPECT_EQ(update(value + "}"), 0);
    EXPECT_EQ(oapCfg_g.redist_vlan_count, 4096U);
    EXPECT_EQ(fake::log_texts(3).size(), 1U);
    oapCfg_g.bAggEnable = 0x5a;
    EXPECT_EQ(update(value + ":8:0:9}"), 0);
    EXPECT_EQ(oapCfg_g.redist_vlan_count, 4096U);
    EXPECT_EQ(oapCfg_g.redist_vlans[4095], 4095U % 9 + 1);
    EXPECT_EQ(oapCfg_g.bAggEnable, 0x5a);
    const Texts texts = fake::log_texts(3);
    ASSERT_GE(texts.size(), 2U);
    EXPECT_EQ(Texts(texts.end() - 2, texts.end()),
              (Texts{invalid("0"),
                     "<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: 2 vlans beyond the first 4096 left "
                     "out"}));
}

TEST_F(RedistVlansTest, AValueThatFillsTheBufferIsReadToItsEnd) {
    std::string value = "{";
    while (value.size() < 19996)
        value += "0:";
    value = value.substr(0, 19996) + "123}";
    ASSERT_EQ(value.size(), 20000U);
    EXPECT_EQ(update(value), 0);
    EXPECT_EQ(vlans(), std::vector<uint32_t>{123});
}

TEST_F(RedistVlansTest, AValueBeyondTheBufferIsCutAndItsLastIdNotTaken) {
    std::string value = "{";
    while (value.size() < 19996)
        value += "0:";
    value = value.substr(0, 19996) + ":1234:5}";
    EXPECT_EQ(update(value), 0);
    EXPECT_TRUE(list_is_zero());
}

TEST_F(RedistVlansTest, AMissingKeyEmptiesTheList) {
    EXPECT_EQ(vyrwrap_update_redistvlan_oap_config_from_key("/missing"), -1);
    EXPECT_TRUE(list_is_zero());
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: path /missing doesn't exist in DAL"});
}

TEST_F(RedistVlansTest, AFailingDalEmptiesTheList) {
    fake::failing_calls = {"dal_is_key_exist"};
    EXPECT_EQ(update("{10}"), -1);
    EXPECT_TRUE(list_is_zero());
    set_vlans({1, 2});
    fake::failing_calls = {"dal_get"};
    EXPECT_EQ(update("{10}"), -1);
    EXPECT_TRUE(list_is_zero());
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: path "
                     "/op/vlans/route_redistributed_vlans doesn't exist in DAL",
                     "<VYRWRAP>: vyrwrap_update_redistvlan_oap_config_from_key: Error reading DAL key "
                     "/op/vlans/route_redistributed_vlans"}));
}

TEST_F(RedistVlansTest, ANullKeyLeavesTheListAsItIs) {
    EXPECT_EQ(vyrwrap_update_redistvlan_oap_config_from_key(nullptr), -1);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(RedistVlansTest, ANotificationOfASetUpdatesTheListAndWritesTheFile) {
    oapCfg_g.bEnable = 1;
    fake::strings[kKey] = "{30}";
    EXPECT_EQ(vyrwrap_oap_redistvlan_notify((std::string("__keyspace@0__:") + kKey).c_str(), 1), 0);
    EXPECT_EQ(vlans(), std::vector<uint32_t>{30});
    EXPECT_NE(file().find("\treturn (ifvlan ~ [30]);\n"), std::string::npos);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
}

TEST_F(RedistVlansTest, TheKeyStandsBehindTheFirstColon) {
    vyrwrap_oap_redistvlan_notify("a:b:c", 1);
    EXPECT_EQ(fake::dal_calls, Texts{"dal_is_key_exist b:c"});
}

TEST_F(RedistVlansTest, AnyOtherNotificationOnlyWritesTheFile) {
    oapCfg_g.bEnable = 1;
    for (int flag : {0, 2, 4}) {
        unlink(kOapConfigPath);
        EXPECT_EQ(vyrwrap_oap_redistvlan_notify((std::string("__keyspace@0__:") + kKey).c_str(), flag), 0);
        EXPECT_NE(file().find("\treturn (ifvlan ~ [1,2,3]);\n"), std::string::npos);
    }
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(RedistVlansTest, AChannelWithoutAColonOnlyWritesTheFile) {
    EXPECT_EQ(vyrwrap_oap_redistvlan_notify("no colon", 1), 0);
    EXPECT_EQ(vyrwrap_oap_redistvlan_notify(nullptr, 1), 0);
    EXPECT_EQ(vlans(), (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_EQ(file(), "");
}

TEST_F(RedistVlansTest, ANotificationReturnsTheWritersFailure) {
    fake::fail_call("rename", EACCES);
    EXPECT_EQ(vyrwrap_oap_redistvlan_notify("no colon", 2), -1);
}

}  // namespace
