#include "lab/vyr/export.h"

#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <sstream>
#include <string_view>

#include <vyr.pb-c.h>

#include "lab/vyr/bird.h"

namespace vyr {

namespace {

constexpr int32_t kSuccess = 2;
constexpr int32_t kFailure = 1;
constexpr size_t kMaxFrame = 1048575;
constexpr size_t kMaxOverhead = 64;  // the frame's length, and type, result and the data's tag and length
constexpr uint32_t kRouteLimitType = 73;
constexpr uint32_t kLimitExceeded = 1;

struct Question {
    uint32_t request;
    const char *command;  ///< null: stock BIRD has nothing of the kind
};

constexpr std::array<Question, 6> kQuestions{{
    {3, "show route"},
    {23, "show route all"},
    {27, "show static"},
    {29, "show protocols"},
    {25, "show interfaces"},
    {44, nullptr},  // the overlay's routes
}};

struct FreeRequest {
    void operator()(ProtoReqMsg *request) const { proto_req_msg__free_unpacked(request, nullptr); }
};

struct Answer {
    uint32_t type;
    int32_t result;
    std::string data;
};

std::string pack(ProtoRespMsg &message) {
    std::string packed(proto_resp_msg__get_packed_size(&message), '\0');
    proto_resp_msg__pack(&message, reinterpret_cast<uint8_t *>(packed.data()));
    return packed;
}

std::string frame(Answer answer) {
    ProtoRespMsg message;
    proto_resp_msg__init(&message);
    message.has_type = 1;
    message.type = answer.type;
    message.has_result = 1;
    message.result = answer.result;
    message.has_data = answer.result == kSuccess;
    message.data = {answer.data.size(), reinterpret_cast<uint8_t *>(answer.data.data())};
    const std::string body = pack(message);
    const auto length = static_cast<uint32_t>(body.size() + sizeof(uint32_t));
    std::string bytes(sizeof length, '\0');
    memcpy(bytes.data(), &length, sizeof length);
    return bytes + body;
}

Answer answer_known(const ProtoReqMsg &request, const AskBird &ask) {
    const uint32_t type = request.has_request ? request.request : 0;
    for (const Question &question : kQuestions) {
        if (question.request != type || !question.command)
            continue;
        const auto reply = ask(question.command);
        if (!reply)
            break;
        return {type, kSuccess, select_entries(*reply, request.offset, request.count, kMaxFrame - kMaxOverhead)};
    }
    return {type, kFailure, {}};
}

}  // namespace

std::string answer_request(const std::string &request, const AskBird &ask) {
    const std::unique_ptr<ProtoReqMsg, FreeRequest> message(
        proto_req_msg__unpack(nullptr, request.size(), reinterpret_cast<const uint8_t *>(request.data())));
    return frame(message ? answer_known(*message, ask) : Answer{0, kFailure, {}});
}

std::string select_entries(const std::string &reply, uint32_t offset, uint32_t count, size_t limit) {
    std::string text;
    size_t whole = 0;  // bytes of `text` up to the last whole entry
    uint64_t entry = 0;
    for (const std::string &line : reply_lines(reply)) {
        const bool continued = line.starts_with(' ') || line.starts_with('\t');
        if (line.empty() || (!continued && line.starts_with("Table ")))
            continue;
        if (!continued) {
            whole = text.size();
            ++entry;
        }
        if (entry <= offset)
            continue;
        if (count != 0 && entry > uint64_t{offset} + count)
            break;
        text += line + "\n";
        if (text.size() > limit)
            return text.substr(0, whole);
    }
    return text;
}

std::string pack_limit_event(uint32_t routes, uint32_t limit) {
    RouteLimitEvent event;
    route_limit_event__init(&event);
    event.has_event = event.has_route_count = event.has_max_routes = 1;
    event.event = kLimitExceeded;
    event.route_count = routes;
    event.max_routes = limit;
    ProtoRespMsg message;
    proto_resp_msg__init(&message);
    message.has_type = 1;
    message.type = kRouteLimitType;
    message.limit = &event;
    return pack(message);
}

std::optional<uint32_t> parse_route_count(const std::string &reply) {
    constexpr std::string_view kFor = " routes for ";
    for (const std::string &line : reply_lines(reply)) {
        const size_t place = line.find(kFor);
        uint32_t count = 0;
        if (place != std::string::npos && line.ends_with(" in table master4") &&
            std::from_chars(line.data() + place + kFor.size(), line.data() + line.size(), count).ec == std::errc{})
            return count;
    }
    return std::nullopt;
}

}  // namespace vyr
