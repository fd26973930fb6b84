/* Notifications on tunnel keys. */
#include <string.h>

#include "core/log.h"
#include "core/notification.h"
#include "tunnel/tunnel_table.h"

namespace {

constexpr char kChannelPrefix[] = "__keyspace@0__:/op/tunnel/";
constexpr char kChannelPattern[] = "__keyspace@0__:/op/tunnel/*";

// Fixed numbers of the messages.
constexpr int kNotSubscribed = 940;
constexpr int kSubscribed = 942;

}  // namespace

void vyrwrap_tunnel_info_subscribe() {
    notification_subscribe(kChannelPattern, vyrwrap_ipsec_tuns_subs_callback, {__func__, kNotSubscribed, kSubscribed});
}

int extract_ipsec_tun_name_from_dal_notif(const dal_reply *reply, char *name_out, int *action_out) {
    if (!reply || !name_out || !action_out)
        return -1;
    const char *name = notification_hash_name(reply, kChannelPrefix, __func__, action_out);
    if (!name)
        return -1;
    const size_t length = strlen(name);
    if (length == 0 || length > kTunnelNameMax) {
        log_error("<VYRWRAP>:%s:tunnel-name (%s) has wrong len(%d)", __func__, name, static_cast<int>(length));
        return -1;
    }
    memcpy(name_out, name, length + 1);
    log_info("<VYRWRAP>:%s: Notified tunnel key:(%s),%s, len:%d, action:%d", __func__,
             notification_text(reply, NOTIFICATION_CHANNEL), name_out, static_cast<int>(length), *action_out);
    return 0;
}

void vyrwrap_ipsec_tuns_subs_callback(dal_ctx *, const dal_reply *reply, void *) {
    if (!reply)
        return;
    char name[kTunnelNameMax + 1] = {};
    int action = 0;
    if (extract_ipsec_tun_name_from_dal_notif(reply, name, &action) != 0) {
        log_error("<VYRWRAP>:%s: Error in getting tunnel name from keyspace notification", __func__);
        return;
    }
    log_info("<VYRWRAP>:%s: DAL notif %s(%d) on %s tunnel %s", __func__, notification_text(reply, NOTIFICATION_DATA),
             action, vyrwrap_find_tunnel(name) ? "existing" : "new ", name);
    switch (action) {
        case DAL_NOTIFY_HSET:
            vyrwrap_handle_dal_ipsec_tunnel_notify_hset(name);
            break;
        case DAL_NOTIFY_HDEL:
            log_error("<VYRWRAP>:%s: action NOTIFY_HDEL(%d) is unexpected", __func__, action);
            break;
        case DAL_NOTIFY_DEL:
            vyrwrap_handle_dal_ipsec_tunnel_notify_del(name);
            break;
        default:
            log_error("<VYRWRAP>:%s: invalid action(%d)", __func__, action);
    }
}
