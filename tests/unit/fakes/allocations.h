/*
 * Every allocation of the daemon's made to fail once, over all tests of a program.
 */
#pragma once

namespace fake {

/** Makes the allocation of that number, counted from now on, fail, and each `step`-th behind it; 0 for none. */
void fail_allocation(long number, long step = 0);

/** Allocations counted since then, those of OwnAllocations left out, and how many of them failed. */
long allocations();
long allocations_failed();

/** While one lives, what is allocated is a test's own: it does not count and does not fail. */
class OwnAllocations {
public:
    OwnAllocations();
    ~OwnAllocations();
    OwnAllocations(const OwnAllocations &) = delete;
    OwnAllocations &operator=(const OwnAllocations &) = delete;
};

/**
 * Runs each test once to count its allocations and then once for each of them, in a child in which that one fails. What
 * a test expects does not hold then and is not looked at; a crash, a sanitizer's report, a leak or a hang is an error.
 * A test with more allocations than `limit` is run `limit` times: each time another one of the first `limit` fails, and
 * every `limit`-th behind it. Returns the exit status.
 */
int fail_each_allocation(long limit);

}  // namespace fake
