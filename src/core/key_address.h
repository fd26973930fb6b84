/*
 * The addresses that keys of the form ...{ADDRESS:NETMASK:... spell.
 */
#pragma once

#include <stddef.h>

/** Whether inet_aton accepts the text. */
bool is_ipv4_text(const char *text);

struct KeyAddresses {
    char address[17]; /**< one character more than any dotted address has */
    char netmask[17];
};

/** What sets one kind of key apart from another. */
struct KeyAddressRules {
    size_t size;            /**< bytes that an address and its terminator may take, at most those of KeyAddresses */
    int no_colon_line;      /**< number of the message for a missing first colon */
    int no_next_colon_line; /**< the same for the second */
};

/** Reads both addresses. Returns the colon behind the netmask; NULL when the key is refused, which has been logged. */
const char *read_key_addresses(const char *key, const KeyAddressRules &rules, KeyAddresses *addresses);
