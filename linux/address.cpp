/* Address texts. */
#include <arpa/inet.h>
#include <string.h>

#include "platform/cmnutil.h"

namespace {

/** The value of a hexadecimal digit, -1 for any other character. */
int hex_digit(char character) {
    if (character >= '0' && character <= '9')
        return character - '0';
    const int letter = character | ('a' - 'A');
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

/** Reads two digits and the character behind them. Returns what follows, NULL when they are not these. */
const char *read_mac_byte(const char *text, char behind, uint8_t *byte) {
    const int high = hex_digit(text[0]);
    const int low = high < 0 ? -1 : hex_digit(text[1]);
    if (low < 0 || text[2] != behind)
        return nullptr;
    *byte = static_cast<uint8_t>(high << 4 | low);
    return text + 3;
}

}  // namespace

uint32_t str_to_ip(const char *text) {
    in_addr address;
    return text && inet_aton(text, &address) ? ntohl(address.s_addr) : 0;
}

// By hand: inet_ntop formats with sprintf, and one change to a full route table turns hundreds of addresses into text.
char *ip_to_str(uint32_t ip, char *text, size_t size) {
    char dotted[INET_ADDRSTRLEN];
    char *end = dotted;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const uint32_t octet = (ip >> shift) & 0xff;
        if (octet >= 100)
            *end++ = static_cast<char>('0' + octet / 100);
        if (octet >= 10)
            *end++ = static_cast<char>('0' + octet / 10 % 10);
        *end++ = static_cast<char>('0' + octet % 10);
        *end++ = shift > 0 ? '.' : '\0';
    }
    const auto length = static_cast<size_t>(end - dotted);
    if (length <= size)
        memcpy(text, dotted, length);
    else if (size > 0)
        text[0] = '\0';
    return text;
}

int str_to_mac(const char *text, uint8_t *mac) {
    constexpr int kSize = 6;
    uint8_t bytes[kSize];
    for (int i = 0; text && i < kSize; i++)
        text = read_mac_byte(text, i < kSize - 1 ? ':' : '\0', &bytes[i]);
    if (!text) {
        memset(mac, 0, kSize);
        return -1;
    }
    memcpy(mac, bytes, kSize);
    return 0;
}

char *korva_ip_to_str_hton(const void *address, char *text, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(address);
    uint16_t family;
    memcpy(&family, bytes, sizeof family);
    if (family == AF_INET) {
        uint32_t ip;
        memcpy(&ip, bytes + 4, sizeof ip);
        return ip_to_str(ip, text, size);
    }
    if ((family != AF_INET6 || !inet_ntop(AF_INET6, bytes + 4, text, static_cast<socklen_t>(size))) && size > 0)
        text[0] = '\0';
    return text;
}
