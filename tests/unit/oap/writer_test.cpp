#include <errno.h>
#include <sys/stat.h>

#include <functional>

#include "core/global.h"
#include "core/timer.h"
#include "oap_fixture.h"

namespace {

/** The record after start-up with the overlay on. */
class WriterTest : public OapTest {
protected:
    void SetUp() override {
        OapTest::SetUp();
        set_defaults();
        oapSetMac("00:1b:2c:3d:4e:5f");
        oapSetSerial("SN12345678");
    }

    static void set_defaults() {
        oapCfg_g = {};
        oapCfg_g.bEnable = 1;
        oapCfg_g.distance = 90;
    }

    static std::string written() {
        EXPECT_EQ(oapWriteConfig(), 0);
        return file();
    }
};

TEST_F(WriterTest, TheStartUpSettingsGiveTheBasicFile) {
    EXPECT_EQ(written(),
              "function oap_vrrp_accept() {\n"
              "\t return true;\n"
              "}\n"
              "filter oap_export_filter {\n"
              "\t if scope = SCOPE_HOST then reject;\n"
              "\t if ((source = RTS_DEVICE) && (ifname ~ \"tun*\")) then accept;\n"
              "\t reject;\n"
              "}\n"
              "protocol oap {\n"
              "\t master 127.0.0.1 port 50050;\n"
              "\t local tunnel \"tsgw\";\n"
              "\t local mac \"00:1b:2c:3d:4e:5f\";\n"
              "\t local serial \"SN12345678\";\n"
              "\t local site id \"00:1b:2c:3d:4e:5f\";\n"
              "\t ipv4 {\n"
              "\t\t import all;\n"
              "\t\t export filter oap_export_filter;\n"
              "\t };\n"
              "}\n");
}

TEST_F(WriterTest, EverySettingGivesTheFullFile) {
    oapSetSiteId("site");
    oapSetTenantId("tenant");
    oapSetKeepalive(30);
    oapSetCbsReconnectTimeout(45);
    oapCfg_g.local_as = 65001;
    oapCfg_g.route_resolve_timeout = 5;
    oapCfg_g.route_resolve_count = 6;
    oapCfg_g.bRedistBr0 = 1;
    oapCfg_g.bRedistStatic = 1;
    set_vlans({10, 20});
    oapCfg_g.bAggEnable = 1;
    oapCfg_g.agg_prefix_len = 24;
    oapCfg_g.distance = 110;
    oapCfg_g.static_rmap = "smap";
    oapCfg_g.vlan_rmap = "vmap";
    oapCfg_g.bAutoAggrStatic = 1;
    oapCfg_g.bAutoAggrDirect = 1;
    oapCfg_g.bDebug = 1;
    EXPECT_EQ(written(),
              "function oap_vrrp_accept() {\n"
              "\t return true;\n"
              "}\n"
              "function oap_vlan_accept() {\n"
              "\treturn (ifvlan ~ [10,20]);\n"
              "}\n"
              "filter oap_export_filter {\n"
              "\t if scope = SCOPE_HOST then reject;\n"
              "\t if ((source = RTS_STATIC) && (oap_vrrp_accept()) && (rmap_smap(3))) then accept;\n"
              "\t if source = RTS_DEVICE && ifname = \"br0.4095\" then accept;\n"
              "\t if ((source = RTS_DEVICE) && (ifname ~ \"tun*\")) then accept;\n"
              "\t if ((source = RTS_DEVICE) && (oap_vrrp_accept()) && (oap_vlan_accept()) && (rmap_vmap(3))) then "
              "accept;\n"
              "\t reject;\n"
              "}\n"
              "protocol oap {\n"
              "\tdebug all;\n"
              "\t master 127.0.0.1 port 50050;\n"
              "\t local tunnel \"tsgw\";\n"
              "\t local mac \"00:1b:2c:3d:4e:5f\";\n"
              "\t local serial \"SN12345678\";\n"
              "\t local site id \"site\";\n"
              "\t local tenant id \"tenant\";\n"
              "\t keepalive 30;\n"
              "\t cbs_reconnect_timeout 45;\n"
              "\t local as 65001;\n"
              "\t route_resolve_timeout 5;\n"
              "\t route_resolve_count 6;\n"
              "\t agg_enable yes;\n"
              "\t agg_prefix_len 24;\n"
              "\t autoaggr_static_routes yes;\n"
              "\t autoaggr_direct_routes yes;\n"
              "\t ipv4 {\n"
              "\t\t import all;\n"
              "\t\t preference 146;\n"
              "\t\t export filter oap_export_filter;\n"
              "\t };\n"
              "}\n");
}

/** The settings that may be there or not, grouped by the section of the file that they change together. */
enum Setting {
    VLANS,
    VLAN_RMAP,
    STATIC,
    STATIC_RMAP,
    BR0,
    DEBUG,
    MAC,
    SERIAL,
    SITE,
    TENANT,
    KEEPALIVE,
    RECONNECT,
    LOCAL_AS,
    RESOLVE_TIMEOUT,
    RESOLVE_COUNT,
    AGG,
    AGG_LEN,
    AUTO_STATIC,
    AUTO_DIRECT,
    DISTANCE,
    SETTINGS
};

void apply(uint32_t mask) {
    const auto on = [mask](Setting setting) { return static_cast<uint8_t>(mask >> setting & 1); };
    if (on(VLANS)) {
        oapCfg_g.redist_vlan_count = 1;
        oapCfg_g.redist_vlans[0] = 7;
    }
    oapCfg_g.vlan_rmap = on(VLAN_RMAP) ? "v" : nullptr;
    oapCfg_g.bRedistStatic = on(STATIC);
    oapCfg_g.static_rmap = on(STATIC_RMAP) ? "s" : nullptr;
    oapCfg_g.bRedistBr0 = on(BR0);
    oapCfg_g.bDebug = on(DEBUG);
    oapSetMac(on(MAC) ? "m" : "");
    oapSetSerial(on(SERIAL) ? "n" : "");
    oapSetSiteId(on(SITE) ? "i" : "");
    oapSetTenantId(on(TENANT) ? "t" : "");
    oapCfg_g.keepalive = on(KEEPALIVE) ? 1 : 0;
    oapCfg_g.cbs_reconnect_timeout = on(RECONNECT) ? 2 : 0;
    oapCfg_g.local_as = on(LOCAL_AS) ? 3 : 0;
    oapCfg_g.route_resolve_timeout = on(RESOLVE_TIMEOUT) ? 4 : 0;
    oapCfg_g.route_resolve_count = on(RESOLVE_COUNT) ? 4294967295U : 0;
    oapCfg_g.bAggEnable = on(AGG);
    oapCfg_g.agg_prefix_len = on(AGG_LEN) ? 6 : 0;
    oapCfg_g.bAutoAggrStatic = on(AUTO_STATIC);
    oapCfg_g.bAutoAggrDirect = on(AUTO_DIRECT);
    oapCfg_g.distance = on(DISTANCE) ? 91 : 90;
}

/** The file as a list of lines, each with the settings that it needs. */
std::string expected(uint32_t mask) {
    const auto on = [mask](Setting setting) { return (mask >> setting & 1) != 0; };
    std::string text;
    const auto line = [&text](bool there, const char *content) {
        if (there)
            text += std::string(content) + "\n";
    };
    line(true, "function oap_vrrp_accept() {\n\t return true;\n}");
    line(on(VLANS), "function oap_vlan_accept() {\n\treturn (ifvlan ~ [7]);\n}");
    line(true, "filter oap_export_filter {\n\t if scope = SCOPE_HOST then reject;");
    line(on(STATIC) && on(STATIC_RMAP),
         "\t if ((source = RTS_STATIC) && (oap_vrrp_accept()) && (rmap_s(3))) then accept;");
    line(on(STATIC) && !on(STATIC_RMAP), "\t if ((source = RTS_STATIC) && (oap_vrrp_accept())) then accept;");
    line(on(BR0), "\t if source = RTS_DEVICE && ifname = \"br0.4095\" then accept;");
    line(true, "\t if ((source = RTS_DEVICE) && (ifname ~ \"tun*\")) then accept;");
    line(on(VLANS) && on(VLAN_RMAP),
         "\t if ((source = RTS_DEVICE) && (oap_vrrp_accept()) && (oap_vlan_accept()) && (rmap_v(3))) then accept;");
    line(on(VLANS) && !on(VLAN_RMAP),
         "\t if ((source = RTS_DEVICE) && (oap_vrrp_accept()) && (oap_vlan_accept())) then accept;");
    line(true, "\t reject;\n}\nprotocol oap {");
    line(on(DEBUG), "\tdebug all;");
    line(true, "\t master 127.0.0.1 port 50050;\n\t local tunnel \"tsgw\";");
    line(on(MAC), "\t local mac \"m\";");
    line(on(SERIAL), "\t local serial \"n\";");
    line(on(SITE), "\t local site id \"i\";");
    line(!on(SITE) && on(MAC), "\t local site id \"m\";");
    line(on(TENANT), "\t local tenant id \"t\";");
    line(on(KEEPALIVE), "\t keepalive 1;");
    line(on(RECONNECT), "\t cbs_reconnect_timeout 2;");
    line(on(LOCAL_AS), "\t local as 3;");
    line(on(RESOLVE_TIMEOUT), "\t route_resolve_timeout 4;");
    line(on(RESOLVE_COUNT), "\t route_resolve_count 4294967295;");
    line(on(AGG), "\t agg_enable yes;");
    line(on(AGG_LEN), "\t agg_prefix_len 6;");
    line(on(AUTO_STATIC), "\t autoaggr_static_routes yes;");
    line(on(AUTO_DIRECT), "\t autoaggr_direct_routes yes;");
    line(true, "\t ipv4 {\n\t\t import all;");
    line(on(DISTANCE), "\t\t preference 165;");
    line(true, "\t\t export filter oap_export_filter;\n\t };\n}");
    return text;
}

TEST_F(WriterTest, EveryCombinationWithinASectionGivesItsFileWithTheOtherSectionsBareAndFull) {
    constexpr uint32_t kAll = (1U << SETTINGS) - 1;
    for (unsigned first = 0; first < SETTINGS; first += 5)
        for (uint32_t bits = 0; bits < 32; bits++)
            for (uint32_t others : {0U, kAll}) {
                const uint32_t mask = (others & ~(31U << first)) | bits << first;
                set_defaults();
                apply(mask);
                ASSERT_EQ(written(), expected(mask)) << "settings " << std::hex << mask;
            }
}

/** The line of the file that holds the VLAN list. */
std::string vlan_line(const std::string &file) {
    const size_t begin = file.find("\treturn (ifvlan");
    return begin == std::string::npos ? "(none)" : file.substr(begin, file.find('\n', begin) - begin);
}

TEST_F(WriterTest, TheSeparatorOfAVlanGoesByItsPosition) {
    set_vlans({10, 20});
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [10,20]);");
    set_vlans({10, 0});
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [10,]);");
    set_vlans({0, 20});
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [20]);");
    set_vlans({10, 0, 20});
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [10,20]);");
    set_vlans({0});
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ []);");
    set_vlans({4095});
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [4095]);");
    set_vlans({});
    EXPECT_EQ(vlan_line(written()), "(none)");
}

