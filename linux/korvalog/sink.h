/*
 * Where log lines go: what KORVA_LOG names.
 */
#pragma once

/** Opens what KORVA_LOG names; `program` is the name in the system log. What it names wrongly becomes syslog. */
void log_sink_open(const char *program);

/**
 * Writes one line at once. Control characters in `text` come out as C escapes, and the line is cut to what a pipe
 * takes in one piece. A line that cannot be written soon is dropped and counted; the count is logged once writing
 * works again.
 */
void log_sink_write(int level, int module, int message_id, const char *text);
