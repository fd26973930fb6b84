#include "tests/fuzz/oracle.h"

#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "cluster/cluster_record.h"
#include "core/global.h"
#include "rpapp/message.h"
#include "tests/fuzz/platform.h"
#include "tunnel/tunnel_record.h"

namespace fuzz {

uint32_t last_opcode;
uint8_t last_datagram[70000];
size_t last_datagram_size;

namespace {

constexpr size_t kMessage = 348;
constexpr size_t kMessageFamily = 4;
constexpr size_t kBody = 8;
constexpr size_t kClusterNodes = kBody + 156;
constexpr size_t kNode = 24;

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/** The value of a digit in a base, -1 for anything else. */
int digit_value(char c, int base) {
    int value = -1;
    if (c >= '0' && c <= '9')
        value = c - '0';
    else if (c >= 'a' && c <= 'f')
        value = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
        value = c - 'A' + 10;
    return value < base ? value : -1;
}

/** One part of an address. Returns the characters it takes, 0 for none, and a value of at most 2^32. */
size_t read_part(std::string_view text, uint64_t *value) {
    size_t at = 0;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && digit_value(text[2], 16) >= 0) {
        base = 16;
        at = 2;
    } else if (!text.empty() && text[0] == '0') {
        base = 8;
    }
    const size_t begin = at;
    *value = 0;
    for (; at < text.size() && digit_value(text[at], base) >= 0; at++)
        if (*value <= UINT32_MAX)
            *value = *value * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit_value(text[at], base));
    return at > begin ? at : 0;
}

uint32_t word_at(const uint8_t *bytes, size_t offset) {
    uint32_t word;
    memcpy(&word, bytes + offset, sizeof word);
    return word;
}

bool is_zero(const uint8_t *bytes, size_t size) {
    for (size_t i = 0; i < size; i++)
        if (bytes[i])
            return false;
    return true;
}

/** A text with at least one NUL behind it, up to the end of its field. */
void check_padded(const uint8_t *field, size_t size) {
    const auto *end = static_cast<const uint8_t *>(memchr(field, '\0', size));
    HOLDS(end);
    HOLDS(is_zero(end, size - static_cast<size_t>(end - field)));
}

void check_tunnel(const uint8_t *message, bool replayed) {
    HOLDS(word_at(message, kMessageFamily) == 2 && word_at(message, kBody) == 1);
    const uint32_t opcode = word_at(message, 12);
    HOLDS(opcode == 1 || opcode == 9 || (!replayed && opcode >= 2 && opcode <= 5));
    check_padded(message + 16, 200);
    HOLDS(is_zero(message + 222, 12));
    check_padded(message + 234, 40);
    HOLDS(is_zero(message + 274, 34));
    const uint8_t status = message[339];
    HOLDS(status == 0 || (status == 1 && (word_at(message, 332) & 0x20)));
    HOLDS(opcode != 9 || status == 1);
    HOLDS(opcode != 1 || status == 0);
    HOLDS(is_zero(message + 340, 8));
}

void check_vlan(const uint8_t *bytes, size_t size) {
    HOLDS(size == kMessage && word_at(bytes, kBody) == 2);
    HOLDS(word_at(bytes, 12) == 4 || word_at(bytes, 12) == 5);
    HOLDS(word_at(bytes, 16) >= 1 && word_at(bytes, 16) <= 4095);
    HOLDS(is_zero(bytes + 28, kMessage - 28));
}

void check_cluster(const uint8_t *bytes, size_t size) {
    const uint32_t opcode = word_at(bytes, kBody);
    const size_t nodes = bytes[kBody + 155];
    HOLDS(nodes <= 12 && size == kMessage + nodes * kNode);
    HOLDS(opcode == 2 || (opcode == 1 && nodes > 0));
    check_padded(bytes + kBody + 4, 128);
    HOLDS(is_zero(bytes + kBody + 143, 12));
    for (size_t i = 0; i < nodes; i++) {
        const uint8_t *node = bytes + kClusterNodes + i * kNode;
        if (node[0] == 2 && node[1] == 0)
            HOLDS(is_zero(node + 2, 2) && is_zero(node + 8, 12));
    }
    HOLDS(is_zero(bytes + kClusterNodes + nodes * kNode, size - kClusterNodes - nodes * kNode));
}

}  // namespace

bool read_ipv4(std::string_view text, uint32_t *ip) {
    uint64_t parts[4];
    int count = 0;
    for (;;) {
        const size_t taken = read_part(text, &parts[count]);
        if (taken == 0 || parts[count] > UINT32_MAX)
            return false;
        text.remove_prefix(taken);
        count++;
        if (text.empty() || text[0] != '.')
            break;
        if (count == 4 || parts[count - 1] > 255)
            return false;
        text.remove_prefix(1);
    }
    if (!text.empty() && !is_blank(text[0]))
        return false;
    const int last_bits = 8 * (5 - count);
    if (parts[count - 1] >> last_bits)
        return false;
    uint64_t value = parts[count - 1];
    for (int i = 0; i < count - 1; i++)
        value |= parts[i] << (24 - 8 * i);
    *ip = static_cast<uint32_t>(value);
    return true;
}

uint32_t ipv4_or_0(std::string_view text) {
    uint32_t ip = 0;
    return read_ipv4(text, &ip) ? ip : 0;
}

int read_int(std::string_view text) {
    while (!text.empty() && is_blank(text[0]))
        text.remove_prefix(1);
    const bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '-' || text[0] == '+'))
        text.remove_prefix(1);
    int64_t value = 0;
    for (; !text.empty() && digit_value(text[0], 10) >= 0; text.remove_prefix(1))
        if (value <= INT_MAX)
            value = value * 10 + digit_value(text[0], 10);
    if (negative)
        return value > INT_MAX ? INT_MIN : static_cast<int>(-value);
    return value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

void check_datagram(const uint8_t *bytes, size_t size) {
    HOLDS(size >= kMessage && size <= sizeof last_datagram);
    HOLDS(is_zero(bytes, kMessageFamily));
    switch (word_at(bytes, kMessageFamily)) {
        case MSG_FAMILY_TUNNEL:
            HOLDS(size % kMessage == 0 && size / kMessage <= 200);
            for (size_t at = 0; at < size; at += kMessage)
                check_tunnel(bytes + at, size > kMessage);
            break;
        case MSG_FAMILY_VLAN:
            check_vlan(bytes, size);
            break;
        default:
            HOLDS(word_at(bytes, kMessageFamily) == MSG_FAMILY_CLUSTER);
            check_cluster(bytes, size);
    }
    last_opcode = word_at(bytes, word_at(bytes, kMessageFamily) == MSG_FAMILY_CLUSTER ? kBody : 12);
    memcpy(last_datagram, bytes, size);
    last_datagram_size = size;
}

size_t check_tunnel_table() {
    HashTable *table = vyrwrap_global.tunnel_table;
    if (!table)
        return 0;
    size_t count = 0;
    for (void *entry = HashGet(table, HASH_FIRST); entry; entry = HashGet(table, HASH_NEXT)) {
        const auto *record = static_cast<const vpninfo *>(entry);
        count++;
        HOLDS(record->mapid != 0);
        HOLDS(record->tunnel_name[sizeof record->tunnel_name - 1] == '\0');
        HOLDS(record->pair_uuid[sizeof record->pair_uuid - 1] == '\0');
        HOLDS(is_zero(record->dst_mac + 6, sizeof record->dst_mac - 6));
    }
    HOLDS(count == HashCount(table));
    return 2 + 3 * count;  // the table and its buckets; each entry with its name and its record
}

}  // namespace fuzz
