/*
 * Changes that no notification tells of, and what a comparison delivers of them.
 */
#pragma once

#include "fixture.h"

using Texts = std::vector<std::string>;

/** Reads the key into a buffer that is shorter than most values, as the daemon's callbacks do, and records. */
void read_string(dal_ctx *ctx, const dal_reply *reply, void *arg);

class DalResync : public DalTest {
protected:
    void SetUp() override;

    /** Subscribes to keys, on a context that is opened where there is none. */
    void follow(const std::string &keys, const char *subscriber = "a", dal_sub_callback callback = record);

    /** Runs commands that the subscriber is not told of. */
    void unnoticed(const Texts &commands);

    /** One comparison, as once a minute, and what it delivered: "key event", sorted. */
    Texts compare();

    void lose();
    /** Comes back, and gives what was delivered then. */
    Texts come_back();

    /** What was delivered, sorted. */
    static Texts told();

    /** How often the server ran a command so far. */
    int calls(const std::string &command);
};
