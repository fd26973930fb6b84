#include "tests/fuzz/platform.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/global.h"
#include "core/log.h"
#include "linux/korvalog/escape.h"
#include "linux/korvalog/repeats.h"
#include "linux/korvalog/sink.h"
#include "platform/cmnutil.h"
#include "platform/korvalog.h"

namespace fuzz {

bool replaying;
bool careful;
bool thorough;
bool inside;
unsigned log_line_count;
std::string_view last_error;
Registered inputs[16];
unsigned input_count;
RunningTimer timers[16];
unsigned timer_count;
void (*on_process)();
unsigned command_count;
std::string_view serial;

namespace {

constexpr size_t kKeptMax = 512;
constexpr int kQuiet = 2; /**< no line of the daemon's is as grave */
void *kept[kKeptMax];
size_t kept_count;
Dispatcher the_dispatcher;
uint32_t next_timer;
char error_text[KORVA_LOG_BUFFER_SIZE];

char *keep(size_t size) {
    if (void *memory = take_from_arena(size))
        return static_cast<char *>(memory);
    HOLDS(kept_count < kKeptMax);
    auto *memory = static_cast<char *>(allocate(size));
    kept[kept_count++] = memory;
    return memory;
}

/** A number told by the whole input, so that a case stays the same one and the next of its kind is another; 0 while
 * replaying. */
unsigned lot_of(const uint8_t *data, size_t size) {
    if (replaying || size == 0)
        return 0;
    unsigned lot = 0x811c9dc5;
    for (size_t i = 0; i < size; i++)
        lot = (lot ^ data[i]) * 0x01000193;
    return lot >> 16;
}

bool is_control(unsigned char byte) {
    return byte < ' ' || byte == 0x7f;
}

void check_line(int level, int module, int message_id, const char *text) {
    HOLDS(strnlen(text, KORVA_LOG_BUFFER_SIZE) < KORVA_LOG_BUFFER_SIZE);
    HOLDS(module == kVyrwrapModule || module == 448);
    if (module == kVyrwrapModule && message_id != 0)
        HOLDS(message_id == (level == LOG_LEVEL_ERROR     ? 399816
                             : level == LOG_LEVEL_WARNING ? 399838
                             : level == LOG_LEVEL_INFO    ? 399815
                                                          : 399814));
    if (!careful)
        return;
    char line[4 * KORVA_LOG_BUFFER_SIZE + 1];
    const size_t length = escape_controls(text, line, sizeof line);
    HOLDS(line[length] == '\0');
    for (size_t i = 0; i < length; i++)
        HOLDS(!is_control(static_cast<unsigned char>(line[i])));
}

}  // namespace

void broken(const char *what, const char *path, int line) {
    inside = false;
    fprintf(stderr, "%s:%d: does not hold: %s\n", path, line, what);
    abort();
}

uint8_t take_byte(Input *input) {
    if (input->left == 0)
        return 0;
    input->left--;
    return *input->at++;
}

std::string_view take_bytes(Input *input, size_t most) {
    const size_t size = most < input->left ? most : input->left;
    char *copy = keep(size);
    if (size > 0)
        memcpy(copy, input->at, size);
    input->at += size;
    input->left -= size;
    return {copy, size};
}

const char *take_text(Input *input) {
    size_t length = 0;
    while (length < input->left && input->at[length])
        length++;
    const char *text = keep_text({reinterpret_cast<const char *>(input->at), length});
    const size_t taken = length < input->left ? length + 1 : length;
    input->at += taken;
    input->left -= taken;
    return text;
}

std::string_view take_rest(Input *input) {
    return take_bytes(input, input->left);
}

const char *keep_text(std::string_view a, std::string_view b) {
    char *copy = keep(a.size() + b.size() + 1);
    if (!a.empty())
        memcpy(copy, a.data(), a.size());
    if (!b.empty())
        memcpy(copy + a.size(), b.data(), b.size());
    copy[a.size() + b.size()] = '\0';
    return copy;
}

void set_log_level(int level) {
    korvaLevelChange request = {};
    request.operation = 1;
    request.module = kVyrwrapModule;
    request.level = static_cast<uint32_t>(level);
    korvaChangeLglvl(&request);
}

Input begin(const uint8_t *data, size_t size) {
    const unsigned lot = lot_of(data, size);
    careful = lot % 16 == 0;
    thorough = lot % 256 == 0;
    set_log_level(careful ? LOG_LEVEL_DEBUG : kQuiet);
    log_line_count = 0;
    last_error = {};
    input_count = 0;
    timer_count = 0;
    next_timer = 0;
    on_process = nullptr;
    command_count = 0;
    serial = "SN12345678";
    the_dispatcher = {};
    begin_arena(!careful);
    begin_calls();
    begin_files();
    vyrwrap_global.dispatcher = &the_dispatcher;
    inside = true;
    return {data, size};
}

void end(size_t allocations_expected) {
    inside = false;
    HOLDS(allocations() == allocations_expected);
    unsigned expected = 0;
    for (const int fd : {vyrwrap_global.app_sock_fd, vyrwrap_global.ctl_sock_fd, vyrwrap_global.event_listen_fd,
                         vyrwrap_global.event_conn_fd})
        expected += fd > 0;
    HOLDS(descriptors_open() == expected);
    free_allocations();
    vyrwrap_global = {};
    while (kept_count > 0)
        release(kept[--kept_count]);
}

Registered *find_input(int fd, int type) {
    for (unsigned i = 0; i < input_count; i++)
        if (inputs[i].fd == fd && inputs[i].type == type)
            return &inputs[i];
    return nullptr;
}

void run_timer(uint32_t id) {
    for (unsigned i = 0; i < timer_count; i++)
        if (timers[i].id == id) {
            const RunningTimer timer = timers[i];
            if (!timer.periodic)
                timers[i] = timers[--timer_count];
            timer.handler(timer.user_data);
            return;
        }
}

}  // namespace fuzz

