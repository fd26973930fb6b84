/* Tunnels as their hashes hold them: read into the table, kept, relayed and replayed. */
#include <string.h>

#include "core/global.h"
#include "platform/cmnutil.h"
#include "rpapp/message.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "tunnel/tunnel_message.h"
#include "tunnel/tunnel_table.h"

using namespace fuzz;

namespace {

constexpr char kFolder[] = "/op/tunnel/";
constexpr const char *kFields[kTunnelFieldCount] = {
    "tunnel_name",    "dst_mac",        "pair_uuid", "tunnel_index", "mapid",         "tunnel_ip",     "mask",
    "peer_tunnel_ip", "peer_public_ip", "flags",     "vlan_id",      "link_priority", "tunnel_status",
};
constexpr std::string_view kValues[kTunnelFieldCount] = {
    "t1", "00:11:22:33:44:55", "5b5d", "3", "7", "10.0.0.1", "255.0.0.0", "10.0.0.2", "1.2.3.4", "1", "9", "2", "1",
};
constexpr int kStepMax = 4;
constexpr int kReplayMax = 200;

/** What a step does. */
enum Step { STEP_FIELD, STEP_HSET, STEP_DEL, STEP_REPLAY, STEP_HDEL, STEP_WHOLE, STEP_RAW_FIELD, STEP_COUNT };

std::string_view value_of(std::string_view key, const char *field) {
    const std::string_view *value = store_find(key, field);
    return value ? value->substr(0, value->find('\0')) : std::string_view();
}

/** Compares a record that was read with what stands in the store. */
void check_record(const vpninfo &record, std::string_view key) {
    HOLDS(std::string_view(record.tunnel_name) == value_of(key, "tunnel_name").substr(0, 199));
    HOLDS(std::string_view(record.pair_uuid) == value_of(key, "pair_uuid").substr(0, 39));
    HOLDS(record.tunnel_index == read_int(value_of(key, "tunnel_index")));
    HOLDS(static_cast<int>(record.mapid) == read_int(value_of(key, "mapid")));
    HOLDS(record.tunnel_ip == ipv4_or_0(value_of(key, "tunnel_ip")));
    HOLDS(record.mask == ipv4_or_0(value_of(key, "mask")));
    HOLDS(record.peer_tunnel_ip == ipv4_or_0(value_of(key, "peer_tunnel_ip")));
    HOLDS(record.peer_public_ip == ipv4_or_0(value_of(key, "peer_public_ip")));
    HOLDS(static_cast<int>(record.flags) == read_int(value_of(key, "flags")));
    HOLDS(record.vlan_id == static_cast<uint16_t>(read_int(value_of(key, "vlan_id"))));
    HOLDS(record.link_priority == static_cast<uint8_t>(read_int(value_of(key, "link_priority"))));
    HOLDS(record.tunnel_status == static_cast<uint8_t>(read_int(value_of(key, "tunnel_status"))));
}

/** Whether the hash has every field, none of them empty, and a mapid. */
bool is_complete(std::string_view key) {
    for (const char *field : kFields)
        if (const std::string_view *value = store_find(key, field); !value || value->empty())
            return false;
    return read_int(value_of(key, "mapid")) != 0;
}

/** The key that the daemon reads: its request holds no more. */
std::string_view read_key(const char *key) {
    return std::string_view(key).substr(0, sizeof dal_hash_request::key - 1);
}

void step_hset(const char *key) {
    const char *name = key + strlen(kFolder);
    const size_t length = strlen(name);
    const bool taken = length >= 1 && length <= kTunnelNameMax && is_complete(read_key(key));
    const vpninfo *before = vyrwrap_find_tunnel(name);
    const bool same = taken && before && static_cast<int>(before->mapid) == read_int(value_of(read_key(key), "mapid"));
    const unsigned sent = datagram_count;
    notify(vyrwrap_ipsec_tuns_subs_callback, keep_text("__keyspace@0__:", key), "hset");
    if (!taken) {
        HOLDS(vyrwrap_find_tunnel(name) == before && datagram_count == sent);
        return;
    }
    const vpninfo *record = vyrwrap_find_tunnel(name);
    HOLDS(record);
    check_record(*record, read_key(key));
    HOLDS(datagram_count > sent && memcmp(last_datagram + 16, record->tunnel_name, sizeof record->tunnel_name) == 0);
    HOLDS(same ? last_opcode >= TUNNEL_UPDATED && last_opcode <= TUNNEL_WENT_DOWN
               : last_opcode == (record->tunnel_status == kTunnelUp ? TUNNEL_ADDED_UP : TUNNEL_ADDED));
}

void step_del(const char *key) {
    const char *name = key + strlen(kFolder);
    const vpninfo *before = vyrwrap_find_tunnel(name);
    const bool own_name = before && strcmp(before->tunnel_name, name) == 0;
    store_delete(key);
    notify(vyrwrap_ipsec_tuns_subs_callback, keep_text("__keyspace@0__:", key), "del");
    HOLDS(!before || (vyrwrap_find_tunnel(name) == nullptr) == own_name || strlen(name) > kTunnelNameMax);
}

void step_replay() {
    const unsigned before = datagram_count;
    vyrwrap_handle_ipsec_replayall(nullptr, kReplayMax);
    const uint32_t count = HashCount(vyrwrap_global.tunnel_table);
    HOLDS(datagram_count == before + (count > 0 ? 1 : 0));
    HOLDS(count == 0 || last_datagram_size == count * sizeof(RoutingAppMsg));
}

void store_whole(const char *key) {
    for (int field = 0; field < kTunnelFieldCount; field++)
        store_hset(key, kFields[field], kValues[field]);
}

void step(Input *input, const char *key) {
    const uint8_t bits = take_byte(input);
    switch (bits % STEP_COUNT) {
        case STEP_FIELD:
            store_hset(key, kFields[bits / STEP_COUNT % kTunnelFieldCount], take_text(input));
            break;
        case STEP_RAW_FIELD: {
            const char *field = take_text(input);
            store_hset(key, field, take_bytes(input, take_byte(input)));
            break;
        }
        case STEP_WHOLE:
            store_whole(key);
            break;
        case STEP_HSET:
            step_hset(key);
            break;
        case STEP_DEL:
            step_del(key);
            break;
        case STEP_HDEL:
            notify(vyrwrap_ipsec_tuns_subs_callback, keep_text("__keyspace@0__:", key), "hdel");
            break;
        default:
            step_replay();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input = begin_with_application(data, size);
    vyrwrap_ipsec_tunnel_info_init();
    const char *keys[] = {keep_text(kFolder, take_text(&input)), "/op/tunnel/t1"};
    const uint8_t first = take_byte(&input);
    if (first & 1)
        store_whole(keys[0]);
    if (first & 2)
        store_whole(keys[1]);
    for (int i = 0; i < kStepMax && input.left > 0; i++)
        step(&input, keys[take_byte(&input) % 2]);
    end(check_tunnel_table());
    return 0;
}
