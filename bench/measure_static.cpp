// Static routes: from a key to the file.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/measure.h"

namespace {

constexpr char kFirstGateway[] = "192.168.10.1";
constexpr char kFurtherGateway[] = "192.168.20.1";

/** Neighbouring events of one kind and name are merged by the kernel; those of a rename come in pairs and are not. */
constexpr uint32_t kRename = IN_MOVED_FROM | IN_MOVED_TO;

std::string route_key(int route, const char *gateway) {
    const std::string network = "10." + std::to_string(route / 256) + "." + std::to_string(route % 256) + ".0";
    return "/op/staticroute/{" + network + ":255.255.255.0:1:" + gateway + "}";
}

std::string set_route(int route, const char *gateway) {
    return "SET " + route_key(route, gateway) + " 5";
}

/** Ends the program when the file does not show the further next hop, by which a change is known. */
void check_file(const Subject &subject) {
    const std::string path = path_of(subject.names->static_file);
    std::string text(static_cast<size_t>(size_of(path)), '\0');
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, text.data(), text.size()) < 0)
        die(path.c_str());
    close(fd);
    if (text.find(kFurtherGateway) == std::string::npos) {
        fprintf(stderr, "measure: %s does not show the change\n", path.c_str());
        exit(1);
    }
}

/** Takes the further next hop away again. */
void undo(const Subject &subject, int watch_fd, int route) {
    forget_events(watch_fd);
    queue(subject, "DEL " + route_key(route, kFurtherGateway));
    put_on_wire(subject);
    await_events(watch_fd, IN_MOVED_TO, subject.names->static_file, 1);
    take_answers(subject, 1);
}

/** Sends what is queued, and waits until the file has been rewritten `changes` times and shows the last of them. */
int64_t time_changes(const Subject &subject, int watch_fd, int changes) {
    forget_events(watch_fd);
    const int64_t start = now_ns();
    put_on_wire(subject);
    await_events(watch_fd, IN_MOVED_TO, subject.names->static_file, changes);
    const int64_t taken = now_ns() - start;
    take_answers(subject, changes);
    check_file(subject);
    return taken;
}

/** To where the script stands that has put this program elsewhere: what is measured runs beside its Redis. */
void move_to_processors_of(pid_t script) {
    cpu_set_t processors;
    if (sched_getaffinity(script, sizeof processors, &processors) < 0 ||
        sched_setaffinity(0, sizeof processors, &processors) < 0)
        die("affinity");
}

pid_t start_program(const char *program, const std::string &size) {
    const pid_t script = getppid();
    const pid_t pid = fork();
    if (pid == 0) {
        move_to_processors_of(script);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        execl(program, program, size.c_str(), nullptr);
        die(program);
    }
    return pid;
}

}  // namespace

void fill_routes(int routes) {
    for (const Subject &subject : connect_subjects()) {
        queue(subject, "FLUSHDB");
        for (int route = 0; route < routes; route++)
            queue(subject, set_route(route, kFirstGateway));
        put_on_wire(subject);
        take_answers(subject, routes + 1);
    }
}

void measure_change(int samples, int routes) {
    Subjects subjects = connect_subjects();
    const int watch_fd = watch(kRename);
    interleave(subjects, samples, [&](Subject &subject, int i) {
        queue(subject, set_route(i % routes, kFurtherGateway));
        const int64_t taken = time_changes(subject, watch_fd, 1);
        undo(subject, watch_fd, i % routes);
        return taken;
    });
}

void measure_burst(int rounds, int routes) {
    constexpr int kChanges = 1000;
    Subjects subjects = connect_subjects();
    const int watch_fd = watch(kRename);
    interleave(subjects, rounds, [&](Subject &subject, int) {
        for (int i = 1; i < kChanges; i++)
            queue(subject, set_route(i % routes, kFirstGateway));
        queue(subject, set_route(0, kFurtherGateway));
        const int64_t taken = time_changes(subject, watch_fd, kChanges);
        undo(subject, watch_fd, 0);
        return taken;
    });
}

void measure_start(int rounds, const std::array<off_t, 2> &sizes, const std::array<const char *, 2> &programs) {
    Subjects subjects = connect_subjects();
    const int watch_fd = watch(kRename);
    interleave(subjects, rounds, [&](Subject &subject, int) {
        const auto which = static_cast<size_t>(&subject - subjects.data());
        const std::string path = path_of(subject.names->static_file);
        unlink(path.c_str());
        forget_events(watch_fd);
        const int64_t start = now_ns();
        const pid_t pid = start_program(programs.at(which), std::to_string(sizes.at(which)));
        do
            await_events(watch_fd, IN_MOVED_TO, subject.names->static_file, 1);
        while (size_of(path) != sizes.at(which));
        const int64_t taken = now_ns() - start;
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        return taken;
    });
}
