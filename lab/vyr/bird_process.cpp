#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "lab/vyr/bird.h"

namespace vyr {

namespace {

/** In the child: signals as a fresh program finds them. BIRD catches SIGHUP once it runs; one that comes before that
 * must not kill it. */
void prepare_child(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    for (const int number : {SIGPIPE, SIGTERM, SIGINT, SIGQUIT, SIGCHLD})
        signal(number, SIG_DFL);
    signal(SIGHUP, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

std::string read_all(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(fd, buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR))
        if (count > 0)
            text.append(buffer, static_cast<size_t>(count));
    return text;
}

}  // namespace

Complaint parse_complaint(const std::string &output, const std::string &path) {
    const std::string first_line = output.substr(0, output.find('\n'));
    const size_t place = first_line.find(path + ":");
    Complaint complaint{0, first_line};
    if (place == std::string::npos)
        return complaint;
    const char *end = first_line.data() + first_line.size();
    const auto number = std::from_chars(first_line.data() + place + path.size() + 1, end, complaint.line);
    const char *text = static_cast<const char *>(memchr(number.ptr, ' ', static_cast<size_t>(end - number.ptr)));
    if (number.ec != std::errc{} || !text)
        return {0, first_line};
    complaint.text.assign(text + 1, end);
    return complaint;
}

std::optional<Complaint> check_config(const std::string &path) {
    int output[2];
    if (pipe2(output, O_CLOEXEC) < 0)
        return Complaint{0, strerror(errno)};
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prepare_child(parent);
        dup2(output[1], STDERR_FILENO);
        execl(BIRD_PROGRAM, "bird", "-p", "-c", path.c_str(), nullptr);
        dprintf(STDERR_FILENO, "cannot run %s: %s\n", BIRD_PROGRAM, strerror(errno));
        _exit(127);
    }
    close(output[1]);
    const std::string text = child > 0 ? read_all(output[0]) : std::string(strerror(errno));
    close(output[0]);
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0 ? std::nullopt : std::optional<Complaint>(parse_complaint(text, path));
}

pid_t start_bird(const std::string &config, const std::string &control_socket) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0)
        return child;
    prepare_child(parent);
    execl(BIRD_PROGRAM, "bird", "-f", "-c", config.c_str(), "-s", control_socket.c_str(), nullptr);
    dprintf(STDERR_FILENO, "vyr: cannot run %s: %s\n", BIRD_PROGRAM, strerror(errno));
    _exit(127);
}

}  // namespace vyr
