/* Replies of every shape, handed to every subscription's callback. */
#include "core/notification.h"

#include <string.h>

#include "cluster/cluster_notify.h"
#include "core/global.h"
#include "logctl/syslog_level.h"
#include "logctl/vyr_log_level.h"
#include "mrt/mrt_export.h"
#include "oap/oap_config.h"
#include "staticroute/subscription.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "tunnel/tunnel_table.h"
#include "vlan/vlan_relay.h"

using namespace fuzz;

namespace {

constexpr size_t kElementMax = 6;

constexpr const char *kChannels[] = {
    "__keyspace@0__:/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.2}",
    "__keyspace@0__:/op/tunnel/t1",
    "__keyspace@0__:/op/vlans/route{10.1.2.3:255.255.255.0:12}",
    "__keyspace@0__:/op/vlans/route_redistributed_vlans",
    "__keyspace@0__:/op/clusters/alpha",
    "__keyspace@0__:/config/vyr/oap/proto_oap_enable",
    "__keyspace@0__:/op/syslog/facility/network/level",
    "__keyspace@0__:/op/vyr/logging/vyr_log_level",
};
constexpr const char *kEvents[] = {"set", "del", "hset", "hdel", "expire", "append", "d", ""};

constexpr dal_sub_callback kCallbacks[] = {
    vyrwrap_static_route_subscribe_callback, vyrwrap_ipsec_tuns_subs_callback,   vyrwrap_VlanIfaceInfo_subs_callback,
    vyrwrap_RouteRedistVlans_subs_callback,  vyrwrap_cluster_info_subs_callback, vyrwrap_vyr_cfg_subscribe_callback,
    vyrwrap_syslog_level_subscribe_cb,       vyrwrap_subscribe_logging_cb,       vyrwrap_dal_mrt_subscribe_callback,
};
constexpr size_t kExport = 8; /**< the last of them, which goes by its data and not by its channel */
constexpr size_t kCallbackCount = sizeof kCallbacks / sizeof kCallbacks[0];

struct Reply {
    dal_reply whole;
    dal_reply elements[kElementMax];
    dal_reply *table[kElementMax];
};

/** What an element's byte says of it: its text, its kind, or that it is missing. */
dal_reply *make_element(Input *input, dal_reply *element, size_t number) {
    enum Shape { USUAL, MISSING, WITHOUT_TEXT, OWN_TEXT, WITH_NUL, OTHER_TYPE, EMPTY, FREE_TEXT };
    const uint8_t bits = take_byte(input);
    const char *usual = number == NOTIFICATION_KIND      ? "pmessage"
                        : number == NOTIFICATION_CHANNEL ? kChannels[bits / 8 % 8]
                        : number == NOTIFICATION_DATA    ? kEvents[bits / 8 % 8]
                                                         : "pattern";
    std::string_view text = usual;
    *element = {DAL_REPLY_STRING, 0, 0, nullptr, 0, nullptr};
    switch (bits % 8) {
        case MISSING:
            return nullptr;
        case WITHOUT_TEXT:
            element->len = bits;
            return element;
        case OTHER_TYPE:
            element->type = bits / 8;
            break;
        case OWN_TEXT:
        case FREE_TEXT:
            text = take_text(input);
            break;
        case WITH_NUL:
            text = take_bytes(input, bits / 8);
            break;
        case EMPTY:
            text = "";
            break;
        default:
            break;
    }
    element->str = const_cast<char *>(keep_text(text));
    element->len = text.size();
    return element;
}

void make_reply(Input *input, Reply *reply) {
    const uint8_t shape = take_byte(input);
    const size_t count = shape & 0x80 ? shape % (kElementMax + 1) : kNotificationElements;
    const int type = shape & 0x40 ? shape % 16 - 1 : +DAL_REPLY_ARRAY;
    reply->whole = {type, 0, 0, nullptr, count, reply->table};
    for (size_t i = 0; i < count; i++)
        reply->table[i] = make_element(input, &reply->elements[i], i);
    if (shape & 0x20)
        reply->whole.element = nullptr;
}

bool has_text(const Reply &reply, size_t element) {
    return reply.whole.element && element < reply.whole.elements && reply.table[element] && reply.table[element]->str;
}

/** Whether anything of the daemon's may follow from it. */
bool may_act(const Reply &reply, size_t callback) {
    if (reply.whole.elements < kNotificationElements || !reply.whole.element)
        return false;
    if (callback == kExport)
        return reply.whole.type == DAL_REPLY_ARRAY && has_text(reply, NOTIFICATION_KIND);
    // the routing daemon's log level follows its key whatever the event
    return has_text(reply, NOTIFICATION_CHANNEL) &&
           (has_text(reply, NOTIFICATION_DATA) || callback == 6 || callback == 7);
}

void fill_store(uint8_t bits) {
    if (bits & 1)
        store_set("/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.2}", "5");
    if (bits & 2)
        store_set("/op/vlans/route_redistributed_vlans", "{1:2}");
    if (bits & 4)
        store_set("/config/vyr/oap/proto_oap_enable", "\1");
    if (bits & 8) {
        store_set("/op/syslog/facility/network/level", "debug");
        store_set("/op/vyr/logging/vyr_log_level", "info");
    }
    if (bits & 16)
        for (const char *field : {"ddg_ip", "cluster_state", "node_num", "nodelist"})
            store_hset("/op/clusters/alpha", field, field[0] == 'd' ? "10.0.0.1" : "0");
    for (const char *field : {"tunnel_name", "dst_mac", "pair_uuid", "tunnel_index", "mapid", "tunnel_ip", "mask",
                              "peer_tunnel_ip", "peer_public_ip", "flags", "vlan_id", "link_priority", "tunnel_status"})
        if (bits & 32)
            store_hset("/op/tunnel/t1", field, "1");
    dal_fails = bits & 64;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input = begin_with_application(data, size);
    use_static_table();
    vyrwrap_ipsec_tunnel_info_init();
    on_renamed = check_renamed;
    connect_fails = true;
    oapCfg_g.bEnable = 0;
    oapCfg_g.redist_vlan_count = 0;
    fill_store(take_byte(&input));
    const size_t callback = take_byte(&input) % kCallbackCount;
    Reply reply;
    make_reply(&input, &reply);
    if (size == 0) {
        for (const dal_sub_callback each : kCallbacks)
            each(context(), nullptr, nullptr);
    } else {
        kCallbacks[callback](context(), &reply.whole, nullptr);
    }
    if (size == 0 || !may_act(reply, callback))
        HOLDS(datagram_count == 0 && vyrwrap_global.config_dirty == 0 && vyrwrap_global.static_route_count == 0);
    HOLDS(vyrwrap_global.vyr_pid == 0 || vyrwrap_global.vyr_pid == next_pid);
    HOLDS(oapCfg_g.bEnable <= 1 && oapCfg_g.redist_vlan_count <= kRedistVlanMax);
    HOLDS(files_open() == 0);
    end(check_static_table() + check_tunnel_table());
    return 0;
}
