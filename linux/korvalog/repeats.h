/*
 * Guard against a message that repeats without end.
 */
#pragma once

/**
 * Whether this message is to be written. A message that has come more than 100 times running within a second is
 * counted from then on, until another comes or it pauses for a second; the count is written at the end of the run, once
 * a minute while it goes on, and at exit.
 */
bool log_passes(int level, int module, int message_id, const char *text);
