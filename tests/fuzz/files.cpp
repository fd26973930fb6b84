/* Files in memory, behind the C library's calls; the system's own while real_files is set. */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/fuzz/platform.h"

extern "C" {

#define REAL_AND_WRAPPED(result_type, name, ...) \
    result_type __real_##name(__VA_ARGS__);      \
    result_type __wrap_##name(__VA_ARGS__)

REAL_AND_WRAPPED(int, open, const char *path, int flags, ...);
REAL_AND_WRAPPED(int, lstat, const char *path, struct stat *status);
REAL_AND_WRAPPED(int, fstat, int fd, struct stat *status);
REAL_AND_WRAPPED(int, fchmod, int fd, mode_t mode);
REAL_AND_WRAPPED(int, ftruncate, int fd, off_t length);
REAL_AND_WRAPPED(int, rename, const char *from, const char *to);
REAL_AND_WRAPPED(int, unlink, const char *path);
REAL_AND_WRAPPED(int, remove, const char *path);
REAL_AND_WRAPPED(int, access, const char *path, int mode);
REAL_AND_WRAPPED(int, mkostemp, char *path, int flags);
REAL_AND_WRAPPED(FILE *, fopen, const char *path, const char *mode);
REAL_AND_WRAPPED(FILE *, fdopen, int fd, const char *mode);
REAL_AND_WRAPPED(int, fputs, const char *text, FILE *file);
int __real_fprintf(FILE *file, const char *format, ...) __attribute__((format(printf, 2, 3)));
int __wrap_fprintf(FILE *file, const char *format, ...) __attribute__((format(printf, 2, 3)));
REAL_AND_WRAPPED(size_t, fwrite, const void *bytes, size_t size, size_t count, FILE *file);
int __real_close(int fd);
ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __real_read(int fd, void *bytes, size_t size);
}

