/*
 * Stock BIRD as programs and as a peer: asking whether it takes a configuration, starting it, asking it on its control
 * socket.
 */
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "lab/vyr/translate.h"

namespace vyr {

struct Complaint {
    unsigned line;  ///< 0 when BIRD names no line
    std::string text;
};

/** What BIRD says about the file, without running it; nothing when it would take it. Waits for BIRD's answer. */
std::optional<Complaint> check_config(const std::string &path);

/** The lines of an answer as BIRD's own client shows them: without the codes, without the closing line. */
std::vector<std::string> reply_lines(const std::string &reply);

/** Reads the answer to "show route primary all": the route of each prefix that BIRD has chosen, sorted. */
std::vector<RouteKey> parse_chosen_routes(const std::string &reply);

/** Reads "bird: PATH:LINE:COLUMN TEXT". */
Complaint parse_complaint(const std::string &output, const std::string &path);

/** Waits until nobody answers on the control socket, which BIRD would refuse to start beside. Says so where it waits.
 */
void await_end_of_other_bird(const std::string &control_socket, std::chrono::milliseconds limit);

/** Starts BIRD in the foreground. It dies with this process. Returns its process id, or -1 with errno set. */
pid_t start_bird(const std::string &config, const std::string &control_socket);

/** BIRD's whole answer to one command, codes included; nothing when it does not answer in time. */
std::optional<std::string> ask_bird(const std::string &control_socket, const std::string &command,
                                    std::chrono::milliseconds limit);

}  // namespace vyr