TEST_F(WriterTest, TheWholeListOf4096VlansIsWritten) {
    std::string list;
    for (uint32_t i = 0; i < kRedistVlanMax; i++) {
        oapCfg_g.redist_vlans[i] = i % 4095 + 1;
        list += (i ? "," : "") + std::to_string(i % 4095 + 1);
    }
    oapCfg_g.redist_vlan_count = kRedistVlanMax;
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [" + list + "]);");
    oapCfg_g.redist_vlan_count = kRedistVlanMax + 1;
    EXPECT_EQ(vlan_line(written()), "\treturn (ifvlan ~ [" + list + "]);");
}

TEST_F(WriterTest, ThePreferenceIs256MinusTheDistance) {
    const auto preference = [](uint32_t distance) {
        oapCfg_g.distance = distance;
        const std::string text = written();
        const size_t begin = text.find("\t\t preference ");
        return begin == std::string::npos ? "(none)" : text.substr(begin, text.find('\n', begin) - begin);
    };
    EXPECT_EQ(preference(90), "(none)");
    EXPECT_EQ(preference(110), "\t\t preference 146;");
    EXPECT_EQ(preference(0), "\t\t preference 256;");
    EXPECT_EQ(preference(256), "\t\t preference 0;");
    EXPECT_EQ(preference(257), "\t\t preference 4294967295;");
}

