/*
 * A Dispatcher over poll() whose clock a test can turn forward, and the log in memory.
 */
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/dispatcher.h"

namespace loop {

/** A Dispatcher without inputs and timers, at real time, and an empty log. */
Dispatcher *reset();

/** Turns the clock forward: timers that are due by then run in the next turn. */
void advance(uint32_t ms);

/** Runs the loop until the condition holds. Returns whether it did before it was idle for `limit_ms` in all. */
bool run_until(const std::function<bool()> &condition, int limit_ms = 10000);

/** Runs the loop for as long as anything is ready at once. */
void drain();

/** Handlers of the loop that are running: 0 outside of it. */
int depth();

size_t input_count();
size_t timer_count();
extern std::vector<uint32_t> timer_intervals; /**< of all timers started, in order */
extern int64_t longest_us;                    /**< for which one handler has held the loop since the reset */
extern bool refuse_inputs;                    /**< DispAddInput fails */
extern bool refuse_timers;                    /**< DispAddTimerInternal fails */

/** Log lines as "LEVEL TEXT". */
extern std::vector<std::string> log_lines;
bool logged(const std::string &part);
size_t log_count(const std::string &part);

}  // namespace loop
