/*
 * What the platform's tests share: a Dispatcher of their own, and running it until something has come true.
 */
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/dispatcher.h"

namespace support {

using Clock = std::chrono::steady_clock;

inline double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

inline std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return "(no file)";
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

inline std::vector<std::string> lines_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

/** A pair of connected descriptors, closed at the end of its life where the test has not. */
struct Pipe {
    int reader = -1;
    int writer = -1;

    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
            reader = ends[0];
            writer = ends[1];
        }
    }
    ~Pipe() {
        close_reader();
        close_writer();
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    void close_reader() { close_end(&reader); }
    void close_writer() { close_end(&writer); }
    void put() const { EXPECT_EQ(write(writer, "x", 1), 1); }
    bool take() const {
        char byte;
        return read(reader, &byte, 1) == 1;
    }

private:
    static void close_end(int *fd) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
};

/** A handler for a test's lambda: `user_data` points to the std::function. */
inline int call_input(void *user_data) {
    const std::function<void()> called = *static_cast<std::function<void()> *>(user_data);
    called();
    return 0;
}

inline void call_timer(void *user_data) {
    call_input(user_data);
}

inline void *arg(std::function<void()> &called) {
    return &called;
}

/** A Dispatcher for the length of a test. */
class DispatcherTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("KORVA_LOG", "stderr", 1);
        dispatcher = DispatcherCreate();
        ASSERT_NE(dispatcher, nullptr);
    }

    void TearDown() override { DispatcherDestroy(dispatcher); }

    /** Ends the loop as an operator would. */
    static void end_loop() { kill(getpid(), SIGTERM); }

    /** Runs the loop until `condition`, looked at every few milliseconds, holds. Returns whether it came to hold. */
    bool run_until(const std::function<bool()> &condition, int limit_ms = 20000) {
        const auto start = Clock::now();
        bool holds = false;
        std::function<void()> look = [&] {
            holds = holds || condition();
            if (holds || ms_since(start) > limit_ms)
                end_loop();
        };
        const uint32_t timer = DispAddTimerInternal(dispatcher, 2, call_timer, arg(look), 1, 0, __func__, __LINE__);
        EXPECT_NE(timer, 0U);
        DispProcess(dispatcher, 0);
        DispRemoveTimerInternal(dispatcher, timer, __func__, __LINE__);
        return holds;
    }

    /** Runs the loop for some rounds, so that what is ready now has been handled. */
    void run_rounds(int rounds = 5) {
        int count = 0;
        ASSERT_TRUE(run_until([&] { return ++count >= rounds; }));
    }

    Dispatcher *dispatcher = nullptr;
};

}  // namespace support
