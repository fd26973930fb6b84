/*
 * libvyrpb: the request and response messages of the routing daemon's sockets, in the form that protobuf-c generates.
 *
 * The library brings the header. What the daemon uses of it:
 *   - ProtoReqMsg with the members request, offset, count, version and flags (optional scalars) and filter (text);
 *     proto_req_msg__init, proto_req_msg__pack
 *   - ProtoRespMsg with the members type and result (optional scalars) and limit (NULL when absent), of which event,
 *     route_count and max_routes; proto_resp_msg__unpack, proto_resp_msg__free_unpacked
 */
#pragma once

#include <vyr.pb-c.h>
