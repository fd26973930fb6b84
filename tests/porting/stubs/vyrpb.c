/* Messages that cannot be told: nothing is sent, nothing is understood. */
#include <string.h>

#include "vyr.pb-c.h"

void proto_req_msg__init(ProtoReqMsg *message) {
    memset(message, 0, sizeof *message);
}

size_t proto_req_msg__pack(const ProtoReqMsg *message, uint8_t *bytes) {
    (void)message;
    (void)bytes;
    return 0;
}

ProtoRespMsg *proto_resp_msg__unpack(void *allocator, size_t length, const uint8_t *bytes) {
    (void)allocator;
    (void)length;
    (void)bytes;
    return NULL;
}

void proto_resp_msg__free_unpacked(ProtoRespMsg *message, void *allocator) {
    (void)message;
    (void)allocator;
}
