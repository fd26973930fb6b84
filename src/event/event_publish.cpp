#include "event/event_publish.h"

#include <pb_encode.h>
#include <stddef.h>
#include <string.h>

#include "event/event_channel.h"
#include "event/event_log.h"

namespace {

constexpr double kHeadroom = 1.2; /**< output buffer over what the sizing pass found */

// Place numbers that belong to the messages.
constexpr int kPlaceEncodeFailed = 1003;
constexpr int kPlaceTooLong = 1007;
constexpr int kPlaceNoContext = 1211;

struct Envelope {
    uint16_t eid;
    uint8_t has_payload;
    uint8_t payload[kEventPayloadMax + 1]; /**< the payload and the last byte that is sent */
};
static_assert(sizeof(Envelope) == 8192);
static_assert(offsetof(Envelope, eid) == 0 && offsetof(Envelope, has_payload) == 2 && offsetof(Envelope, payload) == 3);

bool encode(pb_ostream_t *stream, const PlatformEvent *event) {
    if (pb_encode(stream, PlatformEvent_fields, event))
        return true;
    event_log_error("%s: Encoding failed: %s", "dal_package_event", PB_GET_ERROR(stream));
    return false;
}

/** Encodes into a buffer that a sizing pass has measured. Returns the bytes written, or -1. */
int encode_measured(const PlatformEvent *event, Owned<uint8_t> &payload) {
    pb_ostream_t sizing = PB_OSTREAM_SIZING;
    if (!encode(&sizing, event))
        return -1;
    const auto size = static_cast<unsigned>(static_cast<double>(sizing.bytes_written) * kHeadroom);
    if (size == 0)
        return -1;
    payload.reset(static_cast<uint8_t *>(calloc(size, 1)));
    if (!payload) {
        event_log_error("%s: Failed to allocate memory %d", "dal_package_event", static_cast<int>(size));
        return -1;
    }
    pb_ostream_t stream = pb_ostream_from_buffer(payload.get(), size);
    if (!encode(&stream, event)) {
        payload.reset();
        return -1;
    }
    const int length = static_cast<int>(stream.bytes_written);
    event_log_info("%s: Number of bytes in msg stream: %d", "dal_package_event", length);
    return length;
}

void publish(dal_ctx *ctx, const Envelope &envelope, int length) {
    const char *channel = event_channel(envelope.eid);
    if (!channel) {
        event_log_error("%s: Event(%d) cannot match valid channel", "dal_pub_event", envelope.eid);
        return;
    }
    const auto published = static_cast<uint32_t>(length) + offsetof(Envelope, payload) + 1;
    if (dal_async_pub(ctx, channel, static_cast<uint32_t>(strlen(channel)), &envelope,
                      static_cast<uint32_t>(published)) == 0)
        event_log_debug("%s: Publish event (%d) %s success", "dal_pub_event", envelope.eid, channel);
    else
        event_log_error("%s: Publish event (%d) %s failed", "dal_pub_event", envelope.eid, channel);
}

}  // namespace

int dal_package_event(uint16_t eid, const PlatformEvent *event, Owned<uint8_t> &payload) {
    const int length = encode_measured(event, payload);
    if (length < 0) {
        event_log_error("%s(%d) EID(%d):Encode message fail", "dal_package_event", kPlaceEncodeFailed, eid);
        return -1;
    }
    if (length > kEventPayloadMax) {
        event_log_error("%s(%d) EID(%d):Encode message length(%d) too long", "dal_package_event", kPlaceTooLong, eid,
                        length);
        payload.reset();
        return -1;
    }
    return length;
}

void dal_pub_event(dal_ctx *ctx, uint16_t eid, const PlatformEvent *event) {
    if (!ctx) {
        event_log_warning("%s(%d): Invalid dal ctx", "dal_pub_event", kPlaceNoContext);
        return;
    }
    Owned<uint8_t> payload;
    const int length = dal_package_event(eid, event, payload);
    if (length < 0) {
        event_log_error("%s: Event(%d) error message length(%d)", "dal_pub_event", eid, length);
        return;
    }
    Envelope envelope = {};
    envelope.eid = eid;
    memcpy(envelope.payload, payload.get(), static_cast<size_t>(length));
    payload.reset();
    envelope.has_payload = 1;
    publish(ctx, envelope, length);
}
