/* Frames of the routing daemon's control socket, in pieces and with errors, and the export that they become. */
#include <errno.h>
#include <string.h>

#include "core/global.h"
#include "mrt/mrt_export.h"
#include "platform/vyrpb.h"
#include "tests/fuzz/oracle.h"
#include "tests/fuzz/platform.h"
#include "vyrsock/control_client.h"

using namespace fuzz;

namespace {

constexpr char kExportPath[] = "/tmp/.vyrwrap_mrt";
constexpr uint32_t kExportRequest = 3;

Input stream;           /**< what the peer sends */
uint8_t piece_most;     /**< bytes of one read, 0 for no limit */
int errors_left;        /**< reads that fail before one succeeds */
int error_of_read;      /**< with that */
bool failed_for_good;   /**< a read failed with what is no reason to try again */
std::string_view whole; /**< what the peer sends, all of it */

ssize_t read_piece(int, void *buffer, size_t size) {
    if (errors_left > 0) {
        errors_left--;
        errno = error_of_read;
        failed_for_good = failed_for_good || (errno != EINTR && errno != EAGAIN);
        return -1;
    }
    size_t length = size < stream.left ? size : stream.left;
    if (piece_most > 0 && length > piece_most)
        length = piece_most;
    if (length > 0)
        memcpy(buffer, stream.at, length);
    stream.at += length;
    stream.left -= length;
    return static_cast<ssize_t>(length);
}

ssize_t write_piece(int, const void *, size_t size) {
    if (piece_most > 0 && size > piece_most)
        return piece_most;
    return static_cast<ssize_t>(size);
}

/** The body of the frame that the stream begins with; NULL data when there is none whole. */
std::string_view frame_body() {
    uint32_t length = 0;
    if (whole.size() < sizeof length)
        return {};
    memcpy(&length, whole.data(), sizeof length);
    if (length <= sizeof length || length >= kControlBufferSize || length > whole.size())
        return {};
    return whole.substr(sizeof length, length - sizeof length);
}

void check_read() {
    static auto *const buffer = static_cast<uint8_t *>(allocate(kControlBufferSize));
    const uint32_t count = vyrwrap_read_from_vyr(buffer);
    const std::string_view body = frame_body();
    if (failed_for_good || !body.data()) {
        HOLDS(count == 0);
        return;
    }
    HOLDS(count == body.size() && memcmp(buffer, body.data(), body.size()) == 0);
}

void check_export() {
    vyrwrap_send_mrt_request_to_vyr(kExportRequest);
    const std::string_view body = failed_for_good ? std::string_view() : frame_body();
    bool success = false;
    if (!body.empty()) {
        ProtoRespMsg *response =
            proto_resp_msg__unpack(nullptr, body.size(), reinterpret_cast<const uint8_t *>(body.data()));
        success = response && response->result == 2;
        if (response)
            proto_resp_msg__free_unpacked(response, nullptr);
    }
    HOLDS(success ? file(kExportPath) == body : !file(kExportPath).data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kExport = 1;
    constexpr uint8_t kUnconnected = 2;
    constexpr uint8_t kConnectFails = 4;
    constexpr int kErrors[] = {EAGAIN, EINTR, ECONNRESET, EAGAIN};
    Input input = begin_over_store(data, size);
    const uint8_t bits = take_byte(&input);
    piece_most = take_byte(&input);
    errors_left = bits >> 6 & 3;
    error_of_read = kErrors[bits >> 4 & 3];
    failed_for_good = false;
    select_result = (bits & 8) && (piece_most % 8 == 0) ? (bits & 16 ? 0 : -1) : 1;
    failed_for_good = select_result <= 0;
    whole = take_rest(&input);
    stream = {reinterpret_cast<const uint8_t *>(whole.data()), whole.size()};
    on_read = read_piece;
    on_write = write_piece;
    connect_fails = bits & kConnectFails;
    if (!(bits & kUnconnected) || !(bits & kExport))
        vyrwrap_global.ctl_sock_fd = open_socket();
    else
        failed_for_good = failed_for_good || connect_fails;
    if (bits & kExport)
        check_export();
    else
        check_read();
    HOLDS(vyrwrap_global.ctl_sock_fd == 0 || is_open_socket(vyrwrap_global.ctl_sock_fd));
    end(0);
    return 0;
}
