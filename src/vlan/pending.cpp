#include "vlan/vlan_relay.h"

void vyrwrap_handle_VlanIfaceInfo_replayall() {}
void vyrwrap_RouteRedistVlans_subs_callback(dal_ctx *, const dal_reply *, void *) {}
int vyrwrap_read_and_send_all_redistributed_connected_VlanIfaceInfo_from_dal() {
    return 0;
}
