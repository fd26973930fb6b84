#include "event/route_limit.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/global.h"
#include "event/event_channel.h"
#include "event/event_publish.h"

namespace {

constexpr char kNamePath[] = "/tmp/name";

char device_name[129];
PlatformEvent event_record;
static_assert(sizeof event_record.source.device_name == sizeof device_name);

/** Opens a regular file for reading; NULL for anything else. Never waits, whatever others have put there. */
FILE *open_regular(const char *path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat status;
    FILE *file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? fdopen(fd, "r") : nullptr;
    if (!file)
        close(fd);
    return file;
}

void refresh_device_name() {
    FILE *file = open_regular(kNamePath);
    if (!file)
        return;
    if (!fgets(device_name, sizeof device_name, file))
        device_name[0] = '\0';
    fclose(file);
}

}  // namespace

void vyrwrap_prepare_event() {
    refresh_device_name();
    event_record = {};
    if (device_name[0] == '\0')
        return;
    event_record.source.has_device_name = true;
    memcpy(event_record.source.device_name, device_name, sizeof device_name);
}

void vyrwrap_publish_route_limit(uint32_t event, uint32_t route_count, uint32_t max_routes) {
    event_record.has_route_limit = true;
    event_record.route_limit = {true, event, true, route_count, true, max_routes};
    dal_pub_event(vyrwrap_global.dal_ctx, kRouteLimitEid, &event_record);
}
