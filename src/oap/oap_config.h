/*
 * The overlay protocol's settings, its file "/tmp/vyr_oap.conf", and the DAL keys that they follow.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/dal.h"

inline constexpr char kOapConfigPath[] = "/tmp/vyr_oap.conf";
inline constexpr uint32_t kRedistVlanMax = 4096;
inline constexpr uint32_t kOapDefaultDistance = 90; /**< writes no preference */

/** The overlay settings. */
struct OapCfg {
    uint8_t bEnable; /**< the overlay protocol is on */
    char mac[19];
    char serial[33];
    char site_id[65];
    char tenant_id[65];
    uint32_t keepalive; /**< this and the following: 0 is not written */
    uint32_t cbs_reconnect_timeout;
    uint32_t local_as;
    uint32_t route_resolve_timeout;
    uint32_t route_resolve_count;
    uint8_t bRedistBr0;         /**< accept connected routes of br0.4095 */
    uint8_t bRedistStatic;      /**< accept static routes */
    uint32_t redist_vlan_count; /**< used entries of redist_vlans */
    uint32_t redist_vlans[kRedistVlanMax];
    uint8_t bAggEnable;
    uint32_t agg_prefix_len; /**< 0 is not written */
    uint32_t distance;       /**< preference is 256 minus this; 90 writes none */
    const char *static_rmap; /**< route map of the static rule, NULL for none; not owned */
    const char *vlan_rmap;   /**< route map of the VLAN rule, NULL for none; not owned */
    uint8_t bAutoAggrStatic;
    uint8_t bAutoAggrDirect;
    uint8_t bDebug;
};

/** Zero at start. */
extern OapCfg oapCfg_g;

/* Texts are cut to their fields; NULL changes nothing. */
void oapSetMac(const char *mac);
void oapSetSerial(const char *serial);
void oapSetSiteId(const char *site_id);
void oapSetTenantId(const char *tenant_id);
void oapSetKeepalive(uint32_t keepalive);
void oapSetCbsReconnectTimeout(uint32_t timeout);
uint8_t oapIsEnabled();

/**
 * Takes identity and settings from the device and from the template "/etc/bird/vyr_oap.conf", and writes a first
 * overlay file: the template filled in while the overlay is on, else nothing. Returns 0, or -1 when a file cannot be
 * opened; it has been logged.
 */
int oapReadIdentity();

/** Sets the defaults and runs vyrwrap_oap_config_init, whose result it returns. */
int oapInitConfig();

/** Writes "/tmp/vyr_oap.conf" from oapCfg_g and marks the configuration dirty. Returns 0, or -1 without either. */
int oapWriteConfig();

/** Subscribes, reads the enable key and writes the file. Returns oapWriteConfig's result. */
int vyrwrap_oap_config_init();

/** Subscribes to the overlay's keys. Returns dal_sub_command's result. */
int vyrwrap_oap_config_dal_init();

void vyrwrap_vyr_cfg_subscribe_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Takes key (cut to its buffer) and notification type out of a notification. Returns 0 or -1. */
int extract_dal_published_vyr_config_key(const dal_reply *reply, char *key_out, size_t key_size, int *action_out);

/** The byte behind the enable key, 0 when it is missing or unreadable. */
uint8_t read_vyr_oap_enable_cfg_from_dal(const char *key);

/** Rebuilds the redistributed-VLAN list from the key's value. Returns 0, or -1 with the list empty (as it was when the
 * key is NULL). */
int vyrwrap_update_redistvlan_oap_config_from_key(const char *key);

/** Updates the list from the key behind the channel's first colon when `flag` is 1; always writes the file. */
int vyrwrap_oap_redistvlan_notify(const char *channel, int flag);
