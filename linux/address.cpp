/* Address texts. */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "platform/cmnutil.h"

uint32_t str_to_ip(const char *text) {
    in_addr address;
    return text && inet_aton(text, &address) ? ntohl(address.s_addr) : 0;
}

char *ip_to_str(uint32_t ip, char *text, size_t size) {
    const in_addr address = {htonl(ip)};
    if (!inet_ntop(AF_INET, &address, text, static_cast<socklen_t>(size)) && size > 0)
        text[0] = '\0';
    return text;
}

int str_to_mac(const char *text, uint8_t *mac) {
    int end = 0;
    unsigned parts[6];
    if (text &&
        sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%n", &parts[0], &parts[1], &parts[2], &parts[3], &parts[4], &parts[5],
               &end) == 6 &&
        text[end] == '\0') {
        for (int i = 0; i < 6; i++)
            mac[i] = static_cast<uint8_t>(parts[i]);
        return 0;
    }
    memset(mac, 0, 6);
    return -1;
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
