/* A routing application for the daemon to talk to: prints what it receives and asks for replays. */
#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "lab/rpapp/commands.h"
#include "lab/rpapp/decode.h"

namespace {

constexpr char kUsage[] =
    "usage: rpapp [--own PATH] [--daemon PATH]\n"
    "\n"
    "Prints each record that the daemon sends, one line a record, and does what standard input "
    "says:\n";
constexpr char kOptions[] =
    "\n"
    "  --own PATH      socket to bind (/tmp/.sock/RoutingProtocols_APP_CMN.sock)\n"
    "  --daemon PATH   the daemon's socket (/tmp/.sock/RoutingProtocols_VYRWRAP.sock)\n"
    "  --help          this text\n"
    "\n"
    "At the end of standard input it goes on receiving. SIGTERM and SIGINT end it as quit does: its socket is "
    "removed.\n";

constexpr size_t kLongestDatagram = size_t{128} * 1024;

struct Application {
    std::string own_path = "/tmp/.sock/RoutingProtocols_APP_CMN.sock";
    std::string daemon_path = "/tmp/.sock/RoutingProtocols_VYRWRAP.sock";
    int socket_fd = -1;
    int input_fd = STDIN_FILENO; /**< negative at its end */
    std::string input;           /**< what has been read of a line */
    bool reading = true;
    bool quitting = false;
};

volatile sig_atomic_t ending;

void end_on_signal(int) {
    ending = 1;
}

/** False when the path does not fit. */
bool make_address(const std::string &path, sockaddr_un *address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address->sun_path) {
        fprintf(stderr, "rpapp: not a path for a socket: %s\n", path.c_str());
        return false;
    }
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool open_socket(Application *app) {
    sockaddr_un address;
    if (!make_address(app->own_path, &address))
        return false;
    const size_t slash = app->own_path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        mkdir(app->own_path.substr(0, slash).c_str(), 0755);
    app->socket_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(app->own_path.c_str());
    if (app->socket_fd < 0 || bind(app->socket_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        fprintf(stderr, "rpapp: cannot bind %s: %s\n", app->own_path.c_str(), strerror(errno));
        return false;
    }
    printf("bound %s\n", app->own_path.c_str());
    return true;
}

void send_datagram(const Application *app, const std::string &datagram) {
    sockaddr_un address;
    if (!make_address(app->daemon_path, &address))
        return;
    const ssize_t sent = sendto(app->socket_fd, datagram.data(), datagram.size(), 0,
                                reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (sent < 0)
        printf("not sent: %s\n", strerror(errno));
    else
        printf("sent %zd bytes\n", sent);
}

void run_command(Application *app, const std::string &line) {
    const Command command = parse_command(line);
    switch (command.kind) {
        case Command::NOTHING:
            break;
        case Command::SEND:
            send_datagram(app, command.datagram);
            break;
        case Command::STOP:
            app->reading = false;
            puts("stopped reading");
            break;
        case Command::GO:
            app->reading = true;
            puts("reading");
            break;
        case Command::QUIT:
            app->quitting = true;
            break;
        case Command::HELP:
            fputs(kCommandHelp, stdout);
            break;
        case Command::INVALID:
            printf("error: %s\n", command.problem.c_str());
    }
}

void read_commands(Application *app) {
    char buffer[4096];
    const ssize_t length = read(app->input_fd, buffer, sizeof buffer);
    if (length <= 0) {
        app->input_fd = -1;
        return;
    }
    app->input.append(buffer, static_cast<size_t>(length));
    size_t end;
    while (!app->quitting && (end = app->input.find('\n')) != std::string::npos) {
        const std::string line = app->input.substr(0, end);
        app->input.erase(0, end + 1);
        run_command(app, line);
    }
}

void receive_datagram(const Application *app) {
    static char buffer[kLongestDatagram];
    const ssize_t length = recv(app->socket_fd, buffer, sizeof buffer, MSG_TRUNC);
    if (length < 0) {
        if (errno != EAGAIN && errno != EINTR)
            printf("error: cannot receive: %s\n", strerror(errno));
        return;
    }
    const auto size = static_cast<size_t>(length);
    if (size > sizeof buffer)
        printf("error: a datagram of %zu bytes, cut at %zu\n", size, sizeof buffer);
    fputs(decode_datagram(buffer, size < sizeof buffer ? size : sizeof buffer).c_str(), stdout);
}

void run(Application *app, const sigset_t *open_signals) {
    while (!app->quitting && !ending) {
        // poll leaves descriptors below 0 out.
        pollfd fds[] = {{app->input_fd, POLLIN, 0}, {app->reading ? app->socket_fd : -1, POLLIN, 0}};
        if (ppoll(fds, 2, nullptr, open_signals) < 0)
            continue;
        if (fds[0].revents)
            read_commands(app);
        if (fds[1].revents && app->reading)
            receive_datagram(app);
    }
}

/** Signals come in only while the program waits. Returns the mask to wait with. */
sigset_t catch_signals() {
    struct sigaction action {};
    action.sa_handler = end_on_signal;
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    for (const int number : {SIGTERM, SIGINT}) {
        sigaction(number, &action, nullptr);
        sigaddset(&blocked, number);
    }
    sigprocmask(SIG_BLOCK, &blocked, &before);
    return before;
}

/** Returns the exit status with which to end now, or -1 to go on. */
int read_options(int argc, char **argv, Application *app) {
    const option options[] = {{"own", required_argument, nullptr, 'o'},
                              {"daemon", required_argument, nullptr, 'd'},
                              {"help", no_argument, nullptr, 'h'},
                              {}};
    for (int found; (found = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (found == 'o') {
            app->own_path = optarg;
        } else if (found == 'd') {
            app->daemon_path = optarg;
        } else if (found == 'h') {
            printf("%s%s%s", kUsage, kCommandHelp, kOptions);
            return 0;
        } else {
            return 2;
        }
    }
    if (optind == argc)
        return -1;
    fprintf(stderr, "rpapp: not an option: %s\n", argv[optind]);
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Application app;
    if (const int status = read_options(argc, argv, &app); status >= 0)
        return status;
    const sigset_t open_signals = catch_signals();
    if (!open_socket(&app))
        return 1;
    run(&app, &open_signals);
    close(app.socket_fd);
    unlink(app.own_path.c_str());
    return 0;
}
