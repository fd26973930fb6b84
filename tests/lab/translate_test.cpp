#include "lab/vyr/translate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "lab/vyr/bird.h"
#include "lab/vyr/static_route.h"

namespace {

using vyr::RouteKey;

constexpr uint32_t kTenOne = 0x0A010000;  // 10.1.0.0

/** The files that a translation reads; the first one is "/c/main". */
struct Translate : testing::Test {
    std::map<std::string, std::string> files;
    vyr::Translation translation;

    std::string operator()(const std::string &text) {
        files["/c/main"] = text;
        const auto read = [this](const std::string &path) {
            const auto found = files.find(path);
            return found == files.end() ? std::nullopt : std::optional<std::string>(found->second);
        };
        const auto match = [this](const std::string &pattern) {
            std::vector<std::string> paths;
            for (const auto &[path, ignored] : files)
                if (path.starts_with(pattern.substr(0, pattern.find('*'))))
                    paths.push_back(path);
            return paths;
        };
        translation = vyr::translate("/c/main", {read, match}).value();
        return vyr::render(translation);
    }

    /** The lines that a static section's content becomes. */
    std::string static_section(const std::string &content) {
        const std::string head = "protocol static {\n  ipv4;\n";
        std::string text = (*this)(head + content + "}\n");
        text.erase(0, text.find("ipv4;\n") + 6);
        text.erase(text.rfind("}\n"));
        return text;
    }
};

TEST_F(Translate, CarriesTheMetricInTheRoutesBlock) {
    EXPECT_EQ(static_section("  route 10.1.0.0/16 metric 5 via 192.168.10.1 {\n    krt_metric = 5;\n"
                             "    preference = 256;\n  };\n"),
              "  route 10.1.0.0/16 via 192.168.10.1 { krt_metric = 5; preference = 256; igp_metric = 5; };\n");
    EXPECT_EQ(vyr::route_keys(translation), (std::vector<RouteKey>{{kTenOne, 16, 5}}));
}

TEST_F(Translate, GivesTheKernelTheMetricOfARouteWithoutABlock) {
    EXPECT_EQ(static_section("route 10.1.0.0/16 metric 7 via 192.168.10.1;\n"),
              "  route 10.1.0.0/16 via 192.168.10.1 { krt_metric = 7; igp_metric = 7; };\n");
}

TEST_F(Translate, JoinsSeveralNextHopsInTheirOrder) {
    EXPECT_EQ(static_section("  route 0.0.0.0/0 metric 1 via \"cluster_c1\" \n      via 192.168.10.3 \n"
                             "      via \"cluster_c2\" {\n        krt_metric = 1;\n  };\n"),
              "  route 0.0.0.0/0 via \"cluster_c1\" via 192.168.10.3 via \"cluster_c2\""
              " { krt_metric = 1; igp_metric = 1; };\n");
}

TEST_F(Translate, TurnsDropIntoABlackhole) {
    EXPECT_EQ(static_section("  route 10.1.0.0/16 drop;\n"), "  route 10.1.0.0/16 blackhole;\n");
    EXPECT_EQ(vyr::route_keys(translation), (std::vector<RouteKey>{{kTenOne, 16, 0}}));
}

TEST_F(Translate, MasksHostBitsAway) {
    EXPECT_EQ(static_section("route 10.1.2.3/16 via 192.168.10.1;"), "  route 10.1.0.0/16 via 192.168.10.1;\n");
    EXPECT_EQ(static_section("route 10.1.2.3/0 via 192.168.10.1;"), "  route 0.0.0.0/0 via 192.168.10.1;\n");
    EXPECT_EQ(static_section("route 10.1.2.3/32 via 192.168.10.1;"), "  route 10.1.2.3/32 via 192.168.10.1;\n");
}

TEST_F(Translate, LeavesOutANextHopThatNoInterfaceCanBeNamedLike) {
    EXPECT_EQ(static_section("route 10.1.0.0/16 via \"name-of-sixteen-\" via 192.168.10.1;"),
              "  route 10.1.0.0/16 via 192.168.10.1;\n");
    EXPECT_EQ(translation.left_out,
              (std::vector<std::string>{"10.1.0.0/16 via \"name-of-sixteen-\": no interface can have this name"}));
}

TEST_F(Translate, LeavesOutARouteThatHasNoNextHopLeft) {
    EXPECT_EQ(static_section("route 10.1.0.0/16 via \"a b\";\nroute 10.2.0.0/16 via 192.168.10.1;"),
              "  route 10.2.0.0/16 via 192.168.10.1;\n");
    EXPECT_EQ(translation.left_out.size(), 1U);
}

TEST_F(Translate, PassesOnWhatItCannotReadForBirdToRefuseByItself) {
    EXPECT_EQ(static_section("route 10.1.0.0/33 via 192.168.10.1;\nroute nonsense;\nroute 10.1.0.0/16 via;\n"),
              "  route 10.1.0.0/33 via 192.168.10.1;\n  route nonsense ; \n  route 10.1.0.0/16 via ; \n");
    EXPECT_TRUE(vyr::route_keys(translation).empty());
}

TEST_F(Translate, LeavesOutARefusedRouteByItsLine) {
    static_section("route 10.1.0.0/33 via 192.168.10.1;\nroute 10.2.0.0/16 via 192.168.10.1;\n");
    const std::string text = vyr::render(translation);
    const auto line = static_cast<unsigned>(
        std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(text.find("/33")), '\n') + 1);
    EXPECT_TRUE(vyr::leave_out_line(translation, line, "Invalid prefix length 33"));
    EXPECT_EQ(translation.left_out,
              (std::vector<std::string>{"10.1.0.0/33 via 192.168.10.1: Invalid prefix length 33"}));
    EXPECT_EQ(vyr::render(translation).find("/33"), std::string::npos);
    EXPECT_NE(vyr::render(translation).find("10.2.0.0/16"), std::string::npos);
}

