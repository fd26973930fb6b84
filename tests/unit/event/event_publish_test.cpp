#include "event/event_publish.h"

#include <errno.h>
#include <pb_encode.h>

#include "event/event_channel.h"
#include "fakes/fakes.h"

namespace {

using namespace std::string_literals;

const std::string kExample = "\x0a\x00\x2a\x08\x08\x01\x10\xa0\x1f\x18\x80\x20"s;

/** What the encoder asks for while it writes an origin's bytes. */
struct OriginScript {
    size_t length = 0;           /**< bytes to write */
    int calls = 0;               /**< how often the encoder asked */
    int failing_call = 0;        /**< the call that fails, counted from one; 0: none */
    const char *error = nullptr; /**< the text that it fails with */
};

bool encode_origin(pb_ostream_t *stream, const pb_field_t *field, void *const *arg) {
    auto *script = static_cast<OriginScript *>(*arg);
    script->calls++;
    if (script->calls == script->failing_call) {
        if (script->error)
            PB_SET_ERROR(stream, script->error);
        return false;
    }
    const std::string bytes(script->length, 'o');
    return pb_encode_tag_for_field(stream, field) &&
           pb_encode_string(stream, reinterpret_cast<const pb_byte_t *>(bytes.data()), bytes.size());
}

PlatformEvent example_event() {
    PlatformEvent event = PlatformEvent_init_zero;
    event.has_route_limit = true;
    event.route_limit = {true, 1, true, 4000, true, 4096};
    return event;
}

PlatformEvent event_with_origin(OriginScript *script) {
    PlatformEvent event = PlatformEvent_init_zero;
    event.source.has_origin = true;
    event.source.origin.id.funcs.encode = encode_origin;
    event.source.origin.id.arg = script;
    return event;
}

/** Bytes that three nested messages of more than 127 bytes add to an origin's own. */
constexpr size_t kOriginOverhead = 9;

std::string encoded_with_origin(size_t length) {
    const auto header = [](char tag, size_t size) {
        return tag + std::string{static_cast<char>((size & 0x7f) | 0x80), static_cast<char>(size >> 7)};
    };
    return header(0x0a, length + 6) + header(0x0a, length + 3) + header(0x0a, length) + std::string(length, 'o');
}

class EventPublishTest : public fake::Test {
protected:
    static int package(const PlatformEvent &event, std::string *bytes) {
        Owned<uint8_t> payload;
        const int length = dal_package_event(116, &event, payload);
        if (length >= 0)
            bytes->assign(reinterpret_cast<const char *>(payload.get()), static_cast<size_t>(length));
        else
            EXPECT_EQ(payload, nullptr);
        return length;
    }

    static void publish(const PlatformEvent &event, uint16_t eid = 116) {
        dal_pub_event(vyrwrap_global.dal_ctx, eid, &event);
    }

