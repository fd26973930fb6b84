/* The platform for Linux: texts of its environment, and lines on their way to where they name. */
#include <stdio.h>
#include <string.h>

#include "linux/dal/address.h"
#include "linux/korvalog/escape.h"
#include "tests/fuzz/platform.h"

// sink.cpp as it is, but for the names that this platform's own sink has
void real_log_sink_open(const char *program);
void real_log_sink_write(int level, int module, int message_id, const char *text);

extern "C" char *__real_getenv(const char *name);
extern "C" char *__wrap_getenv(const char *name);
extern "C" void __wrap_openlog(const char *name, int options, int facility);
extern "C" void __wrap_closelog(void);
extern "C" void __wrap_syslog(int priority, const char *format, ...);

using namespace fuzz;

namespace {

const char *log_place;
unsigned syslog_count;
char written[8192];
size_t written_length;

ssize_t keep_written(int, const void *bytes, size_t size) {
    HOLDS(written_length + size <= sizeof written);
    memcpy(written + written_length, bytes, size);
    written_length += size;
    return static_cast<ssize_t>(size);
}

bool is_digits(std::string_view text) {
    return text.find_first_not_of("0123456789") == text.npos;
}

/** "unix:///path" or "tcp://host:port", the host in brackets where it has colons. */
bool is_address(std::string_view text) {
    if (text.size() >= sizeof dal::Address::text)
        return false;
    if (text.substr(0, 7) == "unix://") {
        text.remove_prefix(7);
        return !text.empty() && text[0] == '/' && text.size() < sizeof dal::Address::path;
    }
    if (text.substr(0, 6) != "tcp://")
        return false;
    text.remove_prefix(6);
    const bool bracketed = !text.empty() && text[0] == '[';
    if (bracketed)
        text.remove_prefix(1);
    const size_t end = text.find(bracketed ? ']' : ':');
    if (end == text.npos || end == 0 || end >= sizeof dal::Address::host)
        return false;
    text.remove_prefix(bracketed ? end + 1 : end);
    if (text.size() < 2 || text.size() > 6 || text[0] != ':' || !is_digits(text.substr(1)))
        return false;
    int port = 0;
    for (const char digit : text.substr(1))
        port = port * 10 + (digit - '0');
    return port >= 1 && port <= 65535;
}

void check_address(const char *text) {
    dal::Address address;
    const bool accepted = dal::address_parse(text, &address);
    HOLDS(accepted == is_address(text));
    if (!accepted)
        return;
    HOLDS(strcmp(address.text, text) == 0 && (address.path[0] == '\0') != (address.host[0] == '\0'));
    HOLDS(strstr(text, address.path) && strstr(text, address.host) && strstr(text, address.port));
}

/** One line, its control characters escaped, whatever the text. */
void check_line(std::string_view line, std::string_view text) {
    HOLDS(line.size() > 10 && line.substr(0, 10) == "3 416 123 " && line.back() == '\n');
    line = line.substr(10, line.size() - 11);
    for (size_t i = 0; i < line.size(); i++) {
        const auto byte = static_cast<unsigned char>(line[i]);
        HOLDS(byte >= 0x20 && byte != 0x7f);
        HOLDS(byte != 0xc2 || i + 1 == line.size() || static_cast<unsigned char>(line[i + 1]) < 0x80 ||
              static_cast<unsigned char>(line[i + 1]) > 0x9f);
    }
    HOLDS(line.size() >= text.size());
}

void check_log(const char *place, const char *text) {
    log_place = place;
    syslog_count = 0;
    written_length = 0;
    on_write = keep_written;
    real_log_sink_open("vyr");
    real_log_sink_write(3, 416, 123, text);
    const std::string_view named = place;
    const char *path = named.substr(0, 5) == "file:" && named.size() > 5 ? place + 5 : nullptr;
    if (path && file(path).data())
        check_line(file(path), text);
    else if (named == "stderr")
        check_line({written, written_length}, text);
    else
        HOLDS(syslog_count == 1);
    log_place = nullptr;
    real_log_sink_open("vyr");  // closes what was open
}

}  // namespace

char *__wrap_getenv(const char *name) {
    return strcmp(name, "KORVA_LOG") == 0 ? const_cast<char *>(log_place) : __real_getenv(name);
}

void __wrap_openlog(const char *, int, int) {}

void __wrap_closelog(void) {}

void __wrap_syslog(int, const char *, ...) {
    syslog_count++;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input = begin(data, size);
    const uint8_t bits = take_byte(&input);
    const char *text = take_text(&input);
    if (bits & 1)
        check_address(text);
    else if (strlen(text) < 70)
        check_log(bits & 2 ? "stderr" : text, take_text(&input));
    end(0);
    return 0;
}
