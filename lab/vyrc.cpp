/*
 * vyrc: the routing daemon's client. Passes its arguments to BIRD's own client.
 */
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

int main(int argc, char **argv) {
    char client[] = "birdc";
    char option[] = "-s";
    char socket[] = "/tmp/vyr.ctl";
    std::vector<char *> arguments{client, option, socket};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    arguments.push_back(nullptr);
    execv(BIRD_CLIENT, arguments.data());
    fprintf(stderr, "vyrc: cannot run %s: %s\n", BIRD_CLIENT, strerror(errno));
    return 127;
}
