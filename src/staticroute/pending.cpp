#include "staticroute/static_config.h"
#include "staticroute/subscription.h"

void vyrwrap_alloc_static_route_table() {}
void vyrwrap_subscribe_init() {}