using namespace fuzz;

/* ---- logging: the library's own levels and names, over a sink that checks each line ---- */

bool log_passes(int, int, int, const char *) {
    return true;
}

void log_sink_open(const char *) {}

void log_sink_write(int level, int module, int message_id, const char *text) {
    log_line_count++;
    check_line(level, module, message_id, text);
    if (level != LOG_LEVEL_ERROR)
        return;
    const size_t length = strlen(text);
    memcpy(error_text, text, length + 1);
    last_error = {error_text, length};
}

/* ---- the Dispatcher ---- */

Dispatcher *DispatcherCreate(void) {
    return &the_dispatcher;
}

void DispatcherDestroy(Dispatcher *dispatcher) {
    dispatcher->shutting_down = 1;
    input_count = 0;
    timer_count = 0;
}

int DispProcess(Dispatcher *, int) {
    if (on_process)
        on_process();
    return 0;
}

int DispAddInput(Dispatcher *, int fd, int type, DispInputHandler handler, void *user_data) {
    HOLDS(is_open_socket(fd));
    if (Registered *input = find_input(fd, type)) {
        *input = {fd, type, handler, user_data};
        return 0;
    }
    HOLDS(input_count < sizeof inputs / sizeof inputs[0]);
    inputs[input_count++] = {fd, type, handler, user_data};
    return 0;
}

int DispRemoveInput(Dispatcher *, int fd, int type) {
    if (Registered *input = find_input(fd, type))
        *input = inputs[--input_count];
    return 0;
}

uint32_t DispAddTimerInternal(Dispatcher *, uint32_t, DispTimerHandler handler, void *user_data, int periodic, int,
                              const char *, int) {
    HOLDS(timer_count < sizeof timers / sizeof timers[0]);
    timers[timer_count++] = {++next_timer, periodic, handler, user_data};
    return next_timer;
}

int DispRemoveTimerInternal(Dispatcher *, uint32_t id, const char *, int) {
    for (unsigned i = 0; i < timer_count; i++)
        if (timers[i].id == id)
            timers[i] = timers[--timer_count];
    return 0;
}

/* ---- commands and identity ---- */

void execute_command(const char *command) {
    HOLDS(command && *command);
    command_count++;
}

int execute_command_status(const char *command) {
    HOLDS(command && *command);
    command_count++;
    return 0;
}

int get_mac_addr(uint8_t *mac, int size, void *, int) {
    constexpr uint8_t kMac[] = {0x00, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
    HOLDS(size == sizeof kMac);
    memcpy(mac, kMac, sizeof kMac);
    return 0;
}

int get_ap_serial_num(char *text, int size) {
    snprintf(text, static_cast<size_t>(size), "%.*s", static_cast<int>(serial.size()), serial.data());
    return 0;
}
