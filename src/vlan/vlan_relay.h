/*
 * VLAN interfaces relayed to the routing application; the redistributed VLANs handed to the overlay.
 */
#pragma once

#include "platform/dal.h"
#include "rpapp/message.h"

/** Subscribes to the VLAN keys and sends every VLAN that stands in the DAL. */
void vyrwrap_handle_VlanIfaceInfo_replayall();

/** Returns dal_sub_command's result. */
int vyrwrap_VlanIfaceInfo_subscribe();

void vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();

void vyrwrap_VlanIfaceInfo_subs_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Read the VLAN that a channel, or a key, spells. Return 0 or -1. */
int vyrwrap_read_vlan_interface_info_from_notify_key(const char *channel, uint32_t opcode, vlan_Iface *record_out);
int vyrwrap_read_vlan_interface_info_from_path(const char *path, uint32_t opcode, vlan_Iface *record_out);

void vyrwrap_send_VlanIfaceInfo_to_vyr(const vlan_Iface *record);

/** Callback for the redistributed-VLAN key. */
void vyrwrap_RouteRedistVlans_subs_callback(dal_ctx *ctx, const dal_reply *reply, void *arg);

/** Brings the redistributed VLANs into the overlay file. Returns oapWriteConfig's result. */
int vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal();
