/*
 * A Redis of a test's own, on a Unix socket, without persistence unless asked for.
 */
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct redisContext;

/** A reply as text: strings and states as they are, "(nil)", "(error) ...", numbers, arrays as "[a, b]". */
std::string reply_text(const void *reply);

class Redis {
public:
    explicit Redis(const std::string &path);
    Redis(const Redis &) = delete;
    Redis &operator=(const Redis &) = delete;
    ~Redis();

    /** Starts the server and waits until it answers anything (also that it is loading). */
    void start(const std::vector<std::string> &options = {});
    void kill(); /**< SIGKILL, and waits for its end */
    void freeze();
    void thaw();

    /** Runs a command on a connection of the test's; arguments are bytes. */
    std::string run(const std::vector<std::string> &arguments);

    /** Like run, with the arguments split at blanks. */
    std::string operator()(const std::string &command);

    std::string url() const { return "unix://" + path_; }
    const std::string &path() const { return path_; }

private:
    void disconnect();
    bool answers();

    std::string path_;
    pid_t pid_ = 0;
    redisContext *context_ = nullptr;
};
