/* Random operations, compared after each one with a model of the table that is as simple as can be. */
#include <errno.h>

#include <array>
#include <optional>
#include <random>

#include "platform/cmnutil.h"
#include "staticroute/fixture.h"
#include "staticroute/subscription.h"

namespace {

struct Hop {
    uint32_t kind; /**< of StaticRouteCfg */
    uint32_t gateway;
    std::string name;
    int vlan;
    uint32_t flags;
};

struct Route {
    uint32_t dest;
    uint32_t mask;
    uint32_t metric;
    std::array<std::optional<Hop>, 5> hops;

    bool empty() const {
        for (const auto &hop : hops)
            if (hop)
                return false;
        return true;
    }
};

std::string dotted(uint32_t ip) {
    return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) + "." + std::to_string(ip >> 8 & 255) + "." +
           std::to_string(ip & 255);
}

std::string shown(const Hop &hop) {
    const std::string interface = std::to_string(hop.vlan) + "_" + dotted(hop.gateway) + "\"";
    if (hop.kind == 2 || hop.kind == 7)
        return "\"" + hop.name + "\"";
    if (hop.kind == 5)
        return "\"__pppoe__vlan" + interface;
    return hop.kind == 6 ? "\"__tnlintf__vlan" + interface : dotted(hop.gateway);
}

class Model {
public:
    std::array<std::optional<Route>, 272> routes;
    uint32_t count = 0;
    std::string file = "(no file)";

    /** Returns the expected result. `writable` tells whether the file can be written. */
    int apply(const StaticRouteCfg &route, bool writable) {
        const uint32_t octet = route.dest >> 24;
        if (route.dest && (octet == 0 || octet == 127))
            return 0;
        return route.is_delete ? erase(route, writable) : insert(route, writable);
    }

private:
    static bool same(const StaticRouteCfg &route, const std::optional<Hop> &hop) {
        if (!hop)
            return false;
        if (route.kind == 7)
            return hop->kind == 7 && hop->name == route.cluster_name;
        if (route.kind == 2)
            return hop->kind == 2 && hop->name == route.map_name;
        return hop->gateway == route.gateway;
    }

    static bool same_prefix(const StaticRouteCfg &route, const std::optional<Route> &have) {
        return have && have->mask == route.mask && (have->dest & have->mask) == (route.dest & route.mask);
    }

    void uncount() {
        if (count)
            count--;
    }

    int erase(const StaticRouteCfg &route, bool writable) {
        for (auto &have : routes) {
            if (!same_prefix(route, have))
                continue;
            for (auto &hop : have->hops) {
                if (!same(route, hop))
                    continue;
                hop.reset();
                write(writable);
                if (have->empty())
                    have.reset();
                if (writable)
                    uncount();
                return writable;
            }
        }
        uncount();
        return 1;
    }

    void take_away(const StaticRouteCfg &route) {
        for (auto &have : routes) {
            bool found = false;
            if (same_prefix(route, have))
                for (auto &hop : have->hops)
                    if (same(route, hop)) {
                        hop.reset();
                        found = true;
                    }
            if (!found)
                continue;
            if (have->empty())
                have.reset();
            return;
        }
    }

    int insert(const StaticRouteCfg &route, bool writable) {
        std::optional<Route> *target = nullptr;
        int slot = 0;
        bool existing = false;
        for (auto &have : routes) {
            if (!same_prefix(route, have) || have->metric != route.metric)
                continue;
            target = &have;
            slot = route.flags & 4 ? 0 : -1;
            for (int i = 4; i >= 0; i--)
                if (!(route.flags & 4) && !have->hops[static_cast<size_t>(i)])
                    slot = i;
            for (int i = 4; i >= 0; i--)
                if (same(route, have->hops[static_cast<size_t>(i)])) {
                    slot = i;
                    existing = true;
                }
            break;
        }
        if (target && slot < 0)
            return 0;
        for (auto &have : routes)
            if (!target && !have)
                target = &have;
        if (!existing)
            take_away(route);
        if (!target)
            return 0;
        if (!*target)
            target->emplace();
        fill(**target, static_cast<size_t>(slot), route);
        write(writable);
        if (writable && !existing)
            count++;
        return writable;
    }

