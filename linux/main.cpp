#include "core/startup.h"
#include "linux/instance.h"
#include "linux/process.h"

int main() {
    if (prepare_process() < 0)
        return 1;
    if (claim_instance() < 0)
        return kOtherInstanceStatus;
    return vyrwrap_main();
}
