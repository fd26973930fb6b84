/* Inputs: descriptors and what is called when they are ready. */
#include <stdlib.h>
#include <sys/stat.h>

#include "linux/dispatcher/loop.h"

struct Input {
    Input *next;
    event *readiness;
    int fd;
    int type;
    dev_t device; /**< with inode: tells the file that was registered from a later one of the same number */
    ino_t inode;
    DispInputHandler handler;
    void *user_data;
};

namespace {

void on_ready(evutil_socket_t, short, void *arg) {
    const auto *input = static_cast<const Input *>(arg);
    input->handler(input->user_data);  // may remove, and so free, the input
}

void free_input(Input *input) {
    if (input->readiness)
        event_free(input->readiness);
    free(input);
}

/**
 * Takes out what `fd` has of that type, and whatever belongs to an earlier file of that number (`now` describes the
 * file of today, NULL when there is none): left in, the library would carry it over to the new file.
 */
void remove_registered(Loop *loop, int fd, int type, const struct stat *now) {
    for (Input **link = &loop->inputs; *link;) {
        Input *input = *link;
        const bool same_file = now && input->device == now->st_dev && input->inode == now->st_ino;
        if (input->fd != fd || (input->type != type && same_file)) {
            link = &input->next;
            continue;
        }
        *link = input->next;
        free_input(input);
    }
}

bool start(Loop *loop, Input *input) {
    const short events = EV_PERSIST | (input->type == DISP_READ ? EV_READ : EV_WRITE);
    input->readiness = event_new(loop->base, input->fd, events, on_ready, input);
    return input->readiness && event_add(input->readiness, nullptr) == 0;
}

}  // namespace

int DispAddInput(Dispatcher *dispatcher, int fd, int type, DispInputHandler handler, void *user_data) {
    Loop *loop = loop_of(dispatcher);
    if (!loop || fd < 0 || (type != DISP_READ && type != DISP_WRITE) || !handler)
        return -1;
    struct stat status;
    const bool is_open = fstat(fd, &status) == 0;
    remove_registered(loop, fd, type, is_open ? &status : nullptr);
    auto *input = is_open ? static_cast<Input *>(calloc(1, sizeof(Input))) : nullptr;
    if (!input)
        return -1;
    *input = {loop->inputs, nullptr, fd, type, status.st_dev, status.st_ino, handler, user_data};
    if (!start(loop, input)) {
        free_input(input);
        return -1;
    }
    loop->inputs = input;
    return 0;
}

int DispRemoveInput(Dispatcher *dispatcher, int fd, int type) {
    struct stat status;
    if (Loop *loop = loop_of(dispatcher))
        remove_registered(loop, fd, type, fstat(fd, &status) == 0 ? &status : nullptr);
    return 0;
}

uint32_t count_inputs(const Loop *loop) {
    uint32_t count = 0;
    for (const Input *input = loop->inputs; input; input = input->next)
        count++;
    return count;
}

void free_inputs(Loop *loop) {
    while (Input *input = loop->inputs) {
        loop->inputs = input->next;
        free_input(input);
    }
}
