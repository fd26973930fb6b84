#include "core/key_address.h"

#include <arpa/inet.h>
#include <string.h>

#include "core/log.h"
#include "core/text.h"
#include "platform/korvalog.h"

namespace {

const char *find_colon(const char *text, int line) {
    const char *colon = strchr(text, ':');
    if (!colon)
        log_error("<VYRWRAP>: %d: Error in Path, no ':' symbol", line);
    return colon;
}

/** Copies an address. Returns false where it does not fit or is none. */
bool copy_address(char *address, size_t size, const char *begin, const char *end) {
    return copy_between(address, size, begin, end) && is_ipv4_text(address);
}

/** A stretch of a key for a message: as much of it as a log line holds. */
struct ShownText {
    char text[KORVA_LOG_BUFFER_SIZE];
};

ShownText shown(const char *begin, const char *end) {
    ShownText copy{};
    copy_between(copy.text, sizeof copy.text, begin, end);
    return copy;
}

}  // namespace

bool is_ipv4_text(const char *text) {
    in_addr address;
    return inet_aton(text, &address) != 0;
}

const char *read_key_addresses(const char *key, const KeyAddressRules &rules, KeyAddresses *addresses) {
    const char *brace = strchr(key, '{');
    if (!brace) {
        log_error("<VYRWRAP>: Error in Path, no '{' symbol");
        return nullptr;
    }
    // The key's first colon, not the brace's: one before the brace leaves the address empty.
    const char *address_end = find_colon(key, rules.no_colon_line);
    if (!address_end)
        return nullptr;
    const char *address = brace + 1;
    if (!copy_address(addresses->address, rules.size, address, address_end)) {
        log_error("<VYRWRAP>: Error in Path, Invalid dest ip %s", shown(address, address_end).text);
        return nullptr;
    }
    const char *netmask = address_end + 1;
    const char *netmask_end = find_colon(netmask, rules.no_next_colon_line);
    if (!netmask_end)
        return nullptr;
    if (!copy_address(addresses->netmask, rules.size, netmask, netmask_end)) {
        log_error("<VYRWRAP>: Error in Path, Invalid mask ip %s", shown(netmask, netmask_end).text);
        return nullptr;
    }
    return netmask_end;
}
