/* The redistributed VLANs' key, whose changes go to the overlay's configuration. */
#include "core/log.h"
#include "core/notification.h"
#include "oap/oap_config.h"
#include "vlan/vlan_relay.h"

namespace {

constexpr char kKey[] = "/op/vlans/route_redistributed_vlans";
constexpr char kChannelPrefix[] = "__keyspace@0__:/op/vlans/route_redistributed_vlans";

/** Numbers that belong to the messages. */
enum MessageLine {
    LINE_NOTIFIED = 246,
    LINE_FOREIGN_CHANNEL = 255,
    LINE_UNEXPECTED_ACTION = 261,
};

}  // namespace

void vyrwrap_RouteRedistVlans_subs_callback(dal_ctx *, const dal_reply *reply, void *) {
    if (!reply)
        return;
    const char *channel = notification_text(reply, NOTIFICATION_CHANNEL);
    log_info("<VYRWRAP>: %s: %d: keyspace pattern %s, reply->elements %d\n", __func__, LINE_NOTIFIED,
             text_or_null(channel), static_cast<int>(reply->elements));
    if (!notification_is_complete(reply, __func__))
        return;
    if (!text_behind(channel, kChannelPrefix)) {
        log_error(
            "<VYRWRAP>: %s: %d: REPLY_E_DATA_KEY %s doesn't match "
            "KEYSPACE_INTERFACE_REDISTRIBUTED_CONNECTED_VLAN_PREFIX %s, returning\n",
            __func__, LINE_FOREIGN_CHANNEL, text_or_null(channel), kChannelPrefix);
        return;
    }
    const int action = notification_action(reply);
    if (action != DAL_NOTIFY_SET && action != DAL_NOTIFY_DEL && action != DAL_NOTIFY_EXPIRE) {
        log_error("<VYRWRAP>: %s: %d: Unexpected notify_action (%d)", __func__, LINE_UNEXPECTED_ACTION, action);
        return;
    }
    vyrwrap_oap_redistvlan_notify(channel, action);
}

int vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal() {
    log_error("<VYRWRAP>:%s:Redistributed Vlan key %s ", __func__, kKey);
    vyrwrap_update_redistvlan_oap_config_from_key(kKey);
    return oapWriteConfig();
}
