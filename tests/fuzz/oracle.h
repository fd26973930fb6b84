/*
 * What the doors compare the daemon's results with, written from the formats' descriptions and not from its code.
 */
#pragma once

#include <stdint.h>

#include <string_view>

namespace fuzz {

/** An IPv4 address in one to four decimal, octal or hexadecimal parts; white space and anything may follow it. */
bool read_ipv4(std::string_view text, uint32_t *ip);

/** Its value, 0 for what is no address. */
uint32_t ipv4_or_0(std::string_view text);

/** The number that a text begins with, behind white space and a sign; cut to what an int holds; 0 without digits. */
int read_int(std::string_view text);

/** A whole datagram to the routing application: sizes, families, opcodes and padding. */
void check_datagram(const uint8_t *bytes, size_t size);

/** Notes of the last datagram checked. */
extern uint32_t last_opcode;
extern uint8_t last_datagram[70000];
extern size_t last_datagram_size;

/** The static route table is in order and is what the file says; the names in use are counted. */
size_t check_static_table();
void check_static_file(std::string_view content);

/** A table of routes for vyrwrap_global, emptied. It is no allocation. */
void use_static_table();

/** The tunnel table is in order. Returns the allocations that it stands for. */
size_t check_tunnel_table();

/** A file of the daemon's was put in its place: checks those that are known here. */
void check_renamed(const char *path, std::string_view content);

}  // namespace fuzz