    static void fill(Route &have, size_t slot, const StaticRouteCfg &route) {
        have.dest = route.dest;
        have.mask = route.mask;
        have.metric = route.metric;
        const bool is_default = route.dest == 0 && route.mask == 0;
        const bool named = route.kind == 2 || route.kind == 7;
        Hop hop = {route.kind, route.gateway, route.kind == 7 ? route.cluster_name : route.map_name, route.vlan, 0};
        hop.flags = named || is_default ? 0 : route.flags;
        have.hops[slot] = hop;
    }

    void write(bool writable) {
        if (writable)
            file = render();
    }

    std::string render() const {
        std::string text = "protocol static {\n  ipv4;\n";
        for (const auto &have : routes)
            if (have)
                text += render(*have);
        return text + "}\n";
    }

    static std::string render(const Route &have) {
        uint32_t length = 0;
        for (uint32_t mask = have.mask; mask; mask >>= 1)
            length += mask & 1;
        std::string head = "  route " + dotted(have.dest) + "/" + std::to_string(length);
        const std::string metric = std::to_string(have.metric ? have.metric : 1);
        std::vector<Hop> hops;
        for (const auto &hop : have.hops)
            if (hop)
                hops.push_back(*hop);
        if (!hops.empty() && hops[0].flags & 4)
            return head + " drop;\n";
        if (hops.empty())
            hops.push_back({0, 0, "", 0, 0});
        std::string text = head + " metric " + metric + " via " + shown(hops[0]) + " ";
        for (size_t i = 1; i < hops.size(); i++)
            text += "\n      via " + shown(hops[i]) + " ";
        const std::string indent = hops.size() > 1 ? "        " : "    ";
        return text + "{\n" + indent + "krt_metric = " + metric + ";\n" + indent + "preference = 256;\n  };\n";
    }
};

class ModelTest : public StaticRouteTest, public testing::WithParamInterface<std::pair<unsigned, int>> {
protected:
    void SetUp() override {
        StaticRouteTest::SetUp();
        fake::set_log_level(3);
    }

    void expect_equal() {
        for (int i = 0; i < kMaxStaticRoutes; i++) {
            const auto &have = model.routes[static_cast<size_t>(i)];
            ASSERT_EQ(entry(i).in_use != 0, have.has_value()) << "entry " << i;
            for (int slot = 0; slot < kMaxNextHops; slot++)
                expect_equal_hop(entry(i), slot, have ? have->hops[static_cast<size_t>(slot)] : std::nullopt);
            if (!have)
                continue;
            ASSERT_EQ(entry(i).dest, have->dest);
            ASSERT_EQ(entry(i).mask, have->mask);
            ASSERT_EQ(entry(i).metric, have->metric);
        }
        ASSERT_EQ(vyrwrap_global.static_route_count, model.count);
        ASSERT_EQ(static_file(), model.file);
    }

    static void expect_equal_hop(const StaticRouteEntry &is, int slot, const std::optional<Hop> &hop) {
        ASSERT_EQ(is.used[slot] != 0, hop.has_value()) << "slot " << slot;
        ASSERT_EQ(is.gateway[slot], hop ? hop->gateway : 0);
        ASSERT_EQ(is.map_name[slot] != nullptr, hop && hop->kind == 2);
        ASSERT_EQ(is.cluster_name[slot] != nullptr, hop && hop->kind == 7);
        const char *name = is.map_name[slot] ? is.map_name[slot] : is.cluster_name[slot];
        ASSERT_EQ(std::string(name ? name : ""), hop ? hop->name : "");
    }

    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random() % below); }

    /** A route as keys make them, and the two sorts that no key spells. */
    StaticRouteCfg random_route(int networks) {
        const std::string n = std::to_string(pick(static_cast<uint32_t>(networks)));
        std::string dest = "10." + n + ".0." + (pick(10) ? "0" : "1");
        std::string mask = pick(20) ? "255.255.0.0" : "255.255.255.0";
        if (pick(10) == 0)
            dest = mask = "0.0.0.0";
        if (pick(50) == 0)
            dest = "127.0.0.0";
        const std::string hop = std::to_string(pick(7));
        const std::string next_hops[] = {"", "1.1.1." + hop, "map" + hop, hop, hop + "-1.1.1." + hop, ""};
        const uint32_t type = pick(20) ? pick(4) + 1 : 5;
        StaticRouteCfg route;
        const std::string key = route_key(dest, mask, static_cast<int>(type), next_hops[type]);
        EXPECT_EQ(vyrwrap_extract_static_route_cfg_from_path(&route, key.c_str(), std::to_string(pick(4)).c_str(),
                                                             pick(5) < 2),
                  1);
        if (route.kind == 5 && pick(2))
            route.kind = 6;
        if (route.kind == 0 && pick(10) == 0)
            route.flags = NEXT_HOP_DROP;
        return route;
    }

    std::mt19937 random;
    Model model;
};

