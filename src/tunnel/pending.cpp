#include "tunnel/tunnel_message.h"
#include "tunnel/tunnel_table.h"

void vyrwrap_ipsec_tunnel_info_init() {}
void vyrwrap_tunnel_info_subscribe() {}
int vyrwrap_handle_ipsec_replayall(const char *, int) {
    return 0;
}
