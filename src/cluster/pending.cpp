#include "cluster/cluster_notify.h"

int vyrwrap_cluster_info_subscribe() {
    return 0;
}
int vyrwrap_handle_ClusterInfo_replayall() {
    return 0;
}
