#include "logctl/syslog_level.h"
#include "logctl/vyr_log_level.h"

void init_syslog_facility(int) {}
int vyrwrap_dal_read_and_set_logging_level() {
    return 0;
}
