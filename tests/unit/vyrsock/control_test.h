/* What the tests of the control socket's client share. */
#pragma once

#include "fakes/vyr_peer.h"
#include "vyrsock/control_client.h"

constexpr char kControlPath[] = "/tmp/bird_data_exp.ctl";

/** A routing daemon that listens; SIGPIPE is ignored, as the platform does. */
class ControlTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        signal(SIGPIPE, SIG_IGN);
        listener_ = fake::listen_at(kControlPath);
    }

    void TearDown() override {
        if (vyrwrap_global.ctl_sock_fd > 0)
            close(vyrwrap_global.ctl_sock_fd);
        stop_listening();
        unlink(kControlPath);
        fake::Test::TearDown();
    }

    void stop_listening() {
        if (listener_ >= 0)
            close(listener_);
        listener_ = -1;
    }

    /** Connects the client; its peer. The log is empty afterwards. */
    fake::Peer connected() {
        EXPECT_EQ(vyrwrap_connect_vyr_data_socket(), 1);
        fake::log_lines.clear();
        return fake::Peer::accepted(listener_);
    }

    static std::vector<std::string> errors() { return fake::log_texts(3); }

    int listener_ = -1;
};
