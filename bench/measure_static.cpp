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

constexpr useconds_t kGlanceUs = 500; /**< a burst's end is looked for at this distance: being woken by each disturbs */

/** Neighbouring events of one kind and name are merged by the kernel; those of a rename come in pairs and are not. */
constexpr uint32_t kRename = IN_MOVED_FROM | IN_MOVED_TO;

std::string route_key(int route, const char *gateway) {
    const std::string network = "10." + std::to_string(route / 256) + "." + std::to_string(route % 256) + ".0";
    return "/op/staticroute/{" + network + ":255.255.255.0:1:" + gateway + "}";
}

std::string set_route(int route, const char *gateway) {
    return "SET " + route_key(route, gateway) + " 5";
}

/** Whether the file shows the further next hop, by which a change is known. */
bool shows_change(const Subject &subject) {
    const std::string path = path_of(subject.names->static_file);
    std::string text(static_cast<size_t>(size_of(path)), '\0');
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, text.data(), text.size()) < 0)
        die(path.c_str());
    close(fd);
    return text.find(kFurtherGateway) != std::string::npos;
}

/** Takes the further next hop away again. */
void undo(const Subject &subject, int watch_fd, int route) {
    forget_events(watch_fd);
    queue(subject, "DEL " + route_key(route, kFurtherGateway));
    put_on_wire(subject);
    await_events(watch_fd, IN_MOVED_TO, subject.names->static_file);
    take_answers(subject, 1);
}

/** Sends what is queued, and waits until the file shows the last of it; `writes` counts how often it was rewritten. */
int64_t time_changes(const Subject &subject, int watch_fd, int changes, int &writes) {
    forget_events(watch_fd);
    const int64_t start = now_ns();
    put_on_wire(subject);
    do {
        if (changes > 1)
            usleep(kGlanceUs);
        writes += await_events(watch_fd, IN_MOVED_TO, subject.names->static_file);
    } while (changes > 1 && !shows_change(subject));
    const int64_t taken = now_ns() - start;
    take_answers(subject, changes);
    if (shows_change(subject))
        return taken;
    fprintf(stderr, "measure: %s does not show the change\n", subject.names->static_file);
    exit(1);
}

/** To where the script stands that has put this program elsewhere: what is measured runs beside its Redis. */
void move_to_processors_of(pid_t script) {
    cpu_set_t processors;
    if (sched_getaffinity(script, sizeof processors, &processors) < 0 ||
        sched_setaffinity(0, sizeof processors, &processors) < 0)
        die("affinity");
}

pid_t start_program(const char *program, const char *size) {
    const pid_t script = getppid();
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        move_to_processors_of(script);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        execl(program, program, size, nullptr);
        die(program);
    }
    return pid;
}

}  // namespace

void fill_routes(Subjects &subjects, int routes) {
    for (const Subject &subject : subjects) {
        queue(subject, "FLUSHDB");
        for (int route = 0; route < routes; route++)
            queue(subject, set_route(route, kFirstGateway));
        put_on_wire(subject);
        take_answers(subject, routes + 1);
    }
}

void measure_change(Subjects &subjects, int samples, int routes) {
    const int watch_fd = watch(kRename);
    interleave(subjects, samples, [&](Subject &subject, int i) {
        queue(subject, set_route(i % routes, kFurtherGateway));
        int writes = 0;
        const int64_t taken = time_changes(subject, watch_fd, 1, writes);
        undo(subject, watch_fd, i % routes);
        return taken;
    });
}

void measure_burst(Subjects &subjects, int rounds, int routes, int changes) {
    const int watch_fd = watch(kRename);
    interleave(subjects, rounds, [&](Subject &subject, int) {
        for (int i = 1; i < changes; i++)
            queue(subject, set_route(i % routes, kFirstGateway));
        queue(subject, set_route(0, kFurtherGateway));
        int writes = 0;
        const int64_t taken = time_changes(subject, watch_fd, changes, writes);
        printf("%s.writes %d\n", subject.names->name, writes);
        undo(subject, watch_fd, 0);
        return taken;
    });
}

void measure_start(Subjects &subjects, int rounds, const char *const *commands) {
    const int watch_fd = watch(kRename);
    interleave(subjects, rounds, [&](Subject &subject, int) {
        const char *const *command = commands + 2 * (&subject - subjects.data());
        const off_t size = atol(command[1]);
        const std::string path = path_of(subject.names->static_file);
        unlink(path.c_str());
        forget_events(watch_fd);
        const int64_t start = now_ns();
        const pid_t pid = start_program(command[0], command[1]);
        do
            await_events(watch_fd, IN_MOVED_TO, subject.names->static_file);
        while (size_of(path) != size);
        const int64_t taken = now_ns() - start;
        kill(-pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        return taken;
    });
}
