/*
 * The DAL client over a Redis of its own, driven by the daemon's adapter in the test's loop.
 */
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loop.h"
#include "platform/dal.h"
#include "redis.h"

/** A notification as a callback got it. */
struct Delivered {
    std::string subscriber; /**< which callback: its user data */
    std::string pattern;
    std::string channel;
    std::string data;
    bool operator==(const Delivered &) const = default;
};
void PrintTo(const Delivered &delivered, std::ostream *stream);

/** Records into DalTest::delivered; the argument is a text. Fails the test unless it is called as it has to be. */
void record(dal_ctx *ctx, const dal_reply *reply, void *arg);

class DalTest : public testing::Test {
protected:
    DalTest();
    void SetUp() override;
    void TearDown() override;

    /** Opens the context on the test's server. */
    void open(uint32_t connections = 7);
    void open_at(const std::string &address, uint32_t connections = 7);
    void close();

    int subscribe(const std::string &patterns, const char *subscriber = "a");
    bool run_until_delivered(size_t count);
    /** Runs the loop until the loss has been seen, then with the clock turned until the server is back. */
    bool run_until_lost();
    bool run_until_back();

    /** Runs the loop until no comparison is under way or due. */
    bool run_until_compared();

    std::string get(const std::string &key, uint32_t size = 64);
    bool exists(const std::string &key);
    std::vector<std::string> scan(const std::string &pattern);
    std::vector<std::string> mget(const std::string &pattern);

    Redis redis{"/tmp/redis.sock"};
    dal_ctx *ctx = nullptr;

public:
    static std::vector<Delivered> delivered;
    static int losses; /**< calls of the disconnect callback */
    static bool in_callback;
};

/** Numbers of the process's open descriptors. */
std::vector<int> open_descriptors();
