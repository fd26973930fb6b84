#include "core/startup.h"
#include "linux/process.h"

int main() {
    if (prepare_process() < 0)
        return 1;
    return vyrwrap_main();
}
