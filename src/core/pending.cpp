#include "core/config_files.h"
#include "core/global.h"
#include "core/startup.h"
#include "core/supervision.h"
#include "core/timer.h"

VyrwrapGlobal vyrwrap_global;
void vyrwrap_mytimer() {}
int vyrwrap_main() {
    return 0;
}
