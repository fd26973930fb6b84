#include "core/config_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>

namespace {

constexpr size_t kPathSize = 64;
constexpr size_t kNewPathSize = kPathSize + sizeof ".XXXXXX" - 1;

}  // namespace

struct ConfigFile {
    char path[kPathSize];
    char new_path[kNewPathSize];
    int fd;
    int error; /**< first failure, an errno value */
    char *text;
    size_t length;
    size_t capacity;
};

namespace {

constexpr size_t kFirstCapacity = 4096;

/** 0 when the target may be replaced, else the errno value that says why not. */
int target_error(const char *path) {
    if (strlen(path) >= sizeof ConfigFile::path)
        return ENAMETOOLONG;
    struct stat status;
    if (lstat(path, &status) < 0)
        return errno == ENOENT ? 0 : errno;
    if (S_ISREG(status.st_mode))
        return 0;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    return S_ISLNK(status.st_mode) ? ELOOP : ENXIO;
}

/** Creates the new file beside `path` and tells its name. Returns its descriptor, -1 with errno set. */
int create_exclusive(const char *path, char (&new_path)[kNewPathSize]) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    snprintf(new_path, sizeof new_path, "%s.new", path);
    int fd = open(new_path, kFlags, 0644);
    if (fd >= 0 || errno != EEXIST)
        return fd;
    if (unlink(new_path) == 0)  // left by a run that was killed
        return open(new_path, kFlags, 0644);
    // /tmp is everybody's: what somebody put there to stay must not keep the file from being written
    snprintf(new_path, sizeof new_path, "%s.XXXXXX", path);
    fd = mkostemp(new_path, O_CLOEXEC);
    if (fd >= 0)
        fchmod(fd, 0644);
    return fd;
}

/** Makes room for `more` bytes and one terminator. */
bool reserve(ConfigFile *file, size_t more) {
    if (file->error)
        return false;
    const size_t needed = file->length + more + 1;
    if (needed <= file->capacity)
        return true;
    size_t capacity = file->capacity ? file->capacity : kFirstCapacity;
    while (capacity < needed)
        capacity *= 2;
    char *text = static_cast<char *>(realloc(file->text, capacity));
    if (!text) {
        file->error = ENOMEM;
        return false;
    }
    file->text = text;
    file->capacity = capacity;
    return true;
}

}  // namespace

ConfigFile *config_file_open(const char *path) {
    if (const int error = target_error(path)) {
        errno = error;
        return nullptr;
    }
    auto *file = static_cast<ConfigFile *>(calloc(1, sizeof(ConfigFile)));
    if (!file)
        return nullptr;
    snprintf(file->path, sizeof file->path, "%s", path);
    file->fd = create_exclusive(file->path, file->new_path);
    if (file->fd < 0) {
        const int saved_errno = errno;
        free(file);
        errno = saved_errno;
        return nullptr;
    }
    return file;
}

char *config_file_room(ConfigFile *file, size_t length) {
    return reserve(file, length) ? file->text + file->length : nullptr;
}

void config_file_take(ConfigFile *file, size_t length) {
    file->length += length;
}

void config_file_put(ConfigFile *file, std::string_view text) {
    if (!text.empty())  // its data may be NULL then, which memcpy must not be given
        config_file_put_all(file, text);
}

void config_file_put_number(ConfigFile *file, unsigned number) {
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, number);
    config_file_put(file, {digits, static_cast<size_t>(end.ptr - digits)});
}

void config_file_printf(ConfigFile *file, const char *format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    if (length > 0 && reserve(file, static_cast<size_t>(length))) {
        vsnprintf(file->text + file->length, static_cast<size_t>(length) + 1, format, again);
        file->length += static_cast<size_t>(length);
    }
    va_end(again);
    va_end(args);
}

size_t config_file_length(const ConfigFile *file) {
    return file->length;
}

std::string_view config_file_text_from(const ConfigFile *file, size_t begin) {
    if (file->error)
        return {};
    return {file->text + begin, file->length - begin};
}

int config_file_flush(ConfigFile *file) {
    size_t written = 0;
    while (!file->error && written < file->length) {
        const ssize_t count = write(file->fd, file->text + written, file->length - written);
        if (count >= 0)
            written += static_cast<size_t>(count);
        else if (errno != EINTR)
            file->error = errno;
    }
    file->length = 0;
    if (!file->error)
        return 0;
    errno = file->error;
    return -1;
}

int config_file_close(ConfigFile *file) {
    if (config_file_flush(file) < 0) {
        config_file_discard(file);
        return -1;
    }
    // close reports write errors that the file system had put off
    const int closed = close(file->fd);
    file->fd = -1;
    if (closed < 0 || rename(file->new_path, file->path) < 0) {
        config_file_discard(file);
        return -1;
    }
    free(file->text);
    free(file);
    return 0;
}

void config_file_discard(ConfigFile *file) {
    const int saved_errno = errno;
    if (file->fd >= 0)
        close(file->fd);
    unlink(file->new_path);
    free(file->text);
    free(file);
    errno = saved_errno;
}
