/*
 * What a person, or a test, types to the routing application.
 */
#pragma once

#include <string>

/** What is to be done for one line. */
struct Command {
    enum Kind {
        NOTHING,
        SEND, /**< send `datagram` */
        STOP, /**< read no more datagrams */
        GO,
        QUIT,
        HELP,
        INVALID, /**< `problem` says why */
    };

    Kind kind = NOTHING;
    std::string datagram;
    std::string problem;
};

Command parse_command(const std::string &line);

extern const char kCommandHelp[];
