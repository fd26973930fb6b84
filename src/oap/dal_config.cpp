/* The overlay's enable key, followed in the DAL. All messages go out at error level, the informative ones too. */
#include <stdio.h>
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "core/text.h"
#include "oap/oap_config.h"

namespace {

constexpr char kSubscribe[] = "PSUBSCRIBE";
constexpr char kKeyspacePrefix[] = "__keyspace@0__:";
constexpr char kConfigPrefix[] = "/config/vyr/oap/";
constexpr char kEnableKey[] = "/config/vyr/oap/proto_oap_enable";
constexpr size_t kPublishedKeySize = 192;

bool is_followed(int action) {
    switch (action) {
        case DAL_NOTIFY_SET:
        case DAL_NOTIFY_DEL:
        case DAL_NOTIFY_CHANGE:
        case DAL_NOTIFY_EXPIRE:
            return true;
        default:
            return false;
    }
}

}  // namespace

int vyrwrap_oap_config_init() {
    vyrwrap_oap_config_dal_init();
    oapCfg_g.bEnable = read_vyr_oap_enable_cfg_from_dal(kEnableKey) == 1;
    log_error("<VYRWRAP>: %s: oapCfg_g.bEnable=%d, write OAP conf file", __func__, oapCfg_g.bEnable);
    return oapWriteConfig();
}

int vyrwrap_oap_config_dal_init() {
    char command[1024];
    snprintf(command, sizeof command, "%s %s%s*", kSubscribe, kKeyspacePrefix, kConfigPrefix);
    log_error("<VYRWRAP>: %s: subscribing to OAP config: %s", __func__, command);
    return dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_vyr_cfg_subscribe_callback, nullptr, command);
}

int extract_dal_published_vyr_config_key(const dal_reply *reply, char *key_out, size_t key_size, int *action_out) {
    if (!reply || !key_out || key_size == 0 || !action_out)
        return -1;
    if (!notification_is_complete(reply, __func__) || reply->type != DAL_REPLY_ARRAY)
        return -1;
    const char *key = text_behind(notification_text(reply, NOTIFICATION_CHANNEL), kKeyspacePrefix);
    if (!key)
        return -1;
    const int action = notification_action(reply);
    if (!is_followed(action)) {
        log_error("<VYRWRAP>: %s: Unexpected notify_action (%d)", __func__, action);
        return -1;
    }
    *action_out = action;
    if (*key == '\0') {
        log_error("<VYRWRAP>: %s: zero length published keyspace key", __func__);
        return -1;
    }
    copy_text(key_out, key_size, key);
    return 0;
}

uint8_t read_vyr_oap_enable_cfg_from_dal(const char *key) {
    if (!key)
        return 0;
    const auto key_length = static_cast<uint32_t>(strlen(key));
    int exists = 0;
    if (dal_is_key_exist(vyrwrap_global.dal_ctx, key, key_length, &exists) < 0 || !exists) {
        log_error("<VYRWRAP>: %s: key %s doesn't exist in DAL", __func__, key);
        return 0;
    }
    uint8_t value = 0;
    uint32_t length = sizeof value;
    if (dal_get(vyrwrap_global.dal_ctx, key, key_length, &value, &length) < 0) {
        log_error("<VYRWRAP>: %s: Error reading DAL key %s", __func__, key);
        return 0;
    }
    log_error("<VYRWRAP>: %s: key: %s, value read: %d", __func__, key, value);
    return value;
}

void vyrwrap_vyr_cfg_subscribe_callback(dal_ctx *, const dal_reply *reply, void *) {
    if (!reply)
        return;
    char key[kPublishedKeySize] = {};
    int action = 0;
    if (extract_dal_published_vyr_config_key(reply, key, sizeof key, &action) < 0) {
        log_error("<VYRWRAP>: %s: Error extracting DAL published key", __func__);
        return;
    }
    log_error("<VYRWRAP>: %s: DAL published key: %s,", __func__, key);
    if (strcmp(key, kEnableKey) != 0) {
        log_error("<VYRWRAP>: %s: invalid published_key %s, ignore", __func__, key);
        return;
    }
    uint8_t enable = 0;
    if (action == DAL_NOTIFY_DEL)
        log_error("<VYRWRAP>: %s: DAL key %s is deleted", __func__, key);
    else
        enable = read_vyr_oap_enable_cfg_from_dal(key);
    log_error("<VYRWRAP>: %s: prev oapCfg_g.bEnable:%d, DAL published value:%d", __func__, oapCfg_g.bEnable, enable);
    const bool switches = (enable == 1 && oapCfg_g.bEnable == 0) || (enable == 0 && oapCfg_g.bEnable == 1);
    if (!switches) {
        log_error("<VYRWRAP>: %s: no change in oapCfg_g.bEnable(%d)", __func__, oapCfg_g.bEnable);
        return;
    }
    oapCfg_g.bEnable = enable;
    log_error("<VYRWRAP>: %s: oapCfg_g.bEnable changed to:%d, rewrite oap conf file", __func__, oapCfg_g.bEnable);
    oapWriteConfig();
}
