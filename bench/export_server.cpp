/*
 * Stands in for the routing daemon on its data-export socket: answers each request at once with a packed answer made
 * beforehand, whose size hangs on the request code. Runs until it is killed.
 */
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vyr.pb-c.h>

#include "bench/subject.h"
#include "bench/support.h"

namespace {

constexpr int32_t kSuccess = 2;

/** A whole frame whose body is one answer of exactly `body_size` packed bytes. */
std::string frame_of(uint32_t body_size) {
    std::string filler(body_size, 'r');
    ProtoRespMsg answer = PROTO_RESP_MSG__INIT;
    answer.has_result = 1;
    answer.result = kSuccess;
    answer.has_data = 1;
    answer.data = {filler.size(), reinterpret_cast<uint8_t *>(filler.data())};
    answer.data.len -= proto_resp_msg__get_packed_size(&answer) - body_size;
    const uint32_t length = body_size + static_cast<uint32_t>(sizeof length);
    std::string frame(length, '\0');
    memcpy(frame.data(), &length, sizeof length);
    if (proto_resp_msg__pack(&answer, reinterpret_cast<uint8_t *>(frame.data()) + sizeof length) != body_size)
        die("an answer of this size cannot be packed");
    return frame;
}

int listen_for_clients() {
    const int fd = bind_unix_socket(SOCK_STREAM, kExportSocket);
    if (listen(fd, 8) < 0)
        die(kExportSocket);
    return fd;
}

/** Serves one request; false when the client is gone. */
bool serve(int fd, const std::vector<std::string> &frames) {
    uint8_t bytes[64];
    const ssize_t size = read(fd, bytes, sizeof bytes);
    if (size <= 0)
        return false;
    ProtoReqMsg *request = proto_req_msg__unpack(nullptr, static_cast<size_t>(size), bytes);
    if (!request)
        return false;
    for (size_t type = 0; type < kExportAnswers.size(); type++)
        if (request->request == kExportAnswers[type].request_code)
            write_all(fd, frames[type].data(), frames[type].size());
    proto_req_msg__free_unpacked(request, nullptr);
    return true;
}

}  // namespace

int main() {
    std::vector<std::string> frames;
    frames.reserve(std::size(kExportAnswers));
    for (const ExportAnswer &answer : kExportAnswers)
        frames.push_back(frame_of(answer.body_size));
    std::vector<pollfd> inputs = {{listen_for_clients(), POLLIN, 0}};
    for (;;) {
        if (poll(inputs.data(), inputs.size(), -1) < 0)
            die("poll");
        if (inputs[0].revents)
            inputs.push_back({accept4(inputs[0].fd, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
        for (size_t i = 1; i < inputs.size(); i++) {
            if (inputs[i].revents && !serve(inputs[i].fd, frames)) {
                close(inputs[i].fd);
                inputs[i].fd = -1;  // poll leaves it out
            }
            inputs[i].revents = 0;
        }
    }
}
