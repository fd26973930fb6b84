#include "fakes/routing_app.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fake {

namespace {

constexpr size_t kLongest = 100000;

sockaddr_un address_of(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

template <typename Number>
Number number_at(const std::string &bytes, size_t offset) {
    Number number = 0;
    if (offset + sizeof number > bytes.size())
        ADD_FAILURE() << "no number at " << offset << " of " << bytes.size() << " bytes";
    else
        memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

}  // namespace

void make_socket_folder() {
    mkdir("/tmp/.sock", 0755);
}

RoutingApp::RoutingApp() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    make_socket_folder();
    unlink(kRoutingAppPath);
    const sockaddr_un address = address_of(kRoutingAppPath);
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        ADD_FAILURE() << "cannot bind " << kRoutingAppPath << ": " << strerror(errno);
}

RoutingApp::~RoutingApp() {
    close(fd_);
    unlink(kRoutingAppPath);
}

std::vector<std::string> RoutingApp::receive() {
    std::vector<std::string> datagrams;
    std::string buffer(kLongest, '\0');
    for (;;) {
        const ssize_t length = recv(fd_, buffer.data(), buffer.size(), 0);
        if (length < 0)
            return datagrams;
        datagrams.emplace_back(buffer, 0, static_cast<size_t>(length));
    }
}

bool RoutingApp::send(const std::string &datagram) {
    const sockaddr_un address = address_of(kLinkPath);
    return ::sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                    sizeof address) == static_cast<ssize_t>(datagram.size());
}

void RoutingAppTest::SetUp() {
    Test::SetUp();
    vyrwrap_global.app_sock_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void RoutingAppTest::TearDown() {
    close(vyrwrap_global.app_sock_fd);
    Test::TearDown();
}

uint32_t word_at(const std::string &bytes, size_t offset) {
    return number_at<uint32_t>(bytes, offset);
}

uint16_t half_at(const std::string &bytes, size_t offset) {
    return number_at<uint16_t>(bytes, offset);
}

uint8_t byte_at(const std::string &bytes, size_t offset) {
    return number_at<uint8_t>(bytes, offset);
}

std::string word(uint32_t number) {
    return std::string(reinterpret_cast<const char *>(&number), sizeof number);
}

}  // namespace fake