    static std::vector<std::string> errors() { return fake::log_texts(3); }
};

TEST_F(EventPublishTest, EncodesTheExampleInTwelveBytes) {
    std::string bytes;
    EXPECT_EQ(package(example_event(), &bytes), 12);
    EXPECT_EQ(bytes, kExample);
    EXPECT_TRUE(fake::logged(6, "dal_package_event: Number of bytes in msg stream: 12"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
}

TEST_F(EventPublishTest, AnEventWithoutMembersStillHasItsSource) {
    std::string bytes;
    const PlatformEvent event = PlatformEvent_init_zero;
    EXPECT_EQ(package(event, &bytes), 2);
    EXPECT_EQ(bytes, "\x0a\x00"s);
}

TEST_F(EventPublishTest, TheOtherMembersHaveTheirTagsAndKinds) {
    PlatformEvent event = PlatformEvent_init_zero;
    event.has_text = true;
    strcpy(event.text, "ab");
    event.has_detail_3 = event.has_detail_4 = event.has_detail_6 = event.has_detail_7 = true;
    event.source.has_address = true;
    event.source.address.family = 2;
    event.source.address.address.size = 4;
    memcpy(event.source.address.address.bytes, "\x0a\x01\x02\x03", 4);
    std::string bytes;
    package(event, &bytes);
    EXPECT_EQ(bytes,
              "\x0a\x0a\x12\x08\x08\x02\x12\x04\x0a\x01\x02\x03"
              "\x12\x02\x61\x62\x1a\x00\x22\x00\x32\x00\x3a\x00"s);
    EXPECT_EQ(sizeof event.text, 512U);
    EXPECT_EQ(sizeof event.source.device_name, 129U);
}

TEST_F(EventPublishTest, TheBufferIsTwentyPerCentLargerThanMeasuredRoundedDown) {
    fake::fail_call("calloc", ENOMEM);
    std::string bytes;
    EXPECT_EQ(package(example_event(), &bytes), -1);
    EXPECT_EQ(errors(), (std::vector<std::string>{"dal_package_event: Failed to allocate memory 14",
                                                  "dal_package_event(1003) EID(116):Encode message fail"}));
}

TEST_F(EventPublishTest, AFailureWhileMeasuringIsLoggedWithItsText) {
    OriginScript script = {5, 0, 1, "no such origin"};
    publish(event_with_origin(&script));
    EXPECT_EQ(errors(), (std::vector<std::string>{"dal_package_event: Encoding failed: no such origin",
                                                  "dal_package_event(1003) EID(116):Encode message fail",
                                                  "dal_pub_event: Event(116) error message length(-1)"}));
    EXPECT_EQ(fake::call_count("calloc"), 0);
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventPublishTest, AFailureWithoutATextGetsTheEncodersOwn) {
    OriginScript script = {5, 0, 1, nullptr};
    publish(event_with_origin(&script));
    ASSERT_EQ(errors().size(), 3U);
    EXPECT_EQ(errors()[0], "dal_package_event: Encoding failed: callback error");
}

TEST_F(EventPublishTest, AFailureInTheSecondPassFreesTheBuffer) {
    OriginScript measured = {5};
    std::string bytes;
    package(event_with_origin(&measured), &bytes);
    fake::log_lines.clear();
    OriginScript script = {5, 0, measured.calls, "lost on the way"};
    publish(event_with_origin(&script));
    EXPECT_EQ(errors(), (std::vector<std::string>{"dal_package_event: Encoding failed: lost on the way",
                                                  "dal_package_event(1003) EID(116):Encode message fail",
                                                  "dal_pub_event: Event(116) error message length(-1)"}));
    EXPECT_EQ(fake::call_count("calloc"), 2) << "the failure came before the second pass";
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventPublishTest, AMissingBufferEndsThePublication) {
    fake::fail_call("calloc", ENOMEM);
    publish(example_event());
    EXPECT_EQ(errors(), (std::vector<std::string>{"dal_package_event: Failed to allocate memory 14",
                                                  "dal_package_event(1003) EID(116):Encode message fail",
                                                  "dal_pub_event: Event(116) error message length(-1)"}));
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventPublishTest, PublishesTheExampleInSixteenBytes) {
    publish(example_event());
    ASSERT_EQ(fake::publications.size(), 1U);
    EXPECT_EQ(fake::publications[0].channel, "/event/ap/route_limit");
    EXPECT_EQ(fake::publications[0].data, "\x74\x00\x01"s + kExample + "\x00"s);
    EXPECT_TRUE(fake::logged(7, "dal_pub_event: Publish event (116) /event/ap/route_limit success"));
    EXPECT_EQ(fake::log_lines.size(), 2U);
}

TEST_F(EventPublishTest, ALostPublicationIsLogged) {
    fake::failing_calls.insert("dal_async_pub");
    publish(example_event());
    EXPECT_EQ(errors(), std::vector<std::string>{"dal_pub_event: Publish event (116) /event/ap/route_limit failed"});
    EXPECT_TRUE(fake::log_texts(7).empty());
}

TEST_F(EventPublishTest, WithoutAContextNothingHappens) {
    vyrwrap_global.dal_ctx = nullptr;
    publish(example_event());
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_TRUE(fake::logged(4, "dal_pub_event(1211): Invalid dal ctx"));
    EXPECT_EQ(fake::log_lines[0].id, 312402);
    EXPECT_TRUE(fake::publications.empty());
    EXPECT_EQ(fake::call_count("calloc"), 0);
}

TEST_F(EventPublishTest, AnIdentifierWithoutChannelIsNotPublished) {
    publish(example_event(), 115);
    EXPECT_EQ(errors(), std::vector<std::string>{"dal_pub_event: Event(115) cannot match valid channel"});
    EXPECT_TRUE(fake::publications.empty());
}

TEST_F(EventPublishTest, TheLargestPayloadFillsTheEnvelope) {
    OriginScript script = {8188 - kOriginOverhead};
    publish(event_with_origin(&script));
    ASSERT_EQ(fake::publications.size(), 1U);
    EXPECT_EQ(fake::publications[0].data.size(), 8192U);
    EXPECT_EQ(fake::publications[0].data, "\x74\x00\x01"s + encoded_with_origin(script.length) + "\x00"s);
    EXPECT_TRUE(fake::logged(6, "dal_package_event: Number of bytes in msg stream: 8188"));
}

TEST_F(EventPublishTest, OneByteMoreIsTooLong) {
    OriginScript script = {8189 - kOriginOverhead};
    publish(event_with_origin(&script));
    EXPECT_EQ(errors(),
              (std::vector<std::string>{"dal_package_event(1007) EID(116):Encode message length(8189) too long",
                                        "dal_pub_event: Event(116) error message length(-1)"}));
    EXPECT_TRUE(fake::publications.empty());
}

}  // namespace
