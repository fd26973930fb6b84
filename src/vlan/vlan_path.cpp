/* A VLAN as its key spells it: ...{ADDRESS:NETMASK:ID} */
#include <arpa/inet.h>
#include <string.h>

#include "core/log.h"
#include "core/parse.h"
#include "core/text.h"
#include "core/vlan_id.h"
#include "platform/cmnutil.h"
#include "vlan/vlan_relay.h"

namespace {

constexpr size_t kAddressSize = 16;
constexpr size_t kNotifiedPathSize = 128;

/** Numbers that belong to the messages. */
enum MessageLine {
    LINE_NO_FIRST_COLON = 68,
    LINE_NO_SECOND_COLON = 82,
    LINE_INVALID_VLAN = 107,
    LINE_VLAN_READ = 112,
    LINE_NOTIFIED_PATH = 137,
};

int length_between(const char *begin, const char *end) {
    return end > begin ? static_cast<int>(end - begin) : 0;
}

/** Copies an address. Fails where it is longer than its buffer or no address. */
bool copy_address(const char *begin, int length, char (&address)[kAddressSize]) {
    if (length >= static_cast<int>(kAddressSize))
        return false;
    memcpy(address, begin, static_cast<size_t>(length));
    address[length] = '\0';
    in_addr parsed;
    return inet_aton(address, &parsed) != 0;
}

const char *find_colon(const char *text, MessageLine line) {
    const char *colon = strchr(text, ':');
    if (!colon)
        log_error("<VYRWRAP>: %d: Error in Path, no ':' symbol", line);
    return colon;
}

/** Reads the address. Returns the colon behind it, NULL on failure. */
const char *read_address(const char *path, char (&address)[kAddressSize]) {
    const char *brace = strchr(path, '{');
    if (!brace) {
        log_error("<VYRWRAP>: Error in Path, no '{' symbol");
        return nullptr;
    }
    // The path's first colon, not the brace's: one before the brace leaves the address empty.
    const char *colon = find_colon(path, LINE_NO_FIRST_COLON);
    if (!colon)
        return nullptr;
    const int length = length_between(brace + 1, colon);
    if (copy_address(brace + 1, length, address))
        return colon;
    log_error("<VYRWRAP>: Error in Path, Invalid dest ip %.*s", length, brace + 1);
    return nullptr;
}

/** Reads the netmask behind the first colon. Returns the colon behind it, NULL on failure. */
const char *read_netmask(const char *first_colon, char (&netmask)[kAddressSize]) {
    const char *begin = first_colon + 1;
    const char *colon = find_colon(begin, LINE_NO_SECOND_COLON);
    if (!colon)
        return nullptr;
    const int length = length_between(begin, colon);
    if (copy_address(begin, length, netmask))
        return colon;
    log_error("<VYRWRAP>: Error in Path, Invalid mask ip %.*s", length, begin);
    return nullptr;
}

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
    char address[kAddressSize];
    const char *first_colon = read_address(path, address);
    if (!first_colon)
        return -1;
    char netmask[kAddressSize];
    const char *second_colon = read_netmask(first_colon, netmask);
    if (!second_colon)
        return -1;
    const uint32_t vlan = read_id(second_colon, __func__);
    if (vlan == 0)
        return -1;
    log_info("<VYRWRAP>: %s: %d: vlan %u, vlan opcode %d, ipaddr %s, netmask %s", __func__, LINE_VLAN_READ, vlan,
             static_cast<int>(opcode), address, netmask);
    *record_out = {opcode, vlan, str_to_ip(address), str_to_ip(netmask)};
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
