/* The device's identity, and what the template adds to it. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string_view>

#include "core/config_file.h"
#include "core/log.h"
#include "core/parse.h"
#include "oap/oap_config.h"
#include "platform/cmnutil.h"

namespace {

constexpr char kTemplatePath[] = "/etc/bird/vyr_oap.conf";
constexpr size_t kLineSize = 256;
constexpr char kMacPlaceholder[] = "SY:S-:MA:C-:AD:DR";
constexpr char kSerialPlaceholder[] = "SYSSERIAL";
constexpr size_t kMacTextLength = sizeof kMacPlaceholder - 1;
constexpr size_t kSerialPlaceholderLength = sizeof kSerialPlaceholder - 1;

struct Identity {
    char mac[kMacTextLength + 1];
    char serial[33];
};

void read_device_identity(Identity *identity) {
    get_ap_serial_num(identity->serial, sizeof identity->serial);
    uint8_t mac[6] = {};
    uint32_t selector = 0;
    get_mac_addr(mac, sizeof mac, &selector, 0);
    snprintf(identity->mac, sizeof identity->mac, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
}

/** Passes over delimiters, then over the token that they end. Returns the token, empty at the end of the text. */
std::string_view next_token(const char **rest, const char *delimiters) {
    *rest += strspn(*rest, delimiters);
    const std::string_view token(*rest, strcspn(*rest, delimiters));
    *rest += token.size();
    return token;
}

struct TokenText {
    char text[kLineSize];
};

TokenText text_of(std::string_view token) {
    TokenText copy{};
    memcpy(copy.text, token.data(), token.size());
    return copy;
}

/** Sets a text from `KEY "VALUE"`, where KEY is two words. Without a value, or without its closing quote, nothing. */
void take_quoted(const char *match, void (*set)(const char *)) {
    const char *rest = match;
    next_token(&rest, " \"");
    next_token(&rest, " \"");
    rest += strspn(rest, " ");
    if (*rest == '"')
        rest++;
    const char *quote = strchr(rest, '"');
    if (quote && quote != rest)
        set(text_of({rest, static_cast<size_t>(quote - rest)}).text);
}

/** Sets a number from `KEY NUMBER;`. */
void take_number(const char *match, void (*set)(uint32_t)) {
    const char *rest = match;
    next_token(&rest, " ;");
    const std::string_view token = next_token(&rest, " ;");
    if (!token.empty())
        set(static_cast<uint32_t>(parse_int(text_of(token).text)));
}

/** A shorter serial ends the line behind it. */
void fill_in_serial(char *placeholder, const char *serial) {
    const size_t length = strnlen(serial, kSerialPlaceholderLength);
    memcpy(placeholder, serial, length);
    memset(placeholder + length, 0, kSerialPlaceholderLength - length);
}

/** Fills in a placeholder or takes a setting; the first that the line contains is the only one. */
void take_line(char *line, const Identity &identity) {
    if (char *mac = strstr(line, kMacPlaceholder))
        memcpy(mac, identity.mac, kMacTextLength);
    else if (char *serial = strstr(line, kSerialPlaceholder))
        fill_in_serial(serial, identity.serial);
    else if (const char *tenant_id = strstr(line, "tenant id"))
        take_quoted(tenant_id, oapSetTenantId);
    else if (const char *site_id = strstr(line, "site id"))
        take_quoted(site_id, oapSetSiteId);
    else if (const char *keepalive = strstr(line, "keepalive"))
        take_number(keepalive, oapSetKeepalive);
    else if (const char *timeout = strstr(line, "cbs_reconnect_timeout"))
        take_number(timeout, oapSetCbsReconnectTimeout);
}

/** Takes every line of the template, and copies it to `config` when `copy` is set. Returns 0, or -1 with errno set. */
int take_template(FILE *source, const Identity &identity, bool copy, ConfigFile *config) {
    char line[kLineSize];
    while (fgets(line, sizeof line, source)) {
        take_line(line, identity);
        if (copy)
            config_file_put(config, line);
    }
    return ferror(source) ? -1 : 0;
}

int open_failed(const char *path) {
    log_error("<VYRWRAP>: fopen of %s failed - %s", path, strerror(errno));
    return -1;
}

int fill_config(FILE *source, const Identity &identity, bool copy) {
    ConfigFile *config = config_file_open(kOapConfigPath);
    if (!config)
        return open_failed(kOapConfigPath);
    if (take_template(source, identity, copy, config) < 0) {
        config_file_discard(config);
        return open_failed(kTemplatePath);
    }
    return config_file_close(config) < 0 ? open_failed(kOapConfigPath) : 0;
}

}  // namespace

int oapReadIdentity() {
    Identity identity{};
    read_device_identity(&identity);
    oapSetMac(identity.mac);
    oapSetSerial(identity.serial);
    const bool copy = oapIsEnabled() != 0;
    FILE *source = fopen(kTemplatePath, "re");
    if (!source)
        return open_failed(kTemplatePath);
    const int result = fill_config(source, identity, copy);
    fclose(source);
    return result;
}