TEST_F(WriterTest, TheVlanRulesSuffixIsCutTo63Characters) {
    set_vlans({1});
    const std::string fits(49, 'f');
    oapCfg_g.vlan_rmap = fits.c_str();
    EXPECT_NE(written().find("(oap_vlan_accept()) && (rmap_" + fits + "(3))) then accept;\n"), std::string::npos);
    const std::string cut(70, 'c');
    oapCfg_g.vlan_rmap = cut.c_str();
    EXPECT_NE(written().find("(oap_vlan_accept()) && (rmap_" + std::string(53, 'c') + ") then accept;\n"),
              std::string::npos);
}

TEST_F(WriterTest, TheStaticRulesRouteMapIsNeverCut) {
    const std::string name(200, 'n');
    oapCfg_g.bRedistStatic = 1;
    oapCfg_g.static_rmap = name.c_str();
    EXPECT_NE(written().find("(rmap_" + name + "(3))) then accept;\n"), std::string::npos);
}

TEST_F(WriterTest, AnEmptyRouteMapNameIsNone) {
    oapCfg_g.bRedistStatic = 1;
    oapCfg_g.static_rmap = "";
    oapCfg_g.vlan_rmap = "";
    set_vlans({1});
    EXPECT_EQ(written().find("rmap_"), std::string::npos);
}

