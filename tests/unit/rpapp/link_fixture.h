/*
 * The link's socket, open, and nothing logged so far.
 */
#pragma once

#include <unistd.h>

#include "fakes/fakes.h"
#include "fakes/routing_app.h"
#include "rpapp/link.h"

class LinkTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        fake::make_socket_folder();
        vyrwrap_global.app_sock_fd = vyrwrap_app_socket_connect();
        ASSERT_GE(vyrwrap_global.app_sock_fd, 0);
        fake::log_lines.clear();
    }

    void TearDown() override {
        close(vyrwrap_global.app_sock_fd);
        fake::Test::TearDown();
    }
};