namespace fuzz {

void (*on_renamed)(const char *path, std::string_view content);
bool real_files;
unsigned failing_file_calls;

namespace {

constexpr size_t kFileMax = 16;
constexpr size_t kPathSize = 80;
constexpr int kFirstFd = 500;
constexpr int kFdMax = 8;

struct File {
    char path[kPathSize];
    size_t path_length; /**< 0: no file */
    bool is_folder;
    char *content; /**< kept for the next file in this place */
    size_t length;
    size_t capacity;
};

struct Descriptor {
    bool open;
    File *file;
};

File files[kFileMax];
Descriptor descriptors[kFdMax];

File *find(const char *path) {
    const std::string_view wanted = path;
    for (File &each : files)
        if (each.path_length == wanted.size() && same({each.path, each.path_length}, wanted) && each.path_length > 0)
            return &each;
    return nullptr;
}

void set_path(File *named, const char *path) {
    named->path_length = strlen(path);
    HOLDS(named->path_length > 0 && named->path_length < kPathSize);
    memcpy(named->path, path, named->path_length);
}

File *make(const char *path) {
    File *made = find(path);
    for (size_t i = 0; !made && i < kFileMax; i++)
        if (files[i].path_length == 0)
            made = &files[i];
    HOLDS(made);
    set_path(made, path);
    made->is_folder = false;
    made->length = 0;
    return made;
}

void append(File *to, const void *bytes, size_t size) {
    if (to->length + size > to->capacity) {
        const size_t capacity = (to->length + size) * 2;
        auto *content = static_cast<char *>(allocate(capacity));
        if (to->length > 0)
            memcpy(content, to->content, to->length);
        release(to->content);
        to->content = content;
        to->capacity = capacity;
    }
    if (size > 0)
        memcpy(to->content + to->length, bytes, size);
    to->length += size;
}

int open_descriptor(File *opened) {
    for (int i = 0; i < kFdMax; i++)
        if (!descriptors[i].open) {
            descriptors[i] = {true, opened};
            return kFirstFd + i;
        }
    broken("a descriptor is free", __FILE__, __LINE__);
}

Descriptor *find_descriptor(int fd) {
    return fd >= kFirstFd && fd < kFirstFd + kFdMax ? &descriptors[fd - kFirstFd] : nullptr;
}

int failed(int error) {
    errno = error;
    return -1;
}

/** Whether calls are answered here: others than the daemon's code open files too. */
bool in_memory() {
    return inside && !real_files;
}

int open_in_memory(const char *path, int flags) {
    if (failing_file_calls & FAIL_OPEN)
        return failed(EMFILE);
    File *found = find(path);
    if (found && found->is_folder)
        return failed(EISDIR);
    if (found && (flags & O_EXCL))
        return failed(EEXIST);
    if (!found && (!(flags & O_CREAT) || !path[0]))
        return failed(ENOENT);
    return open_descriptor(found ? found : make(path));
}

int rename_in_memory(const char *from, const char *to) {
    File *moved = find(from);
    if (!moved)
        return failed(ENOENT);
    File *replaced = find(to);
    if (replaced && replaced->is_folder)
        return failed(EISDIR);
    if (replaced)
        replaced->path_length = 0;
    set_path(moved, to);
    return 0;
}

}  // namespace

void begin_files() {
    for (File &each : files)
        each.path_length = 0;
    for (Descriptor &each : descriptors)
        each.open = false;
    on_renamed = nullptr;
    real_files = false;
    failing_file_calls = 0;
}

unsigned files_open() {
    unsigned count = 0;
    for (const Descriptor &each : descriptors)
        count += each.open;
    return count;
}

bool is_open_file(int fd) {
    const Descriptor *found = find_descriptor(fd);
    return found && found->open;
}

bool close_file(int fd) {
    Descriptor *closed = find_descriptor(fd);
    if (!closed)
        return false;
    HOLDS(closed->open);
    closed->open = false;
    return true;
}

ssize_t write_to_file(int fd, const void *bytes, size_t size) {
    const Descriptor *written = find_descriptor(fd);
    HOLDS(written && written->open);
    if (failing_file_calls & FAIL_WRITE) {
        append(written->file, bytes, size / 2);
        return size / 2 > 0 ? static_cast<ssize_t>(size / 2) : failed(ENOSPC);
    }
    append(written->file, bytes, size);
    return static_cast<ssize_t>(size);
}

std::string_view file(const char *path) {
    if (!real_files) {
        const File *found = find(path);
        return found && found->content ? std::string_view(found->content, found->length)
                                       : std::string_view(found ? "" : nullptr, 0);
    }
    static char content[1 << 18];
    const int fd = __real_open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    const ssize_t length = __real_read(fd, content, sizeof content);
    __real_close(fd);
    return {content, static_cast<size_t>(length)};
}

void put_file(const char *path, std::string_view content) {
    if (!real_files) {
        append(make(path), content.data(), content.size());
        return;
    }
    const int fd = __real_open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    HOLDS(fd >= 0 && __real_write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    __real_close(fd);
}

void put_folder(const char *path) {
    if (real_files)
        mkdir(path, 0755);
    else
        make(path)->is_folder = true;
}

void remove_file(const char *path) {
    if (real_files)
        __real_remove(path);
    else if (File *found = find(path))
        found->path_length = 0;
}

}  // namespace fuzz

using namespace fuzz;

int __wrap_open(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (!in_memory())
        return inside && (failing_file_calls & FAIL_OPEN) ? failed(EMFILE) : __real_open(path, flags, mode);
    return open_in_memory(path, flags);
}

int __wrap_lstat(const char *path, struct stat *status) {
    if (!in_memory())
        return __real_lstat(path, status);
    const File *found = find(path);
    if (!found)
        return failed(ENOENT);
    *status = {};
    status->st_mode = found->is_folder ? S_IFDIR | 0755 : S_IFREG | 0644;
    return 0;
}

int __wrap_fstat(int fd, struct stat *status) {
    if (!in_memory())
        return __real_fstat(fd, status);
    HOLDS(find_descriptor(fd) && find_descriptor(fd)->open);
    *status = {};
    status->st_mode = S_IFREG | 0644;
    status->st_uid = geteuid();
    status->st_nlink = 1;
    return 0;
}

int __wrap_fchmod(int fd, mode_t mode) {
    return in_memory() ? 0 : __real_fchmod(fd, mode);
}

int __wrap_ftruncate(int fd, off_t length) {
    if (!in_memory())
        return __real_ftruncate(fd, length);
    Descriptor *cut = find_descriptor(fd);
    HOLDS(cut && cut->open && length == 0);
    cut->file->length = 0;
    return 0;
}

int __wrap_rename(const char *from, const char *to) {
    if (inside && (failing_file_calls & FAIL_RENAME))
        return failed(EACCES);
    const int result = in_memory() ? rename_in_memory(from, to) : __real_rename(from, to);
    if (result == 0 && inside && on_renamed)
        on_renamed(to, file(to));
    return result;
}

int __wrap_unlink(const char *path) {
    if (!in_memory())
        return __real_unlink(path);
    File *found = find(path);
    if (!found)
        return failed(ENOENT);
    if (found->is_folder)
        return failed(EISDIR);
    found->path_length = 0;
    return 0;
}

int __wrap_remove(const char *path) {
    return in_memory() ? __wrap_unlink(path) : __real_remove(path);
}

int __wrap_access(const char *path, int mode) {
    if (!in_memory())
        return __real_access(path, mode);
    return find(path) ? 0 : failed(ENOENT);
}

int __wrap_mkostemp(char *path, int flags) {
    if (!in_memory())
        return __real_mkostemp(path, flags);
    memcpy(path + strlen(path) - 6, "abcdef", 6);
    return open_in_memory(path, O_CREAT | O_EXCL);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
    if (!in_memory() || mode[0] != 'r')  // the fuzzer writes what it found
        return __real_fopen(path, mode);
    const File *found = failing_file_calls & FAIL_OPEN ? nullptr : find(path);
    if (found && !found->is_folder)
        return fmemopen(found->length > 0 ? found->content : nullptr, found->length, "r");
    errno = ENOENT;
    return nullptr;
}

FILE *__wrap_fdopen(int fd, const char *mode) {
    if (!in_memory())
        return __real_fdopen(fd, mode);
    Descriptor *opened = find_descriptor(fd);
    HOLDS(opened && opened->open);
    opened->open = false;  // it is the stream's now
    return fmemopen(opened->file->length > 0 ? opened->file->content : nullptr, opened->file->length, mode);
}

// Traces of the start go to standard error: nobody wants to read them a million times.
int __wrap_fputs(const char *text, FILE *to) {
    return inside && to == stderr ? 0 : __real_fputs(text, to);
}

size_t __wrap_fwrite(const void *bytes, size_t size, size_t count, FILE *to) {
    return inside && to == stderr ? count : __real_fwrite(bytes, size, count, to);
}

int __wrap_fprintf(FILE *to, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = inside && to == stderr ? vsnprintf(nullptr, 0, format, args) : vfprintf(to, format, args);
    va_end(args);
    return length;
}