TEST_F(WriterTest, WithTheOverlayOffTheFileIsEmptyAndTheConfigurationDirty) {
    oapCfg_g.bEnable = 0;
    set_vlans({10});
    fake::write_file(kOapConfigPath, "old\n");
    vyrwrap_global.dirty_wait_ticks = 1;
    EXPECT_EQ(written(), "");
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
}

TEST_F(WriterTest, AWrittenFileMarksTheConfigurationDirty) {
    vyrwrap_global.dirty_wait_ticks = 1;
    vyrwrap_global.dirty_total_ticks = 3;
    written();
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 0U);
    EXPECT_EQ(vyrwrap_global.dirty_total_ticks, 3U);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(7), Texts{"<VYRWRAP>: Dirty flag set at oapWriteConfig"});
}

TEST_F(WriterTest, AFileThatCannotBeMadeIsLoggedAndLeavesTheConfigurationClean) {
    mkdir(kOapConfigPath, 0755);
    vyrwrap_global.dirty_wait_ticks = 1;
    EXPECT_EQ(oapWriteConfig(), -1);
    rmdir(kOapConfigPath);
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    EXPECT_EQ(vyrwrap_global.dirty_wait_ticks, 1U);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(3), Texts{"<OAPCLI>: failed to create config file"});
}

TEST_F(WriterTest, AFullFileSystemKeepsTheOldFileAndTheConfigurationClean) {
    fake::write_file(kOapConfigPath, "old\n");
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(oapWriteConfig(), -1);
    EXPECT_EQ(file(), "old\n");
    EXPECT_EQ(vyrwrap_global.config_dirty, 0);
    EXPECT_EQ(fake::log_texts(3), Texts{"<OAPCLI>: failed to create config file"});
}

TEST_F(WriterTest, TheTimerWritesWhatCouldNotBeWritten) {
    mkdir(kOapConfigPath, 0755);
    EXPECT_EQ(oapWriteConfig(), -1);
    vyrwrap_mytimer();
    EXPECT_EQ(fake::log_texts(3), (Texts{2, "<OAPCLI>: failed to create config file"}));
    rmdir(kOapConfigPath);
    vyrwrap_mytimer();
    EXPECT_NE(file().find("SN12345678"), std::string::npos);
    EXPECT_EQ(vyrwrap_global.config_dirty, 1);
    fake::write_file(kOapConfigPath, "as it was\n");
    vyrwrap_mytimer();
    EXPECT_EQ(file(), "as it was\n");
}

}  // namespace
