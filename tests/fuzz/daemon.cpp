/* The whole daemon, from its start to its end, with a sequence of events of every kind in between. */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

#include "core/global.h"
#include "core/startup.h"
#include "core/supervision.h"
#include "oap/oap_config.h"
#include "platform/cmnutil.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"

using namespace fuzz;

namespace {

constexpr int kEventMax = 16;
constexpr uint32_t kTimer = 1;
constexpr const char *kHops[] = {":1:192.168.1.1}", ":1:192.168.1.2}", ":1:192.168.1.3}", ":2:map}", ":3:alpha}"};
constexpr const char *kNetworks[] = {"{10.1.0.0:255.255.0.0", "{10.2.0.0:255.255.0.0", "{0.0.0.0:0.0.0.0",
                                     "{10.3.3.0:255.255.255.0"};
constexpr const char *kMetrics[] = {"5", "7", "", "1200"};
constexpr const char *kTunnelFields[] = {"tunnel_name", "dst_mac",       "pair_uuid",      "tunnel_index",   "mapid",
                                         "tunnel_ip",   "mask",          "peer_tunnel_ip", "peer_public_ip", "flags",
                                         "vlan_id",     "link_priority", "tunnel_status"};
constexpr const char *kLevels[] = {"warn", "debug", "info", "", "error", "none"};
constexpr const char *kFiles[] = {"/tmp/vyr.conf",        "/tmp/vyr_log.conf",         "/tmp/vyr_app.conf",
                                  "/tmp/vyr_static.conf", "/tmp/vyr_oap.conf",         "/tmp/name",
                                  "/tmp/.vyrwrap_mrt",    "/tmp/vyr_config_dirty_flag"};

Input script;
std::string_view incoming; /**< what the next reads from a socket give */
unsigned listeners_given_up;
bool everything_worked; /**< no call was made to fail */
bool is_following;      /**< stored routes are all in the table, or will be with the next reading */

ssize_t read_incoming(int fd, void *buffer, size_t size) {
    (void)fd;
    const size_t length = incoming.size() < size ? incoming.size() : size;
    if (length > 0)
        memcpy(buffer, incoming.data(), length);
    incoming.remove_prefix(length);
    return static_cast<ssize_t>(length);
}

/* ---- what holds after each event ---- */

void check_inputs() {
    const VyrwrapGlobal &global = vyrwrap_global;
    for (unsigned i = 0; i < input_count; i++)
        HOLDS(is_open_socket(inputs[i].fd));
    const bool listens = global.event_listen_fd > 0 && find_input(global.event_listen_fd, DISP_READ);
    HOLDS(global.event_conn_fd <= 0 || find_input(global.event_conn_fd, DISP_READ));
    HOLDS(!listens || global.event_conn_fd <= 0);
    HOLDS(listens || global.event_listen_fd == 0 || global.event_conn_fd != 0);
}

void check_descriptors() {
    unsigned expected = listeners_given_up;
    for (const int fd : {vyrwrap_global.app_sock_fd, vyrwrap_global.ctl_sock_fd, vyrwrap_global.event_listen_fd,
                         vyrwrap_global.event_conn_fd})
        expected += fd > 0;
    HOLDS(descriptors_open() == expected);
}

size_t allocations_expected() {
    return (vyrwrap_global.static_routes.entries ? 1 : 0) + check_static_table() + check_tunnel_table();
}

void check_state() {
    const VyrwrapGlobal &global = vyrwrap_global;
    HOLDS(global.vyr_pid >= 0);
    HOLDS((global.vyr_exited | 1) == 1 && (global.config_dirty | 1) == 1 && (global.vyr_debug_on | 1) == 1);
    HOLDS(global.dal_lost <= 1 && global.default_route_changed <= 1);
    HOLDS(oapCfg_g.redist_vlan_count <= kRedistVlanMax && oapCfg_g.bEnable <= 1);
    HOLDS(timer_count == 1 && timers[0].periodic == 1);
    check_inputs();
    check_descriptors();
    HOLDS(allocations() == allocations_expected());
    HOLDS(files_open() == 0);
    HOLDS(!careful || !everything_worked || !file("/tmp/vyr_static.conf.new").data());
}

/* ---- the events ---- */

const char *route_key(uint8_t which) {
    const char *start = keep_text("/op/staticroute/", kNetworks[which & 3]);
    return keep_text(start, kHops[which / 4 % 5]);
}

void change_key(const char *key, const char *event) {
    if (!dal_fails)
        notify_key(key, event);
}

void set_route() {
    const char *key = route_key(take_byte(&script));
    store_set(key, kMetrics[take_byte(&script) & 3]);
    change_key(key, "set");
}

void delete_route() {
    const char *key = route_key(take_byte(&script));
    store_delete(key);
    change_key(key, "del");
}

void change_any_string() {
    constexpr const char *kFolders[] = {"/op/staticroute/", "/op/vlans/route", "/config/vyr/oap/", "/op/tunnel/"};
    const uint8_t bits = take_byte(&script);
    const char *key = keep_text(kFolders[bits & 3], take_text(&script));
    is_following = is_following && (bits & 3) != 0;
    store_set(key, take_text(&script));
    change_key(key, bits & 4 ? "del" : bits & 8 ? "expire" : "set");
}

void change_tunnel() {
    const uint8_t bits = take_byte(&script);
    const char *key = bits & 1 ? "/op/tunnel/1" : "/op/tunnel/2";
    if (bits & 2) {
        store_delete(key);
        return change_key(key, "del");
    }
    for (const char *field : kTunnelFields)
        store_hset(key, field, key + 11);
    if (bits & 4)
        store_hset(key, "mapid", bits & 8 ? "1" : "2");
    if (bits & 16)
        store_hset(key, "tunnel_name", "1");
    if (bits & 32)
        store_hset(key, kTunnelFields[take_byte(&script) % 13], take_text(&script));
    change_key(key, "hset");
}

void change_cluster() {
    const uint8_t bits = take_byte(&script);
    constexpr const char *kKey = "/op/clusters/alpha";
    if (bits & 1) {
        store_delete(kKey);
        return change_key(kKey, bits & 2 ? "hdel" : "del");
    }
    store_hset(kKey, "ddg_ip", bits & 2 ? "1" : "0.0.0.2");
    store_hset(kKey, "cluster_state", bits & 4 ? "1" : "0");
    store_hset(kKey, "node_num", bits & 8 ? "2" : "1");
    store_hset(kKey, "nodelist", take_bytes(&script, bits & 16 ? 48 : 24));
    change_key(kKey, "hset");
}

void change_setting() {
    const uint8_t bits = take_byte(&script);
    const char *level = kLevels[bits / 4 % 6];
    constexpr const char *kKeys[] = {"/op/vyr/logging/vyr_log_level", "/op/syslog/facility/network/level",
                                     "/config/vyr/oap/proto_oap_enable", "/op/vlans/route_redistributed_vlans"};
    const char *value = (bits & 3) == 2 ? (bits & 4 ? "\1" : "0") : (bits & 3) == 3 ? "{1:2:4095}" : level;
    store_set(kKeys[bits & 3], value);
    change_key(kKeys[bits & 3], bits & 128 ? "del" : "set");
}

void application_asks() {
    const uint8_t bits = take_byte(&script);
    const uint32_t request[4] = {0, 1U + (bits & 3) % 3 + (bits & 3) / 2 * 6, bits & 16 ? 7U : bits & 32 ? 4U : 1U, 6};
    char bytes[sizeof request];
    memcpy(bytes, request, sizeof request);
    incoming = bits & 128 ? take_bytes(&script, 64) : std::string_view(bytes, sizeof bytes);
    if (const Registered *input = find_input(vyrwrap_global.app_sock_fd, DISP_READ))
        input->handler(input->user_data);
}

void peer_comes() {
    accept_fails = take_byte(&script) == 255;
    const int listening = vyrwrap_global.event_listen_fd;
    if (const Registered *input = listening > 0 ? find_input(listening, DISP_READ) : nullptr)
        input->handler(input->user_data);
    if (listening > 0 && vyrwrap_global.event_listen_fd == 0)
        listeners_given_up++;
    accept_fails = false;
}

void peer_sends() {
    const int connection = vyrwrap_global.event_conn_fd;
    incoming = take_bytes(&script, take_byte(&script));
    if (const Registered *input = connection > 0 ? find_input(connection, DISP_READ) : nullptr)
        input->handler(input->user_data);
}

void export_is_asked_for() {
    const uint8_t bits = take_byte(&script);
    connect_fails = bits & 1;
    const char type[4] = {static_cast<char>(bits / 2 % 8), 0, 0, 0};
    incoming = take_bytes(&script, bits >> 4);
    publish("/ipc/event/vyrwrap/mrt", {type, sizeof type});
    connect_fails = false;
}

void child_ends() {
    const uint8_t bits = take_byte(&script);
    constexpr int kStatuses[] = {0, 100 << 8, 1 << 8, SIGKILL, SIGSEGV, 100 << 8, 0, 100 << 8};
    if (vyrwrap_global.vyr_pid > 0)
        ended[ended_count++] = {vyrwrap_global.vyr_pid, kStatuses[bits & 7]};
    if (bits & 8 && ended_count < 4)
        ended[ended_count++] = {77, 0};
    vyrwrap_sigchld_handler(SIGCHLD);
    HOLDS(ended_count == 0);
}

void store_goes_or_comes() {
    dal_fails = !dal_fails;
    if (!dal_fails)
        vyrwrap_dal_disconnect_cb();
}

void something_fails() {
    const uint8_t bits = take_byte(&script);
    everything_worked = false;
    is_following = false;
    next_pid = bits & 1 ? -1 : 4242;
    sendto_fails = bits & 2;
    failing_file_calls = bits >> 2 & 7;
    fail_allocation(bits & 32 ? bits >> 6 : -1);
    if (bits & 32 && bits >> 6 == 3)
        fail_allocation(take_byte(&script));
}

void flag_file_appears() {
    put_file("/tmp/vyr_config_dirty_flag", "");
}

void name_changes() {
    put_file("/tmp/name", take_bytes(&script, take_byte(&script) % 140));
}

void time_passes() {
    for (int ticks = take_byte(&script) % 14; ticks >= 0; ticks--)
        run_timer(kTimer);
}

void any_notification() {
    const char *channel = take_text(&script);
    publish(channel, take_bytes(&script, take_byte(&script)));
}

constexpr void (*kEvents[])() = {
    set_route,           set_route,        delete_route,      change_any_string, change_tunnel,       change_cluster,
    change_setting,      application_asks, peer_comes,        peer_sends,        export_is_asked_for, child_ends,
    store_goes_or_comes, something_fails,  flag_file_appears, name_changes,      time_passes,         any_notification,
};
constexpr size_t kEventCount = sizeof kEvents / sizeof kEvents[0];

/* ---- the run ---- */

/** Once everything works again and was read again, every route that the store holds is in the table. */
void check_following() {
    if (dal_fails)
        store_goes_or_comes();
    for (int ticks = 0; ticks < 3; ticks++)
        run_timer(kTimer);
    if (!is_following || !vyrwrap_global.dal_ctx)
        return;
    HOLDS(vyrwrap_global.dal_lost == 0);
    for (uint8_t which = 0; which < 20; which++) {
        const std::string_view *value = store_find(route_key(which), {});
        if (!value)
            continue;
        bool found = false;
        for (int i = 0; i < kMaxStaticRoutes; i++) {
            const StaticRouteEntry &entry = vyrwrap_global.static_routes.entries[i];
            constexpr uint32_t kDest[] = {0x0a010000, 0x0a020000, 0, 0x0a030300};
            found = found || (entry.in_use && entry.dest == kDest[which & 3] &&
                              static_cast<int>(entry.metric) == read_int(value->substr(0, 4)));
        }
        HOLDS(found);
    }
}

void run_events() {
    set_log_level(careful ? 7 : 2);
    if (everything_worked)
        check_state();
    for (int i = 0; i < kEventMax && script.left > 0; i++) {
        kEvents[take_byte(&script) % kEventCount]();
        check_state();
    }
    check_following();
    check_state();
}

void run_daemon() {
    vyrwrap_main();
    HOLDS(timer_count == 0 && input_count == 0);
    HOLDS(vyrwrap_global.vyr_pid == 0 || vyrwrap_global.vyr_exited || last_signal == SIGKILL);
    HOLDS(allocations() == allocations_expected());
}

void put_templates() {
    put_file("/etc/bird/vyr.conf", "include \"/tmp/vyr_static.conf\";\n");
    put_file("/etc/bird/vyr_oap.conf", "local mac \"SY:S-:MA:C-:AD:DR\";\nkeepalive 30;\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    script = begin_over_store(data, size);
    vyrwrap_global = {};
    oapCfg_g.bEnable = 0;
    oapCfg_g.redist_vlan_count = 0;
    const uint8_t bits = take_byte(&script);
    real_files = thorough;
    if (real_files)
        for (const char *path : kFiles)
            remove_file(path);
    put_templates();
    on_renamed = check_renamed;
    on_datagram = check_datagram;
    on_process = run_events;
    on_read = read_incoming;
    incoming = {};
    listeners_given_up = 0;
    everything_worked = bits < 192;
    is_following = everything_worked;
    if (!everything_worked)
        fail_allocation(bits - 192);
    const int status = run_until_exit(run_daemon);
    if (status >= 0) {
        HOLDS(status == 5 || status == 12 || status == SIGKILL || status == SIGSEGV);
        free_allocations();
    }
    if (listeners_given_up > 0)
        close_given_up_sockets();
    end(allocations());
    return 0;
}
