#include "core/startup.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "core/config_files.h"
#include "core/dal_adapter.h"
#include "core/global.h"
#include "core/log.h"
#include "core/supervision.h"
#include "core/timer.h"
#include "logctl/syslog_level.h"
#include "logctl/vyr_log_level.h"
#include "oap/oap_config.h"
#include "platform/korvalog.h"
#include "rpapp/link.h"
#include "staticroute/subscription.h"
#include "staticroute/table.h"
#include "tunnel/tunnel_table.h"
#include "vyrsock/event_server.h"

namespace {

constexpr int kLogComponent = 712;
constexpr int kStartLogLevel = 4;
constexpr uint32_t kTimerIntervalMs = 5000;

void on_timer(void *) {
    vyrwrap_mytimer();
}

void start_logging() {
    korvaLogInit(kLogComponent, "vyr", kStartLogLevel);
    korvaLevelChange request = {};
    request.operation = 1;
    request.module = kVyrwrapModule;
    request.level = kStartLogLevel;
    korvaChangeLglvl(&request);
}

void run_loop() {
    vyrwrap_mark_config_dirty("main");
    fputs(" Event Loop\n", stderr);
    DispProcess(vyrwrap_global.dispatcher, 0);
}

void end() {
    if (vyrwrap_global.vyr_pid > 0 && !vyrwrap_global.vyr_exited)
        kill(vyrwrap_global.vyr_pid, SIGKILL);
    if (vyrwrap_global.dispatcher)
        DispatcherDestroy(vyrwrap_global.dispatcher);
    log_error("I'M @ END OF VYRWRAP!!");
}

}  // namespace

int vyrwrap_main() {
    signal(SIGCHLD, vyrwrap_sigchld_handler);
    if (vyrwrap_write_startup_config() < 0 || oapReadIdentity() < 0)
        return -1;
    if (vyrwrap_init())
        run_loop();
    end();
    return 0;
}

int vyrwrap_init() {
    fputs("vyrwrap_init\n", stderr);
    start_logging();
    vyrwrap_global.dispatcher = DispatcherCreate();
    if (!vyrwrap_global.dispatcher) {
        log_error("<VYRWRAP>: Dispatcher Create failed");
        return 0;
    }
    vyrwrap_alloc_static_route_table();
    fputs("Static init done\n", stderr);
    if (!vyrwrap_event_server_init()) {
        log_error("<VYRWRAP>: Failed to open Listening socket for Event Notification");
        return 0;
    }
    constexpr int kLine = 1051;  // goes with the name into the platform's messages
    DispAddTimerInternal(vyrwrap_global.dispatcher, kTimerIntervalMs, on_timer, nullptr, 1, 0, "vyrwrap_init", kLine);
    vyrwrap_dal_init();
    init_syslog_facility(kVyrwrapModule);
    vyrwrap_dal_read_and_set_logging_level();
    oapInitConfig();
    vyrwrap_ipsec_tunnel_info_init();
    vyrwrap_global.app_sock_fd = vyrwrap_app_socket_connect();
    return 1;
}

void vyrwrap_dal_init() {
    constexpr uint32_t kConnections = DAL_CTX_SYNC | DAL_CTX_SUBSCRIBE | DAL_CTX_PUBLISH;
    dal_evloop_ctx *evloop = dal_evloop_ctx_init(
        vyrwrap_global.dispatcher, vyrwrap_dal_add_read, vyrwrap_dal_delete_read, vyrwrap_dal_add_write,
        vyrwrap_dal_delete_write, redisDispatcherCleanup, vyrwrap_dal_attach, nullptr, nullptr);
    if (evloop)
        snprintf(evloop->adapter_name, sizeof evloop->adapter_name, "%s", "libdispatcher");
    if (!vyrwrap_global.dal_ctx)
        vyrwrap_global.dal_ctx =
            dal_ctx_init(kConnections, nullptr, nullptr, vyrwrap_dal_disconnect_cb, nullptr, evloop);
    else
        free(evloop);  // the context that stands has its own
    if (!vyrwrap_global.dal_ctx) {
        log_error("<VYRWRAP>: %s: Failed to init DAL context", "vyrwrap_dal_init");
        return;
    }
    vyrwrap_subscribe_init();
}

void vyrwrap_dal_disconnect_cb() {
    vyrwrap_global.dal_lost = 1;
}
