#include "script.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace {

void trickle(int connection) {
    const std::string head = "$16000000\r\n";
    for (ssize_t sent = write(connection, head.data(), head.size()); sent > 0;)
        sent = write(connection, "x", 1);
}

/** Waits for a chunk. False at the connection's end, and when it is to be closed with the chunk unread. */
bool take_chunk(int connection, const std::string &answer) {
    pollfd input = {connection, POLLIN, 0};
    if (poll(&input, 1, -1) < 0 || answer == Script::kReset)
        return false;
    char buffer[4096];
    return read(connection, buffer, sizeof buffer) > 0;
}

void talk(int connection, const Script::Answers &answers, Then then) {
    for (size_t i = 0;; i++) {
        const std::string &answer = answers[std::min(i, answers.size() - 1)];
        if (!take_chunk(connection, answer))
            break;
        if (answer == Script::kTrickle)
            trickle(connection);
        if (answer == Script::kSink)
            continue;
        if (answer.empty() || write(connection, answer.data(), answer.size()) < 0 ||
            (then == Then::its_end && i + 1 >= answers.size()))
            break;
    }
    close(connection);
}

}  // namespace

Script::Script(const Answers &answers, Then then) : Script(Connections{{answers}}, then) {}

Script::Script(const Connections &connections, Then then) {
    unlink(kPath);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    memcpy(where.sun_path, kPath, sizeof kPath);
    EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
    EXPECT_EQ(listen(listener_, 16), 0);
    pid_ = fork();
    if (pid_ == 0)
        serve(connections.each, then);
    ::close(listener_);
}

Script::~Script() {
    ::kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0)
        continue;
}

void Script::serve(const std::vector<Answers> &connections, Then then) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);
    for (size_t i = 0;; i++) {
        const int connection = accept(listener_, nullptr, nullptr);
        const bool last = i + 1 >= connections.size();
        const Answers &answers = last ? connections.back() : connections[i];
        std::thread(talk, connection, std::cref(answers), last ? then : Then::the_same).detach();
    }
}
