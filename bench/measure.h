/*
 * What the figures share: the two subjects, the clock, the wait for a file, and the interleaving of samples.
 */
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "bench/subject.h"
#include "bench/support.h"

struct Subject {
    const SubjectNames *names;
    redisContext *dal; /**< the measuring side's own connection */
};
using Subjects = std::array<Subject, kSubjects.size()>;

Subjects connect_subjects();

/** CLOCK_MONOTONIC in nanoseconds. */
int64_t now_ns();

/**
 * Takes `count` samples of each subject in turns, after some that are not counted, with a short rest before each so
 * that nobody is still busy with the one before. A sample gets its running number and returns nanoseconds; each is
 * printed as a line "SUBJECT NANOSECONDS".
 */
void interleave(Subjects &subjects, int count, const std::function<int64_t(Subject &, int)> &sample);

/** Queues a command and puts it on the wire without waiting for the answer, which take_answers fetches. */
void queue(const Subject &subject, const std::string &command_line);
void put_on_wire(const Subject &subject);
void take_answers(const Subject &subject, int count);

/** inotify on kWatchedFolder for the events of `mask`. */
int watch(uint32_t mask);

/** Forgets what a watch has gathered. */
void forget_events(int watch_fd);

/** Waits until a file of the watched folder has had `count` of the events in `mask`, for many at a glance each 0.5 ms.
 * Ends the program when nothing comes for 5 s. */
void await_events(int watch_fd, uint32_t mask, const char *file, int count);

std::string path_of(const char *file);

/** Size of a file, -1 when there is none. */
off_t size_of(const std::string &path);

// The figures. A count of samples first, then what the usage text of measure.cpp says.
void fill_routes(int routes);
void measure_change(int samples, int routes);
void measure_burst(int rounds, int routes);
void measure_start(int rounds, const std::array<off_t, 2> &sizes, const std::array<const char *, 2> &programs);
void fill_tunnels(int tunnels);
void measure_replay(int samples, int tunnels);
void measure_hset(int samples, int tunnels);
void measure_export(int samples, int type);
