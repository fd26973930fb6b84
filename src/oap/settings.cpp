/* The settings record, its defaults and its setters. */
#include "core/text.h"
#include "oap/oap_config.h"

OapCfg oapCfg_g;

namespace {

template <size_t Size>
void set_text(char (&field)[Size], const char *text) {
    if (text)
        copy_text(field, Size, text);
}

}  // namespace

void oapSetMac(const char *mac) {
    set_text(oapCfg_g.mac, mac);
}

void oapSetSerial(const char *serial) {
    set_text(oapCfg_g.serial, serial);
}

void oapSetSiteId(const char *site_id) {
    set_text(oapCfg_g.site_id, site_id);
}

void oapSetTenantId(const char *tenant_id) {
    set_text(oapCfg_g.tenant_id, tenant_id);
}

void oapSetKeepalive(uint32_t keepalive) {
    oapCfg_g.keepalive = keepalive;
}

void oapSetCbsReconnectTimeout(uint32_t timeout) {
    oapCfg_g.cbs_reconnect_timeout = timeout;
}

uint8_t oapIsEnabled() {
    return oapCfg_g.bEnable;
}

int oapInitConfig() {
    oapCfg_g.distance = kOapDefaultDistance;
    oapCfg_g.agg_prefix_len = 0;
    oapCfg_g.local_as = 0;
    return vyrwrap_oap_config_init();
}
