/*
 * The routing application's end of the link: a real socket under /tmp/.sock.
 */
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "fakes/fakes.h"

namespace fake {

inline constexpr char kLinkPath[] = "/tmp/.sock/RoutingProtocols_VYRWRAP.sock";
inline constexpr char kRoutingAppPath[] = "/tmp/.sock/RoutingProtocols_APP_CMN.sock";

/** Makes /tmp/.sock, where an access point has it before the daemon starts. */
void make_socket_folder();

/** Bound while it lives. */
class RoutingApp {
public:
    RoutingApp();
    ~RoutingApp();
    RoutingApp(const RoutingApp &) = delete;
    RoutingApp &operator=(const RoutingApp &) = delete;

    /** Takes everything that waits, one string a datagram. */
    std::vector<std::string> receive();

    /** Sends one datagram to the daemon's socket. Returns whether it went out. */
    bool send(const std::string &datagram);

private:
    int fd_;
};

/**
 * A fixture with a routing application, and a socket of the daemon's whose sends wait for the reader: no test depends
 * on how many datagrams the system queues.
 */
class RoutingAppTest : public Test {
protected:
    void SetUp() override;
    void TearDown() override;

    RoutingApp app_;
};

/** Number in `bytes` at `offset`, in the machine's byte order; a failure of the test where it does not fit. */
uint32_t word_at(const std::string &bytes, size_t offset);
uint16_t half_at(const std::string &bytes, size_t offset);
uint8_t byte_at(const std::string &bytes, size_t offset);

/** The bytes of a number, to put at an offset. */
std::string word(uint32_t number);

}  // namespace fake