TEST_F(Translate, LeavesOutNothingButRoutesAndLogs) {
    (*this)("protocol device {\n\tnonsense;\n}\n");
    EXPECT_FALSE(vyr::leave_out_line(translation, 2, "syntax error"));
    EXPECT_FALSE(vyr::leave_out_line(translation, 0, "no line"));
    EXPECT_FALSE(vyr::leave_out_line(translation, 99, "beyond the end"));
    EXPECT_TRUE(translation.left_out.empty());
}

TEST_F(Translate, FollowsIncludes) {
    files["/c/part"] = "router id 1.2.3.4;\n";
    files["/d/one"] = "protocol device {}\n";
    files["/d/two"] = "protocol static { route 10.1.0.0/16 drop; }\n";
    EXPECT_EQ((*this)("include \"part\";\ninclude \"/d/*\";\n"),
              "router id 1.2.3.4;\nprotocol device {}\nprotocol static {\n  route 10.1.0.0/16 blackhole;\n}\n");
}

TEST_F(Translate, LeavesAMissingIncludeForBirdToName) {
    EXPECT_EQ((*this)("include \"none\";\n"), "include \"/c/none\";\n");
}

TEST_F(Translate, StopsAtFilesThatIncludeThemselves) {
    const std::string text = (*this)("include \"main\";\n");
    EXPECT_EQ(text, "include \"/c/main\";\n");
}

TEST_F(Translate, FailsWhenTheFileItselfCannotBeRead) {
    const auto none = [](const std::string &) { return std::optional<std::string>(); };
    EXPECT_FALSE(vyr::translate("/c/main", {none, {}}).has_value());
}

TEST_F(Translate, LeavesOutTheApplicationProtocolButKeepsItsLimit) {
    EXPECT_EQ((*this)("filter app_export_filter {\n\tif ((source = RTS_STATIC) && (proto = \"ospf_agg\")) then {\n"
                      "\t\t reject;\n\t}\n\t accept;\n}\nprotocol app {\n\t max_prefixes 512;\n\t ipv4 {\n"
                      "\t\t export filter app_export_filter;\n\t};\n}\n"),
              "");
    EXPECT_EQ(translation.max_prefixes, 512U);
}

