/*
 * vyr: the routing daemon of the lab, a front for stock BIRD 2.
 *
 * Takes the routing daemon's arguments, translates its configuration, and runs BIRD under itself for as long as BIRD
 * runs. Ends as BIRD ended.
 */
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "lab/vyr/bird.h"
#include "lab/vyr/kernel_routes.h"
#include "lab/vyr/prepare.h"
#include "lab/vyr/sockets.h"

namespace {

constexpr int kNoVlanAddress = 100;
constexpr int kUsage = 2;
constexpr std::chrono::seconds kAnswerLimit{10};
constexpr std::chrono::seconds kExportLimit{8};     // the daemon waits for 10
constexpr std::chrono::seconds kOtherBirdLimit{5};  // one that was killed with the daemon before this one ends at once
constexpr int kLimitCheckMs = 1000;
constexpr const char *kDataSocket = "/tmp/bird_data_exp.ctl";

using Clock = std::chrono::steady_clock;

struct Front {
    std::string config = "/tmp/vyr.conf";
    std::string control_socket = "/tmp/vyr.ctl";
    std::string stock;  ///< the translated file
    pid_t bird = -1;
    std::vector<vyr::RouteKey> routes;
    std::optional<uint32_t> max_prefixes;
    vyr::DataSocket data;
    vyr::LimitReport limit{.path = "/tmp/bird_event_exp.ctl"};
    bool answered = false;  ///< BIRD has been heard on its control socket
};

std::vector<vyr::RouteKey> without(const std::vector<vyr::RouteKey> &keys, const std::vector<vyr::RouteKey> &others) {
    std::vector<vyr::RouteKey> rest;
    std::set_difference(keys.begin(), keys.end(), others.begin(), others.end(), std::back_inserter(rest));
    return rest;
}

std::vector<vyr::RouteKey> together(const std::vector<vyr::RouteKey> &keys, const std::vector<vyr::RouteKey> &others) {
    std::vector<vyr::RouteKey> all;
    std::set_union(keys.begin(), keys.end(), others.begin(), others.end(), std::back_inserter(all));
    return all;
}

/** From here on no signal ends this process by surprise: they wait to be read. */
int take_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGTERM, SIGINT, SIGQUIT, SIGCHLD})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGHUP, SIG_DFL);  // an ignored signal would not be queued for reading
    signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

bool parse_arguments(int argc, char **argv, Front &front) {
    for (int option = 0; (option = getopt(argc, argv, "c:s:")) >= 0;) {
        if (option == 'c')
            front.config = optarg;
        else if (option == 's')
            front.control_socket = optarg;
        else
            return false;
    }
    front.stock = front.config + ".stock";
    return optind == argc;
}

/** BIRD catches SIGHUP from its first answer on. Polls, as there is nothing to wait on before its socket is there. */
void await_bird(Front &front) {
    const auto deadline = Clock::now() + kAnswerLimit;
    while (!front.answered && Clock::now() < deadline) {
        siginfo_t ended{};
        if (waitid(P_PID, static_cast<id_t>(front.bird), &ended, WEXITED | WNOHANG | WNOWAIT) < 0 || ended.si_pid)
            return;
        front.answered = vyr::ask_bird(front.control_socket, "show status", kAnswerLimit).has_value();
        if (!front.answered)
            usleep(10000);
    }
}

/** For BIRD a route with another metric replaces the former one, for the kernel it is one more: the former one, of
 * which BIRD knows nothing any more, would go on winning. Those that stay because BIRD refused its file are remembered
 * for the next time. */
void remove_replaced_routes(Front &front, const std::vector<vyr::RouteKey> &routes) {
    // BIRD takes the signal before the next command, so it answers with what holds after the reload
    const auto reply = vyr::ask_bird(front.control_socket, "show route primary all", kAnswerLimit);
    const std::vector<vyr::RouteKey> known = together(front.routes, routes);
    const std::vector<vyr::RouteKey> replaced =
        reply ? without(known, vyr::parse_chosen_routes(*reply)) : std::vector<vyr::RouteKey>{};
    if (const unsigned removed = vyr::remove_kernel_routes(replaced))
        fprintf(stderr, "vyr: removed %u routes with a former metric from the kernel\n", removed);
    front.routes = together(without(known, replaced), routes);
}

