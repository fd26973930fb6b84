#include "staticroute/route_key.h"

#include <random>

#include "staticroute/fixture.h"

namespace {

class RouteKeyTest : public fake::Test {
protected:
    int parse(const std::string &key, const char *value = "5", int is_delete = 0) {
        fake::log_lines.clear();
        return vyrwrap_extract_static_route_cfg_from_path(&route, key.c_str(), value, is_delete);
    }

    /** Expects a refusal with that one line. */
    void expect_refused(const std::string &key, const std::string &message) {
        EXPECT_EQ(parse(key), 0) << key;
        ASSERT_EQ(fake::log_lines.size(), 1U) << key;
        EXPECT_EQ(fake::log_lines[0].level, 3);
        EXPECT_EQ(fake::log_lines[0].text, message);
    }

    StaticRouteCfg route{};
};

TEST_F(RouteKeyTest, ReadsAPlainGateway) {
    memset(&route, 0xff, sizeof route);
    ASSERT_EQ(parse("/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.1}"), 1);
    EXPECT_EQ(route.dest, 0x0A010000U);
    EXPECT_EQ(route.mask, 0xFFFF0000U);
    EXPECT_EQ(route.gateway, 0xC0A80A01U);
    EXPECT_EQ(route.metric, 5U);
    EXPECT_EQ(route.flags, 0U);
    EXPECT_EQ(route.kind, 0U);
    EXPECT_EQ(route.vlan, 0);
    EXPECT_STREQ(route.map_name, "");
    EXPECT_STREQ(route.cluster_name, "");
    EXPECT_EQ(route.is_delete, 0);
    EXPECT_EQ(route.distance, 0U);
}

TEST_F(RouteKeyTest, LogsWhatItReadAtDebugLevel) {
    const std::string key = "/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.1}";
    ASSERT_EQ(parse(key, "12", 1), 1);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_lines[0].level, 7);
    EXPECT_EQ(fake::log_lines[0].text,
              "<VYRWRAP>: vyrwrap_extract_static_route_cfg_from_path:153: path " + key +
                  ", dest 10.1.0.0,             mask 255.255.0.0, gw/ipsec 192.168.10.1, mtrc 12, metric 12, defVal 1");
}

TEST_F(RouteKeyTest, ReadsAnIpsecMap) {
    ASSERT_EQ(parse("/op/staticroute/{10.1.0.0:255.255.0.0:2:map:one}"), 1);
    EXPECT_EQ(route.kind, ROUTE_KIND_IPSEC);
    EXPECT_STREQ(route.map_name, "map:one");
    EXPECT_EQ(route.gateway, 0U);
}

TEST_F(RouteKeyTest, CutsAMapNameTo199Characters) {
    const std::string name(199, 'm');
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 2, name)), 1);
    EXPECT_EQ(route.map_name, name);
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 2, name + "n")), 1);
    EXPECT_EQ(route.map_name, name);
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 2, std::string(100000, 'm'))), 1);
    EXPECT_EQ(route.map_name, name);
    EXPECT_EQ(route.cluster_name[0], '\0');
}

TEST_F(RouteKeyTest, PrefixesAClusterName) {
    ASSERT_EQ(parse("/op/staticroute/{10.1.0.0:255.255.0.0:3:c1}"), 1);
    EXPECT_EQ(route.kind, ROUTE_KIND_CLUSTER);
    EXPECT_STREQ(route.cluster_name, "cluster_c1");
    EXPECT_STREQ(route.map_name, "");
}

TEST_F(RouteKeyTest, CutsAClusterNameToFortyCharactersWithItsPrefix) {
    const std::string name(32, 'c');
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 3, name)), 1);
    EXPECT_EQ(route.cluster_name, "cluster_" + name);
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 3, name + "x")), 1);
    EXPECT_EQ(route.cluster_name, "cluster_" + name);
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 3, std::string(5000, 'c'))), 1);
    EXPECT_EQ(route.cluster_name, "cluster_" + name);
    EXPECT_EQ(route.is_delete, 0);
}

TEST_F(RouteKeyTest, ReadsAPppoeNextHop) {
    ASSERT_EQ(parse("/op/staticroute/{10.1.0.0:255.255.0.0:4:12-192.168.10.1}"), 1);
    EXPECT_EQ(route.kind, ROUTE_KIND_PPPOE);
    EXPECT_EQ(route.vlan, 12);
    EXPECT_EQ(route.gateway, 0xC0A80A01U);
}

TEST_F(RouteKeyTest, ReadsAPppoeNextHopAsScanfDoes) {
    for (const char *text : {"12-192.168.10.1", " 12-192.168.10.1", "12- 192.168.10.1", "+12-192.168.10.1",
                             "-3-1.2.3.4", "007-1.2.3.4", "12-1.2.3.4 more", "12-\t1.2.3.4\n"}) {
        int vlan = 0;
        char gateway[200];
        ASSERT_EQ(sscanf(text, "%d-%199s", &vlan, gateway), 2) << text;
        ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 4, text)), 1) << text;
        EXPECT_EQ(route.vlan, vlan) << text;
        char shown[16];
        EXPECT_STREQ(ip_to_str(route.gateway, shown, sizeof shown), gateway) << text;
    }
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 4, "99999999999999999999-1.2.3.4")), 1);
    EXPECT_EQ(route.vlan, 2147483647);
}

