#include "staticroute/subscription.h"

#include <stdio.h>
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "core/text.h"
#include "mrt/mrt_export.h"
#include "staticroute/route_key.h"
#include "staticroute/table.h"
#include "vlan/vlan_relay.h"

namespace {

constexpr char kSubscribe[] = "PSUBSCRIBE";
constexpr char kRouteFolder[] = "/op/staticroute";
constexpr char kRedistributedVlans[] = "__keyspace@0__:/op/vlans/route_redistributed_vlans";

constexpr size_t kKeySize = 128;
constexpr uint32_t kMetricLength = 4; /**< characters of a metric that are read */

void apply(const StaticRouteCfg *route) {
    StaticRouteErrorReport report = {};
    vyrwrapStaticRouteApply(route, &report);
}

void subscribe_to_route_exports() {
    char command[1024];
    snprintf(command, sizeof command, "%s %s%s", kSubscribe, "/ipc/event/", "vyrwrap/mrt");
    dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_dal_mrt_subscribe_callback, nullptr, command);
}

void subscribe_to_static_routes(const char *pattern) {
    char command[1024];
    snprintf(command, sizeof command, "%s %s%s", kSubscribe, "__keyspace@0__:", pattern);
    dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_static_route_subscribe_callback, nullptr, command);
}

void subscribe_to_redistributed_vlans() {
    char command[1024];
    snprintf(command, sizeof command, "%s %s", kSubscribe, kRedistributedVlans);
    // the numbers belong to the texts
    if (dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_RouteRedistVlans_subs_callback, nullptr, command) == 0)
        log_error("<VYRWRAP>:%s:%d subscribed dal for (%s) done", "vyrwrap_subscribe_init", 988, command);
    else
        log_error("<VYRWRAP>:%s:%d Failed to subscribe dal for (%s)", "vyrwrap_subscribe_init", 986, command);
}

/** Whether the key is a text: one with a NUL inside would be read as another key. */
bool is_text(const dal_kv *entry) {
    return entry->key && !memchr(entry->key, '\0', entry->key_len);
}

/** The key that a channel tells of; NULL when it names none. */
const char *key_of_channel(const char *channel) {
    const char *colon = channel ? strchr(channel, ':') : nullptr;
    return colon ? colon + 1 : nullptr;
}

/** The key's value, its metric; empty when it cannot be read, as that of a deleted key. */
void read_metric(const char *key, char (&metric)[kMetricLength + 1]) {
    uint32_t length = kMetricLength;
    if (dal_get(vyrwrap_global.dal_ctx, key, static_cast<uint32_t>(strlen(key)), metric, &length) == -1)
        log_error("<VYRWRAP>: %s: %d: DAL get Error", "vyrwrap_static_route_subscribe_callback", 193);
}

/** Also true for the beginning of the word and for the empty text. */
bool is_delete(const char *operation) {
    return strncmp(operation, "del", strlen(operation)) == 0;
}

/** Reads the route that a changed key spells; NULL is refused as the parser refuses it. */
bool read_route(const char *changed_key, int deleted, StaticRouteCfg *route) {
    if (!changed_key)
        return vyrwrap_extract_static_route_cfg_from_path(route, nullptr, "", deleted);
    char key[kKeySize];
    copy_text(key, sizeof key, changed_key);
    char metric[kMetricLength + 1] = {};
    read_metric(key, metric);
    const bool whole = changed_key[strlen(key)] == '\0';  // what is left of a cut key may be a valid one, but another
    return vyrwrap_extract_static_route_cfg_from_path(route, key, metric, deleted) && whole;
}

}  // namespace

void vyrwrap_subscribe_init() {
    subscribe_to_route_exports();
    char pattern[192];
    snprintf(pattern, sizeof pattern, "%s%s%s", kRouteFolder, "/", "*");
    subscribe_to_static_routes(pattern);
    vyrwrap_dal_scan_static_routes(pattern);
    subscribe_to_redistributed_vlans();
    vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal();
}

void vyrwrap_dal_scan_static_routes(const char *pattern) {
    // applying a route may subscribe and scan again, each time with a list of its own
    const OwnedDalList list(ListCreate());
    if (!list) {
        log_error("<VYRWRAP>:%s: Failed to create the list of keys", __func__);
        return;
    }
    dal_mget_by_wildcard(vyrwrap_global.dal_ctx, pattern, list.get(), &vyrwrap_global.dal_ctx);
    ListGet(list.get(), LIST_REWIND);
    while (const auto *entry = static_cast<const dal_kv *>(ListGet(list.get(), LIST_NEXT))) {
        StaticRouteCfg route;
        if (is_text(entry) && vyrwrap_extract_static_route_cfg_from_path(&route, entry->key, entry->value, 0))
            apply(&route);
        else
            log_error("<VYRWRAP>: %s: %d: Error in extracting static cfg while init", __func__, 957);
    }
}

void vyrwrap_static_route_subscribe_callback(dal_ctx *, const dal_reply *reply, void *) {
    constexpr char kFunction[] = "vyrwrap_static_route_subscribe_callback";
    if (!reply)
        return;
    const char *channel = notification_text(reply, NOTIFICATION_CHANNEL);
    const char *operation = notification_text(reply, NOTIFICATION_DATA);
    const bool complete = reply->elements >= kNotificationElements && reply->element;
    log_debug(
        "<VYRWRAP>: %s: %d: Number of elements %d,             REPLY_E_MTYPE %s, REPLY_E_SUB_KEY %s, "
        "REPLY_E_DATA_KEY %s,                  reply->element[3] %p, REPLY_E_PUB_DATA %s",
        kFunction, 181, static_cast<int>(reply->elements), text_or_null(notification_text(reply, NOTIFICATION_KIND)),
        text_or_null(notification_text(reply, NOTIFICATION_PATTERN)), text_or_null(channel),
        static_cast<const void *>(complete ? reply->element[NOTIFICATION_DATA] : nullptr), text_or_null(operation));
    if (!complete || !operation)
        return;
    StaticRouteCfg route;
    if (read_route(key_of_channel(channel), is_delete(operation) ? 1 : 0, &route))
        apply(&route);
    else
        log_error("<VYRWRAP>: %s: %d: Error in extracting static cfg while setting", kFunction, 201);
}
