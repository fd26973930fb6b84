#include "tunnel/tunnel_table.h"

#include <utility>

#include "core/global.h"
#include "core/log.h"
#include "rpapp/message.h"
#include "tunnel/tunnel_message.h"

namespace {

constexpr uint32_t kTableSizeHint = 23;

// Fixed numbers of the messages.
constexpr int kPreviousMapidStays = 496;
constexpr int kSameMapidStays = 512;
constexpr int kDeletedTunnelStays = 572;

/** Opcode of a change of a tunnel that stays the same one. */
uint32_t updated_opcode(uint8_t old_status, uint8_t new_status) {
    if (new_status == old_status)
        return TUNNEL_UPDATED;
    return new_status == kTunnelUp ? TUNNEL_WENT_UP : TUNNEL_WENT_DOWN;
}

void send_tunnel(const char *name, const vpninfo *record, uint32_t opcode, const char *function) {
    const int result = vyrwrap_send_tunnel_msg_to_vyr(record, opcode);
    if (result < 0)
        log_error("%s: Tunnel %s(0x%p) - sending tunnel info (opcode %d) to vyr failed (ret:%d)", function, name,
                  static_cast<const void *>(record), opcode, result);
}

/** The tunnel's mapid has changed: the record with the old one goes. */
void delete_previous(const char *name, vpninfo *previous, uint32_t new_mapid, const char *function) {
    const uint32_t old_mapid = previous->mapid;
    log_error("mapid changed for tunnel %s.(prev:0x%x,new:0x%x) Delete old tunnel", name, old_mapid, new_mapid);
    if (vyrwrap_delete_ipsec_tunnel(previous) != 0)
        log_error("<VYRWRAP>:%s:%d - Failed to delete tunnel %s with prev mapid(0x%x)", function, kPreviousMapidStays,
                  name, old_mapid);
}

/** A mapid belongs to one tunnel: the one that has the new tunnel's so far is deleted. */
void displace_mapid(const vpninfo *record, const char *function) {
    vpninfo *other = vyrwrap_find_tunnel_by_mapid(record->mapid);
    if (!other)
        return;
    log_error("<VYRWRAP>:%s: (%s, 0x%x) Another tunnel %s exists with same mapid. Delete it", function,
              record->tunnel_name, record->mapid, other->tunnel_name);
    if (vyrwrap_delete_ipsec_tunnel(other) != 0)
        log_error("<VYRWRAP>:%s:%d - Failed to delete existing tunnel with new mapid 0x%x", function, kSameMapidStays,
                  record->mapid);
}

}  // namespace

void vyrwrap_ipsec_tunnel_info_init() {
    if (vyrwrap_global.tunnel_table)
        return;
    vyrwrap_global.tunnel_table = _HashCreate(kTableSizeHint);
    log_info("<VYRWRAP>:%s: vyrwrap_ipsec_tun_list initialized (%p)", __func__,
             static_cast<const void *>(vyrwrap_global.tunnel_table));
}

vpninfo *vyrwrap_find_tunnel(const char *name) {
    if (!name || !vyrwrap_global.tunnel_table)
        return nullptr;
    return static_cast<vpninfo *>(HashStringFind(vyrwrap_global.tunnel_table, name));
}

vpninfo *vyrwrap_find_tunnel_by_mapid(uint32_t mapid) {
    HashTable *table = vyrwrap_global.tunnel_table;
    if (!table)
        return nullptr;
    for (void *entry = HashGet(table, HASH_FIRST); entry; entry = HashGet(table, HASH_NEXT))
        if (auto *record = static_cast<vpninfo *>(entry); record->mapid == mapid)
            return record;
    return nullptr;
}

vpninfo *vyrwrap_insert_tunnel(const char *name, Owned<vpninfo> record) {
    HashTable *table = vyrwrap_global.tunnel_table;
    if (!table || HashStringInsertKeyAndValue(table, name, record.get()) != 0)
        return nullptr;
    return record.release();
}

void vyrwrap_handle_dal_ipsec_tunnel_notify_hset(const char *name) {
    if (!name)
        return;
    Owned<vpninfo> record(static_cast<vpninfo *>(calloc(1, sizeof(vpninfo))));
    if (!record) {
        log_error("%s:Failed to malloc tunnel stucture for tunnel %s", __func__, name);
        return;
    }
    if (vyrwrap_read_tunnel_info_from_dal(name, record.get()) != 0) {
        log_error("%s: Error reading tunnel(%s) info from DAL", __func__, name);
        return;
    }
    vpninfo *existing = vyrwrap_find_tunnel(name);
    log_info("%s: tun %s (%s) mapid:0x%x,ts:%d", __func__, name, existing ? "existing" : "new", record->mapid,
             record->tunnel_status);
    if (existing && existing->mapid == record->mapid) {
        const uint32_t opcode = updated_opcode(existing->tunnel_status, record->tunnel_status);
        *existing = *record;
        send_tunnel(name, existing, opcode, __func__);
        return;
    }
    if (existing)
        delete_previous(name, existing, record->mapid, __func__);
    displace_mapid(record.get(), __func__);
    const vpninfo *added = vyrwrap_insert_tunnel(name, std::move(record));
    if (!added) {
        log_error("%s:Failed to malloc tunnel stucture for tunnel %s", __func__, name);
        return;
    }
    send_tunnel(name, added, vyrwrap_tunnel_added_opcode(added), __func__);
}

void vyrwrap_handle_dal_ipsec_tunnel_notify_del(const char *name) {
    vpninfo *record = vyrwrap_find_tunnel(name);
    if (!record)
        log_error("<VYRWRAP>: %s: cann't delete tunnel %s, it doesn't exist in vyrwrap", __func__, text_or_null(name));
    else if (vyrwrap_delete_ipsec_tunnel(record) != 0)
        log_error("<VYRWRAP>:%s:%d - Failed to delete tunnel %s", __func__, kDeletedTunnelStays, name);
}

int vyrwrap_delete_ipsec_tunnel(vpninfo *record) {
    if (!record)
        return -1;
    if (const int result = vyrwrap_send_tunnel_msg_to_vyr(record, TUNNEL_DELETED); result < 0)
        log_error("%s: Tunnel %s(%p) - sending delete to vyr failed (ret:%d)", __func__, record->tunnel_name,
                  static_cast<const void *>(record), result);
    // The table goes by the key's name, which may differ: what it holds under the record's name is another tunnel then.
    if (vyrwrap_find_tunnel(record->tunnel_name) != record ||
        HashStringRemove(vyrwrap_global.tunnel_table, record->tunnel_name) != 0) {
        log_error("<VYRWRAP>:%s: Failed to remove tunnel %s from hash table", __func__, record->tunnel_name);
        return -1;
    }
    log_info("<VYRWRAP>:%s: Removed tunnel %s from hash table", __func__, record->tunnel_name);
    free(record);
    return 0;
}
