/* A VLAN as its key spells it: ...{ADDRESS:NETMASK:ID} */
#include <string.h>

#include "core/key_address.h"
#include "core/log.h"
#include "core/parse.h"
#include "core/text.h"
#include "core/vlan_id.h"
#include "platform/cmnutil.h"
#include "vlan/vlan_relay.h"

namespace {

constexpr size_t kNotifiedPathSize = 128;

/** Numbers that belong to the messages. */
enum MessageLine {
    LINE_NO_FIRST_COLON = 68,
    LINE_NO_SECOND_COLON = 82,
    LINE_INVALID_VLAN = 107,
    LINE_VLAN_READ = 112,
    LINE_NOTIFIED_PATH = 137,
};

/** Addresses have at most 15 characters. */
constexpr KeyAddressRules kAddressRules = {16, LINE_NO_FIRST_COLON, LINE_NO_SECOND_COLON};

/** Reads the id behind the second colon. Returns 0 on failure. */
uint32_t read_id(const char *second_colon, const char *function) {
    if (!strchr(second_colon, '}')) {
        log_error("<VYRWRAP>: Error in Path, no '}' symbol");
        return 0;
    }
    const int vlan = parse_int(second_colon + 1);
    if (is_valid_vlan_id(vlan))
        return static_cast<uint32_t>(vlan);
    log_error("<VYRWRAP>: %s: %d: Invalid vlan %u", function, LINE_INVALID_VLAN, static_cast<unsigned>(vlan));
    return 0;
}

}  // namespace

int vyrwrap_read_vlan_interface_info_from_path(const char *path, uint32_t opcode, vlan_Iface *record_out) {
    if (!path || !record_out)
        return -1;
    KeyAddresses texts;
    const char *second_colon = read_key_addresses(path, kAddressRules, &texts);
    if (!second_colon)
        return -1;
    const uint32_t vlan = read_id(second_colon, __func__);
    if (vlan == 0)
        return -1;
    log_info("<VYRWRAP>: %s: %d: vlan %u, vlan opcode %d, ipaddr %s, netmask %s", __func__, LINE_VLAN_READ, vlan,
             static_cast<int>(opcode), texts.address, texts.netmask);
    *record_out = {opcode, vlan, str_to_ip(texts.address), str_to_ip(texts.netmask)};
    return 0;
}

int vyrwrap_read_vlan_interface_info_from_notify_key(const char *channel, uint32_t opcode, vlan_Iface *record_out) {
    const char *colon = channel ? strchr(channel, ':') : nullptr;
    char path[kNotifiedPathSize] = {};
    if (colon)
        copy_text(path, sizeof path, colon + 1);
    if (vyrwrap_read_vlan_interface_info_from_path(path, opcode, record_out) == 0)
        return 0;
    log_error("<VYRWRAP>:%s:%d: Error in extracting vlan parameters from path %s", __func__, LINE_NOTIFIED_PATH, path);
    return -1;
}
