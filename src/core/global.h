/*
 * The daemon's one global context record.
 *
 * One thread reads and writes it directly. Only the SIGCHLD handler touches it asynchronously, and the Dispatcher lets
 * that through between two handlers only.
 */
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "platform/cmnutil.h"
#include "platform/dal.h"
#include "platform/dispatcher.h"
#include "staticroute/table.h"

/** The daemon's module in the logging library. */
inline constexpr int kVyrwrapModule = 416;

/** The routing daemon's files that are written again and again, as bits. */
inline constexpr uint32_t kStaticRoutesFile = 1;
inline constexpr uint32_t kOverlayFile = 2;
inline constexpr uint32_t kLogLevelFile = 4;

struct VyrwrapGlobal {
    uint32_t static_route_count;   /**< next hops in the static route table, by the counting rules of apply.cpp */
    uint8_t default_route_changed; /**< a default route was applied: the timer reloads at once */
    char cur_dest_str[32];         /**< destination of the route being applied, for messages */
    char cur_nexthop_str[512];     /**< next hop of the route being applied, for messages */
    HashTable *tunnel_table;       /**< tunnel name to vpninfo */
    int app_sock_fd;               /**< routing-application socket; negative when it could not be opened */
    Dispatcher *dispatcher;
    pid_t vyr_pid;       /**< the routing daemon child, 0 when none; never negative */
    int vyr_exited;      /**< 1 after the SIGCHLD handler reaped the child; the timer clears it */
    int vyr_term_signal; /**< signal that killed the child, else 0 */
    int vyr_debug_on;    /**< 1 while the routing daemon's debug logging is on */
    int config_dirty;    /**< 1 when the routing daemon must read its configuration again */
    int ctl_sock_fd;     /**< routing daemon's control socket, 0 when unconnected */
    int event_listen_fd; /**< event socket, 0 when none */
    int event_conn_fd;   /**< its one accepted connection, 0 when none */
    struct dal_ctx *dal_ctx;
    uint8_t dal_lost;         /**< the DAL was lost: the timer subscribes everything again */
    uint32_t timer_ticks;     /**< runs of the periodic timer that got that far */
    uint32_t vlan_ip_retries; /**< child exits with status 100 */
    StaticRouteTable static_routes;
    uint32_t dirty_wait_ticks;  /**< timer runs since config_dirty was last raised */
    uint32_t dirty_total_ticks; /**< timer runs with a reload pending, whatever came in between */
    uint32_t unwritten_files;   /**< those that could not be written: the timer tries again */
};

/** Zero at start. */
extern VyrwrapGlobal vyrwrap_global;

/** A file of the routing daemon's has changed: raises config_dirty and begins the quiet period anew. */
void vyrwrap_mark_config_dirty(const char *function);

/** An attempt to write one of the files has gone well or not. Leaves errno alone. */
void vyrwrap_note_file_written(uint32_t file, bool written);
