/*
 * The routing daemon's ends of the two sockets towards the daemon: the data-export socket that it serves, and the event
 * socket that it reports to.
 */
#pragma once

#include <poll.h>

#include <string>
#include <vector>

#include "lab/vyr/export.h"

namespace vyr {

/** A client of the data-export socket, and what it has not taken yet of its answer. */
struct Client {
    int fd;
    std::string unsent;
};

struct DataSocket {
    int listener = -1;
    std::vector<Client> clients;
};

/** Listens at that path; a left-over socket there is replaced. False, with the reason on stderr, on failure. */
bool open_data_socket(DataSocket &socket, const std::string &path);

/** Appends what the socket waits for. */
void add_waits(const DataSocket &socket, std::vector<pollfd> &waits);

/** Accepts, answers, writes on and closes, as `waits` says after a poll. */
void serve(DataSocket &socket, const std::vector<pollfd> &waits, const AskBird &ask);

/** Reports that a limit is exceeded, once each time that it becomes so. */
struct LimitReport {
    std::string path;  ///< the event socket
    int fd = -1;       ///< connected with the first event
    bool reported = false;
};

/** Tells of `routes` above `limit`. What could not be reported is tried again with the next call. */
void report_limit(LimitReport &report, uint32_t routes, uint32_t limit);

}  // namespace vyr
