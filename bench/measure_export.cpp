// Route-table export: from the trigger to the finished file.
#include <stdio.h>
#include <stdlib.h>
#include <sys/inotify.h>

#include "bench/measure.h"

namespace {

void check_size(const Subject &subject, uint32_t expected) {
    const std::string path = path_of(subject.names->export_file);
    if (size_of(path) == static_cast<off_t>(expected))
        return;
    fprintf(stderr, "measure: %s has not the answer's size\n", path.c_str());
    exit(1);
}

}  // namespace

void measure_export(Subjects &subjects, int samples, int type) {
    const int watch_fd = watch(IN_CLOSE_WRITE);
    const auto data = static_cast<uint32_t>(type);
    interleave(subjects, samples, [&](Subject &subject, int) {
        redisAppendCommand(subject.dal, "PUBLISH %s %b", kExportChannel, &data, sizeof data);
        forget_events(watch_fd);
        const int64_t start = now_ns();
        put_on_wire(subject);
        await_events(watch_fd, IN_CLOSE_WRITE, subject.names->export_file);
        const int64_t taken = now_ns() - start;
        take_answers(subject, 1);
        check_size(subject, kExportAnswers.at(data).body_size);
        return taken;
    });
}
