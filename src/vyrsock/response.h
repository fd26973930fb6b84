/*
 * Ownership of the routing daemon's messages.
 */
#pragma once

#include <memory>

#include "platform/vyrpb.h"

struct FreeResponse {
    void operator()(ProtoRespMsg *response) const { proto_resp_msg__free_unpacked(response, nullptr); }
};

/** An unpacked message of the routing daemon. */
using OwnedResponse = std::unique_ptr<ProtoRespMsg, FreeResponse>;

/** Unpacks a message; NULL when the bytes are none, or when memory is short. */
inline OwnedResponse unpack_response(const uint8_t *bytes, size_t length) {
    return OwnedResponse(proto_resp_msg__unpack(nullptr, length, bytes));
}
