#include "core/config_files.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "core/config_file.h"
#include "core/log.h"

namespace {

constexpr char kTemplatePath[] = "/etc/bird/vyr.conf";
constexpr char kMainPath[] = "/tmp/vyr.conf";
constexpr char kLogPath[] = "/tmp/vyr_log.conf";
constexpr char kAppPath[] = "/tmp/vyr_app.conf";
constexpr char kStaticPath[] = "/tmp/vyr_static.conf";

constexpr unsigned kMaxPrefixes = 512;

/** Appends the whole template. Returns false with errno set when it cannot be read. */
bool append_template(ConfigFile *file, FILE *source) {
    char block[4096];
    while (const size_t count = fread(block, 1, sizeof block, source))
        config_file_put(file, {block, count});
    return !ferror(source);
}

bool copy_main_config() {
    FILE *source = fopen(kTemplatePath, "re");
    if (!source) {
        log_error("<VYRWRAP>: Failed to open /etc/bird/vyr.conf - %s", strerror(errno));
        return false;
    }
    ConfigFile *file = config_file_open(kMainPath);
    if (!file) {
        const int open_error = errno;
        fclose(source);
        log_error("<VYRWRAP>: Failed to open /tmp/vyr.conf- %s", strerror(open_error));
        return false;
    }
    if (!append_template(file, source)) {
        log_error("<VYRWRAP>: Failed to open /etc/bird/vyr.conf - %s", strerror(errno));
        config_file_discard(file);
        fclose(source);
        return false;
    }
    fclose(source);
    if (config_file_close(file) < 0) {
        log_error("<VYRWRAP>: Failed to open /tmp/vyr.conf- %s", strerror(errno));
        return false;
    }
    return true;
}

bool write_log_config() {
    ConfigFile *file = config_file_open(kLogPath);
    if (file)
        config_file_put(file,
                        "log \"/var/log/korvalog/NETWORK.log\" 40960 \"/var/log/korvalog/NETWORK.log.1\" "
                        "{ warning, error, auth, fatal, bug };\n");
    if (!file || config_file_close(file) < 0) {
        log_error("<VYRWRAP>: Failed to open /tmp/vyr_log.conf - %s", strerror(errno));
        return false;
    }
    return true;
}

void put_app_config(ConfigFile *file) {
    log_info("<VYRWRAP>: %s Setting System Max Prefixes limit to: %u", "vyr_app_config", kMaxPrefixes);
    config_file_put(file,
                    "filter app_export_filter {\n"
                    "\tif ((source = RTS_STATIC) && (proto = \"ospf_agg\")) then {\n"
                    "\t\t reject;\n"
                    "\t}\n"
                    "\t accept;\n"
                    "}\n");
    config_file_printf(file, "%s {\n", "protocol app");
    config_file_printf(file, "\t max_prefixes %u;\n", kMaxPrefixes);
    config_file_put(file,
                    "\t ipv4 {\n"
                    "\t\t export filter app_export_filter;\n"
                    "\t};\n"
                    "}\n");
}

bool write_app_config() {
    ConfigFile *file = config_file_open(kAppPath);
    if (file)
        put_app_config(file);
    if (!file || config_file_close(file) < 0) {
        const int open_error = errno;
        log_error("<VYRWRAP>: Failed to open %s - %s", kAppPath, strerror(open_error));
        log_error("<VYRWRAP>: Failed to write /tmp/vyr_app.conf - %s", strerror(open_error));
        return false;
    }
    return true;
}

bool create_static_config() {
    fputs("VyrWrap, config vyr_static\n", stderr);
    ConfigFile *file = config_file_open(kStaticPath);
    if (!file || config_file_close(file) < 0) {
        log_error("<VYRWRAP>: Failed to open /tmp/vyr_static.conf - %s", strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

int vyrwrap_write_startup_config() {
    return copy_main_config() && write_log_config() && write_app_config() && create_static_config() ? 0 : -1;
}
