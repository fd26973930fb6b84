/*
 * What the figures share: the subjects, the clock, the wait for a file, and the interleaving of samples.
 */
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/subject.h"
#include "bench/support.h"

struct Subject {
    const SubjectNames *names;
    redisContext *dal; /**< the measuring side's own connection */
};
using Subjects = std::vector<Subject>;

/** Those that `names` lists, with commas between. */
Subjects connect_subjects(std::string_view names);

/** CLOCK_MONOTONIC in nanoseconds. */
int64_t now_ns();

/**
 * Takes `count` samples of each subject in turns, after some that are not counted, with a short rest before each so
 * that nobody is still busy with the one before. A sample gets its running number and returns nanoseconds; each is
 * printed as a line "SUBJECT NANOSECONDS". What takes part in some
 * turns only is slow, and has all of its samples counted.
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

/** Waits until a file of the watched folder has had events in `mask`. Returns how many. Ends the program when nothing
 * comes for 10 s. */
int await_events(int watch_fd, uint32_t mask, const char *file);

std::string path_of(const char *file);

/** Size of a file, -1 when there is none. */
off_t size_of(const std::string &path);

// The figures. A count of samples after the subjects, then what the usage text of measure.cpp says.
void fill_routes(Subjects &subjects, int routes);
void measure_change(Subjects &subjects, int samples, int routes);
void measure_burst(Subjects &subjects, int rounds, int routes, int changes);
/** `commands` has a program and the size of its whole file for each subject. */
void measure_start(Subjects &subjects, int rounds, const char *const *commands);
void fill_tunnels(Subjects &subjects, int tunnels);
void measure_replay(Subjects &subjects, int samples, int tunnels);
void measure_hset(Subjects &subjects, int samples, int tunnels);
void measure_export(Subjects &subjects, int samples, int type);
