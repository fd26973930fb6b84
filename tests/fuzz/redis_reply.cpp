/*
 * Bytes from the DAL's server, on every connection of the client for Linux, with subscriptions standing and calls being
 * made: a server that answers properly, in part, wrongly, late or not at all.
 */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/un.h>

#include <span>

#include "core/dal_adapter.h"
#include "core/global.h"
#include "linux/dal/context.h"
#include "tests/fuzz/platform.h"

using namespace fuzz;

namespace {

constexpr size_t kStreamMost = 8192;
constexpr int kConnectionMax = 16;
constexpr int kStepMax = 12;
constexpr int kFirstSocket = 600;
constexpr char kPatterns[] = "__keyspace@0__:/op/a* __keyspace@0__:/op/b";

constexpr int kKeyCount = 2;
constexpr std::string_view kKeys[kKeyCount] = {"/op/a", "/op/b"};
constexpr int kArgumentMax = 16;
constexpr char kTooLarge = '3'; /**< a value that stands for one of which the client reads only how long it is */

/** What the server holds under a key. */
enum class Kind : uint8_t { none, string, hash };
struct Held {
    Kind kind;
    char value; /**< of the string, or of the hash's one field */
};

/** What the server has sent on a connection and nobody has read. */
struct Stream {
    char bytes[kStreamMost];
    size_t begin;
    size_t end;
    bool closed;
};

Input script;
Stream streams[kConnectionMax];
unsigned lost_count;
unsigned delivered_count;
Held held[kKeyCount];
Held answered[kKeyCount];   /**< as it was when the key was last read whole */
Held told[kKeyCount];       /**< as the subscriber has been told, or could read when it was */
bool read_since[kKeyCount]; /**< the daemon has read the key at another time than that, and may know better */
bool in_order;              /**< the server has answered everything properly so far */

Stream *stream_of(int fd) {
    HOLDS(fd >= kFirstSocket && fd < kFirstSocket + kConnectionMax);
    return &streams[fd - kFirstSocket];
}

void send(Stream *to, std::string_view bytes) {
    if (to->begin == to->end)
        to->begin = to->end = 0;
    if (bytes.size() > kStreamMost - to->end)
        bytes = bytes.substr(0, kStreamMost - to->end);
    if (!bytes.empty())
        memcpy(to->bytes + to->end, bytes.data(), bytes.size());
    to->end += bytes.size();
}

/** Takes one argument of a command as it is sent: "$LENGTH\r\nBYTES\r\n". */
std::string_view take_argument(std::string_view *command) {
    const size_t line = command->find("\r\n");
    HOLDS(line != command->npos && (*command)[0] == '$');
    const auto length = static_cast<size_t>(atoi(command->data() + 1));
    HOLDS(line + 2 + length + 2 <= command->size());
    const std::string_view argument = command->substr(line + 2, length);
    command->remove_prefix(line + 2 + length + 2);
    return argument;
}

void send_bulk(Stream *to, std::string_view text) {
    char head[24] = "$";
    size_t at = 1;
    for (size_t unit = 100; unit > 0; unit /= 10)
        if (text.size() >= unit || unit == 1)
            head[at++] = static_cast<char>('0' + text.size() / unit % 10);
    send(to, {head, at});
    send(to, "\r\n");
    send(to, text);
    send(to, "\r\n");
}

void answer_subscription(Stream *to, std::string_view pattern) {
    send(to, "*3\r\n$10\r\npsubscribe\r\n");
    send_bulk(to, pattern);
    send(to, ":1\r\n");
}

bool is_same(const Held &left, const Held &right) {
    return left.kind == right.kind && (left.kind == Kind::none || left.value == right.value);
}

Held held_under(std::string_view key) {
    for (int i = 0; i < kKeyCount; i++)
        if (same(kKeys[i], key))
            return held[i];
    return {Kind::none, 0};
}

void note_answered(std::string_view key) {
    for (int i = 0; i < kKeyCount; i++)
        if (same(kKeys[i], key))
            answered[i] = held[i];
}

void send_held(Stream *to, const Held &each) {
    if (each.value == kTooLarge)
        send(to, "$16777217\r\n3");
    else
        send_bulk(to, {&each.value, 1});
}

void send_value(Stream *to, const Held &each, Kind wanted) {
    if (each.kind == wanted)
        send_held(to, each);
    else
        send(to, "$-1\r\n");
}

/** Answers a command on one key. Returns whether it was one. */
bool answer_of_key(Stream *to, std::string_view name, const Held &each) {
    constexpr std::string_view kTypes[] = {"+none\r\n", "+string\r\n", "+hash\r\n"};
    const bool is_get = same(name, "GET");
    const bool is_hash_command = same(name, "HGET") || same(name, "HGETALL");
    if (same(name, "EXISTS"))
        send(to, each.kind == Kind::none ? ":0\r\n" : ":1\r\n");
    else if (same(name, "TYPE"))
        send(to, kTypes[static_cast<int>(each.kind)]);
    else if ((is_get && each.kind == Kind::hash) || (is_hash_command && each.kind == Kind::string))
        send(to, "-WRONGTYPE Operation against a key holding the wrong kind of value\r\n");
    else if (same(name, "HGETALL")) {
        send(to, each.kind == Kind::none ? "*0\r\n" : "*2\r\n$1\r\nf\r\n");
        if (each.kind == Kind::hash)
            send_held(to, each);
    } else if (is_get || is_hash_command)
        send_value(to, each, is_get ? Kind::string : Kind::hash);
    else
        return false;
    return true;
}

/** Whether a key is one of those that a SCAN asks for: all, or those of the pattern with the star. */
bool is_asked_for(std::span<const std::string_view> scan, std::string_view key) {
    for (const std::string_view argument : scan)
        if (same(argument, "/op/a*"))
            return same(key, "/op/a");
    return true;
}

/** All keys in one step. */
void answer_scan(Stream *to, std::span<const std::string_view> scan) {
    int count = 0;
    for (int i = 0; i < kKeyCount; i++)
        count += held[i].kind != Kind::none && is_asked_for(scan, kKeys[i]);
    const char array[] = {'*', static_cast<char>('0' + count), '\r', '\n'};
    send(to, "*2\r\n$1\r\n0\r\n");
    send(to, {array, sizeof array});
    for (int i = kKeyCount - 1; i >= 0; i--)
        if (held[i].kind != Kind::none && is_asked_for(scan, kKeys[i]))
            send_bulk(to, kKeys[i]);
}

void answer_values(Stream *to, std::span<const std::string_view> keys) {
    const char array[] = {'*', static_cast<char>('0' + keys.size() % 10), '\r', '\n'};
    send(to, {array, sizeof array});
    for (const std::string_view key : keys) {
        note_answered(key);
        send_value(to, held_under(key), Kind::string);
    }
}

/** What a server in order answers. */
void answer(Stream *to, std::span<const std::string_view> command) {
    const std::string_view name = command[0];
    const std::string_view object = command.size() > 1 ? command[1] : "";
    if (same(name, "GET") || same(name, "HGETALL"))
        note_answered(object);
    if (same(name, "PSUBSCRIBE"))
        answer_subscription(to, object);
    else if (same(name, "SUBSCRIBE"))
        send(to, "*3\r\n$9\r\nsubscribe\r\n$20\r\n__redis__:invalidate\r\n:1\r\n");
    else if (same(name, "SCAN"))
        answer_scan(to, command);
    else if (same(name, "MGET"))
        answer_values(to, command.subspan(1));
    else if (same(name, "PING"))
        send(to, "+PONG\r\n");
    else if (same(name, "CONFIG"))
        send(to, "*2\r\n$22\r\nnotify-keyspace-events\r\n$2\r\nKA\r\n");
    else if (same(name, "INFO"))
        send(to, "$34\r\nloading:0\r\nmaster_link_status:up\r\n\r\n");
    else if (same(name, "PUBLISH") || same(object, "ID"))
        send(to, ":5\r\n");
    else if (!answer_of_key(to, name, held_under(object)))
        send(to, "+OK\r\n");
}

/** A byte of the input says how the server takes a command: properly for as long as there is none left. */
ssize_t take_command(int fd, const void *bytes, size_t size) {
    enum Manner { CLOSED = 250, SILENT, REFUSED, FREE, ONE_BYTE_LESS };
    Stream *to = stream_of(fd);
    std::string_view commands(static_cast<const char *>(bytes), size);
    while (!commands.empty()) {
        HOLDS(commands[0] == '*');
        const int count = atoi(commands.data() + 1);
        commands.remove_prefix(commands.find("\r\n") + 2);
        HOLDS(count >= 1);
        std::string_view command[kArgumentMax];
        HOLDS(count <= kArgumentMax);
        for (int i = 0; i < count; i++)
            command[i] = take_argument(&commands);
        const uint8_t manner = take_byte(&script);
        in_order = in_order && manner < CLOSED;
        if (manner == CLOSED)
            to->closed = true;
        else if (manner == REFUSED)
            send(to, "-ERR no\r\n");
        else if (manner == FREE)
            send(to, take_bytes(&script, take_byte(&script)));
        else if (manner != SILENT)
            answer(to, {command, static_cast<size_t>(count)});
        if (manner == ONE_BYTE_LESS && to->end > to->begin)
            to->end--;
    }
    return static_cast<ssize_t>(size);
}

ssize_t receive(int fd, void *buffer, size_t size) {
    Stream *from = stream_of(fd);
    size_t length = from->end - from->begin;
    if (length == 0 && from->closed)
        return 0;
    errno = EAGAIN;
    if (length == 0)
        return -1;
    if (length > size)
        length = size;
    memcpy(buffer, from->bytes + from->begin, length);
    from->begin += length;
    return static_cast<ssize_t>(length);
}

short poll_stream(int fd, short events) {
    const Stream *stream = stream_of(fd);
    const bool readable = stream->closed || stream->end > stream->begin;
    return static_cast<short>((readable ? events & POLLIN : 0) | (events & POLLOUT));
}

void connected(int fd, const sockaddr *address) {
    HOLDS(address->sa_family == AF_UNIX);
    Stream *stream = stream_of(fd);
    stream->begin = stream->end = 0;
    stream->closed = false;
}

void on_lost() {
    lost_count++;
}

/** A message with a key that its pattern does not stand for tells nothing of it. */
void note_told(dal_ctx *ctx, std::string_view pattern, const char *channel, const char *event) {
    constexpr std::string_view kPrefix = "__keyspace@0__:";
    constexpr std::string_view kPatternOf[kKeyCount] = {"/op/a*", "/op/b"};
    for (int i = 0; i < kKeyCount; i++) {
        if (strlen(channel) < kPrefix.size() || !same(channel + kPrefix.size(), kKeys[i]) ||
            !same(pattern.substr(kPrefix.size()), kPatternOf[i]))
            continue;
        const bool deleted = same(event, "del");
        if (deleted || same(event, "set") || same(event, "hset")) {
            told[i] = deleted ? Held{Kind::none, 0} : held[i];
            read_since[i] = !deleted && !is_same(answered[i], held[i]);
        }
        char value[8];
        uint32_t length = sizeof value;
        const bool reads = take_byte(&script) & 1;
        if (reads && dal_get(ctx, kKeys[i].data(), static_cast<uint32_t>(kKeys[i].size()), value, &length) == 0) {
            told[i] = held[i];
            read_since[i] = false;
        }
    }
}

/** What the daemon relies on: four texts, none of them NULL, a pattern of its own, a channel without NUL. */
void delivered(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    HOLDS(arg == &delivered_count && reply && reply->type == DAL_REPLY_ARRAY && reply->elements == 4);
    for (size_t i = 0; i < 4; i++) {
        const dal_reply *element = reply->element[i];
        HOLDS(element && element->type == DAL_REPLY_STRING && element->str);
        HOLDS(element->str[element->len] == '\0' && (i == 3 || strlen(element->str) == element->len));
    }
    HOLDS(strcmp(reply->element[0]->str, "pmessage") == 0);
    HOLDS(strstr(kPatterns, reply->element[1]->str));
    delivered_count++;
    note_told(ctx, reply->element[1]->str, reply->element[2]->str, reply->element[3]->str);
}

/* ---- calls ---- */

void check_list(List *list, bool keys, bool values) {
    const dal_kv *before = nullptr;
    ListGet(list, LIST_REWIND);
    while (const auto *entry = static_cast<const dal_kv *>(ListGet(list, LIST_NEXT))) {
        HOLDS(entry->key && entry->key[entry->key_len] == '\0');
        HOLDS(!keys || strlen(entry->key) == entry->key_len);
        HOLDS(!keys || !before || strcmp(before->key, entry->key) < 0);
        HOLDS(values == (entry->value != nullptr) && (!values || entry->value[entry->value_len] == '\0'));
        before = entry;
    }
}

void scan(dal_ctx *ctx, bool values) {
    List *list = ListCreate();
    if (values)
        read_since[0] = read_since[1] = true;
    const int result = values ? dal_mget_by_wildcard(ctx, "/op/*", list, nullptr) : dal_scan(ctx, "/op/*", list);
    HOLDS(result == 0 || ListCount(list) == 0);
    check_list(list, true, values);
    dal_free_slist(list);
    ListDestroy(list);
}

void read_hash(dal_ctx *ctx) {
    dal_hash_request request = {};
    strcpy(request.key, "/op/a");
    read_since[0] = true;
    const int result = dal_hgetall(ctx, &request);
    HOLDS(result == 0 || !request.kvlist);
    if (!request.kvlist)
        return;
    check_list(request.kvlist, false, true);
    dal_free_slist(request.kvlist);
    ListDestroy(request.kvlist);
}

void read_value(dal_ctx *ctx, bool field) {
    uint8_t value[8];
    memset(value, 0xee, sizeof value);
    read_since[0] = read_since[0] || !field;
    uint32_t length = 6;
    const int result = field ? dal_hget(ctx, "/op/a", "f", value, &length) : dal_get(ctx, "/op/a", 5, value, &length);
    HOLDS(result == 0 || result == -1);
    HOLDS(length <= 6 && (result == 0 || length == 6));
    for (size_t i = result == 0 ? length : 0; i < sizeof value; i++)
        HOLDS(value[i] == 0xee);
}

void ask_for_existence(dal_ctx *ctx) {
    int exists = 5;
    HOLDS(dal_is_key_exist(ctx, "/op/a", 5, &exists) == 0 ? exists == 0 || exists == 1 : exists == 5);
}

/* ---- the loop ---- */

void run_inputs() {
    for (unsigned i = 0; i < input_count; i++) {
        const Registered input = inputs[i];
        if (input.type == DISP_WRITE || poll_stream(input.fd, POLLIN))
            input.handler(input.user_data);
    }
}

void run_timers() {
    uint32_t ids[16];
    const unsigned count = timer_count;
    for (unsigned i = 0; i < count; i++)
        ids[i] = timers[i].id;
    for (unsigned i = 0; i < count; i++)
        run_timer(ids[i]);
}

/** The server says something that nobody asked for, on the connection of a first byte's choice. */
void server_speaks() {
    if (input_count == 0)
        return;
    const uint8_t bits = take_byte(&script);
    Stream *to = stream_of(inputs[bits % input_count].fd);
    if (bits & 0x40)
        to->closed = true;
    else
        send(to, take_bytes(&script, take_byte(&script)));
}

void server_notifies() {
    constexpr std::string_view kEvents[] = {"set", "del", "rename_to", "expired", "hset", "", "evicted", "copy_to"};
    if (input_count == 0)
        return;
    const uint8_t bits = take_byte(&script);
    Stream *to = stream_of(inputs[0].fd);
    const char *channel =
        bits & 0x40 ? take_text(&script) : (bits & 0x20 ? "__keyspace@0__:/op/b" : "__keyspace@0__:/op/a");
    send(to, "*4\r\n$8\r\npmessage\r\n");
    send_bulk(to, bits & 0x20 ? "__keyspace@0__:/op/b" : "__keyspace@0__:/op/a*");
    send_bulk(to, channel);
    send_bulk(to, kEvents[bits % 8]);
}

/** The store changes; whether a notification tells of it is another step's matter. */
void store_changes() {
    const uint8_t bits = take_byte(&script);
    held[bits & 1] = {static_cast<Kind>(bits / 2 % 3), static_cast<char>('0' + bits / 8 % 4)};
}

void step(dal_ctx *ctx) {
    switch (take_byte(&script) % 18) {
        case 0:
            return server_speaks();
        case 1:
        case 2:
            return server_notifies();
        case 3:
            return read_value(ctx, false);
        case 4:
            return read_value(ctx, true);
        case 5:
            return read_hash(ctx);
        case 6:
            return scan(ctx, false);
        case 7:
            return scan(ctx, true);
        case 8:
            return ask_for_existence(ctx);
        case 9:
            dal_async_pub(ctx, "/event/ap", 9, "data", 4);
            return;
        case 10:
            dal_sub_command(ctx, delivered, &delivered_count, "PSUBSCRIBE __keyspace@0__:/op/b");
            return;
        case 11:
            dal_sub_ctx_chk(ctx);
            return;
        case 12:
            dal_sync_ctx_chk(ctx);
            return;
        case 13:
            return run_timers();
        case 14:
            connect_fails = !connect_fails;
            return;
        case 15:
        case 16:
            return store_changes();
        default:
            return run_inputs();
    }
}

void check_state(const dal_ctx *ctx) {
    HOLDS(ctx->state == dal::State::lost || ctx->subscriber.context);
    HOLDS(ctx->state != dal::State::lost || (input_count == 0 && descriptors_open() == 0));
    for (unsigned i = 0; i < input_count; i++)
        HOLDS(is_open_socket(inputs[i].fd));
}

/** Of a value that is too large nothing has to be told. */
bool is_told_of(int i) {
    if (read_since[i] || (held[i].kind != Kind::none && held[i].value == kTooLarge))
        return true;
    return is_same(told[i], held[i]);
}

bool is_told(const dal_ctx *ctx) {
    for (int i = 0; i < kKeyCount; i++)
        if (!is_told_of(i))
            return false;
    return ctx->state == dal::State::up;
}

/**
 * Once the server does all that it should, the subscriber is told of everything that it does not know yet, and it stays
 * so: for all rounds where that is looked at closer, else for some.
 */
void check_told(dal_ctx *ctx) {
    constexpr int kRounds = 40;
    constexpr int kSome = 6;
    connect_fails = false;
    script.left = 0;
    int unchanged = 0;
    for (int round = 0; round < kRounds && (careful || unchanged < kSome); round++) {
        run_inputs();
        run_timers();
        if (round % 10 == 9)
            dal_sub_ctx_chk(ctx);
        unchanged = is_told(ctx) ? unchanged + 1 : 0;
    }
    HOLDS(unchanged > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    script = begin(data, size);
    on_read = receive;
    on_write = take_command;
    on_poll = poll_stream;
    on_connect = connected;
    lost_count = 0;
    delivered_count = 0;
    in_order = true;
    for (int i = 0; i < kKeyCount; i++) {
        const uint8_t bits = take_byte(&script);
        held[i] = {static_cast<Kind>(bits % 3), static_cast<char>('0' + bits / 4 % 4)};
        answered[i] = told[i] = {Kind::none, 0};
        read_since[i] = false;
    }
    dal_evloop_ctx *evloop = dal_evloop_ctx_init(
        vyrwrap_global.dispatcher, vyrwrap_dal_add_read, vyrwrap_dal_delete_read, vyrwrap_dal_add_write,
        vyrwrap_dal_delete_write, redisDispatcherCleanup, vyrwrap_dal_attach, nullptr, nullptr);
    constexpr uint32_t kAll = DAL_CTX_SYNC | DAL_CTX_SUBSCRIBE | DAL_CTX_PUBLISH;
    dal_ctx *ctx = dal_ctx_init(kAll, "unix:///r", "unix:///s", on_lost, nullptr, evloop);
    HOLDS(ctx);
    if (dal_sub_command(ctx, delivered, &delivered_count, keep_text("PSUBSCRIBE ", kPatterns)) == 0)
        for (int i = 0; i < kKeyCount; i++) {
            told[i] = held[i];  // who subscribes reads what stands, which is known if it could be asked for
            read_since[i] = !in_order;
        }
    for (int i = 0; i < kStepMax && script.left > 0; i++) {
        step(ctx);
        run_inputs();
        check_state(ctx);
    }
    check_told(ctx);
    dal::context_free(ctx);
    HOLDS(timer_count == 0 && input_count == 0);
    end(0);
    return 0;
}
