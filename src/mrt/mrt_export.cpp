#include "mrt/mrt_export.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/log.h"
#include "core/notification.h"
#include "core/owned.h"
#include "vyrsock/control_client.h"
#include "vyrsock/response.h"

namespace {

constexpr char kExportPath[] = "/tmp/.vyrwrap_mrt";

constexpr uint32_t kRequestCodes[] = {3, 23, 27, 29, 25, 44}; /**< by export type */
constexpr uint32_t kExportTypes = sizeof kRequestCodes / sizeof kRequestCodes[0];

constexpr uint32_t kRequestOffset = 0;
constexpr uint32_t kRequestCount = 640;
constexpr uint32_t kRequestVersion = 1;
constexpr uint32_t kRequestFlags = 0;

constexpr int32_t kResultSuccess = 2;

/** The export type that stands in the first bytes of a trigger's data; 0 when they are too few. */
uint32_t export_type(const dal_reply *data) {
    uint32_t type = 0;
    if (data->str && data->len >= sizeof type) {
        memcpy(&type, data->str, sizeof type);
        log_info("<VYRWRAP> %s : Event Type %d", "vyrwrap_dal_mrt_subscribe_callback", static_cast<int>(type));
    }
    return type;
}

/** Packs the request into a buffer of kControlBufferSize bytes. Returns its length. */
size_t pack_request(uint32_t request_code, uint8_t *buffer) {
    char no_filter[] = "";
    ProtoReqMsg request;
    proto_req_msg__init(&request);
    request.has_request = true;
    request.request = request_code;
    request.has_offset = true;
    request.offset = kRequestOffset;
    request.has_count = true;
    request.count = kRequestCount;
    request.has_version = true;
    request.version = kRequestVersion;
    request.filter = no_filter;
    request.has_flags = true;
    request.flags = kRequestFlags;
    return proto_req_msg__pack(&request, buffer);
}

/** Sends the request and reads the answer's body into the same buffer. Returns the body's length, 0 on failure. */
uint32_t exchange(uint32_t request_code, uint8_t *buffer) {
    const size_t length = pack_request(request_code, buffer);
    if (length < 1) {
        log_error("Encoding failed");
        return 0;
    }
    log_debug("MRT VYR req for routes: msg_len %d", static_cast<int>(length));
    if (!vyrwrap_send_to_vyr(buffer, length))
        return 0;
    const uint32_t body_length = vyrwrap_read_from_vyr(buffer);
    if (body_length == 0)
        log_error("vyrwrap message read error from vyr");
    return body_length;
}

bool is_success(const uint8_t *body, uint32_t length) {
    const OwnedResponse response = unpack_response(body, length);
    if (!response) {
        log_error("<VYRWRAP>: Error proto unpack for MRT data");
        return false;
    }
    log_info("<VYRWRAP>: MRT proto response received, result %d \n", response->result);
    if (response->result == kResultSuccess)
        return true;
    log_error("<VYRWRAP>: Error proto resp msg not success %d", response->result);
    return false;
}

/** Whether the open file is ours alone, so that its mode and length may be changed. */
bool is_own_regular_file(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

/** Opens the export file, empty and 0600. What others may have put in its place in /tmp stays as it is: -1. */
int open_export_file() {
    const int fd = open(kExportPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    if (is_own_regular_file(fd) && fchmod(fd, 0600) == 0 && ftruncate(fd, 0) == 0)
        return fd;
    close(fd);
    return -1;
}

void write_export_file(const uint8_t *body, uint32_t length) {
    const int fd = open_export_file();
    if (fd < 0) {
        log_error("<VYRWRAP>: Error MRT data file write");
        return;
    }
    [[maybe_unused]] const ssize_t written = write(fd, body, length);  // as defined: what fits is the export
    close(fd);
    log_debug("<VYRWRAP>: MRT data exported to %s len %d", kExportPath, static_cast<int>(length));
}

}  // namespace

void vyrwrap_dal_mrt_subscribe_callback(dal_ctx *, const dal_reply *reply, void *) {
    if (!notification_is_pattern_message(reply))
        return;
    log_debug("<VYRWRAP> %s : Number of elements %d", "vyrwrap_dal_mrt_subscribe_callback",
              static_cast<int>(reply->elements));
    if (reply->elements < kNotificationElements)
        return;
    const dal_reply *data = reply->element[NOTIFICATION_DATA];
    if (!data)
        return;
    log_debug("<VYRWRAP> %s : Mtype %s, sub_key %s, data_key %s, Data %d : %s", "vyrwrap_dal_mrt_subscribe_callback",
              notification_text(reply, NOTIFICATION_KIND), text_or_null(notification_text(reply, NOTIFICATION_PATTERN)),
              text_or_null(notification_text(reply, NOTIFICATION_CHANNEL)), static_cast<int>(data->len),
              text_or_null(data->str));
    const uint32_t type = export_type(data);
    if (type < kExportTypes)
        vyrwrap_send_mrt_request_to_vyr(kRequestCodes[type]);
}

void vyrwrap_send_mrt_request_to_vyr(uint32_t request_code) {
    const Owned<uint8_t> buffer(static_cast<uint8_t *>(calloc(kControlBufferSize, 1)));
    if (!buffer) {
        log_error("<VYRWRAP>: Failed memory allocation for MRT Route request");
        return;
    }
    const uint32_t length = exchange(request_code, buffer.get());
    if (length == 0)
        return;
    log_debug("<VYRWRAP> %s :Recieved data len = %d", "vyrwrap_send_mrt_request_to_vyr", static_cast<int>(length));
    if (is_success(buffer.get(), length))
        write_export_file(buffer.get(), length);
}
