/* What the tests of the event socket's server share. */
#pragma once

#include "fakes/vyr_peer.h"
#include "platform/dispatcher.h"
#include "vyrsock/event_server.h"

constexpr char kEventPath[] = "/tmp/bird_event_exp.ctl";
constexpr char kNamePath[] = "/tmp/name";

class EventTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        signal(SIGPIPE, SIG_IGN);
        fake::write_file(kNamePath, "");
        vyrwrap_handle_vyr_event(nullptr, 0);  // no name is left of an earlier test
        unlink(kNamePath);
        unlink(kEventPath);
    }

    void TearDown() override {
        for (const int fd : {vyrwrap_global.event_conn_fd, vyrwrap_global.event_listen_fd})
            if (fd > 2)
                close(fd);
        unlink(kEventPath);
        unlink(kNamePath);
        fake::Test::TearDown();
    }

    static void start() {
        ASSERT_EQ(vyrwrap_event_server_init(), 1);
        fake::log_lines.clear();
    }

    /** A peer whose connection is served. The log is empty afterwards. */
    static fake::Peer connected() {
        start();
        fake::Peer peer = fake::Peer::connected(kEventPath);
        EXPECT_EQ(fake::input_ready(vyrwrap_global.event_listen_fd, DISP_READ), 1);
        fake::log_lines.clear();
        return peer;
    }

    static int ready() { return fake::input_ready(vyrwrap_global.event_conn_fd, DISP_READ); }

    static bool watched(int fd) { return fake::inputs.count({fd, DISP_READ}) > 0; }

    static std::vector<std::string> errors() { return fake::log_texts(3); }
};
