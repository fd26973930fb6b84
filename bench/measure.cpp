/*
 * Takes the samples of one figure and prints them; bench.py starts what is measured and makes the table.
 */
#include "bench/measure.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr int kUncounted = 3;
constexpr useconds_t kRestUs = 200;
constexpr int kBurst = 1000;
constexpr int kShortBurst = 50;
constexpr int kPatienceMs = 10000;

constexpr char kUsage[] =
    "usage: measure SUBJECT,... FIGURE\n"
    "figures: fill-routes ROUTES | fill-tunnels TUNNELS\n"
    "         change SAMPLES ROUTES | burst ROUNDS ROUTES | short-burst ROUNDS ROUTES\n"
    "         start ROUNDS [PROGRAM FILE_SIZE]... | replay SAMPLES TUNNELS | hset SAMPLES TUNNELS | export SAMPLES "
    "TYPE\n";

/** One figure that takes two numbers; a fill takes the first alone. */
struct Figure {
    std::string_view name;
    int arguments;
    void (*run)(Subjects &subjects, int first, int second);
};
constexpr Figure kFigures[] = {
    {"fill-routes", 1, [](Subjects &subjects, int routes, int) { fill_routes(subjects, routes); }},
    {"fill-tunnels", 1, [](Subjects &subjects, int tunnels, int) { fill_tunnels(subjects, tunnels); }},
    {"change", 2, measure_change},
    {"burst", 2, [](Subjects &subjects, int rounds, int routes) { measure_burst(subjects, rounds, routes, kBurst); }},
    {"short-burst", 2,
     [](Subjects &subjects, int rounds, int routes) { measure_burst(subjects, rounds, routes, kShortBurst); }},
    {"replay", 2, measure_replay},
    {"hset", 2, measure_hset},
    {"export", 2, measure_export},
};

/** Reads what has gathered and counts the events in `mask` of a file. */
int count_events(int watch_fd, uint32_t mask, std::string_view file) {
    alignas(inotify_event) char buffer[16384];
    const ssize_t size = read(watch_fd, buffer, sizeof buffer);
    int count = 0;
    for (ssize_t at = 0; at < size;) {
        const auto *event = static_cast<const inotify_event *>(static_cast<const void *>(buffer + at));  // aligned
        if ((event->mask & mask) && event->len && file == event->name)
            count++;
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    return count;
}

}  // namespace

Subjects connect_subjects(std::string_view names) {
    Subjects subjects;
    while (!names.empty()) {
        const std::string_view name = names.substr(0, names.find(','));
        for (const SubjectNames &known : kSubjects)
            if (name == known.name)
                subjects.push_back({&known, connect_dal(known.dal)});
        names.remove_prefix(std::min(name.size() + 1, names.size()));
    }
    return subjects;
}

int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

void interleave(Subjects &subjects, int count, const std::function<int64_t(Subject &, int)> &sample) {
    const int uncounted = std::min(count, kUncounted);
    for (int i = 0; i < count + uncounted; i++) {
        for (Subject &subject : subjects) {
            if (i % subject.names->turns != 0)
                continue;
            usleep(kRestUs);
            const int64_t taken = sample(subject, i);
            if (i >= uncounted || subject.names->turns > 1)
                printf("%s %lld\n", subject.names->name, static_cast<long long>(taken));
        }
    }
}

void queue(const Subject &subject, const std::string &command_line) {
    if (redisAppendCommand(subject.dal, command_line.c_str()) != REDIS_OK)
        die(command_line.c_str());
}

void put_on_wire(const Subject &subject) {
    for (int done = 0; !done;)
        if (redisBufferWrite(subject.dal, &done) != REDIS_OK)
            die(subject.names->dal);
}

void take_answers(const Subject &subject, int count) {
    for (int i = 0; i < count; i++)
        if (next_reply(subject.dal)->type == REDIS_REPLY_ERROR)
            die("a command was refused");
}

int watch(uint32_t mask) {
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0 || inotify_add_watch(fd, kWatchedFolder, mask) < 0)
        die("inotify");
    return fd;
}

void forget_events(int watch_fd) {
    char buffer[16384];
    while (read(watch_fd, buffer, sizeof buffer) > 0)
        continue;
}

int await_events(int watch_fd, uint32_t mask, const char *file) {
    for (;;) {
        pollfd input = {watch_fd, POLLIN, 0};
        if (poll(&input, 1, kPatienceMs) == 0) {
            fprintf(stderr, "measure: %s: nothing came for %d ms\n", file, kPatienceMs);
            exit(1);
        }
        if (const int count = count_events(watch_fd, mask, file))
            return count;
    }
}

std::string path_of(const char *file) {
    return std::string(kWatchedFolder) + "/" + file;
}

off_t size_of(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

int main(int argc, char **argv) {
    const std::string_view name = argc > 3 ? argv[2] : "";
    for (const Figure &figure : kFigures) {
        if (figure.name == name && argc == 3 + figure.arguments) {
            Subjects subjects = connect_subjects(argv[1]);
            figure.run(subjects, atoi(argv[3]), argc > 4 ? atoi(argv[4]) : 0);
            return 0;
        }
    }
    if (name == "start") {
        Subjects subjects = connect_subjects(argv[1]);
        if (static_cast<size_t>(argc) == 4 + 2 * subjects.size()) {
            measure_start(subjects, atoi(argv[3]), argv + 4);
            return 0;
        }
    }
    fputs(kUsage, stderr);
    return 2;
}
