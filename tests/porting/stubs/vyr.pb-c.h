/*
 * The routing daemon's messages, as far as the daemon looks at them. A real platform has this file generated.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ProtoReqMsg {
    int has_request, has_offset, has_count, has_version, has_flags;
    uint32_t request, offset, count, version, flags;
    char *filter;
} ProtoReqMsg;

typedef struct RouteLimitEvent {
    uint32_t event, route_count, max_routes;
} RouteLimitEvent;

typedef struct ProtoRespMsg {
    uint32_t type;
    int32_t result;
    RouteLimitEvent *limit;
} ProtoRespMsg;

void proto_req_msg__init(ProtoReqMsg *message);
size_t proto_req_msg__pack(const ProtoReqMsg *message, uint8_t *bytes);
ProtoRespMsg *proto_resp_msg__unpack(void *allocator, size_t length, const uint8_t *bytes);
void proto_resp_msg__free_unpacked(ProtoRespMsg *message, void *allocator);

#ifdef __cplusplus
}
#endif
