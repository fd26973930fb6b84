/* VLANs on their way to the routing application: on its request, and as they change from then on. */
#include "vlan/vlan_relay.h"

#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "rpapp/link.h"

namespace {

constexpr char kScanPattern[] = "/op/vlans/route*";
constexpr char kChannelPattern[] = "__keyspace@0__:/op/vlans/route*";
constexpr char kChannelPrefix[] = "__keyspace@0__:/op/vlans/route";
constexpr int kKeyNumber = 1; /**< belongs to the message: it does not count */

/** Numbers that belong to the messages. */
enum MessageLine {
    LINE_NOTIFIED = 156,
    LINE_NO_ARRAY = 163,
    LINE_FOREIGN_CHANNEL = 169,
    LINE_UNEXPECTED_ACTION = 175,
    LINE_BAD_KEY = 221,
    LINE_NOT_SUBSCRIBED = 277,
    LINE_SUBSCRIBED = LINE_NOT_SUBSCRIBED + 1,
};

/** Whether the reply is a notification on a VLAN key. If not, that is logged under the caller's name. */
bool is_vlan_notification(const dal_reply *reply, const char *channel, const char *function) {
    if (!notification_is_complete(reply, function))
        return false;
    if (reply->type != DAL_REPLY_ARRAY) {
        log_error("<VYRWRAP>: %s: %d: reply type %d not DAL_REPLY_ARRAY %d returning\n", function, LINE_NO_ARRAY,
                  reply->type, DAL_REPLY_ARRAY);
        return false;
    }
    if (!text_behind(channel, kChannelPrefix)) {
        log_error("<VYRWRAP>: %s: %d: REPLY_E_DATA_KEY %s doesn't match KEYSPACE_INTERFACE_VLAN_PREFIX %s, returning\n",
                  function, LINE_FOREIGN_CHANNEL, text_or_null(channel), kChannelPrefix);
        return false;
    }
    return true;
}

void send_vlan_of_key(const dal_kv *entry, const char *function) {
    log_info("<VYRWRAP>:%s:Vlan key %d: %s (vlan key len:%d)", function, kKeyNumber, entry->key,
             static_cast<int>(strlen(entry->key)));
    vlan_Iface record{};
    if (vyrwrap_read_vlan_interface_info_from_path(entry->key, VLAN_ANNOUNCED, &record) < 0)
        log_error("<VYRWRAP>:%s:%d: Error in extracting vlan parameters from path %s", function, LINE_BAD_KEY,
                  entry->key);
    else
        vyrwrap_send_VlanIfaceInfo_to_vyr(&record);
}

}  // namespace

void vyrwrap_handle_VlanIfaceInfo_replayall() {
    log_info("<VYRWRAP>:%s: Entered", __func__);
    vyrwrap_VlanIfaceInfo_subscribe();
    vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();
}

int vyrwrap_VlanIfaceInfo_subscribe() {
    return notification_subscribe(kChannelPattern, vyrwrap_VlanIfaceInfo_subs_callback,
                                  {__func__, LINE_NOT_SUBSCRIBED, LINE_SUBSCRIBED});
}

void vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal() {
    const OwnedDalList keys(ListCreate());
    if (!keys) {
        log_error("<VYRWRAP>:%s: Failed to create the list of keys", __func__);
        return;
    }
    const int result = dal_scan(vyrwrap_global.dal_ctx, kScanPattern, keys.get());
    if (result != 0)
        log_error("<VYRWRAP>:%s: dal_scan() returned error(%d)", __func__, result);
    ListGet(keys.get(), LIST_REWIND);
    while (const auto *entry = static_cast<const dal_kv *>(ListGet(keys.get(), LIST_NEXT)))
        send_vlan_of_key(entry, __func__);
}

void vyrwrap_VlanIfaceInfo_subs_callback(dal_ctx *, const dal_reply *reply, void *) {
    if (!reply)
        return;
    const char *channel = notification_text(reply, NOTIFICATION_CHANNEL);
    log_info("<VYRWRAP>: %s: %d: keyspace pattern %s, reply->elements %d\n", __func__, LINE_NOTIFIED,
             text_or_null(channel), static_cast<int>(reply->elements));
    if (!is_vlan_notification(reply, channel, __func__))
        return;
    uint32_t opcode = 0;
    switch (const int action = notification_action(reply)) {
        case DAL_NOTIFY_SET:
            opcode = VLAN_ANNOUNCED;
            break;
        case DAL_NOTIFY_DEL:
            opcode = VLAN_WITHDRAWN;
            break;
        case DAL_NOTIFY_EXPIRE:
            return;
        default:
            log_error("<VYRWRAP>: %s: %d: Unexpected notify_action (%d)", __func__, LINE_UNEXPECTED_ACTION, action);
            return;
    }
    vlan_Iface record{};
    if (vyrwrap_read_vlan_interface_info_from_notify_key(channel, opcode, &record) == 0)
        vyrwrap_send_VlanIfaceInfo_to_vyr(&record);
}

void vyrwrap_send_VlanIfaceInfo_to_vyr(const vlan_Iface *record) {
    RoutingAppMsg message;
    memset(&message, 0, sizeof message);
    message.msgType = MSG_FAMILY_VLAN;
    message.msg.im_Msg.msgType = IM_MSG_VLAN_IFACE;
    message.msg.im_Msg.vlan_Iface = *record;
    const ssize_t sent = vyrwrap_send_to_routing_app(&message, sizeof message);
    if (sent < 1)
        log_error("%s: Failed to send tunnel message to VYR-APP (ret:%d)", __func__, static_cast<int>(sent));
}
