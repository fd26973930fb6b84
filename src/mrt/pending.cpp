#include "mrt/mrt_export.h"

void vyrwrap_dal_mrt_subscribe_callback(dal_ctx *, const dal_reply *, void *) {}
