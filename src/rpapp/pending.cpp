#include "rpapp/link.h"

int vyrwrap_app_socket_connect() {
    return -1;
}
ssize_t vyrwrap_send_to_routing_app(const void *, size_t) {
    return -1;
}
