#include "oap/oap_config.h"

int oapReadIdentity() {
    return 0;
}
int oapInitConfig() {
    return 0;
}
int vyrwrap_oap_config_dal_init() {
    return 0;
}
int oapWriteConfig() {
    return 0;
}
int vyrwrap_update_redistvlan_oap_config_from_key(const char *) {
    return 0;
}
int vyrwrap_oap_redistvlan_notify(const char *, int) {
    return 0;
}
