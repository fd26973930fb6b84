#include "oap_fixture.h"

namespace {

using SettingsTest = OapTest;

TEST_F(SettingsTest, TextsAreCutToTheirFieldsAndTerminated) {
    const std::string text(100, 'x');
    oapSetMac(text.c_str());
    oapSetSerial(text.c_str());
    oapSetSiteId(text.c_str());
    oapSetTenantId(text.c_str());
    EXPECT_EQ(oapCfg_g.mac, std::string(18, 'x'));
    EXPECT_EQ(oapCfg_g.serial, std::string(32, 'x'));
    EXPECT_EQ(oapCfg_g.site_id, std::string(64, 'x'));
    EXPECT_EQ(oapCfg_g.tenant_id, std::string(64, 'x'));
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
}

TEST_F(SettingsTest, ATextThatJustFitsIsWhole) {
    oapSetMac("123456789012345678");
    EXPECT_STREQ(oapCfg_g.mac, "123456789012345678");
}

TEST_F(SettingsTest, AShorterTextLeavesNothingOfTheOneBefore) {
    oapSetSerial("a long serial");
    oapSetSerial("b");
    const std::string field(oapCfg_g.serial, sizeof oapCfg_g.serial);
    EXPECT_EQ(field, "b" + std::string(32, '\0'));
}

TEST_F(SettingsTest, ANullTextChangesNothing) {
    oapSetMac("m");
    oapSetSerial("s");
    oapSetSiteId("i");
    oapSetTenantId("t");
    oapSetMac(nullptr);
    oapSetSerial(nullptr);
    oapSetSiteId(nullptr);
    oapSetTenantId(nullptr);
    EXPECT_STREQ(oapCfg_g.mac, "m");
    EXPECT_STREQ(oapCfg_g.serial, "s");
    EXPECT_STREQ(oapCfg_g.site_id, "i");
    EXPECT_STREQ(oapCfg_g.tenant_id, "t");
}

TEST_F(SettingsTest, NumbersAndTheEnableFlagGoToTheirFields) {
    oapSetKeepalive(4294967295U);
    oapSetCbsReconnectTimeout(7);
    EXPECT_EQ(oapCfg_g.keepalive, 4294967295U);
    EXPECT_EQ(oapCfg_g.cbs_reconnect_timeout, 7U);
    EXPECT_EQ(oapIsEnabled(), 0);
    oapCfg_g.bEnable = 1;
    EXPECT_EQ(oapIsEnabled(), 1);
}

TEST_F(SettingsTest, InitSetsThreeDefaultsKeepsTheRestAndFollowsTheDal) {
    oapCfg_g.distance = 1;
    oapCfg_g.agg_prefix_len = 2;
    oapCfg_g.local_as = 3;
    oapCfg_g.keepalive = 4;
    oapSetSiteId("site");
    EXPECT_EQ(oapInitConfig(), 0);
    EXPECT_EQ(oapCfg_g.distance, 90U);
    EXPECT_EQ(oapCfg_g.agg_prefix_len, 0U);
    EXPECT_EQ(oapCfg_g.local_as, 0U);
    EXPECT_EQ(oapCfg_g.keepalive, 4U);
    EXPECT_STREQ(oapCfg_g.site_id, "site");
    EXPECT_EQ(fake::subscriptions.count("__keyspace@0__:/config/vyr/oap/*"), 1U);
    EXPECT_EQ(file(), "");
}

TEST_F(SettingsTest, InitReturnsTheWritersFailure) {
    fake::fail_call("rename", EACCES);
    EXPECT_EQ(oapInitConfig(), -1);
}

}  // namespace
