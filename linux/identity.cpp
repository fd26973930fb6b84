/* The device's identity: what the environment says, else what the machine says. */
#include <ctype.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "linux/platform_log.h"
#include "platform/cmnutil.h"

namespace {

constexpr size_t kMacSize = 6;
constexpr size_t kMaxSerial = 63;

/** Where a machine may have its serial number, best first; the last one names the installation. */
constexpr const char *kSerialFiles[] = {
    "/sys/class/dmi/id/board_serial",
    "/sys/class/dmi/id/product_serial",
    "/proc/device-tree/serial-number",
    "/etc/machine-id",
};

/** The address of an Ethernet interface, NULL for any other entry of the list. */
const sockaddr_ll *ethernet_address(const ifaddrs *entry) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET)
        return nullptr;
    // the C library aligns it for the family that it has, which its type does not say
    const auto *address = static_cast<const sockaddr_ll *>(static_cast<const void *>(entry->ifa_addr));
    return address->sll_hatype == ARPHRD_ETHER && address->sll_halen == kMacSize ? address : nullptr;
}

/** The Ethernet interface of the lowest index. Returns 0, or -1 when there is none. */
int read_interface_mac(uint8_t *mac) {
    ifaddrs *list;
    if (getifaddrs(&list) < 0)
        return -1;
    const sockaddr_ll *first = nullptr;
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        const sockaddr_ll *address = ethernet_address(entry);
        if (address && (!first || address->sll_ifindex < first->sll_ifindex))
            first = address;
    }
    if (first)
        memcpy(mac, first->sll_addr, kMacSize);
    freeifaddrs(list);
    return first ? 0 : -1;
}

/** It is written between quotes, and boards without a number have a sentence in its place. */
bool is_serial(const char *text) {
    const size_t length = strlen(text);
    for (size_t i = 0; i < length; i++)
        if (!isgraph(static_cast<unsigned char>(text[i])) || text[i] == '"' || text[i] == '\\')
            return false;
    return length > 0 && length <= kMaxSerial && strcasecmp(text, "none") != 0;
}

/** Reads the text of a one-line file, without the end of its line. Returns false when it holds no serial number. */
bool read_serial(const char *path, char *text, size_t size) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t length = read(fd, text, size - 1);
    close(fd);
    if (length <= 0)
        return false;
    text[length] = '\0';
    text[strcspn(text, "\n")] = '\0';
    return is_serial(text);
}

/** What the environment says, NULL when it says nothing. */
const char *override_of(const char *variable) {
    const char *value = getenv(variable);
    return value && *value ? value : nullptr;
}

}  // namespace

int get_mac_addr(uint8_t *mac, int size, void *, int) {
    if (!mac || size < static_cast<int>(kMacSize))
        return -1;
    const char *named = override_of("KORVA_MAC");
    if (named && str_to_mac(named, mac) == 0)
        return 0;
    if (named)
        platform_error("<IDENTITY>: KORVA_MAC \"%s\" is no MAC address", named);
    return read_interface_mac(mac);
}

int get_ap_serial_num(char *text, int size) {
    if (!text || size <= 0)
        return -1;
    text[0] = '\0';
    const char *named = override_of("KORVA_SERIAL");
    if (named && is_serial(named)) {
        snprintf(text, static_cast<size_t>(size), "%s", named);
        return 0;
    }
    if (named)
        platform_error("<IDENTITY>: KORVA_SERIAL \"%s\" is no serial number", named);
    char found[kMaxSerial + 2];  // one more than may be: a longer one is seen as such
    for (const char *path : kSerialFiles)
        if (read_serial(path, found, sizeof found)) {
            snprintf(text, static_cast<size_t>(size), "%s", found);
            return 0;
        }
    return -1;
}
