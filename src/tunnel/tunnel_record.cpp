#include "tunnel/tunnel_record.h"

#include <stdio.h>
#include <string.h>

#include <array>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "core/parse.h"
#include "core/text.h"
#include "platform/dal.h"

namespace {

constexpr char kKeyPrefix[] = "/op/tunnel/";

enum TunnelField {
    FIELD_TUNNEL_NAME,
    FIELD_DST_MAC,
    FIELD_PAIR_UUID,
    FIELD_TUNNEL_INDEX,
    FIELD_MAPID,
    FIELD_TUNNEL_IP,
    FIELD_MASK,
    FIELD_PEER_TUNNEL_IP,
    FIELD_PEER_PUBLIC_IP,
    FIELD_FLAGS,
    FIELD_VLAN_ID,
    FIELD_LINK_PRIORITY,
    FIELD_TUNNEL_STATUS,
};

/** The fields' names in the DAL, by TunnelField. */
constexpr std::array<const char *, kTunnelFieldCount> kFieldNames = {
    "tunnel_name",    "dst_mac",        "pair_uuid", "tunnel_index", "mapid",         "tunnel_ip",     "mask",
    "peer_tunnel_ip", "peer_public_ip", "flags",     "vlan_id",      "link_priority", "tunnel_status",
};

/** The first entry of that very name, NULL when there is none. */
const dal_kv *find_entry(List *kvlist, const char *name) {
    const size_t length = strlen(name);
    ListGet(kvlist, LIST_REWIND);
    while (const auto *entry = static_cast<const dal_kv *>(ListGet(kvlist, LIST_NEXT)))
        if (entry->key_len == length && memcmp(entry->key, name, length) == 0)
            return entry;
    return nullptr;
}

void store_field(vpninfo *record, int field_number, const char *text) {
    switch (field_number) {
        case FIELD_TUNNEL_NAME:
            copy_text(record->tunnel_name, sizeof record->tunnel_name, text);
            break;
        case FIELD_DST_MAC:
            str_to_mac(text, record->dst_mac);
            break;
        case FIELD_PAIR_UUID:
            copy_text(record->pair_uuid, sizeof record->pair_uuid, text);
            break;
        case FIELD_TUNNEL_INDEX:
            record->tunnel_index = parse_int(text);
            break;
        case FIELD_MAPID:
            record->mapid = static_cast<uint32_t>(parse_int(text));
            break;
        case FIELD_TUNNEL_IP:
            record->tunnel_ip = str_to_ip(text);
            break;
        case FIELD_MASK:
            record->mask = str_to_ip(text);
            break;
        case FIELD_PEER_TUNNEL_IP:
            record->peer_tunnel_ip = str_to_ip(text);
            break;
        case FIELD_PEER_PUBLIC_IP:
            record->peer_public_ip = str_to_ip(text);
            break;
        case FIELD_FLAGS:
            record->flags = static_cast<uint32_t>(parse_int(text));
            break;
        case FIELD_VLAN_ID:
            record->vlan_id = static_cast<uint16_t>(parse_int(text));
            break;
        case FIELD_LINK_PRIORITY:
            record->link_priority = static_cast<uint8_t>(parse_int(text));
            break;
        case FIELD_TUNNEL_STATUS:
            record->tunnel_status = static_cast<uint8_t>(parse_int(text));
            break;
    }
}

/** Parses every field. Returns how many failed; their names are appended to `failed_out`. */
int parse_fields(vpninfo *record, const char *key, List *kvlist, char *failed_out, size_t failed_size) {
    int failed = 0;
    for (int field = 0; field < kTunnelFieldCount; field++) {
        if (get_tun_field_from_kvlist(key, kvlist, field, record))
            continue;
        failed++;
        const size_t used = strnlen(failed_out, failed_size);
        snprintf(failed_out + used, failed_size - used, "%s,", kFieldNames[static_cast<size_t>(field)]);
    }
    return failed;
}

}  // namespace

int extract_tun_name_from_tun_key(const char *key, char *name_out) {
    const char *name = text_behind(key, kKeyPrefix);
    if (!name || !name_out)
        return -1;
    log_info("<VYRWRAP>:%s:tunnel name: %s", __func__, name);
    const size_t length = strlen(name);
    if (length > kTunnelNameMax) {
        log_error("<VYRWRAP>:%s:tunnel name(%d) is larger than max len(%d)", __func__, static_cast<int>(length),
                  kTunnelNameMax);
        return -1;
    }
    memcpy(name_out, name, length + 1);
    return 0;
}

int vyrwrap_read_tunnel_info_from_dal(const char *name, vpninfo *record) {
    if (!name || !record)
        return -1;
    // A name of more than 180 characters is cut: the request's key holds no more.
    char key[sizeof dal_hash_request::key];
    snprintf(key, sizeof key, "%s%s", kKeyPrefix, name);
    char failed[kTunnelFailedSize] = {};
    if (vyrwrap_read_tunnel_info_all_param_from_dal(record, key, failed, sizeof failed) != 0) {
        log_error("<VYRWRAP>:%s: Error reading tunnel %s from DAL, Failed params(%s)", __func__, name, failed);
        return -1;
    }
    return 0;
}

int vyrwrap_read_tunnel_info_all_param_from_dal(vpninfo *record, const char *key, char *failed_out,
                                                size_t failed_size) {
    if (!record || !key || key[0] == '\0' || !failed_out || failed_size == 0)
        return -1;
    dal_hash_request request{};
    copy_text(request.key, sizeof request.key, key);
    const int result = dal_hgetall(vyrwrap_global.dal_ctx, &request);
    const OwnedDalList kvlist(request.kvlist);
    if (result != 0) {
        log_error("<VYRWRAP>: %s: tun:%s, Error reading tunnel from DAL (ret %d)", __func__, key, result);
        return -1;
    }
    if (!kvlist) {
        log_error("<VYRWRAP>: %s: tun:%s, Error reading tunnel from DAL, kv-list empty", __func__, key);
        return -1;
    }
    const int failed = parse_fields(record, key, kvlist.get(), failed_out, failed_size);
    if (failed > 0) {
        log_error("<VYRWRAP>: %s: tun:%s, Error reading %d fields(%s) from DAL", __func__, key, failed, failed_out);
        return -1;
    }
    log_debug("<VYRWRAP>: %s: Completed reading tun:%s from DAL", __func__, key);
    return 0;
}

int get_tun_field_from_kvlist(const char *name, List *kvlist, int field_number, vpninfo *record) {
    if (!kvlist || !record || field_number < 0 || field_number >= kTunnelFieldCount)
        return 0;
    const char *field = kFieldNames[static_cast<size_t>(field_number)];
    const dal_kv *entry = find_entry(kvlist, field);
    if (entry && (entry->value_len == 0 || !entry->value)) {
        log_error("<VYRWRAP>: %s: tun:%s, field(%d):%s, value is zero lengh", __func__, text_or_null(name),
                  field_number, field);
        return 0;
    }
    if (entry)
        store_field(record, field_number, entry->value);
    // A mapid of 0 belongs to no tunnel and counts as missing; it is stored all the same.
    if (!entry || (field_number == FIELD_MAPID && record->mapid == 0)) {
        log_error("<VYRWRAP>: %s: tun:%s, Error reading field(%d) %s from kvlist", __func__, text_or_null(name),
                  field_number, field);
        return 0;
    }
    return 1;
}
