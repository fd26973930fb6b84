/* The VLANs whose connected routes the overlay exports. All messages go out at error level. */
#include <string.h>

#include <algorithm>
#include <iterator>

#include "core/global.h"
#include "core/log.h"
#include "core/parse.h"
#include "core/vlan_id.h"
#include "oap/oap_config.h"

namespace {

constexpr size_t kValueMax = 20000;
constexpr size_t kIdLengthMax = 11;
constexpr int kInvalidVlanLine = 179; /**< belongs to the message */

void clear_list() {
    oapCfg_g.redist_vlan_count = 0;
    std::fill(std::begin(oapCfg_g.redist_vlans), std::end(oapCfg_g.redist_vlans), 0U);
}

/** An id; the character at `end` is a separator, so that the number ends there. */
bool read_vlan(const char *text, const char *end, int *vlan) {
    *vlan = parse_int(text);
    return static_cast<size_t>(end - text) <= kIdLengthMax && is_valid_vlan_id(*vlan);
}

/** Appends the ids behind `separator`, each up to the next colon or, behind the last colon, up to the next brace. */
void append_vlans(const char *separator, const char *function) {
    uint32_t surplus = 0;
    while (true) {
        const char *text = separator + 1;
        separator = strchr(text, ':');
        if (!separator)
            separator = strchr(text, '}');
        if (!separator)
            break;
        int vlan = 0;
        if (!read_vlan(text, separator, &vlan))
            log_error("<VYRWRAP>: %s: %d: Invalid vlan %u", function, kInvalidVlanLine, static_cast<unsigned>(vlan));
        else if (oapCfg_g.redist_vlan_count < kRedistVlanMax)
            oapCfg_g.redist_vlans[oapCfg_g.redist_vlan_count++] = static_cast<uint32_t>(vlan);
        else
            surplus++;
    }
    if (surplus > 0)
        log_error("<VYRWRAP>: %s: %u vlans beyond the first %u left out", function, surplus, kRedistVlanMax);
}

}  // namespace

int vyrwrap_update_redistvlan_oap_config_from_key(const char *key) {
    if (!key)
        return -1;
    clear_list();
    const auto key_length = static_cast<uint32_t>(strlen(key));
    int exists = 0;
    if (dal_is_key_exist(vyrwrap_global.dal_ctx, key, key_length, &exists) < 0 || !exists) {
        log_error("<VYRWRAP>: %s: path %s doesn't exist in DAL", __func__, key);
        return -1;
    }
    char value[kValueMax + 1] = {};
    uint32_t length = kValueMax;
    if (dal_get(vyrwrap_global.dal_ctx, key, key_length, value, &length) < 0) {
        log_error("<VYRWRAP>: %s: Error reading DAL key %s", __func__, key);
        return -1;
    }
    log_error("<VYRWRAP>: %s: DAL key: %s, value read: %s, value length %d", __func__, key, value,
              static_cast<int>(length));
    if (strncmp(value, "{}", length) == 0) {
        log_error("<VYRWRAP>: %s: path %s, No vlans configured", __func__, key);
        return 0;
    }
    const char *brace = strchr(value, '{');
    if (!brace) {
        log_error("<VYRWRAP>: Error in Path, no '{' symbol");
        return -1;
    }
    append_vlans(brace, __func__);
    return 0;
}

int vyrwrap_oap_redistvlan_notify(const char *channel, int flag) {
    if (flag == 1) {
        const char *colon = channel ? strchr(channel, ':') : nullptr;
        vyrwrap_update_redistvlan_oap_config_from_key(colon ? colon + 1 : nullptr);
    }
    return oapWriteConfig();
}
