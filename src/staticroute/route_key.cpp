#include "staticroute/route_key.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "core/key_address.h"
#include "core/log.h"
#include "core/parse.h"
#include "core/text.h"
#include "platform/cmnutil.h"

namespace {

constexpr size_t kNextHopSize = 200;

constexpr char kClusterPrefix[] = "cluster_";
constexpr int kClusterRest = sizeof StaticRouteCfg::cluster_name - sizeof kClusterPrefix;

/** Values of TYPE in a key. */
enum KeyType { KEY_GATEWAY = 1, KEY_IPSEC = 2, KEY_CLUSTER = 3, KEY_PPPOE = 4 };

/** A key taken apart. */
struct KeyTexts {
    KeyAddresses addresses;
    int type;
    char next_hop[kNextHopSize];
    bool next_hop_cut; /**< the key's text is longer */
};

/** Addresses have at most 16 characters; the two lines are numbers that belong to the messages. */
constexpr KeyAddressRules kAddressRules = {sizeof KeyAddresses::address, 73, 87};

/** Takes a key apart at its separators. Returns false when it is refused. */
bool split_key(const char *key, KeyTexts *texts) {
    const char *mask_end = read_key_addresses(key, kAddressRules, &texts->addresses);
    if (!mask_end)
        return false;
    const char *type = mask_end + 1;
    const char *type_end = strchr(type, ':');
    if (!type_end) {
        log_error("<VYRWRAP>: Error in Path, no ':' symbol");
        return false;
    }
    texts->type = parse_int(type);  // ends at the colon by itself
    const char *next_hop = type_end + 1;
    const char *next_hop_end = strchr(next_hop, '}');
    if (!next_hop_end) {
        log_error("<VYRWRAP>: Error in Path, no '}' symbol");
        return false;
    }
    texts->next_hop_cut = !copy_between(texts->next_hop, sizeof texts->next_hop, next_hop, next_hop_end);
    return true;
}

/** Reads "VLAN-GATEWAY" as scanf's "%d-%s" does. Returns whether both are there. */
bool read_pppoe(const char *text, int *vlan, char (&gateway)[kNextHopSize]) {
    const char *end;
    *vlan = parse_int(text, &end);
    if (end == text || *end != '-')
        return false;
    const char *begin = end + 1;
    while (isspace(static_cast<unsigned char>(*begin)))
        begin++;
    const char *stop = begin;
    while (*stop && !isspace(static_cast<unsigned char>(*stop)))
        stop++;
    copy_between(gateway, sizeof gateway, begin, stop);
    return stop > begin;
}

bool take_pppoe(StaticRouteCfg *route, const KeyTexts &texts) {
    route->kind = ROUTE_KIND_PPPOE;
    char gateway[kNextHopSize];
    if (texts.next_hop_cut || !read_pppoe(texts.next_hop, &route->vlan, gateway)) {
        log_error("<VYRWRAP>: Error in format of PPPoE nexthop %s", texts.next_hop);
        return false;
    }
    if (strlen(gateway) >= sizeof KeyAddresses::address || !is_ipv4_text(gateway)) {
        log_error("<VYRWRAP>: Error in Path, Invalid PPPoE Gateway ip %s", gateway);
        return false;
    }
    route->gateway = str_to_ip(gateway);
    return true;
}

/** Fills in what TYPE says about the next hop. Returns false when it is refused. */
bool take_next_hop(StaticRouteCfg *route, const KeyTexts &texts) {
    switch (texts.type) {
        case KEY_GATEWAY:
            // not validated: what is no address is 0, and a cut text is none
            route->gateway = texts.next_hop_cut ? 0 : str_to_ip(texts.next_hop);
            return true;
        case KEY_IPSEC:
            route->kind = ROUTE_KIND_IPSEC;
            static_assert(sizeof route->map_name == sizeof texts.next_hop);
            memcpy(route->map_name, texts.next_hop, strlen(texts.next_hop) + 1);
            return true;
        case KEY_CLUSTER:
            route->kind = ROUTE_KIND_CLUSTER;
            snprintf(route->cluster_name, sizeof route->cluster_name, "%s%.*s", kClusterPrefix, kClusterRest,
                     texts.next_hop);
            return true;
        case KEY_PPPOE:
            return take_pppoe(route, texts);
        default:
            return true;
    }
}

}  // namespace

int vyrwrap_extract_static_route_cfg_from_path(StaticRouteCfg *route, const char *key, const char *value,
                                               int is_delete) {
    if (!key || key[0] != '/') {
        log_error("<VYRWRAP>: Path %s is incorrect", text_or_null(key));
        return 0;
    }
    *route = {};
    KeyTexts texts = {};
    if (!split_key(key, &texts))
        return 0;
    route->dest = str_to_ip(texts.addresses.address);
    route->mask = str_to_ip(texts.addresses.netmask);
    if (!take_next_hop(route, texts))
        return 0;
    const int metric = parse_int(value);
    route->metric = static_cast<uint32_t>(metric);
    route->is_delete = is_delete ? 1 : 0;
    log_debug("<VYRWRAP>: %s:%d: path %s, dest %s,             mask %s, gw/ipsec %s, mtrc %s, metric %d, defVal %u",
              "vyrwrap_extract_static_route_cfg_from_path", 153, key, texts.addresses.address, texts.addresses.netmask,
              texts.next_hop, text_or_null(value), metric, static_cast<unsigned>(is_delete));
    return 1;
}
