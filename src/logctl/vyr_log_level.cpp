#include "logctl/vyr_log_level.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "core/config_file.h"
#include "core/global.h"
#include "core/log.h"
#include "core/notification.h"
#include "logctl/level_word.h"

namespace {

constexpr char kLevelKey[] = "/op/vyr/logging/vyr_log_level";
constexpr char kLogConfigPath[] = "/tmp/vyr_log.conf";
constexpr char kDefaultLevel[] = "warn";
constexpr char kAlwaysLogged[] = " error, auth, fatal, bug ";
constexpr char kOwnLogLine[] =
    "log \"/var/log/korvalog/vyr.log\" 81920 \"/var/log/korvalog/vyr.log.1\" "
    "{ debug, trace, info, remote, warning, error, auth, fatal, bug };\n";

// Place numbers that belong to the messages.
constexpr int kPlaceEntered = 750;
constexpr int kPlaceReadFailed = 761;
constexpr int kPlaceValue = 765;

/** Categories that a level logs beyond those that always are; none for a word that is no level. */
const char *categories_of(const char *level) {
    constexpr struct {
        const char *level;
        const char *categories;
    } kLevels[] = {
        {"warn", " warning,"},
        {"notice", " remote, warning,"},
        {"info", " info, remote, warning,"},
        {"debug", " debug, trace, info, remote, warning,"},
    };
    for (const auto &row : kLevels)
        if (strcmp(level, row.level) == 0)
            return row.categories;
    return "";
}

char last_categories[128]; /**< what the file was to be written with last */

/** Returns 0, or -1 with errno set. */
int write_log_config(const char *categories) {
    char network_line[256];
    snprintf(network_line, sizeof network_line,
             "log \"/var/log/korvalog/NETWORK.log\" 40960 \"/var/log/korvalog/NETWORK.log.1\" {%s };\n", categories);
    ConfigFile *file = config_file_open(kLogConfigPath);
    if (!file)
        return -1;
    config_file_printf(file, "%s%s\n", network_line, kOwnLogLine);
    return config_file_close(file);
}

}  // namespace

int vyrwrap_set_vyr_log_level(const char *level) {
    snprintf(last_categories, sizeof last_categories, "%s%s", categories_of(level), kAlwaysLogged);
    log_debug("<VYRWRAP>: vyr log string - %s", last_categories);
    return vyrwrap_write_vyr_log_level();
}

int vyrwrap_write_vyr_log_level() {
    const bool written = write_log_config(last_categories) == 0;
    vyrwrap_note_file_written(kLogLevelFile, written);
    if (!written) {
        log_error("<VYRWRAP>: Failed to open /tmp/vyr_log.conf - %s", strerror(errno));
        return -1;
    }
    vyrwrap_mark_config_dirty("vyrwrap_set_vyr_log_level");
    return 0;
}

int vyrwrap_dal_read_and_set_logging_level() {
    constexpr char kFunction[] = "vyrwrap_dal_read_and_set_logging_level";
    char command[192];
    format_key_subscription(command, sizeof command, kLevelKey);
    dal_sub_command(vyrwrap_global.dal_ctx, vyrwrap_subscribe_logging_cb, nullptr, command);

    int exists = 0;
    if (dal_is_key_exist(vyrwrap_global.dal_ctx, kLevelKey, sizeof kLevelKey - 1, &exists) < 0 || !exists) {
        log_error("<VYRWRAP>: %s: path %s doesn't exist in DAL. Setting log-level to warning", kFunction, kLevelKey);
        vyrwrap_set_vyr_log_level(kDefaultLevel);
        return 0;
    }
    LevelWord level;
    if (!read_level_word(kLevelKey, &level)) {
        log_error("<VYRWRAP>: %s: Error reading DAL key %s. Setting log-level to warning", kFunction, kLevelKey);
        vyrwrap_set_vyr_log_level(kDefaultLevel);
        return 0;
    }
    log_info("<VYRWRAP>: %s: DAL key: %s, value read: %s, value length %d", kFunction, kLevelKey, level.text,
             static_cast<int>(level.length));
    vyrwrap_set_vyr_log_level(level.text);
    return 0;
}

void vyrwrap_subscribe_logging_cb(dal_ctx *, const dal_reply *reply, void *) {
    constexpr char kFunction[] = "vyrwrap_subscribe_logging_cb";
    if (!reply)
        return;
    const char *channel = notification_text(reply, NOTIFICATION_CHANNEL);
    log_debug(
        "<VYRWRAP>: %s: %d: Number of elements %d,             REPLY_E_MTYPE %s, REPLY_E_SUB_KEY %s, "
        "REPLY_E_DATA_KEY %s",
        kFunction, kPlaceEntered, static_cast<int>(reply->elements),
        text_or_null(notification_text(reply, NOTIFICATION_KIND)),
        text_or_null(notification_text(reply, NOTIFICATION_PATTERN)), text_or_null(channel));
    if (reply->elements < kNotificationElements)
        return;
    char key[128];
    const char *colon = channel ? strchr(channel, ':') : nullptr;
    snprintf(key, sizeof key, "%s", colon ? colon + 1 : "");
    LevelWord level;
    if (!read_level_word(key, &level)) {
        log_error("<VYRWRAP>: %s: %d: DAL get Error", kFunction, kPlaceReadFailed);
        return;
    }
    log_info("<VYRWRAP>: %s: %d: VYR Log Level %s", kFunction, kPlaceValue, level.text);
    vyrwrap_set_vyr_log_level(level.text);
}