TEST_F(RouteKeyTest, RefusesAPppoeNextHopWithFewerThanTwoItems) {
    for (const char *text : {"", "12", "12-", "12- ", "x-1.2.3.4", "12 -1.2.3.4", "-1.2.3.4", "12.1.2.3.4"}) {
        int vlan = 0;
        char gateway[200];
        ASSERT_LT(sscanf(text, "%d-%199s", &vlan, gateway), 2) << text;
        expect_refused(route_key("10.1.0.0", "255.255.0.0", 4, text),
                       std::string("<VYRWRAP>: Error in format of PPPoE nexthop ") + text);
    }
}

TEST_F(RouteKeyTest, RefusesAPppoeNextHopThatIsTooLong) {
    const std::string text = "12-1.2.3.4" + std::string(300, ' ');
    expect_refused(route_key("10.1.0.0", "255.255.0.0", 4, text),
                   "<VYRWRAP>: Error in format of PPPoE nexthop " + text.substr(0, 199));
}

TEST_F(RouteKeyTest, RefusesAPppoeGatewayThatIsNoAddress) {
    for (const char *gateway : {"x", "1.2.3.256", "1.2.3.4.5", "00000000000.0.0.1"})
        expect_refused(route_key("10.1.0.0", "255.255.0.0", 4, std::string("12-") + gateway),
                       std::string("<VYRWRAP>: Error in Path, Invalid PPPoE Gateway ip ") + gateway);
}

TEST_F(RouteKeyTest, TakesAnyOtherTypeAsARouteWithoutNextHop) {
    for (const char *type : {"0", "5", "6", "7", "-1", "", "x", "999999999999999999999"}) {
        ASSERT_EQ(parse(std::string("/op/staticroute/{10.1.0.0:255.255.0.0:") + type + ":192.168.10.1}"), 1) << type;
        EXPECT_EQ(route.kind, 0U);
        EXPECT_EQ(route.gateway, 0U);
    }
}

TEST_F(RouteKeyTest, ReadsTheTypeAsAtoiDoes) {
    for (const char *type : {" 2", "+2", "2x", "2.9", "0000000000000000000000000000000000000002"}) {
        ASSERT_EQ(parse(std::string("/op/staticroute/{10.1.0.0:255.255.0.0:") + type + ":m}"), 1) << type;
        EXPECT_EQ(route.kind, ROUTE_KIND_IPSEC) << type;
    }
}

TEST_F(RouteKeyTest, DoesNotValidateAPlainGateway) {
    for (const std::string &gateway :
         {std::string("nonsense"), std::string(), "1.2.3." + std::string(250, '0') + "4"}) {
        ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 1, gateway)), 1);
        EXPECT_EQ(route.gateway, 0U);
        EXPECT_EQ(route.kind, 0U);
    }
}

TEST_F(RouteKeyTest, RefusesAKeyWithoutItsSlash) {
    expect_refused("op/staticroute/{10.1.0.0:255.255.0.0:1:1.1.1.1}",
                   "<VYRWRAP>: Path op/staticroute/{10.1.0.0:255.255.0.0:1:1.1.1.1} is incorrect");
    expect_refused("", "<VYRWRAP>: Path  is incorrect");
}

TEST_F(RouteKeyTest, RefusesANullKey) {
    EXPECT_EQ(vyrwrap_extract_static_route_cfg_from_path(&route, nullptr, "1", 0), 0);
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{"<VYRWRAP>: Path NULL is incorrect"});
}

TEST_F(RouteKeyTest, RefusesAKeyWithoutASeparator) {
    expect_refused("/op/staticroute/10.1.0.0:255.255.0.0:1:1.1.1.1}", "<VYRWRAP>: Error in Path, no '{' symbol");
    expect_refused("/op/staticroute/{10.1.0.0}", "<VYRWRAP>: 73: Error in Path, no ':' symbol");
    expect_refused("/op/staticroute/{10.1.0.0:255.255.0.0}", "<VYRWRAP>: 87: Error in Path, no ':' symbol");
    expect_refused("/op/staticroute/{10.1.0.0:255.255.0.0:1}", "<VYRWRAP>: Error in Path, no ':' symbol");
    expect_refused("/op/staticroute/{10.1.0.0:255.255.0.0:1:1.1.1.1", "<VYRWRAP>: Error in Path, no '}' symbol");
}

TEST_F(RouteKeyTest, RefusesAddressesThatAreNone) {
    expect_refused("/op/staticroute/{10.1.0.256:255.255.0.0:1:1.1.1.1}",
                   "<VYRWRAP>: Error in Path, Invalid dest ip 10.1.0.256");
    expect_refused("/op/staticroute/{:255.255.0.0:1:1.1.1.1}", "<VYRWRAP>: Error in Path, Invalid dest ip ");
    expect_refused("/op/staticroute/{10.1.0.0:x:1:1.1.1.1}", "<VYRWRAP>: Error in Path, Invalid mask ip x");
    expect_refused("/op/staticroute/{10.1.0.0::1:1.1.1.1}", "<VYRWRAP>: Error in Path, Invalid mask ip ");
}

