/* The routing application's request for every tunnel: read again, then sent as one datagram. */
#include <string.h>

#include <utility>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "rpapp/link.h"
#include "tunnel/tunnel_message.h"
#include "tunnel/tunnel_table.h"

namespace {

constexpr char kKeyPattern[] = "/op/tunnel/*";

/** Reads the tunnel of one key into the table. `allocated` counts the records made so far. */
void read_tunnel_into_table(const dal_kv *key, const char *function, int *allocated) {
    log_info("<VYRWRAP>:%s:tunnel %d: %s (name len:%d)", function, *allocated + 1, key->key,
             static_cast<int>(key->key_len));
    char name[kTunnelNameMax + 1] = {};
    if (extract_tun_name_from_tun_key(key->key, name) != 0) {
        log_error("%s:Failed to extract tunnel name from tunnel key(%s)", function, key->key);
        return;
    }
    Owned<vpninfo> record(static_cast<vpninfo *>(calloc(1, sizeof(vpninfo))));
    if (!record) {
        log_error("%s:Failed to allocate memory for tunnel:%s", function, name);
        return;
    }
    ++*allocated;
    if (vyrwrap_read_tunnel_info_from_dal(name, record.get()) != 0) {
        log_error("%s: Error reading tunnel(%s) info from DAL", function, name);
        return;
    }
    vyrwrap_insert_tunnel(name, std::move(record));
}

/** Packs the table into `messages`, which has room for all of it. Returns the number of messages. */
size_t pack_tunnels(RoutingAppMsg *messages, uint32_t count, const char *function) {
    size_t packed = 0;
    int failed = 0;
    HashTable *table = vyrwrap_global.tunnel_table;
    for (void *entry = HashGet(table, HASH_FIRST); entry && packed < count; entry = HashGet(table, HASH_NEXT)) {
        const auto *record = static_cast<const vpninfo *>(entry);
        if (vyrwrap_prep_tunnel_msg_for_vyr(record, vyrwrap_tunnel_added_opcode(record), &messages[packed]) == 0) {
            packed++;
            continue;
        }
        log_error("%s: Error packing tunnel info(%s)", function, record->tunnel_name);
        memset(&messages[packed], 0, sizeof messages[packed]);
        failed++;
    }
    log_info("%s: tot-tunnels:%d, packed:%d, failed:%d", function, count, static_cast<int>(packed), failed);
    return packed;
}

}  // namespace

int vyrwrap_handle_ipsec_replayall(const char *last_name, int max_count) {
    log_error("<VYRWRAP>:%s: Entered, last_name:%s, max_count:%d", __func__, text_or_null(last_name), max_count);
    vyrwrap_tunnel_info_subscribe();
    vyrwrap_read_all_tunnels_from_dal();
    vyrwrap_send_all_tunnels_to_vyr(max_count);
    return 0;
}

void vyrwrap_read_all_tunnels_from_dal() {
    const OwnedDalList keys(ListCreate());
    if (!keys)
        return;
    if (!notification_scan_hashes(kKeyPattern, __func__, keys.get()))
        return;
    log_info("<VYRWRAP>:%s: dal_scan(): num of tunnel keys:%d", __func__, static_cast<int>(ListCount(keys.get())));
    int allocated = 0;
    ListGet(keys.get(), LIST_REWIND);
    while (const auto *key = static_cast<const dal_kv *>(ListGet(keys.get(), LIST_NEXT)))
        read_tunnel_into_table(key, __func__, &allocated);
}

void vyrwrap_send_all_tunnels_to_vyr(int max_count) {
    if (!vyrwrap_global.tunnel_table)
        return;
    const uint32_t count = HashCount(vyrwrap_global.tunnel_table);
    if (static_cast<int>(count) > max_count) {
        log_error("%s: total tunnels(%d) exceeds max tunnels(%d), needs rework", __func__, count, max_count);
        return;
    }
    // One more than needed: calloc of nothing may return NULL.
    const Owned<RoutingAppMsg> messages(static_cast<RoutingAppMsg *>(calloc(count + 1, sizeof(RoutingAppMsg))));
    if (!messages)
        return;
    const size_t packed = pack_tunnels(messages.get(), count, __func__);
    if (packed == 0)
        return;
    const ssize_t sent = vyrwrap_send_to_routing_app(messages.get(), packed * sizeof(RoutingAppMsg));
    if (sent <= 0)
        log_error("%s: Failed to send tunnel message to VYR-APP (ret:%d)", __func__, static_cast<int>(sent));
}
