/* Addresses as texts, and a device that is always the same. */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "platform/cmnutil.h"

uint32_t str_to_ip(const char *text) {
    struct in_addr address;
    return text && inet_aton(text, &address) ? ntohl(address.s_addr) : 0;
}

char *ip_to_str(uint32_t ip, char *text, size_t size) {
    snprintf(text, size, "%u.%u.%u.%u", (unsigned)(ip >> 24), (unsigned)(ip >> 16 & 255), (unsigned)(ip >> 8 & 255),
             (unsigned)(ip & 255));
    return text;
}

int str_to_mac(const char *text, uint8_t *mac) {
    unsigned part[6];
    char rest;
    memset(mac, 0, 6);
    if (!text || sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &part[0], &part[1], &part[2], &part[3], &part[4], &part[5],
                        &rest) != 6)
        return -1;
    for (int i = 0; i < 6; i++)
        mac[i] = (uint8_t)part[i];
    return 0;
}

char *korva_ip_to_str_hton(const void *address, char *text, size_t size) {
    uint16_t family;
    uint32_t ip;
    memcpy(&family, address, sizeof family);
    memcpy(&ip, (const char *)address + 4, sizeof ip);
    if (family == AF_INET)
        return ip_to_str(ip, text, size);
    text[0] = '\0';
    return text;
}

int get_mac_addr(uint8_t *mac, int size, void *selector, int flag) {
    (void)selector;
    (void)flag;
    memset(mac, 2, (size_t)size);
    return 0;
}

int get_ap_serial_num(char *text, int size) {
    snprintf(text, (size_t)size, "%s", "STUB000001");
    return 0;
}
