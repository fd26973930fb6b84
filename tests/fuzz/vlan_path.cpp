/* VLANs as their keys spell them: read, relayed after notifications and on replay. */
#include <string.h>

#include "core/global.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "vlan/vlan_relay.h"

using namespace fuzz;

namespace {

constexpr char kFolder[] = "/op/vlans/route";
constexpr uint32_t kVlanFamily = 1;
constexpr uint32_t kVlanMessage = 2;
constexpr size_t kPathMost = 127;
constexpr const char *kEvents[] = {"set", "del", "expire", "hset", "append", "nothing", "set", "del"};

/** Reads a path by its format: ...{ADDRESS:NETMASK:ID}, the first colon of all ending the address. */
bool read_expected(std::string_view path, vlan_Iface *record) {
    const size_t brace = path.find('{');
    const size_t first = path.find(':');
    if (brace == path.npos || first == path.npos || first < brace)
        return false;
    const std::string_view address = path.substr(brace + 1, first - brace - 1);
    const size_t second = path.find(':', first + 1);
    if (second == path.npos || address.size() > 15 || !read_ipv4(address, &record->ip))
        return false;
    const std::string_view netmask = path.substr(first + 1, second - first - 1);
    if (netmask.size() > 15 || !read_ipv4(netmask, &record->netmask) || path.find('}', second) == path.npos)
        return false;
    const int id = read_int(path.substr(second + 1));
    record->vlan_id = static_cast<uint32_t>(id);
    return id >= 1 && id <= 4095;
}

void check_sent(const vlan_Iface &expected) {
    struct {
        uint16_t source;
        uint16_t destination;
        uint32_t family;
        uint32_t message;
        vlan_Iface vlan;
    } sent;
    memcpy(&sent, last_datagram, sizeof sent);
    HOLDS(sent.family == kVlanFamily && sent.message == kVlanMessage);
    HOLDS(memcmp(&sent.vlan, &expected, sizeof expected) == 0);
}

void check_read(const char *path, uint32_t opcode) {
    vlan_Iface expected = {};
    const bool valid = read_expected(path, &expected);
    vlan_Iface record = {1, 2, 3, 4};
    HOLDS((vyrwrap_read_vlan_interface_info_from_path(path, opcode, &record) == 0) == valid);
    if (valid)
        HOLDS(record.opCode == opcode && record.vlan_id == expected.vlan_id && record.ip == expected.ip &&
              record.netmask == expected.netmask);
    else
        HOLDS(record.opCode == 1 && record.vlan_id == 2 && record.ip == 3 && record.netmask == 4);
}

void check_notified(const char *path, const char *event) {
    vlan_Iface expected = {};
    const bool told = strcmp(event, "set") == 0 || strcmp(event, "del") == 0;
    const bool is_vlan = strncmp(path, kFolder, strlen(kFolder)) == 0;
    const bool sends = told && is_vlan && read_expected(std::string_view(path).substr(0, kPathMost), &expected);
    const unsigned before = datagram_count;
    notify(vyrwrap_VlanIfaceInfo_subs_callback, keep_text("__keyspace@0__:", path), event);
    HOLDS(datagram_count == before + (sends ? 1 : 0));
    expected.opCode = event[0] == 's' ? VLAN_ANNOUNCED : VLAN_WITHDRAWN;
    if (sends)
        check_sent(expected);
}

void check_replayed(const char *path) {
    store_set(path, "1");
    vlan_Iface expected = {};
    const bool sends = strncmp(path, kFolder, strlen(kFolder)) == 0 && read_expected(path, &expected);
    const unsigned before = datagram_count;
    vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();
    HOLDS(datagram_count == before + (sends ? 1 : 0));
    expected.opCode = VLAN_ANNOUNCED;
    if (sends)
        check_sent(expected);
    store_delete(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kWholePath = 8;
    constexpr uint8_t kReplay = 16;
    constexpr uint8_t kRead = 32;
    Input input = begin_with_application(data, size);
    const uint8_t bits = take_byte(&input);
    const char *text = keep_text(take_text(&input));
    const char *path = bits & kWholePath ? text : keep_text(kFolder, text);
    if (bits & kRead)
        check_read(path, bits);
    else if (bits & kReplay)
        check_replayed(path);
    else
        check_notified(path, kEvents[bits % 8]);
    end(0);
    return 0;
}