TEST_F(Translate, LeavesOutTheOverlayProtocolWithItsFunctionsAndFilters) {
    EXPECT_EQ(
        (*this)("function oap_vlan_accept() {\n\treturn (ifvlan ~ [10,20]);\n}\nfilter oap_export_filter {\n"
                "\t if ((source = RTS_DEVICE) && (oap_vlan_accept()) && (rmap_x(3))) then accept;\n"
                "\t reject;\n}\nprotocol oap {\n\t local site id \"a;}b\";\n\t ipv4 {\n\t\t import all;\n\t };\n}\n"
                "protocol device {}\n"),
        "protocol device {}\n");
    EXPECT_FALSE(translation.max_prefixes.has_value());
}

TEST_F(Translate, KeepsLogLinesOneByOne) {
    const std::string line = "log \"/var/log/x\" 40960 \"/var/log/x.1\" { warning, error, auth, fatal, bug  };\n";
    EXPECT_EQ((*this)(line + "log syslog all;\n"), line + "log syslog all;\n");
    ASSERT_EQ(translation.pieces.size(), 2U);
    EXPECT_EQ(translation.pieces[0].kind, vyr::PieceKind::kLog);
    EXPECT_EQ(translation.pieces[0].name, "/var/log/x");
    EXPECT_EQ(translation.pieces[1].kind, vyr::PieceKind::kText);
}

TEST_F(Translate, ReadsOverComments) {
    EXPECT_EQ((*this)("# protocol app { max_prefixes 1; }\n/* ; } */ router id /* x */ 1.2.3.4; # end\n"),
              "router id /* x */ 1.2.3.4;\n");
}

TEST_F(Translate, NeverMakesACutFileWhole) {
    const std::string whole =
        "protocol static {\n  ipv4;\n  route 10.1.0.0/16 metric 5 via \"eth1\" {\n    krt_metric = 5;\n  };\n}\n";
    for (size_t length = 1; length < whole.size() - 2; ++length) {
        const std::string text = (*this)(whole.substr(0, length));
        const auto opened = std::count(text.begin(), text.end(), '{');
        EXPECT_EQ(opened > std::count(text.begin(), text.end(), '}'), opened > 0) << length;
        EXPECT_TRUE(vyr::route_keys(translation).empty()) << length;
    }
}

TEST_F(Translate, TakesAnyBytes) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        (*this)("protocol static {\n route 10.1.0.0/16 via " + one + ";\n}" + one + one);
        (*this)(one);
    }
}

TEST(InterfaceName, IsWhatTheKernelTakes) {
    for (const char *name : {"br0", "cluster_c1", "br0.4095", "name-of-fifteen"})
        EXPECT_TRUE(vyr::is_interface_name(name)) << name;
    for (const char *name : {"", ".", "..", "a/b", "a b", "a:b", "a\tb", "name-of-sixteen-"})
        EXPECT_FALSE(vyr::is_interface_name(name)) << name;
}

TEST(Complaint, NamesItsLine) {
    const auto complaint = vyr::parse_complaint("bird: /tmp/x:12:18 Invalid prefix length 33\nmore\n", "/tmp/x");
    EXPECT_EQ(complaint.line, 12U);
    EXPECT_EQ(complaint.text, "Invalid prefix length 33");
}

TEST(Complaint, HasNoLineWhereBirdNamesNone) {
    for (const char *text :
         {"", "bird: Unable to open configuration file /tmp/x: No such file or directory", "/tmp/x:"}) {
        EXPECT_EQ(vyr::parse_complaint(text, "/tmp/x").line, 0U) << text;
        EXPECT_EQ(vyr::parse_complaint(text, "/tmp/x").text, text);
    }
}

TEST(ChosenRoutes, AreReadWithTheirKernelMetric) {
    const std::string reply =
        "1007-Table master4:\n 10.1.0.0/16          unicast [static1 05:22:39.533] * (256/5)\n"
        " \tvia 192.168.10.7 on br0\n1008-\tType: static univ\n1012-\tigp_metric: 5\n \tKernel.metric: 5\n"
        "1007-0.0.0.0/0            unicast [static1 05:22:39.533] * (256/1)\n \tvia 192.168.10.3 on br0\n0000 \n";
    EXPECT_EQ(vyr::parse_chosen_routes(reply), (std::vector<RouteKey>{{0, 0, 0}, {kTenOne, 16, 5}}));
}

}  // namespace
