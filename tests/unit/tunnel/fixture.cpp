#include "tunnel/fixture.h"

#include <stdio.h>
#include <unistd.h>

#include "rpapp/link.h"
#include "tunnel/tunnel_table.h"

namespace {

/** Tables are never destroyed: those of earlier tests stay here, still there when leaks are looked for at the very end.
 */
std::vector<HashTable *> &earlier_tables = *new std::vector<HashTable *>;

}  // namespace

Fields tunnel_fields(const std::string &name, uint32_t mapid, int status) {
    return {{"tunnel_name", name},
            {"dst_mac", "00:1b:2c:3d:4e:5f"},
            {"pair_uuid", "6f1c2a7e-uuid"},
            {"tunnel_index", "-7"},
            {"mapid", std::to_string(mapid)},
            {"tunnel_ip", "10.1.2.3"},
            {"mask", "255.255.255.252"},
            {"peer_tunnel_ip", "10.1.2.4"},
            {"peer_public_ip", "192.0.2.9"},
            {"flags", "66"},
            {"vlan_id", "4094"},
            {"link_priority", "200"},
            {"tunnel_status", std::to_string(status)}};
}

std::string summary_of(const std::string &record) {
    return std::to_string(fake::word_at(record, 12)) + " " + record.substr(16, 200).c_str();
}

void TunnelTest::SetUp() {
    fake::Test::SetUp();
    vyrwrap_global.app_sock_fd = vyrwrap_app_socket_connect();
    ASSERT_GE(vyrwrap_global.app_sock_fd, 0);
    vyrwrap_ipsec_tunnel_info_init();
    fake::log_lines.clear();
}

void TunnelTest::TearDown() {
    close(vyrwrap_global.app_sock_fd);
    leave_table();
    fake::Test::TearDown();
}

void TunnelTest::leave_table() {
    earlier_tables.push_back(vyrwrap_global.tunnel_table);
    vyrwrap_global.tunnel_table = nullptr;
}

void TunnelTest::hset(const std::string &name, uint32_t mapid, int status) {
    put(name, mapid, status);
    notify(name, "hset");
}

void TunnelTest::notify(const std::string &name, const std::string &event) {
    const fake::Reply reply({"pmessage", "__keyspace@0__:/op/tunnel/*", "__keyspace@0__:/op/tunnel/" + name, event});
    vyrwrap_ipsec_tuns_subs_callback(fake::context(), reply.get(), nullptr);
}

Texts TunnelTest::received() {
    Texts summaries;
    for (const std::string &datagram : app_.receive())
        for (size_t offset = 0; offset < datagram.size(); offset += 348)
            summaries.push_back(summary_of(datagram.substr(offset, 348)));
    return summaries;
}

std::string TunnelTest::pointer_text(const void *pointer) {
    char text[32];
    snprintf(text, sizeof text, "%p", pointer);
    return text;
}
