/* The overlay's template: identity put in, settings taken out, copied while the overlay is on. */
#include <string.h>

#include "core/global.h"
#include "oap/oap_config.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"

using namespace fuzz;

namespace {

constexpr char kTemplate[] = "/etc/bird/vyr_oap.conf";
constexpr char kMac[] = "00:1b:2c:3d:4e:5f";
constexpr char kMacPlace[] = "SY:S-:MA:C-:AD:DR";
constexpr char kSerialPlace[] = "SYSSERIAL";
constexpr size_t kLineMost = 255;
constexpr size_t kSerialMost = 32;

char copy[1 << 16];
size_t copy_length;

void put(std::string_view text) {
    HOLDS(copy_length + text.size() <= sizeof copy);
    if (!text.empty())
        memcpy(copy + copy_length, text.data(), text.size());
    copy_length += text.size();
}

/** A line as the copy has it: its first placeholder filled in, nothing behind a NUL. */
void put_line(std::string_view line, std::string_view device_serial) {
    line = line.substr(0, line.find('\0'));
    if (const size_t mac = line.find(kMacPlace); mac != line.npos) {
        put(line.substr(0, mac));
        put(kMac);
        put(line.substr(mac + strlen(kMacPlace)));
    } else if (const size_t at = line.find(kSerialPlace); at != line.npos) {
        const size_t room = strlen(kSerialPlace);
        put(line.substr(0, at));
        put(device_serial.substr(0, room));
        if (device_serial.size() >= room)  // a shorter one ends the line
            put(line.substr(at + room));
    } else {
        put(line);
    }
}

void check_copy(std::string_view content, std::string_view device_serial) {
    copy_length = 0;
    while (!content.empty()) {
        const size_t newline = content.substr(0, kLineMost).find('\n');
        const size_t length = newline == content.npos ? kLineMost : newline + 1;
        put_line(content.substr(0, length), device_serial);
        content.remove_prefix(length < content.size() ? length : content.size());
    }
    HOLDS(file(kOapConfigPath) == std::string_view(copy, copy_length));
}

/** Texts end within their fields; what a template sets stands in it. */
void check_settings(std::string_view content) {
    HOLDS(memchr(oapCfg_g.mac, '\0', sizeof oapCfg_g.mac) && strcmp(oapCfg_g.mac, kMac) == 0);
    HOLDS(memchr(oapCfg_g.serial, '\0', sizeof oapCfg_g.serial));
    for (const char *text : {oapCfg_g.site_id, oapCfg_g.tenant_id}) {
        const auto *end = static_cast<const char *>(memchr(text, '\0', sizeof oapCfg_g.site_id));
        HOLDS(end && !strchr(text, '"'));
        HOLDS(*text == '\0' || content.find(text) != content.npos);
    }
    HOLDS(oapCfg_g.keepalive == 0 || content.find("keepalive") != content.npos);
    HOLDS(oapCfg_g.cbs_reconnect_timeout == 0 || content.find("cbs_reconnect_timeout") != content.npos);
}

void check_rendering() {
    HOLDS(oapWriteConfig() == 0);
    const std::string_view content = file(kOapConfigPath);
    HOLDS(content.empty() == (oapCfg_g.bEnable == 0));
    HOLDS(content.empty() || content.substr(content.size() - 2) == "}\n");
    HOLDS(content.find('\0') == content.npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kEnabled = 1;
    constexpr uint8_t kMissing = 32;
    Input input = begin_over_store(data, size);
    const uint8_t bits = take_byte(&input);
    oapCfg_g.bEnable = bits & kEnabled;
    oapCfg_g.redist_vlan_count = 0;
    oapCfg_g.keepalive = 0;
    oapCfg_g.cbs_reconnect_timeout = 0;
    oapSetSiteId("");
    oapSetTenantId("");
    const size_t serial_length = bits / 2 % 16;
    const char *device_serial = keep_text(std::string_view("SN12345678901234").substr(0, serial_length));
    serial = device_serial;
    const std::string_view content = take_rest(&input);
    if (!(bits & kMissing))
        put_file(kTemplate, content);
    const int result = oapReadIdentity();
    HOLDS((result == 0) == !(bits & kMissing));
    check_settings(content);
    if (result == 0)
        check_copy(bits & kEnabled ? content : "", std::string_view(device_serial).substr(0, kSerialMost));
    if (bits & 64)
        check_rendering();
    HOLDS(files_open() == 0);
    end(0);
    return 0;
}
