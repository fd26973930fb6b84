#include "staticroute/route_key.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "core/log.h"
#include "core/parse.h"
#include "platform/cmnutil.h"

namespace {

constexpr size_t kAddressSize = 17;  // 16 characters, one more than any dotted address has
constexpr size_t kNextHopSize = 200;

constexpr char kClusterPrefix[] = "cluster_";
constexpr int kClusterRest = sizeof StaticRouteCfg::cluster_name - sizeof kClusterPrefix;

/** Values of TYPE in a key. */
enum KeyType { KEY_GATEWAY = 1, KEY_IPSEC = 2, KEY_CLUSTER = 3, KEY_PPPOE = 4 };

/** A key taken apart. */
struct KeyTexts {
    char dest[kAddressSize];
    char mask[kAddressSize];
    int type;
    char next_hop[kNextHopSize];
    bool next_hop_cut; /**< the key's text is longer */
};

/** Copies the characters from `begin` up to `end`, none when `end` lies before. Returns whether all of them fit. */
bool copy_between(char *text, size_t size, const char *begin, const char *end) {
    const size_t length = end > begin ? static_cast<size_t>(end - begin) : 0;
    const size_t copied = std::min(length, size - 1);
    memcpy(text, begin, copied);
    text[copied] = '\0';
    return copied == length;
}

bool is_address(const char *text) {
    in_addr address;
    return text[0] != '\0' && inet_aton(text, &address);
}

/** Length of a stretch of a key as a printf precision. */
int shown_length(const char *begin, const char *end) {
    constexpr ptrdiff_t kMoreThanALogLineHolds = 4096;
    return static_cast<int>(std::clamp<ptrdiff_t>(end - begin, 0, kMoreThanALogLineHolds));
}

/** Reads DEST and MASK, which begin behind `brace`. Returns the colon behind MASK; NULL when the key is refused. */
const char *split_addresses(const char *key, const char *brace, KeyTexts *texts) {
    // the key's own first colon: one before the brace leaves no destination
    const char *dest_end = strchr(key, ':');
    if (!dest_end) {
        log_error("<VYRWRAP>: %d: Error in Path, no ':' symbol", 73);  // the number belongs to the text
        return nullptr;
    }
    const char *dest = brace + 1;
    if (!copy_between(texts->dest, sizeof texts->dest, dest, dest_end) || !is_address(texts->dest)) {
        log_error("<VYRWRAP>: Error in Path, Invalid dest ip %.*s", shown_length(dest, dest_end), dest);
        return nullptr;
    }
    const char *mask = dest_end + 1;
    const char *mask_end = strchr(mask, ':');
    if (!mask_end) {
        log_error("<VYRWRAP>: %d: Error in Path, no ':' symbol", 87);
        return nullptr;
    }
    if (!copy_between(texts->mask, sizeof texts->mask, mask, mask_end) || !is_address(texts->mask)) {
        log_error("<VYRWRAP>: Error in Path, Invalid mask ip %.*s", shown_length(mask, mask_end), mask);
        return nullptr;
    }
    return mask_end;
}

/** Takes a key apart at its separators. Returns false when it is refused. */
bool split_key(const char *key, KeyTexts *texts) {
    const char *brace = strchr(key, '{');
    if (!brace) {
        log_error("<VYRWRAP>: Error in Path, no '{' symbol");
        return false;
    }
    const char *mask_end = split_addresses(key, brace, texts);
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
    if (strlen(gateway) >= kAddressSize || !is_address(gateway)) {
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
    route->dest = str_to_ip(texts.dest);
    route->mask = str_to_ip(texts.mask);
    if (!take_next_hop(route, texts))
        return 0;
    const int metric = parse_int(value);
    route->metric = static_cast<uint32_t>(metric);
    route->is_delete = is_delete ? 1 : 0;
    log_debug("<VYRWRAP>: %s:%d: path %s, dest %s,             mask %s, gw/ipsec %s, mtrc %s, metric %d, defVal %u",
              "vyrwrap_extract_static_route_cfg_from_path", 153, key, texts.dest, texts.mask, texts.next_hop,
              text_or_null(value), metric, static_cast<unsigned>(is_delete));
    return 1;
}
