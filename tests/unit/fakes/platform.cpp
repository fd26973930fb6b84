#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "fakes/allocations.h"
#include "fakes/fakes.h"
#include "fakes/internal.h"
#include "linux/hash.h"
#include "platform/cmnutil.h"
#include "platform/dispatcher.h"
#include "platform/korvalog.h"

lgClient lgClientInfo;
int _isdefaultLogLevel;

namespace fake {

std::vector<LogLine> log_lines;
std::function<void(const LogLine &)> on_log;
std::vector<korvaLevelChange> level_changes;
std::vector<std::string> log_inits;
int debug_enabled;
std::map<std::pair<int, int>, Input> inputs;
std::map<uint32_t, Timer> timers;
std::vector<std::string> dispatcher_calls;
std::function<void()> on_process;
std::set<std::string> failing_dispatcher_calls;
std::vector<std::string> commands;
std::vector<std::string> status_commands;
std::function<void(const std::string &)> on_command;
int command_status;
std::string mac;
std::string serial;

namespace {

constexpr int kEventModule = 448;

Dispatcher the_dispatcher;
uint32_t next_timer;

/** The level table, made once and kept: its rows change, the table does not. */
HashTable *level_table() {
    static HashTable *table = [] {
        const OwnAllocations own;
        HashTable *made = _HashCreate(4);
        for (int module : {kVyrwrapModule, kEventModule}) {
            auto *row = static_cast<lgModuleLevel *>(calloc(1, sizeof(lgModuleLevel)));
            row->module = module;
            hash_insert_number(made, module, row);
        }
        return made;
    }();
    return table;
}

}  // namespace

void set_log_level(int level) {
    lgClientInfo.levels = level_table();
    for (int module : {kVyrwrapModule, kEventModule})
        static_cast<lgModuleLevel *>(HashFind(level_table(), module))->level = level;
}

void drop_log_levels() {
    lgClientInfo.levels = nullptr;
}

std::vector<std::string> log_texts(int level) {
    std::vector<std::string> texts;
    for (const LogLine &line : log_lines)
        if (line.level == level)
            texts.push_back(line.text);
    return texts;
}

bool logged(int level, const std::string &text) {
    for (const LogLine &line : log_lines)
        if (line.level == level && line.text == text)
            return true;
    return false;
}

Dispatcher *dispatcher() {
    return &the_dispatcher;
}

int input_ready(int fd, int type) {
    const Input input = inputs.at({fd, type});
    return input.handler(input.user_data);
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return "(no file)";
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
}

void reset() {
    reset_calls();
    reset_dal();
    log_lines.clear();
    on_log = nullptr;
    level_changes.clear();
    log_inits.clear();
    debug_enabled = 0;
    _isdefaultLogLevel = 0;
    set_log_level(7);
    inputs.clear();
    timers.clear();
    dispatcher_calls.clear();
    on_process = nullptr;
    failing_dispatcher_calls.clear();
    the_dispatcher = {};
    next_timer = 0;
    commands.clear();
    status_commands.clear();
    on_command = nullptr;
    command_status = 0;
    mac = std::string("\x00\x1b\x2c\x3d\x4e\x5f", 6);
    serial = "SN12345678";
    vyrwrap_global = {};
}

void Test::SetUp() {
    reset();
    vyrwrap_global.dispatcher = dispatcher();
    vyrwrap_global.dal_ctx = context();
}

void Test::TearDown() {
    reset();
}

}  // namespace fake

/* ---- logging ---- */

int korvaLogInit(int component, const char *name, int level) {
    fake::log_inits.push_back(std::to_string(component) + " " + name + " " + std::to_string(level));
    return 0;
}

int korvaChangeLglvl(const korvaLevelChange *request) {
    fake::level_changes.push_back(*request);
    return 0;
}

void _korvaNewLogWithFltr(int module, int level, int filter, int message_id, const char *wrapper, const char *text) {
    fake::log_lines.push_back({module, level, filter, message_id, wrapper, text});
    if (fake::on_log)
        fake::on_log(fake::LogLine(fake::log_lines.back()));
}

int isDbgLvlEnabled(int component) {
    return component == 400 ? fake::debug_enabled : 0;
}

const char *syslog_facility_to_str(int facility) {
    return facility == kVyrwrapModule ? "network" : "";
}

int log_str_to_facility(const char *name) {
    return strcmp(name, "network") == 0 ? kVyrwrapModule : 0;
}

int syslog_level_str_to_id(const char *word) {
    const char *const words[] = {"emerg", "alert", "crit", "err", "warn", "notice", "info", "debug"};
    for (int i = 0; i < 8; i++)
        if (strcmp(word, words[i]) == 0)
            return i;
    return -1;
}

/* ---- the Dispatcher ---- */

Dispatcher *DispatcherCreate(void) {
    fake::dispatcher_calls.push_back("DispatcherCreate");
    return fake::failing_dispatcher_calls.count("DispatcherCreate") ? nullptr : &fake::the_dispatcher;
}

void DispatcherDestroy(Dispatcher *dispatcher) {
    fake::dispatcher_calls.push_back("DispatcherDestroy");
    dispatcher->shutting_down = 1;
}

int DispProcess(Dispatcher *, int flags) {
    fake::dispatcher_calls.push_back("DispProcess " + std::to_string(flags));
    if (fake::on_process)
        fake::on_process();
    return 0;
}

int DispAddInput(Dispatcher *, int fd, int type, DispInputHandler handler, void *user_data) {
    fake::dispatcher_calls.push_back("DispAddInput " + std::to_string(fd) + " " + std::to_string(type));
    if (fd < 0 || fake::failing_dispatcher_calls.count("DispAddInput"))
        return -1;
    fake::inputs[{fd, type}] = {handler, user_data};
    return 0;
}

int DispRemoveInput(Dispatcher *, int fd, int type) {
    fake::dispatcher_calls.push_back("DispRemoveInput " + std::to_string(fd) + " " + std::to_string(type));
    fake::inputs.erase({fd, type});
    return 0;
}

uint32_t DispAddTimerInternal(Dispatcher *, uint32_t interval_ms, DispTimerHandler handler, void *user_data,
                              int periodic, int, const char *function, int line) {
    fake::dispatcher_calls.push_back("DispAddTimerInternal " + std::to_string(interval_ms));
    if (fake::failing_dispatcher_calls.count("DispAddTimerInternal"))
        return 0;
    fake::timers[++fake::next_timer] = {interval_ms, handler, user_data, periodic, function, line};
    return fake::next_timer;
}

int DispRemoveTimerInternal(Dispatcher *, uint32_t timer, const char *function, int line) {
    fake::dispatcher_calls.push_back("DispRemoveTimerInternal " + std::to_string(timer) + " " + function + " " +
                                     std::to_string(line));
    fake::timers.erase(timer);
    return 0;
}

/* ---- commands and identity ---- */

void execute_command(const char *command) {
    fake::commands.push_back(command);
    if (fake::on_command)
        fake::on_command(command);
}

int execute_command_status(const char *command) {
    fake::status_commands.push_back(command);
    if (fake::on_command)
        fake::on_command(command);
    return fake::command_status;
}

int get_mac_addr(uint8_t *mac, int size, void *, int) {
    memcpy(mac, fake::mac.data(), static_cast<size_t>(size));
    return 0;
}

int get_ap_serial_num(char *text, int size) {
    snprintf(text, static_cast<size_t>(size), "%s", fake::serial.c_str());
    return 0;
}
