/* The overlay file, rendered whole from the settings each time. */
#include <stdio.h>

#include <algorithm>

#include "core/config_file.h"
#include "core/global.h"
#include "core/log.h"
#include "oap/oap_config.h"

namespace {

constexpr size_t kSuffixSize = 64;
constexpr unsigned kBridgeVlan = 4095;
constexpr uint32_t kPreferenceBase = 256;

bool is_set(const char *text) {
    return text && *text;
}

/** The separator goes by the position: a list that ends in 0 ends in a comma. */
void put_vlan_list(ConfigFile *file) {
    config_file_put(file, "function oap_vlan_accept() {\n");
    config_file_put(file, "\treturn (ifvlan ~ [");
    const uint32_t count = std::min(oapCfg_g.redist_vlan_count, kRedistVlanMax);
    for (uint32_t i = 0; i < count; i++)
        if (oapCfg_g.redist_vlans[i] != 0)
            config_file_printf(file, "%u%s", oapCfg_g.redist_vlans[i], i + 1 < count ? "," : "");
    config_file_put(file, "]);\n");
    config_file_put(file, "}\n");
}

void put_functions(ConfigFile *file) {
    config_file_put(file, "function oap_vrrp_accept() {\n");
    config_file_put(file, "\t return true;\n");
    config_file_put(file, "}\n");
    if (oapCfg_g.redist_vlan_count != 0)
        put_vlan_list(file);
}

void put_static_rule(ConfigFile *file) {
    if (is_set(oapCfg_g.static_rmap))
        config_file_printf(file, "\t if ((source = %s) && (oap_vrrp_accept()) && (rmap_%s(3))%s) then accept;\n",
                           "RTS_STATIC", oapCfg_g.static_rmap, "");
    else
        config_file_printf(file, "\t if ((source = %s) && (oap_vrrp_accept())%s) then accept;\n", "RTS_STATIC", "");
}

void put_vlan_rule(ConfigFile *file) {
    char suffix[kSuffixSize] = "";
    if (is_set(oapCfg_g.vlan_rmap))
        snprintf(suffix, sizeof suffix, " && (rmap_%s(3))", oapCfg_g.vlan_rmap);
    config_file_printf(file, "\t if ((source = %s) && (oap_vrrp_accept()) && (oap_vlan_accept())%s) then accept;\n",
                       "RTS_DEVICE", suffix);
}

void put_filter(ConfigFile *file) {
    config_file_put(file, "filter oap_export_filter {\n");
    config_file_put(file, "\t if scope = SCOPE_HOST then reject;\n");
    if (oapCfg_g.bRedistStatic)
        put_static_rule(file);
    if (oapCfg_g.bRedistBr0)
        config_file_printf(file, "\t if source = RTS_DEVICE && ifname = \"br0.%u\" then accept;\n", kBridgeVlan);
    config_file_put(file, "\t if ((source = RTS_DEVICE) && (ifname ~ \"tun*\")) then accept;\n");
    if (oapCfg_g.redist_vlan_count != 0)
        put_vlan_rule(file);
    config_file_put(file, "\t reject;\n");
    config_file_put(file, "}\n");
}

void put_identity(ConfigFile *file) {
    if (is_set(oapCfg_g.mac))
        config_file_printf(file, "\t local mac \"%s\";\n", oapCfg_g.mac);
    if (is_set(oapCfg_g.serial))
        config_file_printf(file, "\t local serial \"%s\";\n", oapCfg_g.serial);
    const char *site_id = is_set(oapCfg_g.site_id) ? oapCfg_g.site_id : oapCfg_g.mac;
    if (is_set(site_id))
        config_file_printf(file, "\t local site id \"%s\";\n", site_id);
    if (is_set(oapCfg_g.tenant_id))
        config_file_printf(file, "\t local tenant id \"%s\";\n", oapCfg_g.tenant_id);
}

void put_numbers(ConfigFile *file) {
    if (oapCfg_g.keepalive != 0)
        config_file_printf(file, "\t keepalive %u;\n", oapCfg_g.keepalive);
    if (oapCfg_g.cbs_reconnect_timeout != 0)
        config_file_printf(file, "\t cbs_reconnect_timeout %u;\n", oapCfg_g.cbs_reconnect_timeout);
    if (oapCfg_g.local_as != 0)
        config_file_printf(file, "\t local as %u;\n", oapCfg_g.local_as);
    if (oapCfg_g.route_resolve_timeout != 0)
        config_file_printf(file, "\t route_resolve_timeout %u;\n", oapCfg_g.route_resolve_timeout);
    if (oapCfg_g.route_resolve_count != 0)
        config_file_printf(file, "\t route_resolve_count %u;\n", oapCfg_g.route_resolve_count);
}

void put_aggregation(ConfigFile *file) {
    if (oapCfg_g.bAggEnable)
        config_file_put(file, "\t agg_enable yes;\n");
    if (oapCfg_g.agg_prefix_len != 0)
        config_file_printf(file, "\t agg_prefix_len %u;\n", oapCfg_g.agg_prefix_len);
    if (oapCfg_g.bAutoAggrStatic)
        config_file_put(file, "\t autoaggr_static_routes yes;\n");
    if (oapCfg_g.bAutoAggrDirect)
        config_file_put(file, "\t autoaggr_direct_routes yes;\n");
}

void put_channel(ConfigFile *file) {
    config_file_put(file, "\t ipv4 {\n");
    config_file_put(file, "\t\t import all;\n");
    if (oapCfg_g.distance != kOapDefaultDistance)
        config_file_printf(file, "\t\t preference %u;\n", kPreferenceBase - oapCfg_g.distance);
    config_file_put(file, "\t\t export filter oap_export_filter;\n");
    config_file_put(file, "\t };\n");
}

void put_protocol(ConfigFile *file) {
    config_file_put(file, "protocol oap {\n");
    if (oapCfg_g.bDebug)
        config_file_put(file, "\tdebug all;\n");
    config_file_put(file, "\t master 127.0.0.1 port 50050;\n");
    config_file_put(file, "\t local tunnel \"tsgw\";\n");
    put_identity(file);
    put_numbers(file);
    put_aggregation(file);
    put_channel(file);
    config_file_put(file, "}\n");
}

}  // namespace

int oapWriteConfig() {
    ConfigFile *file = config_file_open(kOapConfigPath);
    if (file && oapCfg_g.bEnable) {
        put_functions(file);
        put_filter(file);
        put_protocol(file);
    }
    const bool written = file && config_file_close(file) == 0;
    vyrwrap_note_file_written(kOverlayFile, written);
    if (!written) {
        log_error("<OAPCLI>: failed to create config file");
        return -1;
    }
    vyrwrap_mark_config_dirty(__func__);
    return 0;
}
