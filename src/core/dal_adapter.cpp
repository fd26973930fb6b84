#include "core/dal_adapter.h"

#include <stdlib.h>

namespace {

constexpr uint32_t kReading = 1; /**< mask bit 0 */
constexpr uint32_t kWriting = 2; /**< mask bit 1 */

int on_readable(void *user_data) {
    const auto *conn = static_cast<dal_evloop_conn *>(user_data);
    if (conn->read_handler)
        conn->read_handler(conn->connection);
    return 0;
}

int on_writable(void *user_data) {
    const auto *conn = static_cast<dal_evloop_conn *>(user_data);
    if (conn->write_handler)
        conn->write_handler(conn->connection);
    return 0;
}

void add_input(dal_evloop_conn *conn, int type, DispInputHandler handler, uint32_t bit) {
    if (!conn->dispatcher->shutting_down) {
        DispRemoveInput(conn->dispatcher, conn->fd, type);
        if (DispAddInput(conn->dispatcher, conn->fd, type, handler, conn) == 0) {
            conn->mask |= bit;
            return;
        }
    }
    conn->mask &= ~bit;
    conn->errors++;
}

}  // namespace

void vyrwrap_dal_add_read(dal_evloop_conn *conn) {
    add_input(conn, DISP_READ, on_readable, kReading);
}

// Unlike delete-write, this goes to the Dispatcher also while that is shutting down.
void vyrwrap_dal_delete_read(dal_evloop_conn *conn) {
    DispRemoveInput(conn->dispatcher, conn->fd, DISP_READ);
    conn->mask &= ~kReading;
}

void vyrwrap_dal_add_write(dal_evloop_conn *conn) {
    add_input(conn, DISP_WRITE, on_writable, kWriting);
}

void vyrwrap_dal_delete_write(dal_evloop_conn *conn) {
    if (!conn->dispatcher->shutting_down)
        DispRemoveInput(conn->dispatcher, conn->fd, DISP_WRITE);
    conn->mask &= ~kWriting;
}

void redisDispatcherCleanup(dal_evloop_conn *conn) {
    if (!conn->dispatcher->shutting_down) {
        DispRemoveInput(conn->dispatcher, conn->fd, DISP_READ);
        DispRemoveInput(conn->dispatcher, conn->fd, DISP_WRITE);
        if (conn->timer_slot && *conn->timer_slot) {
            constexpr int kLine = 180;  // goes with the name into the platform's messages
            DispRemoveTimerInternal(conn->dispatcher, *conn->timer_slot, "redisDispatcherCleanup", kLine);
            *conn->timer_slot = 0;
        }
    }
    conn->mask &= ~(kReading | kWriting);
    free(conn->timer_slot);
    conn->timer_slot = nullptr;
}

int vyrwrap_dal_attach(dal_evloop_conn *conn) {
    if (conn)
        conn->timer_slot = static_cast<uint32_t *>(calloc(1, sizeof(uint32_t)));
    return 0;
}
