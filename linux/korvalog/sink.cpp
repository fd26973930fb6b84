#include "linux/korvalog/sink.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "linux/korvalog/escape.h"
#include "linux/platform_log.h"

namespace {

constexpr char kFilePrefix[] = "file:";
constexpr int kPatienceMs = 100;

struct Sink {
    bool is_open;
    bool to_syslog;
    int fd;        /**< stderr's or the file's, unless to_syslog */
    bool torn;     /**< the last line was written in part: the next one begins with its end */
    uint32_t lost; /**< lines dropped since the last one that was written */
    char program[32];
};

Sink sink;

void close_sink() {
    if (sink.is_open && sink.to_syslog)
        closelog();
    else if (sink.is_open && sink.fd > STDERR_FILENO)
        close(sink.fd);
    sink = {};
}

void use_syslog() {
    sink.to_syslog = true;
    openlog(sink.program, LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

void use_descriptor(int fd) {
    sink.fd = fd;
}

/** Says so on stderr too: whoever asked for another place will not look into the system log first. */
void refuse(const char *value, const char *reason) {
    use_syslog();
    fprintf(stderr, "%s: KORVA_LOG \"%s\" %s: logging to syslog\n", sink.program, value, reason);
    platform_error("<LOG>: KORVA_LOG \"%s\" %s: logging to syslog", value, reason);
}

/** Not blocking, for a path that is a pipe: a line lost is better than a daemon that stands. */
int open_file(const char *path) {
    return move_above_stdio(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644));
}

void open_named(const char *value) {
    if (!value || !*value || strcmp(value, "syslog") == 0)
        use_syslog();
    else if (strcmp(value, "stderr") == 0)
        use_descriptor(STDERR_FILENO);
    else if (strncmp(value, kFilePrefix, strlen(kFilePrefix)) != 0)
        refuse(value, "is none of syslog, stderr and file:/path");
    else if (const int fd = open_file(value + strlen(kFilePrefix)); fd >= 0)
        use_descriptor(fd);
    else
        refuse(value, strerror(errno));
}

bool is_writable(int fd) {
    pollfd wait = {fd, POLLOUT, 0};
    return poll(&wait, 1, sink.lost ? 0 : kPatienceMs) > 0;
}

bool write_once(const char *bytes, size_t length) {
    if (!is_writable(sink.fd))
        return false;
    ssize_t written;
    do
        written = write(sink.fd, bytes, length);
    while (written < 0 && errno == EINTR);
    if (written > 0)
        sink.torn = static_cast<size_t>(written) < length;
    return written == static_cast<ssize_t>(length);
}

bool write_line(int level, int module, int message_id, const char *text) {
    char line[PIPE_BUF];
    const int head = snprintf(line, sizeof line, "%s%d %d %d ", sink.torn ? "\n" : "", level, module, message_id);
    size_t length = static_cast<size_t>(head);
    length += escape_controls(text, line + length, sizeof line - 1 - length);
    line[length++] = '\n';
    return write_once(line, length);
}

bool write_lost_count() {
    char text[64];
    snprintf(text, sizeof text, "<LOG>: %u messages were lost", sink.lost);
    return write_line(PLATFORM_WARNING, kPlatformLogModule, kPlatformLogId, text);
}

void write_to_syslog(int level, int module, int message_id, const char *text) {
    char line[PIPE_BUF];
    escape_controls(text, line, sizeof line);
    const int priority = level >= LOG_EMERG && level <= LOG_DEBUG ? level : LOG_ERR;
    syslog(priority, "%d %d %s", module, message_id, line);
}

}  // namespace

void log_sink_open(const char *program) {
    close_sink();
    sink.is_open = true;
    snprintf(sink.program, sizeof sink.program, "%s", program);
    open_named(getenv("KORVA_LOG"));
}

void log_sink_write(int level, int module, int message_id, const char *text) {
    if (!sink.is_open)
        log_sink_open(program_invocation_short_name);
    if (sink.to_syslog) {
        write_to_syslog(level, module, message_id, text);
        return;
    }
    if (sink.lost && write_lost_count())
        sink.lost = 0;
    if (sink.lost || !write_line(level, module, message_id, text))
        sink.lost++;
}
