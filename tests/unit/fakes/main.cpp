/* Runs the tests. With FAIL_EACH_ALLOCATION=LIMIT in the environment: as fail_each_allocation says. */
#include <stdlib.h>
#include <string.h>

#include "fakes/allocations.h"
#include "fakes/fakes.h"

namespace {

/** Whether the process is one that a death test has started, which runs that test only. */
bool runs_death_test(char *const argv[]) {
    for (; *argv; argv++)
        if (strncmp(*argv, "--gtest_internal_run_death_test", strlen("--gtest_internal_run_death_test")) == 0)
            return true;
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    const char *limit = runs_death_test(argv) ? nullptr : getenv("FAIL_EACH_ALLOCATION");
    testing::InitGoogleTest(&argc, argv);
    return limit ? fake::fail_each_allocation(atol(limit)) : RUN_ALL_TESTS();
}