TEST_F(RouteKeyTest, AColonBeforeTheBraceLeavesNoDestination) {
    expect_refused("/op:x/staticroute/{10.1.0.0:255.255.0.0:1:1.1.1.1}", "<VYRWRAP>: Error in Path, Invalid dest ip ");
    expect_refused("/op/staticroute/:{", "<VYRWRAP>: Error in Path, Invalid dest ip ");
    expect_refused("/op/staticroute/:{10.1.0.0:255.255.0.0:1:1.1.1.1}", "<VYRWRAP>: Error in Path, Invalid dest ip ");
}

TEST_F(RouteKeyTest, RefusesAnAddressLongerThanSixteenCharactersWhole) {
    const std::string sixteen = "10.1.0." + std::string(9, '0');
    EXPECT_EQ(parse(route_key(sixteen, "255.255.0.0", 1, "1.1.1.1")), 1);
    EXPECT_EQ(route.dest, 0x0A010000U);
    const std::string seventeen = sixteen + "1";
    expect_refused(route_key(seventeen, "255.255.0.0", 1, "1.1.1.1"),
                   "<VYRWRAP>: Error in Path, Invalid dest ip " + seventeen);
    expect_refused(route_key("10.1.0.0", "255.255.0.0      ", 1, "1.1.1.1"),
                   "<VYRWRAP>: Error in Path, Invalid mask ip 255.255.0.0      ");
}

TEST_F(RouteKeyTest, CutsTheMessageOfAnEndlessAddressAtTheLogsLimit) {
    const std::string key = route_key(std::string(100000, '1'), "255.255.0.0", 1, "1.1.1.1");
    EXPECT_EQ(parse(key), 0);
    const std::string message = "<VYRWRAP>: Error in Path, Invalid dest ip ";
    EXPECT_EQ(fake::log_texts(3), std::vector<std::string>{message + std::string(1023 - message.size(), '1')});
}

TEST_F(RouteKeyTest, EndsTheNextHopAtTheFirstBraceBehindTheThirdColon) {
    ASSERT_EQ(parse("/op}/staticroute/{10.1.0.0:255.255.0.0:2:map}and}more"), 1);
    EXPECT_STREQ(route.map_name, "map");
}

TEST_F(RouteKeyTest, ReadsTheMetricAsAtoiDoes) {
    const std::string key = route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1");
    const std::pair<const char *, uint32_t> values[] = {{"", 0},    {"7", 7},           {" 8x", 8},
                                                        {"abc", 0}, {"-1", 4294967295}, {"99999999999", 2147483647}};
    for (const auto &[value, metric] : values) {
        ASSERT_EQ(parse(key, value), 1);
        EXPECT_EQ(route.metric, metric) << value;
    }
    ASSERT_EQ(parse(key, nullptr), 1);
    EXPECT_EQ(route.metric, 0U);
}

TEST_F(RouteKeyTest, TakesOverTheDeleteFlag) {
    ASSERT_EQ(parse(route_key("10.1.0.0", "255.255.0.0", 1, "1.1.1.1"), "", 1), 1);
    EXPECT_EQ(route.is_delete, 1);
}

/** A key built of valid pieces, damaged at random: whatever the bytes, the parser ends and stays inside. */
TEST_F(RouteKeyTest, TakesAnyBytes) {
    const unsigned seed = 20260117;
    std::mt19937 random(seed);
    SCOPED_TRACE(seed);
    fake::set_log_level(3);
    const std::string start = "/op/staticroute/{10.1.0.0:255.255.0.0:4:12-192.168.10.1}";
    int valid = 0;
    for (int i = 0; i < 100000; i++) {
        std::string key = start;
        for (auto damage = random() % 4 + 1; damage > 0; damage--) {
            const size_t at = random() % (key.size() + 1);
            switch (random() % 4) {
                case 0:
                    key.insert(at, 1, static_cast<char>(random() % 255 + 1));
                    break;
                case 1:
                    key.erase(at, random() % 8);
                    break;
                case 2:
                    key.insert(at, std::string(random() % 300, "{}:.-0 9\xff"[random() % 9]));
                    break;
                default:
                    key.insert(at, start.substr(random() % start.size(), random() % 20));
                    break;
            }
        }
        const int result = parse(key, "1");
        EXPECT_EQ(fake::log_lines.size(), result ? 0U : 1U) << key;
        valid += result;
        if (result) {
            EXPECT_LT(strlen(route.map_name), sizeof route.map_name);
            EXPECT_LT(strlen(route.cluster_name), sizeof route.cluster_name);
            EXPECT_EQ(key[0], '/');
        }
    }
    EXPECT_GT(valid, 1000);
}

}  // namespace
