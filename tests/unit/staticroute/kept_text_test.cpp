#include "staticroute/kept_text.h"

#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "fakes/fakes.h"

namespace {

using KeptTextTest = fake::Test;

/** A route with a next hop in each slot. */
StaticRouteEntry sample_entry() {
    StaticRouteEntry entry = {};
    entry.dest = 0x0A010000;
    entry.mask = 0xFFFF0000;
    entry.in_use = 1;
    entry.metric = 1;
    entry.distance = 50;
    for (int slot = 0; slot < kMaxNextHops; slot++) {
        entry.used[slot] = 1;
        entry.kind[slot] = NEXT_HOP_KIND_PPPOE;
        entry.gateway[slot] = 0x01010101U + static_cast<uint32_t>(slot);
        entry.vlan[slot] = 10 + slot;
    }
    return entry;
}

TEST_F(KeptTextTest, AKeptTextComesBackForTheSameEntryAtItsPlaceOnly) {
    const StaticRouteEntry entry = sample_entry();
    keep_route_text(3, &entry, "route three");
    keep_route_text(kMaxStaticRoutes - 1, &entry, "the last");
    EXPECT_EQ(kept_route_text(3, &entry), "route three");
    EXPECT_EQ(kept_route_text(kMaxStaticRoutes - 1, &entry), "the last");
    EXPECT_EQ(kept_route_text(4, &entry), "");
}

TEST_F(KeptTextTest, AnyChangeThatTheTextShowsEndsIt) {
    using Change = std::function<void(StaticRouteEntry &)>;
    const std::vector<Change> changes = {
        [](StaticRouteEntry &entry) { entry.dest++; },       [](StaticRouteEntry &entry) { entry.mask <<= 1; },
        [](StaticRouteEntry &entry) { entry.metric++; },     [](StaticRouteEntry &entry) { entry.distance++; },
        [](StaticRouteEntry &entry) { entry.gateway[0]++; }, [](StaticRouteEntry &entry) { entry.gateway[4]++; },
        [](StaticRouteEntry &entry) { entry.flags[0] = 4; }, [](StaticRouteEntry &entry) { entry.flags[4] = 4; },
        [](StaticRouteEntry &entry) { entry.kind[0] = 2; },  [](StaticRouteEntry &entry) { entry.kind[4] = 2; },
        [](StaticRouteEntry &entry) { entry.used[0] = 0; },  [](StaticRouteEntry &entry) { entry.used[4] = 0; },
        [](StaticRouteEntry &entry) { entry.vlan[0] = 9; },  [](StaticRouteEntry &entry) { entry.vlan[4] = 9; },
    };
    const StaticRouteEntry entry = sample_entry();
    keep_route_text(0, &entry, "text");
    for (size_t i = 0; i < changes.size(); i++) {
        StaticRouteEntry changed = entry;
        changes[i](changed);
        EXPECT_EQ(kept_route_text(0, &changed), "") << i;
    }
    EXPECT_EQ(kept_route_text(0, &entry), "text");
}

TEST_F(KeptTextTest, ATextOfUpTo160CharactersIsKeptAndNoLongerOrEmptyOne) {
    StaticRouteEntry entry = sample_entry();
    const std::string longest(160, 'r');
    keep_route_text(1, &entry, longest);
    EXPECT_EQ(kept_route_text(1, &entry), longest);
    keep_route_text(1, &entry, longest + "r");
    keep_route_text(1, &entry, "");
    EXPECT_EQ(kept_route_text(1, &entry), longest);
}

TEST_F(KeptTextTest, ARouteWithANameInAnySlotIsNotKept) {
    const StaticRouteEntry plain = sample_entry();
    EXPECT_TRUE(route_text_can_be_kept(&plain, 0));
    for (const int slot : {0, kMaxNextHops - 1})
        for (const uint32_t flag : {NEXT_HOP_CLUSTER, NEXT_HOP_IPSEC}) {
            StaticRouteEntry named = plain;
            named.flags[slot] = flag | NEXT_HOP_DROP;
            EXPECT_FALSE(route_text_can_be_kept(&named, 0)) << slot << " " << flag;
        }
}

TEST_F(KeptTextTest, NothingIsKeptUnderAFilter) {
    const StaticRouteEntry plain = sample_entry();
    EXPECT_FALSE(route_text_can_be_kept(&plain, 1));
}

}  // namespace
