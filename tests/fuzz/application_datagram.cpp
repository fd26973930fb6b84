/* Datagrams of the routing application: only its requests for a replay are answered. */
#include <errno.h>
#include <string.h>

#include "core/global.h"
#include "rpapp/link.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "tunnel/tunnel_table.h"

using namespace fuzz;

namespace {

constexpr int kDatagramMax = 4;
constexpr size_t kDatagramMost = 1024;

std::string_view datagram;

ssize_t receive(int, void *buffer, size_t size) {
    HOLDS(size == kDatagramMost);
    const size_t length = datagram.size() < size ? datagram.size() : size;
    memcpy(buffer, datagram.data(), length);
    return static_cast<ssize_t>(length);
}

ssize_t refuse(int, void *, size_t) {
    errno = EAGAIN;
    return -1;
}

/** A word of a datagram, which is as if zeros stood behind it. */
uint32_t word_at(size_t offset) {
    uint32_t word = 0;
    for (size_t i = 0; i < sizeof word; i++)
        if (offset + i < datagram.size())
            word |= static_cast<uint32_t>(static_cast<uint8_t>(datagram[offset + i])) << (8 * i);
    return word;
}

enum Kind { KIND_NONE, KIND_VLANS, KIND_TUNNELS, KIND_CLUSTERS };

Kind kind_of_request() {
    switch (word_at(4)) {
        case 1:
            return word_at(8) == 7 ? KIND_VLANS : KIND_NONE;
        case 2:
            return word_at(8) == 1 && word_at(12) == 6 ? KIND_TUNNELS : KIND_NONE;
        case 9:
            return word_at(8) == 4 ? KIND_CLUSTERS : KIND_NONE;
        default:
            return KIND_NONE;
    }
}

void fill_store(uint8_t bits) {
    if (bits & 1)
        store_set("/op/vlans/route{10.1.2.3:255.255.255.0:12}", "1");
    for (const char *field : {"tunnel_name", "dst_mac", "pair_uuid", "tunnel_index", "mapid", "tunnel_ip", "mask",
                              "peer_tunnel_ip", "peer_public_ip", "flags", "vlan_id", "link_priority", "tunnel_status"})
        if (bits & 2)
            store_hset("/op/tunnel/1", field, "1");
    if (!(bits & 4))
        return;
    store_hset("/op/clusters/alpha", "ddg_ip", "1");
    store_hset("/op/clusters/alpha", "cluster_state", "1");
    store_hset("/op/clusters/alpha", "node_num", "1");
    store_hset("/op/clusters/alpha", "nodelist", "nodenodenodenodenodenode");
}

void check_datagram_of(Kind kind, uint8_t bits, bool has_tunnel) {
    const unsigned before = datagram_count;
    const unsigned calls = dal_call_count;
    HOLDS(vyrwrap_app_server_read_msg(nullptr) == 0);
    const bool sends = (kind == KIND_VLANS && (bits & 1)) || (kind == KIND_TUNNELS && has_tunnel) ||
                       (kind == KIND_CLUSTERS && (bits & 4) && has_tunnel);
    HOLDS(datagram_count == before + (sends ? 1 : 0));
    HOLDS((dal_call_count > calls) == (kind != KIND_NONE));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input = begin_with_application(data, size);
    vyrwrap_ipsec_tunnel_info_init();
    const uint8_t bits = take_byte(&input);
    fill_store(bits);
    bool has_tunnel = false;
    for (int i = 0; i < kDatagramMax && input.left > 0; i++) {
        const auto length = static_cast<size_t>(take_byte(&input)) * 8;
        datagram = take_bytes(&input, length);
        on_read = receive;
        const Kind kind = kind_of_request();
        has_tunnel = has_tunnel || (kind == KIND_TUNNELS && (bits & 2));
        check_datagram_of(kind, bits, has_tunnel);
    }
    on_read = refuse;
    HOLDS(vyrwrap_app_server_read_msg(nullptr) == -1);
    end(check_tunnel_table());
    return 0;
}
