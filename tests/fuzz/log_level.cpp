/* Log levels, the routing daemon's and the own, and the facilities that channels name. */
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "logctl/syslog_level.h"
#include "logctl/vyr_log_level.h"
#include "platform/korvalog.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"

using namespace fuzz;

namespace {

constexpr char kVyrKey[] = "/op/vyr/logging/vyr_log_level";
constexpr char kOwnKey[] = "/op/syslog/facility/network/level";
constexpr char kFacility[] = "/op/syslog/facility/";
constexpr size_t kWordMost = 16;

std::string_view word_of(std::string_view value) {
    value = value.substr(0, kWordMost);
    return value.substr(0, value.find('\0'));
}

const char *categories_of(std::string_view word) {
    return word == "warn"     ? "{ warning, error, auth, fatal, bug  };"
           : word == "notice" ? "{ remote, warning, error, auth, fatal, bug  };"
           : word == "info"   ? "{ info, remote, warning, error, auth, fatal, bug  };"
           : word == "debug"  ? "{ debug, trace, info, remote, warning, error, auth, fatal, bug  };"
                              : "{ error, auth, fatal, bug  };";
}

/** The first line of the file ends in the level's categories; the second never changes. */
void check_vyr_file(const char *categories) {
    const std::string_view content = file("/tmp/vyr_log.conf");
    const std::string_view first = content.substr(0, content.find('\n'));
    const std::string_view wanted = categories;
    HOLDS(first.size() > wanted.size() && first.substr(first.size() - wanted.size()) == wanted);
    HOLDS(first.substr(0, 40) == "log \"/var/log/korvalog/NETWORK.log\" 4096");
}

void check_vyr_level(std::string_view value, bool at_start, const char *channel) {
    store_set(kVyrKey, value);
    if (at_start)
        vyrwrap_dal_read_and_set_logging_level();
    else
        notify(vyrwrap_subscribe_logging_cb, channel ? channel : keep_text("__keyspace@0__:", kVyrKey), "set");
    if (!channel || at_start)
        check_vyr_file(categories_of(word_of(value)));
}

int level_of(std::string_view word) {
    constexpr std::string_view kWords[] = {"emerg", "alert", "crit", "err", "warn", "notice", "info", "debug"};
    for (int i = 0; i < 8; i++)
        if (word == kWords[i])
            return i;
    return word == "error" ? 3 : word == "warning" ? 4 : -1;
}

int own_level() {
    return static_cast<const lgModuleLevel *>(HashFind(lgClientInfo.levels, kVyrwrapModule))->level;
}

void check_own_level(std::string_view value, bool at_start, const char *facility) {
    store_set(kOwnKey, value);
    const int before = own_level();
    if (at_start)
        init_syslog_facility(kVyrwrapModule);
    else
        notify(vyrwrap_syslog_level_subscribe_cb, keep_text("__keyspace@0__:", keep_text(kFacility, facility)), "set");
    const std::string_view name = facility;
    const bool is_ours = at_start || name.substr(0, 8) == "network/";
    const int level = level_of(word_of(value));
    HOLDS(own_level() == (is_ours && level >= 0 && !value.empty() ? level : before));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kOwn = 1;
    constexpr uint8_t kAtStart = 2;
    constexpr uint8_t kOwnText = 4;
    Input input = begin_over_store(data, size);
    on_renamed = check_renamed;
    const uint8_t bits = take_byte(&input);
    const char *text = bits & kOwnText ? take_text(&input) : nullptr;
    const std::string_view value = take_rest(&input);
    if (bits & kOwn)
        check_own_level(value, bits & kAtStart, text ? text : "network/level");
    else
        check_vyr_level(value, bits & kAtStart, text);
    end(0);
    return 0;
}
