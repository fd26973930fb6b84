/*
 * Tunnel messages to the routing application, one by one and as a replay of all.
 */
#pragma once

#include "rpapp/message.h"
#include "tunnel/tunnel_record.h"

/** Opcode of a tunnel that is new to the routing application. */
uint32_t vyrwrap_tunnel_added_opcode(const vpninfo *record);

/** Clears and fills `message`. Returns 0, or -1 when an argument is null. */
int vyrwrap_prep_tunnel_msg_for_vyr(const vpninfo *record, uint32_t opcode, RoutingAppMsg *message);

/** Fills all of `iface` but its opcode and the reserved bytes. */
void vyrwrap_copy_tunnel_to_vyr(const vpninfo *record, ipsec_Iface *iface);

/** Sends one message. Returns a non-negative value, or -1 on any failure. */
int vyrwrap_send_tunnel_msg_to_vyr(const vpninfo *record, uint32_t opcode);

/** Subscribes, reads every tunnel from the DAL and sends all of the table in one datagram. Returns 0. */
int vyrwrap_handle_ipsec_replayall(const char *last_name, int max_count);

/** Reads every tunnel into the table. What cannot be read is logged and left out. */
void vyrwrap_read_all_tunnels_from_dal();

/** Sends the whole table as one datagram, nothing when it holds more than `max_count` tunnels. */
void vyrwrap_send_all_tunnels_to_vyr(int max_count);
