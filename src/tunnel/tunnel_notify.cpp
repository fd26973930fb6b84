/* Notifications on tunnel keys. */
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "tunnel/tunnel_table.h"

namespace {

constexpr char kChannelPrefix[] = "__keyspace@0__:/op/tunnel/";
constexpr char kCommand[] = "PSUBSCRIBE __keyspace@0__:/op/tunnel/*";

// Fixed numbers of the messages.
constexpr int kNotSubscribed = 940;
constexpr int kSubscribed = 942;

}  // namespace

void vyrwrap_tunnel_info_subscribe() {
    if (dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_ipsec_tuns_subs_callback, nullptr, kCommand) != 0)
        log_error("<VYRWRAP>:%s:%d Failed to subscribe dal for (%s)", __func__, kNotSubscribed, kCommand);
    else
        log_info("<VYRWRAP>:%s:%d subscribed dal for (%s) done", __func__, kSubscribed, kCommand);
}

int extract_ipsec_tun_name_from_dal_notif(const dal_reply *reply, char *name_out, int *action_out) {
    if (!reply || !name_out || !action_out)
        return -1;
    if (!notification_is_complete(reply, __func__) || reply->type != DAL_REPLY_ARRAY)
        return -1;
    const char *channel = notification_text(reply, NOTIFICATION_CHANNEL);
    const char *name = text_behind(channel, kChannelPrefix);
    if (!name)
        return -1;
    const int action = notification_action(reply);
    if (action != DAL_NOTIFY_DEL && action != DAL_NOTIFY_HSET && action != DAL_NOTIFY_HDEL) {
        log_error("<VYRWRAP>: %s: Unexpected notify_action (%d)", __func__, action);
        return -1;
    }
    *action_out = action;
    const size_t length = strlen(name);
    if (length == 0 || length > kTunnelNameMax) {
        log_error("<VYRWRAP>:%s:tunnel-name (%s) has wrong len(%d)", __func__, name, static_cast<int>(length));
        return -1;
    }
    memcpy(name_out, name, length + 1);
    log_info("<VYRWRAP>:%s: Notified tunnel key:(%s),%s, len:%d, action:%d", __func__, channel, name_out,
             static_cast<int>(length), action);
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
