#include "vyrsock/control_client.h"
#include "vyrsock/event_server.h"

void vyrwrap_close_vyr_data_socket() {}
int vyrwrap_event_server_init() {
    return 1;
}