/** What an earlier BIRD left in the kernel, but for what this one will put there again as it is. */
void remove_left_behind(const std::vector<vyr::RouteKey> &routes) {
    std::vector<vyr::RouteKey> stale;
    for (const vyr::RouteKey &key : vyr::kernel_routes_of_bird()) {
        const auto same_prefix = [&key](const vyr::RouteKey &other) {
            return other.address == key.address && other.length == key.length;
        };
        const bool alone = std::count_if(routes.begin(), routes.end(), same_prefix) == 1;
        if (!alone || !std::binary_search(routes.begin(), routes.end(), key))
            stale.push_back(key);
    }
    vyr::remove_kernel_routes(stale);
}

bool has_vlan_address() {
    const char *prefix = getenv("VYR_VLAN_PREFIX");
    return vyr::has_address(prefix ? prefix : "br");
}

void reload(Front &front) {
    if (!has_vlan_address()) {
        fprintf(stderr, "vyr: no VLAN address any more\n");
        _exit(kNoVlanAddress);  // takes BIRD with it
    }
    const auto translation = vyr::prepare_config(front.config, front.stock);
    if (!translation)
        return;
    await_bird(front);
    kill(front.bird, SIGHUP);
    remove_replaced_routes(front, vyr::route_keys(*translation));
    front.max_prefixes = translation->max_prefixes;
}

/** Ends this process the way BIRD ended. */
[[noreturn]] void end_as(int status) {
    if (WIFSIGNALED(status)) {
        const rlimit no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(WTERMSIG(status), SIG_DFL);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_UNBLOCK, &all, nullptr);
        raise(WTERMSIG(status));
    }
    _exit(WEXITSTATUS(status));
}

/** SIGCHLD may stand for children that were waited for on the spot. */
void reap(const Front &front) {
    int status = 0;
    if (waitpid(front.bird, &status, WNOHANG) != front.bird)
        return;
    if (WIFSIGNALED(status))
        fprintf(stderr, "vyr: BIRD was killed by signal %d\n", WTERMSIG(status));
    else
        fprintf(stderr, "vyr: BIRD ended with status %d\n", WEXITSTATUS(status));
    end_as(status);
}

void handle_signal(Front &front, uint32_t number) {
    if (number == SIGCHLD)
        reap(front);
    else if (number == SIGHUP)
        reload(front);
    else
        kill(front.bird, SIGTERM);
}

int start(Front &front) {
    if (!has_vlan_address()) {
        fprintf(stderr, "vyr: no VLAN address yet\n");
        return kNoVlanAddress;
    }
    vyr::await_end_of_other_bird(front.control_socket, kOtherBirdLimit);
    const auto translation = vyr::prepare_config(front.config, front.stock);
    if (!translation)
        return EXIT_FAILURE;
    front.routes = vyr::route_keys(*translation);
    front.max_prefixes = translation->max_prefixes;
    remove_left_behind(front.routes);
    vyr::open_data_socket(front.data, kDataSocket);
    front.bird = vyr::start_bird(front.stock, front.control_socket);
    if (front.bird < 0)
        fprintf(stderr, "vyr: cannot start BIRD: %s\n", strerror(errno));
    return front.bird < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

void check_limit(Front &front) {
    if (!front.max_prefixes)
        return;
    const auto reply = vyr::ask_bird(front.control_socket, "show route count", kExportLimit);
    const auto routes = reply ? vyr::parse_route_count(*reply) : std::nullopt;
    if (routes)
        vyr::report_limit(front.limit, *routes, *front.max_prefixes);
}

[[noreturn]] void run(Front &front, int signals) {
    const auto ask = [&front](const std::string &command) {
        return vyr::ask_bird(front.control_socket, command, kExportLimit);
    };
    auto next_check = Clock::now();
    for (;;) {
        std::vector<pollfd> waits{{signals, POLLIN, 0}};
        vyr::add_waits(front.data, waits);
        const int ready = poll(waits.data(), waits.size(), kLimitCheckMs);
        signalfd_siginfo info{};
        if (ready > 0 && waits[0].revents != 0 && read(signals, &info, sizeof info) > 0)
            handle_signal(front, info.ssi_signo);
        if (ready > 0)
            vyr::serve(front.data, waits, ask);
        if (Clock::now() >= next_check) {
            check_limit(front);
            next_check = Clock::now() + std::chrono::milliseconds(kLimitCheckMs);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    const int signals = take_signals();
    Front front;
    if (!parse_arguments(argc, argv, front)) {
        fprintf(stderr, "usage: %s [-c CONFIGURATION] [-s CONTROL_SOCKET]\n", argv[0]);
        return kUsage;
    }
    if (const int status = start(front))
        return status;
    run(front, signals);
}
