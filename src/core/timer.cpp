#include "core/timer.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cluster/cluster_notify.h"
#include "core/config_file.h"
#include "core/global.h"
#include "core/log.h"
#include "core/supervision.h"
#include "logctl/vyr_log_level.h"
#include "oap/oap_config.h"
#include "platform/korvalog.h"
#include "staticroute/static_config.h"
#include "staticroute/subscription.h"
#include "tunnel/tunnel_table.h"
#include "vyrsock/control_client.h"

namespace {

constexpr char kDirtyFlagPath[] = "/tmp/vyr_config_dirty_flag";
constexpr char kLogConfigPath[] = "/tmp/vyr_log.conf";

constexpr char kDebugOnCommand[] = "vyrc debug all all";
constexpr char kDebugOffCommand[] = "vyrc debug all off";

constexpr int kDebugComponent = 400;       /**< the routing component, as isDbgLvlEnabled knows it */
constexpr uint32_t kQuietTicks = 1;        /**< a change waits for more runs than these without another */
constexpr uint32_t kLongestWaitTicks = 11; /**< but never for more than these in all */
constexpr uint32_t kDalCheckTicks = 12;    /**< once a minute */
constexpr int kExitStatusVyrEnded = 5;     /**< own exit status when no signal killed the routing daemon */

/** A disk that was full, a directory in a file's place: nobody tells when it is over. */
void write_unwritten_files() {
    // the first one may run the timer's handler: what is still unwritten is looked at afresh each time
    if (vyrwrap_global.unwritten_files & kStaticRoutesFile)
        write_static_config(&vyrwrap_global.static_routes);
    if (vyrwrap_global.unwritten_files & kOverlayFile)
        oapWriteConfig();
    if (vyrwrap_global.unwritten_files & kLogLevelFile)
        vyrwrap_write_vyr_log_level();
}

void take_external_dirty_flag() {
    if (access(kDirtyFlagPath, F_OK) != 0)
        return;
    vyrwrap_mark_config_dirty("vyrwrap_mytimer");
    remove(kDirtyFlagPath);
}

/** The log file of a debugging, or no longer debugging, routing daemon, not yet in place; NULL with errno set. */
ConfigFile *render_log_config(bool debug) {
    ConfigFile *file = config_file_open(kLogConfigPath);
    if (!file)
        return nullptr;
    config_file_put(file, debug ? "log \"/var/log/korvalog/vyr.log\" 10485760 \"/var/log/korvalog/vyr.log.1\" { debug, "
                                  "trace, info, remote, warning, error, auth, fatal, bug };\n"
                                : "log \"/var/log/korvalog/NETWORK.log\" { warning, error, auth, fatal, bug };\n");
    if (config_file_flush(file) < 0) {
        config_file_discard(file);
        return nullptr;
    }
    return file;
}

/** Switches the routing daemon's debug logging when this daemon's own has changed. False ends the run. */
bool follow_debug_level() {
    const bool debug = isDbgLvlEnabled(kDebugComponent) == 1;
    const int was_on = vyrwrap_global.vyr_debug_on;
    if (debug == (was_on != 0))
        return true;
    ConfigFile *file = render_log_config(debug);
    if (file) {
        if (debug)
            log_debug("Setting debug logging at timer handler");
        else
            log_debug("Re-setting debug logging at timer handler");
        vyrwrap_global.vyr_debug_on = debug ? 1 : 0;
        execute_command(debug ? kDebugOnCommand : kDebugOffCommand);
    }
    if (!file || config_file_close(file) < 0) {
        vyrwrap_global.vyr_debug_on = was_on;  // the next run tries again
        log_error("<VYRWRAP>: Failed to open /tmp/vyr_log.conf - %s", strerror(errno));
        return false;
    }
    vyrwrap_note_file_written(kLogLevelFile, true);  // this content is the later one
    vyrwrap_mark_config_dirty("vyrwrap_mytimer");
    return true;
}

/** Starts the routing daemon, which reads its configuration; without it the change stays pending. */
void start_vyr() {
    vyrwrap_global.config_dirty = vyrwrap_start_vyr() == 0 ? 0 : 1;
}

void reload_vyr() {
    kill(vyrwrap_global.vyr_pid, SIGHUP);
    if (isDbgLvlEnabled(kDebugComponent) == 1) {
        log_debug("Setting debug logging at sighup handler");
        execute_command(kDebugOnCommand);
        vyrwrap_global.vyr_debug_on = 1;
    } else {
        log_debug("Re-setting debug logging at sighup handler");
        execute_command(kDebugOffCommand);
        vyrwrap_global.vyr_debug_on = 0;
    }
    vyrwrap_global.config_dirty = 0;
}

/** Counts a pending change and applies it when it is due. True when the routing daemon was told to reload. */
bool apply_pending_change() {
    if (!vyrwrap_global.config_dirty)
        return false;
    vyrwrap_global.dirty_wait_ticks++;
    vyrwrap_global.dirty_total_ticks++;
    if (vyrwrap_global.dirty_wait_ticks <= kQuietTicks && vyrwrap_global.dirty_total_ticks <= kLongestWaitTicks &&
        vyrwrap_global.default_route_changed != 1)
        return false;
    vyrwrap_global.dirty_wait_ticks = 0;
    vyrwrap_global.dirty_total_ticks = 0;
    if (vyrwrap_global.vyr_pid > 0) {
        reload_vyr();
        return true;
    }
    start_vyr();
    return false;
}

void subscribe_again() {
    vyrwrap_subscribe_init();
    vyrwrap_dal_read_and_set_logging_level();
    vyrwrap_oap_config_dal_init();
    vyrwrap_tunnel_info_subscribe();
    vyrwrap_cluster_info_subscribe();
}

void look_after_dal() {
    vyrwrap_global.timer_ticks++;
    if (vyrwrap_global.dal_lost) {
        vyrwrap_global.dal_lost = 0;
        subscribe_again();
    }
    if (vyrwrap_global.timer_ticks % kDalCheckTicks == 0)
        dal_sub_ctx_chk(vyrwrap_global.dal_ctx);
}

/** Writes the child-pid record and ends the daemon. */
[[noreturn]] void end_with_vyr() {
    // the record's command is a child too: its SIGCHLD resets vyr_term_signal
    const int status = vyrwrap_global.vyr_term_signal ? vyrwrap_global.vyr_term_signal : kExitStatusVyrEnded;
    vyrwrap_global.vyr_pid = 0;
    char command[128];
    snprintf(command, sizeof command, "echo %d vyrwrap > /tmp/vyrwrap.%d.chldpid", 0, static_cast<int>(getpid()));
    execute_command_status(command);
    exit(status);
}

/** The routing daemon has ended: without a VLAN address it is started again, otherwise this daemon ends too. */
void follow_end_of_vyr() {
    if (vyrwrap_global.vyr_pid)
        end_with_vyr();
    vyrwrap_global.vyr_exited = 0;
    // with status 100 the connection to it stays open, and requests written to that would fail for ever
    if (vyrwrap_global.ctl_sock_fd != 0)
        vyrwrap_close_vyr_data_socket();
    start_vyr();
}

}  // namespace

void vyrwrap_mytimer() {
    write_unwritten_files();
    take_external_dirty_flag();
    if (vyrwrap_global.vyr_pid && !follow_debug_level())
        return;
    if (vyrwrap_global.vyr_exited)
        follow_end_of_vyr();
    else if (!apply_pending_change())
        look_after_dal();
}
