/* Clusters in the DAL, tunnels in the table, and the bytes that should come of them. */
#pragma once

#include <errno.h>
#include <string.h>

#include "cluster/cluster_notify.h"
#include "fakes/allocations.h"
#include "fakes/fakes.h"
#include "fakes/routing_app.h"
#include "platform/cmnutil.h"
#include "tunnel/tunnel_record.h"

using Texts = std::vector<std::string>;

/** A node as its 24 bytes. */
inline std::string node(uint16_t family, const std::string &reserved, const std::string &address, uint32_t flags) {
    std::string bytes(reinterpret_cast<const char *>(&family), sizeof family);
    bytes += reserved + address;
    bytes.resize(20, '\0');
    return bytes + fake::word(flags);
}

/** An IPv4 node as the DAL holds it, and as it is sent. */
inline std::string ipv4_node(const std::string &network_order, uint32_t flags = 0) {
    return node(2, std::string(2, '\0'), network_order, flags);
}
inline std::string sent_node(const std::string &network_order, uint32_t flags = 0) {
    return ipv4_node(std::string(network_order.rbegin(), network_order.rend()), flags);
}

/** Text in a field of a size, NUL-padded. */
inline std::string padded(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}

class ClusterTest : public fake::RoutingAppTest {
protected:
    void TearDown() override {
        while (auto *tunnel = static_cast<vpninfo *>(HashGet(table(), HASH_FIRST))) {
            HashStringRemove(table(), tunnel->tunnel_name);
            free(tunnel);
        }
        fake::RoutingAppTest::TearDown();
    }

    static void set_cluster(const std::string &name, const std::string &ddg_ip, const std::string &state,
                            const std::string &node_num, const std::string &nodelist) {
        fake::hashes["/op/clusters/" + name] = {
            {"ddg_ip", ddg_ip}, {"cluster_state", state}, {"node_num", node_num}, {"nodelist", nodelist}};
    }

    /** A cluster with `count` nodes 10.0.0.1, 10.0.0.2, ... whose flags are their number. */
    static void set_cluster(const std::string &name, const std::string &ddg_ip, const std::string &state, int count) {
        set_cluster(name, ddg_ip, state, std::to_string(count), nodes(count, ipv4_node));
    }

    static std::string nodes(int count, std::string (*one)(const std::string &, uint32_t)) {
        std::string bytes;
        for (int i = 1; i <= count; i++)
            bytes += one(std::string("\x0a\x00\x00", 3) + static_cast<char>(i), static_cast<uint32_t>(i));
        return bytes;
    }

    /** The one table of all tests, emptied after each: the platform destroys none. */
    static HashTable *table() {
        static HashTable *the_table = _HashCreate(23);
        return the_table;
    }

    static void add_tunnel(const std::string &name, uint32_t peer_tunnel_ip, const std::string &mac) {
        const fake::OwnAllocations own;
        vyrwrap_global.tunnel_table = table();
        auto *tunnel = static_cast<vpninfo *>(calloc(1, sizeof(vpninfo)));
        strcpy(tunnel->tunnel_name, name.c_str());
        tunnel->peer_tunnel_ip = peer_tunnel_ip;
        memcpy(tunnel->dst_mac, mac.data(), mac.size());
        HashStringInsertKeyAndValue(table(), name.c_str(), tunnel);
    }

    /** The whole message of a cluster with `count` nodes as set_cluster makes them. */
    static std::string message(uint32_t opcode, const std::string &name, uint32_t ddg_ip, uint8_t state,
                               const std::string &mac, int count) {
        const std::string bytes = fake::word(0) + fake::word(9) + fake::word(opcode) + padded(name, 128) +
                                  fake::word(ddg_ip) + static_cast<char>(state) + padded(mac, 18) +
                                  static_cast<char>(count) + nodes(count, sent_node);
        return padded(bytes, 348 + 24 * static_cast<size_t>(count));
    }
};
