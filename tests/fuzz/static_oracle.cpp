/* The static route table, and the file that it becomes. */
#include <string.h>

#include "core/global.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"

namespace fuzz {

namespace {

StaticRouteEntry entries[kMaxStaticRoutes];

struct Rendering {
    char text[1 << 18];
    size_t length;
};
Rendering rendering;

void put(std::string_view text) {
    HOLDS(rendering.length + text.size() < sizeof rendering.text);
    memcpy(rendering.text + rendering.length, text.data(), text.size());
    rendering.length += text.size();
}

void put_number(unsigned number) {
    char digits[10];
    size_t at = sizeof digits;
    do
        digits[--at] = static_cast<char>('0' + number % 10);
    while (number /= 10);
    put({digits + at, sizeof digits - at});
}

void put_address(uint32_t ip) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        put_number(ip >> shift & 255);
        if (shift > 0)
            put(".");
    }
}

bool can_stand_between_quotes(const char *name) {
    for (; *name; name++)
        if (*name == '"' || static_cast<unsigned char>(*name) < 0x20 || *name == 0x7f)
            return false;
    return true;
}

void put_name(const char *name) {
    put("\"");
    put(name && can_stand_between_quotes(name) ? name : "NULL");
    put("\"");
}

void put_hop(const StaticRouteEntry &entry, int slot) {
    put("via ");
    if (entry.flags[slot] & NEXT_HOP_CLUSTER)
        put_name(entry.cluster_name[slot]);
    else if (entry.flags[slot] & NEXT_HOP_IPSEC)
        put_name(entry.map_name[slot]);
    else if (entry.kind[slot] == NEXT_HOP_KIND_PPPOE) {
        put("\"__pppoe__vlan");
        put_number(static_cast<unsigned>(entry.vlan[slot]));
        put("_");
        put_address(entry.gateway[slot]);
        put("\"");
    } else {
        put_address(entry.gateway[slot]);
    }
    put(" ");
}

int put_hops(const StaticRouteEntry &entry) {
    int count = 0;
    for (int slot = 0; slot < kMaxNextHops; slot++) {
        if (!entry.used[slot])
            continue;
        if (count++ > 0)
            put("\n      ");
        put_hop(entry, slot);
    }
    if (count == 0)
        put("via 0.0.0.0 ");
    return count;
}

void put_entry(const StaticRouteEntry &entry) {
    int length = 0;
    for (uint32_t mask = entry.mask; mask; mask &= mask - 1)
        length++;
    put("  route ");
    put_address(entry.dest);
    put("/");
    put_number(static_cast<unsigned>(length));
    put(" metric ");
    put_number(entry.metric ? entry.metric : 1);
    put(" ");
    const char *indent = put_hops(entry) > 1 ? "        " : "    ";
    put("{\n");
    put(indent);
    put("krt_metric = ");
    put_number(entry.metric ? entry.metric : 1);
    put(";\n");
    put(indent);
    put("preference = 256;\n  };\n");
}

/** A slot whose name found no memory has neither name nor address, and is like no other. */
bool same_hop(const StaticRouteEntry &a, int slot_a, const StaticRouteEntry &b, int slot_b) {
    if (a.cluster_name[slot_a] || b.cluster_name[slot_b])
        return a.cluster_name[slot_a] && b.cluster_name[slot_b] &&
               strcmp(a.cluster_name[slot_a], b.cluster_name[slot_b]) == 0;
    if (a.map_name[slot_a] || b.map_name[slot_b])
        return a.map_name[slot_a] && b.map_name[slot_b] && strcmp(a.map_name[slot_a], b.map_name[slot_b]) == 0;
    return a.gateway[slot_a] != 0 && a.gateway[slot_a] == b.gateway[slot_b];
}

/** Returns the names that the slot owns. */
size_t check_slot(const StaticRouteEntry &entry, int slot) {
    HOLDS(entry.used[slot] <= 1);
    const char *map_name = entry.map_name[slot];
    const char *cluster_name = entry.cluster_name[slot];
    HOLDS(entry.used[slot] || (!map_name && !cluster_name && entry.flags[slot] == 0 && entry.gateway[slot] == 0));
    HOLDS(!map_name || !cluster_name);
    HOLDS(!map_name || memchr(map_name, '\0', kMapNameSize));
    HOLDS(!cluster_name || (memchr(cluster_name, '\0', kClusterNameSize) && strncmp(cluster_name, "cluster_", 8) == 0));
    return (map_name ? 1U : 0U) + (cluster_name ? 1U : 0U);
}

size_t check_entry(const StaticRouteEntry &entry) {
    bool used = false;
    size_t names = 0;
    for (int slot = 0; slot < kMaxNextHops; slot++) {
        names += check_slot(entry, slot);
        used = used || entry.used[slot];
        for (int other = 0; careful && entry.used[slot] && other < slot; other++)
            HOLDS(!entry.used[other] || !same_hop(entry, slot, entry, other));
    }
    HOLDS(used);
    HOLDS(entry.in_use == 1);
    const uint32_t first_octet = entry.dest >> 24;
    HOLDS(entry.dest == 0 || (first_octet != 0 && first_octet != 127));
    return names;
}

}  // namespace

void use_static_table() {
    for (StaticRouteEntry &entry : entries)
        if (entry.in_use)
            entry = {};
    vyrwrap_global.static_routes = {entries, 0};
}

size_t check_static_table() {
    size_t names = 0;
    for (int i = 0; vyrwrap_global.static_routes.entries && i < kMaxStaticRoutes; i++)
        if (vyrwrap_global.static_routes.entries[i].in_use)
            names += check_entry(vyrwrap_global.static_routes.entries[i]);
    HOLDS(vyrwrap_global.static_route_count <= kMaxStaticRoutes * kMaxNextHops);
    return names;
}

void check_static_file(std::string_view content) {
    constexpr size_t kShort = 2000;
    if (content.size() > kShort && !careful)
        return;
    rendering.length = 0;
    put("protocol static {\n  ipv4;\n");
    for (int i = 0; i < kMaxStaticRoutes; i++)
        if (vyrwrap_global.static_routes.entries[i].in_use)
            put_entry(vyrwrap_global.static_routes.entries[i]);
    put("}\n");
    HOLDS(content == std::string_view(rendering.text, rendering.length));
}

void check_renamed(const char *path, std::string_view content) {
    constexpr std::string_view kOwn =
        "log \"/var/log/korvalog/vyr.log\" 81920 \"/var/log/korvalog/vyr.log.1\" "
        "{ debug, trace, info, remote, warning, error, auth, fatal, bug };\n\n";
    if (strcmp(path, "/tmp/vyr_static.conf") == 0 && !content.empty())
        check_static_file(content);
    else if (strcmp(path, "/tmp/vyr_log.conf") == 0)
        HOLDS(content.substr(0, 5) == "log \"" && content.back() == '\n' && content.find('\0') == content.npos &&
              (content.find(kOwn) == content.npos || content.substr(content.size() - kOwn.size()) == kOwn));
    else if (strcmp(path, "/tmp/vyr_oap.conf") == 0)
        HOLDS(content.find('\0') == content.npos);
}

}  // namespace fuzz
