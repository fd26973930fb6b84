/* The value that lists the redistributed VLANs, and the overlay's file that they go into. */
#include <stdio.h>
#include <string.h>

#include "core/global.h"
#include "oap/oap_config.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "vlan/vlan_relay.h"

using namespace fuzz;

namespace {

constexpr char kKey[] = "/op/vlans/route_redistributed_vlans";
constexpr char kChannel[] = "__keyspace@0__:/op/vlans/route_redistributed_vlans";
constexpr const char *kEvents[] = {"set", "del", "expire", "append"};
constexpr size_t kValueMost = 20000;
constexpr size_t kIdMost = 11;

uint32_t expected[kRedistVlanMax];
uint32_t expected_count;
char line[6 * kRedistVlanMax];

/** Reads a value by its format: {ID:ID:...}, a bad id left out, what stands behind the last brace ignored. */
void read_expected(std::string_view value) {
    expected_count = 0;
    value = value.substr(0, kValueMost);
    if (value.substr(0, 2) == "{}" || value == "{" || value.empty())
        if (value.size() <= 2)
            return;
    value = value.substr(0, value.find('\0'));
    const size_t brace = value.find('{');
    if (brace == value.npos)
        return;
    for (value.remove_prefix(brace + 1);;) {
        size_t end = value.find(':');
        if (end == value.npos)
            end = value.find('}');
        if (end == value.npos)
            return;
        const int id = end <= kIdMost ? read_int(value.substr(0, end)) : 0;
        if (id >= 1 && id <= 4095 && expected_count < kRedistVlanMax)
            expected[expected_count++] = static_cast<uint32_t>(id);
        value.remove_prefix(end + 1);
    }
}

void check_list() {
    HOLDS(oapCfg_g.redist_vlan_count == expected_count);
    HOLDS(memcmp(oapCfg_g.redist_vlans, expected, expected_count * sizeof expected[0]) == 0);
}

/** The file has the list in one line where there is one, and nothing of it where there is none. */
void check_file() {
    const std::string_view content = file(kOapConfigPath);
    if (!oapCfg_g.bEnable) {
        HOLDS(content.empty());
        return;
    }
    HOLDS(content.substr(content.size() - 2) == "}\n");
    int length = snprintf(line, sizeof line, "\treturn (ifvlan ~ [");
    for (uint32_t i = 0; i < expected_count; i++)
        length += snprintf(line + length, sizeof line - static_cast<size_t>(length), "%s%u", i ? "," : "", expected[i]);
    snprintf(line + length, sizeof line - static_cast<size_t>(length), "]);\n");
    HOLDS((content.find("ifvlan") != content.npos) == (expected_count > 0));
    HOLDS(expected_count == 0 || content.find(line) != content.npos);
}

/** What the settings are worth in a first byte: all of one bit each. */
void use_settings(uint8_t bits) {
    oapCfg_g.bEnable = bits & 1;
    oapCfg_g.bRedistStatic = bits >> 1 & 1;
    oapCfg_g.bRedistBr0 = bits >> 2 & 1;
    oapCfg_g.bAggEnable = bits >> 3 & 1;
    oapCfg_g.distance = bits & 16 ? 50 : kOapDefaultDistance;
    oapCfg_g.vlan_rmap = bits & 32 ? "map" : nullptr;
    oapCfg_g.redist_vlan_count = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input = begin_over_store(data, size);
    use_settings(take_byte(&input));
    const uint8_t bits = take_byte(&input);
    std::string_view value = take_rest(&input);
    char *repeated = nullptr;
    if (bits >= 248 && thorough && !value.empty()) {
        // a value as long as the daemon reads, and longer; thousands of lines about it tell no more than a few
        if (!replaying)
            set_log_level(0);
        const size_t wanted = kValueMost - 2 + bits % 8;
        repeated = static_cast<char *>(allocate(wanted));
        for (size_t i = 0; i < wanted; i++)
            repeated[i] = value[i % value.size()];
        value = {repeated, wanted};
    }
    store_set(kKey, value);
    read_expected(value);
    const char *event = kEvents[bits % 4];
    if (bits & 4) {
        vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal();
        check_list();
        check_file();
    } else {
        notify(vyrwrap_RouteRedistVlans_subs_callback, kChannel, event);
        if (event[0] == 's')
            check_list();
        else
            expected_count = 0;
        if (event[0] != 'a')
            check_file();
        else
            HOLDS(!file(kOapConfigPath).data());
    }
    HOLDS(oapCfg_g.redist_vlan_count <= kRedistVlanMax);
    end(0);
    release(repeated);
    return 0;
}