TEST_P(ModelTest, TheTableTheCountTheFileAndTheResultAreTheModels) {
    const auto [seed, networks] = GetParam();
    printf("seed %u, %d networks\n", seed, networks);
    random.seed(seed);
    int refused = 0;
    int full = 0;
    for (int i = 0; i < 2500; i++) {
        SCOPED_TRACE("operation " + std::to_string(i));
        const StaticRouteCfg route = random_route(networks);
        const bool writable = pick(50) != 0;
        if (!writable)
            fake::fail_call("rename", EIO);
        const int expected = model.apply(route, writable);
        const int result = apply(route);
        fake::fail_call("rename", 0, 0, 0);
        ASSERT_EQ(result, expected);
        ASSERT_EQ(report.error_present, result ? 0 : 1);
        refused += !result;
        full += strncmp(report.text, "Error: No free slot", strlen("Error: No free slot")) == 0;
        fake::log_lines.clear();
        ASSERT_NO_FATAL_FAILURE(expect_equal());
    }
    printf("%d refused, %d of them for want of room\n", refused, full);
    EXPECT_EQ(full > 0, networks > 100);
    EXPECT_GT(refused, 100);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest,
                         testing::Values(std::pair{20260117U, 3}, std::pair{7U, 12}, std::pair{99U, 120},
                                         std::pair{4711U, 250}));

/** Damaged keys through the callback: what the parser refuses changes nothing, not even the file. */
TEST_F(StaticRouteTest, RefusedKeysChangeNothing) {
    const unsigned seed = 20260118;
    printf("seed %u\n", seed);
    std::mt19937 random(seed);
    fake::set_log_level(3);
    ASSERT_EQ(add(ipsec_route("10.1.0.0", "255.255.0.0", "map1", 5)), 1);
    const std::string file = static_file();
    const std::string valid = route_key("10.1.0.0", "255.255.0.0", 2, "map1");
    const std::string pattern = "__keyspace@0__:/op/staticroute/*";
    int refused = 0;
    for (int i = 0; i < 100000; i++) {
        std::string key = valid;
        for (auto damage = random() % 6 + 1; damage > 0; damage--)
            key[random() % key.size()] = static_cast<char>(random() % 256);
        if (random() % 8 == 0)
            key.insert(random() % key.size(), std::string(random() % 400, static_cast<char>(random() % 256)));
        StaticRouteCfg route;
        if (vyrwrap_extract_static_route_cfg_from_path(&route, key.substr(0, 127).c_str(), "", 0))
            continue;
        refused++;
        const fake::Reply reply({"pmessage", pattern, "__keyspace@0__:" + key, random() % 2 ? "set" : "del"});
        vyrwrap_static_route_subscribe_callback(fake::context(), reply.get(), nullptr);
        fake::log_lines.clear();
        fake::dal_calls.clear();
    }
    EXPECT_GT(refused, 50000);
    EXPECT_EQ(static_file(), file);
    EXPECT_EQ(fake::call_count("rename"), 1);
    EXPECT_STREQ(entry(0).map_name[0], "map1");
    EXPECT_EQ(entry(1).in_use, 0U);
    EXPECT_EQ(vyrwrap_global.static_route_count, 1U);
}

}  // namespace
