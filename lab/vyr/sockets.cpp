#include "lab/vyr/sockets.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vyr {

namespace {

constexpr size_t kMaxRequest = 65536;

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    return address;
}

/** Sends what the client takes now. False when it is gone. */
bool send_on(Client &client) {
    const ssize_t sent = send(client.fd, client.unsent.data(), client.unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0)
        client.unsent.erase(0, static_cast<size_t>(sent));
    return sent >= 0 || errno == EAGAIN || errno == EINTR;
}

/** Reads one request, which has no length of its own: what one read gives. False when the client is gone. */
bool answer(Client &client, const AskBird &ask) {
    std::string request(kMaxRequest, '\0');
    const ssize_t length = recv(client.fd, request.data(), request.size(), MSG_DONTWAIT);
    if (length < 0)
        return errno == EAGAIN || errno == EINTR;
    if (length == 0)
        return false;
    request.resize(static_cast<size_t>(length));
    client.unsent = answer_request(request, ask);
    return send_on(client);
}

bool serve_client(Client &client, short events, const AskBird &ask) {
    if (events == 0)
        return true;
    return client.unsent.empty() ? answer(client, ask) : send_on(client);
}

/** Connects to the event socket unless that has been done. */
bool connect_report(LimitReport &report) {
    if (report.fd >= 0)
        return true;
    const sockaddr_un address = address_of(report.path);
    report.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (report.fd >= 0 && connect(report.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return true;
    close(report.fd);
    report.fd = -1;
    return false;
}

}  // namespace

bool open_data_socket(DataSocket &socket, const std::string &path) {
    const sockaddr_un address = address_of(path);
    unlink(path.c_str());
    const mode_t mask = umask(077);
    socket.listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool bound = bind(socket.listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    umask(mask);
    if (bound && listen(socket.listener, 10) == 0)
        return true;
    fprintf(stderr, "vyr: cannot listen on %s: %s\n", path.c_str(), strerror(errno));
    close(socket.listener);
    socket.listener = -1;
    return false;
}

void add_waits(const DataSocket &socket, std::vector<pollfd> &waits) {
    waits.push_back({socket.listener, POLLIN, 0});
    for (const Client &client : socket.clients)
        waits.push_back({client.fd, client.unsent.empty() ? short{POLLIN} : short{POLLOUT}, 0});
}

void serve(DataSocket &socket, const std::vector<pollfd> &waits, const AskBird &ask) {
    std::erase_if(socket.clients, [&](Client &client) {
        const auto wait = std::find_if(waits.begin(), waits.end(), [&](const pollfd &w) { return w.fd == client.fd; });
        if (wait == waits.end() || serve_client(client, wait->revents, ask))
            return false;
        close(client.fd);
        return true;
    });
    const int fd = accept4(socket.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0)
        socket.clients.push_back({fd, {}});
}

void report_limit(LimitReport &report, uint32_t routes, uint32_t limit) {
    if (routes <= limit) {
        report.reported = false;
        return;
    }
    if (report.reported || !connect_report(report))
        return;
    const std::string event = pack_limit_event(routes, limit);
    report.reported = send(report.fd, event.data(), event.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(event.size());
    if (report.reported) {
        fprintf(stderr, "vyr: %u routes, more than the limit of %u: reported\n", routes, limit);
        return;
    }
    close(report.fd);
    report.fd = -1;
}

}  // namespace vyr
