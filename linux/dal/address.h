/*
 * Where the DAL's server is: "unix:///path" or "tcp://host:port".
 */
#pragma once

#include <netinet/in.h>
#include <sys/un.h>

namespace dal {

/** One of a host's addresses, with the port. */
struct FoundAddress {
    union {
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } where;
    socklen_t length;
};
constexpr unsigned kMostFound = 4;

struct Address {
    char text[300]; /**< as it was given, for messages */
    char path[sizeof(sockaddr_un::sun_path)];
    char host[256];                 /**< empty when `path` is the address */
    char port[6];                   /**< decimal */
    FoundAddress found[kMostFound]; /**< what looking the host up gave */
    unsigned found_count;           /**< 0 until it was found */
    unsigned attempts; /**< connections begun: where the host has several addresses, each begins with another */
};

/** Reads an address text. Returns whether it is one; `address` is complete only then. */
bool address_parse(const char *text, Address *address);

/** Parses `given`, or when that is NULL DAL_URL, or without one the default. Logs which it is, or why it is none. */
bool address_choose(const char *given, Address *address);

/**
 * Begins a connection without waiting for it: a close-on-exec, non-blocking descriptor above 2. Returns -1 on failure,
 * with the reason in `*reason` (a text that lasts until the next call).
 *
 * A host is looked up as the system does it, which waits for a name server where the hosts file does not know the name.
 * That happens at the start, before the loop runs, and again only while it has not succeeded: what was found is kept
 * for good. A name that later means another machine takes a restart.
 */
int address_connect(Address *address, const char **reason);

}  // namespace dal
