#include "logctl/syslog_level.h"

#include <stdio.h>
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "logctl/level_word.h"
#include "platform/korvalog.h"

namespace {

constexpr char kFacilityChannel[] = "__keyspace@0__:/op/syslog/facility/";
constexpr size_t kFacilityNameSize = 16; /**< with the terminator */
constexpr size_t kKeySize = 192;
constexpr uint32_t kOperationSet = 1;

void format_level_key(char (&key)[kKeySize], const char *facility_name) {
    snprintf(key, sizeof key, "%s/%s/level", "/op/syslog/facility", facility_name);
}

void change_level(int facility, int level) {
    korvaLevelChange request = {};
    request.operation = kOperationSet;
    request.module = static_cast<uint32_t>(facility);
    request.level = static_cast<uint32_t>(level);
    korvaChangeLglvl(&request);
}

}  // namespace

void init_syslog_facility(int facility) {
    char key[kKeySize];
    format_level_key(key, syslog_facility_to_str(facility));
    char command[kKeySize + 32];
    format_key_subscription(command, sizeof command, key);
    log_warning("<VYRWRAP>: %s: subscribe to: %s", "init_syslog_facility", command);
    dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_syslog_level_subscribe_cb, nullptr, command);
    vyrwrap_dal_read_and_set_syslog_level(facility);
}

void vyrwrap_dal_read_and_set_syslog_level(int facility) {
    constexpr char kFunction[] = "vyrwrap_dal_read_and_set_syslog_level";
    const char *name = syslog_facility_to_str(facility);
    char key[kKeySize];
    format_level_key(key, name);
    LevelWord word;
    if (!read_level_word(key, &word)) {
        log_error("<VYRWRAP>: %s: Error reading syslog facility %s from DAL", kFunction, name);
        return;
    }
    if (word.length == 0) {
        log_warning("<VYRWRAP>: %s: fac %s(%d), DAL read log level len %d, return", kFunction, name, facility, 0);
        return;
    }
    const int level = syslog_level_str_to_id(word.text);
    log_warning("<VYRWRAP>: %s: syslog fac:%s(%d), level:%s(%d)", kFunction, name, facility, word.text, level);
    change_level(facility, level);
}

void vyrwrap_syslog_level_subscribe_cb(dal_ctx *, const dal_reply *reply, void *) {
    constexpr char kFunction[] = "vyrwrap_syslog_level_subscribe_cb";
    if (!reply)
        return;
    log_info("<VYRWRAP>:%s: elements:%d,type:%d,MTYPE:%s,SUB_KEY:%s,DATA_KEY:%s", kFunction,
             static_cast<int>(reply->elements), reply->type, text_or_null(notification_text(reply, NOTIFICATION_KIND)),
             text_or_null(notification_text(reply, NOTIFICATION_PATTERN)),
             text_or_null(notification_text(reply, NOTIFICATION_CHANNEL)));
    if (reply->elements != kNotificationElements || !notification_is_pattern_message(reply))
        return;
    const int facility = vyrwrap_syslog_notification_extract_facility(reply);
    if (facility > 0)
        vyrwrap_dal_read_and_set_syslog_level(facility);
    else
        log_error("<VYRWRAP>: %s: invalid facility %d", kFunction, facility);
}

int vyrwrap_syslog_notification_extract_facility(const dal_reply *reply) {
    constexpr char kFunction[] = "vyrwrap_syslog_notification_extract_facility";
    const char *name = text_behind(notification_text(reply, NOTIFICATION_CHANNEL), kFacilityChannel);
    const char *end = name ? strchr(name, '/') : nullptr;
    if (!end)
        return -1;
    const auto length = static_cast<size_t>(end - name);
    if (length >= kFacilityNameSize) {
        log_error("<VYRWRAP>:%s: fac_str size %d, but actual len is %d, return", kFunction,
                  static_cast<int>(kFacilityNameSize), static_cast<int>(length));
        return -1;
    }
    char facility_name[kFacilityNameSize] = {};
    memcpy(facility_name, name, length);
    const int facility = log_str_to_facility(facility_name);
    log_info("<VYRWRAP>:%s: syslog facility:%s(%d)", kFunction, facility_name, facility);
    return facility;
}
