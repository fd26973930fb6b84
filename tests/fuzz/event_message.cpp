/* Messages of the routing daemon's event socket, and the event that is published. */
#include <errno.h>
#include <string.h>

#include "core/global.h"
#include "platform/vyrpb.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "vyrsock/event_server.h"

using namespace fuzz;

namespace {

constexpr uint32_t kRouteLimitType = 73;
constexpr size_t kNameMost = 128;
constexpr int kMessageMax = 3;

std::string_view message;
bool interrupted;

ssize_t read_message(int, void *buffer, size_t size) {
    if (interrupted) {
        interrupted = false;
        errno = EINTR;
        return -1;
    }
    const size_t length = message.size() < size ? message.size() : size;
    if (length > 0)
        memcpy(buffer, message.data(), length);
    return static_cast<ssize_t>(length);
}

/** Takes a varint. */
uint64_t take_number(std::string_view *bytes) {
    uint64_t number = 0;
    for (int shift = 0; !bytes->empty(); shift += 7) {
        const auto byte = static_cast<uint8_t>(bytes->front());
        bytes->remove_prefix(1);
        number |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (!(byte & 0x80))
            return number;
    }
    HOLDS(number == 0);  // it does not end
    return number;
}

/** Takes a member that is a text or a message, which has to be there. */
std::string_view take_member(std::string_view *bytes, uint64_t tag) {
    HOLDS(take_number(bytes) == (tag << 3 | 2));
    const uint64_t length = take_number(bytes);
    HOLDS(length <= bytes->size());
    const std::string_view member = bytes->substr(0, static_cast<size_t>(length));
    bytes->remove_prefix(member.size());
    return member;
}

/** Reads the envelope by its format: identifier, flag, source with the name, limit with its three numbers, a last 0. */
void check_publication(const ProtoRespMsg &response, std::string_view name) {
    std::string_view envelope = last_publication;
    HOLDS(envelope.size() >= 4 && envelope[0] == 116 && envelope[1] == 0 && envelope[2] == 1);
    HOLDS(envelope.back() == 0);
    envelope = envelope.substr(3, envelope.size() - 4);
    std::string_view source = take_member(&envelope, 1);
    if (name.empty())
        HOLDS(source.empty());
    else
        HOLDS(take_member(&source, 3) == name && source.empty());
    std::string_view limit = take_member(&envelope, 5);
    HOLDS(envelope.empty());
    const uint32_t numbers[] = {response.limit->event, response.limit->route_count, response.limit->max_routes};
    for (uint64_t tag = 1; tag <= 3; tag++)
        HOLDS(take_number(&limit) == tag << 3 && take_number(&limit) == numbers[tag - 1]);
    HOLDS(limit.empty());
}

/** What the device's name file makes of the name: its first line, cut, up to a NUL. */
std::string_view first_line(std::string_view content) {
    const size_t end = content.find('\n');
    content = content.substr(0, end == content.npos ? end : end + 1).substr(0, kNameMost);
    return content.substr(0, content.find('\0'));
}

void check_message(std::string_view name) {
    ProtoRespMsg *response =
        proto_resp_msg__unpack(nullptr, message.size(), reinterpret_cast<const uint8_t *>(message.data()));
    const unsigned before = publication_count;
    vyrwrap_handle_vyr_event(reinterpret_cast<const uint8_t *>(message.data()), static_cast<uint32_t>(message.size()));
    const bool published = response && response->type == kRouteLimitType && response->limit;
    HOLDS(publication_count == before + (published ? 1 : 0));
    if (published)
        check_publication(*response, name);
    if (response)
        proto_resp_msg__free_unpacked(response, nullptr);
}

/** The whole way of a connection: accepted, read once, closed at its end. */
void check_connection(bool second_peer) {
    HOLDS(vyrwrap_event_server_init() == 1);
    const int listening = vyrwrap_global.event_listen_fd;
    HOLDS(find_input(listening, DISP_READ));
    HOLDS(vyrwrap_event_accept_cb(nullptr) == 1);
    if (second_peer)
        vyrwrap_event_accept_cb(nullptr);
    HOLDS(!find_input(listening, DISP_READ) && find_input(vyrwrap_global.event_conn_fd, DISP_READ));
    on_read = read_message;
    vyrwrap_event_read_cb(nullptr);
    const bool closed = message.empty();
    HOLDS((vyrwrap_global.event_conn_fd == 0) == closed);
    HOLDS((find_input(listening, DISP_READ) != nullptr) == closed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kConnection = 1;
    constexpr uint8_t kName = 2;
    constexpr uint8_t kSecondPeer = 4;
    constexpr uint8_t kInterrupted = 8;
    constexpr uint8_t kNoName = 16;
    Input input = begin_over_store(data, size);
    const uint8_t bits = take_byte(&input);
    const std::string_view name = bits & kName ? take_bytes(&input, take_byte(&input)) : "";
    if (!(bits & kNoName) || bits & kName)
        put_file("/tmp/name", name);
    interrupted = bits & kInterrupted;
    // a name once read stays, here for the executions after this one
    static char kept_name[kNameMost + 1];
    if (bits & kConnection) {
        message = take_rest(&input);
        check_connection(bits & kSecondPeer);
    }
    const bool reads_name = bits & kConnection || input.left > 0;
    if (reads_name && file("/tmp/name").data()) {
        const std::string_view line = first_line(name);
        memcpy(kept_name, line.data(), line.size());
        kept_name[line.size()] = '\0';
    }
    for (int i = 0; i < kMessageMax && input.left > 0; i++) {
        message = take_bytes(&input, i + 1 < kMessageMax && bits & 32 ? take_byte(&input) : input.left);
        check_message(kept_name);
    }
    end(0);
    return 0;
}
