/*
 * The tunnel table and the notifications that keep it.
 */
#pragma once

#include "core/owned.h"
#include "platform/dal.h"
#include "tunnel/tunnel_record.h"

/** Creates the table (vyrwrap_global.tunnel_table) if there is none yet. */
void vyrwrap_ipsec_tunnel_info_init();

/** The record under the name of a key; NULL when there is none. */
vpninfo *vyrwrap_find_tunnel(const char *name);

/** The first record, in the table's order, with that mapid; NULL when there is none. */
vpninfo *vyrwrap_find_tunnel_by_mapid(uint32_t mapid);

/** Puts a record under the name of its key, in place of any other. Returns it, or NULL (it is freed) without memory. */
vpninfo *vyrwrap_insert_tunnel(const char *name, Owned<vpninfo> record);

/** Subscribes to the tunnel keys. */
void vyrwrap_tunnel_info_subscribe();

/** Handles one notification on a tunnel key. */
void vyrwrap_ipsec_tuns_subs_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Takes name and notification type out of a notification; `name_out` holds 201 bytes. Returns 0 or -1. */
int extract_ipsec_tun_name_from_dal_notif(const dal_reply *reply, char *name_out, int *action_out);

void vyrwrap_handle_dal_ipsec_tunnel_notify_hset(const char *name);
void vyrwrap_handle_dal_ipsec_tunnel_notify_del(const char *name);

/** Tells the routing application, then takes the record out of the table and frees it. Returns 0, or -1 when it stays.
 */
int vyrwrap_delete_ipsec_tunnel(vpninfo *record);
