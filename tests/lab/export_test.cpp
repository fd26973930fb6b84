#include "lab/vyr/export.h"

#include <gtest/gtest.h>

#include <cstring>

#include <vyr.pb-c.h>

namespace {

const std::string kReply =
    "1007-Table master4:\n 10.1.0.0/16          unicast [static1] * (200)\n"
    " \tvia 192.168.10.2 on br0\n 10.2.0.0/16          unicast [static1] * (200)\n \tvia 192.168.10.3 on br0\n0000 \n";
const std::string kFirst = "10.1.0.0/16          unicast [static1] * (200)\n\tvia 192.168.10.2 on br0\n";
const std::string kSecond = "10.2.0.0/16          unicast [static1] * (200)\n\tvia 192.168.10.3 on br0\n";

std::string body_of(const std::string &frame) {
    uint32_t length = 0;
    memcpy(&length, frame.data(), sizeof length);
    EXPECT_EQ(length, frame.size());
    return frame.substr(sizeof length);
}

/** Type, result and data of the answer to a request with that code. */
struct Answer {
    uint32_t type = 0;
    int32_t result = 0;
    bool has_data = false;
    std::string data;
    std::string command;
};

Answer answer_to(const std::string &request, std::optional<std::string> reply = kReply) {
    Answer answer;
    const std::string body = body_of(vyr::answer_request(request, [&](const std::string &command) {
        answer.command = command;
        return reply;
    }));
    ProtoRespMsg *message =
        proto_resp_msg__unpack(nullptr, body.size(), reinterpret_cast<const uint8_t *>(body.data()));
    EXPECT_NE(message, nullptr);
    answer.type = message->type;
    answer.result = message->result;
    answer.has_data = message->has_data != 0;
    answer.data.assign(reinterpret_cast<const char *>(message->data.data), message->data.len);
    proto_resp_msg__free_unpacked(message, nullptr);
    return answer;
}

std::string request(uint8_t code) {
    return {'\x08', static_cast<char>(code), '\x10', '\x00', '\x18', '\x00', '\x20', '\x01', '\x2a', '\x00', '\x30',
            '\x00'};
}

TEST(Export, AnswersWithTheLinesThatBirdGives) {
    const Answer answer = answer_to(request(3));
    EXPECT_EQ(answer.command, "show route");
    EXPECT_EQ(answer.type, 3U);
    EXPECT_EQ(answer.result, 2);
    EXPECT_EQ(answer.data, kFirst + kSecond);
}

TEST(Export, AsksBirdForWhatEachCodeMeans) {
    EXPECT_EQ(answer_to(request(23)).command, "show route all");
    EXPECT_EQ(answer_to(request(27)).command, "show static");
    EXPECT_EQ(answer_to(request(29)).command, "show protocols");
    EXPECT_EQ(answer_to(request(25)).command, "show interfaces");
}

TEST(Export, HasNoSuccessForWhatBirdCannotGive) {
    for (const std::string &bad : {request(44), request(99), request(0), std::string("\xff\xff\xff"), std::string()}) {
        const Answer answer = answer_to(bad);
        EXPECT_EQ(answer.result, 1);
        EXPECT_FALSE(answer.has_data);
        EXPECT_EQ(answer.command, "");
    }
    EXPECT_EQ(answer_to(request(3), std::nullopt).result, 1);
}

TEST(Export, SucceedsWithNothingWhenBirdHoldsNothing) {
    const Answer answer = answer_to(request(3), "0000 \n");
    EXPECT_EQ(answer.result, 2);
    EXPECT_TRUE(answer.has_data);
    EXPECT_EQ(answer.data, "");
}

TEST(Export, KeepsEveryFrameBelowOneMebibyte) {
    std::string reply;
    while (reply.size() < 3000000)
        reply += " 10.1.0.0/16          unicast [static1] * (200)\n \tvia 192.168.10.2 on br0\n";
    const std::string frame =
        vyr::answer_request(request(3), [&](const std::string &) { return std::optional(reply + "0000 \n"); });
    EXPECT_LT(frame.size(), 1048576U);
    EXPECT_GT(frame.size(), 1048000U);
    EXPECT_TRUE(frame.ends_with("\tvia 192.168.10.2 on br0\n"));
}

TEST(Entries, AreCountedWithTheirContinuationLines) {
    EXPECT_EQ(vyr::select_entries(kReply, 0, 0, 1000), kFirst + kSecond);
    EXPECT_EQ(vyr::select_entries(kReply, 0, 1, 1000), kFirst);
    EXPECT_EQ(vyr::select_entries(kReply, 1, 1, 1000), kSecond);
    EXPECT_EQ(vyr::select_entries(kReply, 2, 640, 1000), "");
    EXPECT_EQ(vyr::select_entries(kReply, UINT32_MAX, UINT32_MAX, 1000), "");
    EXPECT_EQ(vyr::select_entries("", 0, 0, 1000), "");
}

TEST(Entries, AreNeverCutInside) {
    for (size_t limit = 0; limit < kFirst.size() + kSecond.size(); ++limit)
        EXPECT_EQ(vyr::select_entries(kReply, 0, 0, limit), limit < kFirst.size() ? "" : kFirst) << limit;
}

TEST(RouteCount, IsTheMainTablesNumberOfNetworks) {
    EXPECT_EQ(vyr::parse_route_count("1007-7 of 7 routes for 5 networks in table master4\n"
                                     " 0 of 0 routes for 0 networks in table master6\n0014 Total: 7 of 7\n"),
              5U);
    EXPECT_EQ(vyr::parse_route_count("0000 \n"), std::nullopt);
}

TEST(LimitEvent, IsOfType73WithCountAndLimit) {
    EXPECT_EQ(vyr::pack_limit_event(513, 512), std::string("\x08\x49\x22\x08\x08\x01\x10\x81\x04\x18\x80\x04", 12));
}

}  // namespace
