#include "linux/instance.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "linux/platform_log.h"

namespace {

constexpr char kLockFile[] = "/tmp/.vyrwrap.lock";
constexpr int kAttempts = 10;

struct flock whole_file() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/**
 * Anybody may have made the file first, and whoever can open it could lock it. So only a regular file of our own that
 * is open to nobody else counts.
 */
bool is_trusted(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/** Takes away what is not to be trusted, as root may in a sticky folder. Leaves EAGAIN in errno when it is gone. */
void remove_untrusted() {
    const int error = errno;
    struct stat status;
    if (lstat(kLockFile, &status) == 0 && !is_trusted(status)) {
        if ((S_ISDIR(status.st_mode) ? rmdir(kLockFile) : unlink(kLockFile)) == 0)
            errno = EAGAIN;
    } else {
        errno = error;
    }
}

/** Opens the file, or makes it. Returns -1 with EAGAIN where what stood there is out of the way now. */
int open_lock_file() {
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    const int fd = move_above_stdio(open(kLockFile, kFlags));
    if (fd < 0 && errno == ENOENT)
        return move_above_stdio(open(kLockFile, kFlags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR));
    struct stat status;
    if (fd >= 0 && fstat(fd, &status) == 0 && is_trusted(status))
        return fd;
    if (fd >= 0) {
        close(fd);
        errno = EPERM;
    }
    remove_untrusted();
    return -1;
}

/** A lock on a file that has been removed since would lock nothing. */
bool is_still_there(int fd) {
    struct stat locked;
    struct stat named;
    return fstat(fd, &locked) == 0 && lstat(kLockFile, &named) == 0 && locked.st_dev == named.st_dev &&
           locked.st_ino == named.st_ino;
}

enum class Outcome { claimed, other_runs, try_again, failed };

Outcome try_to_claim(pid_t *holder) {
    const int fd = open_lock_file();
    if (fd < 0)
        return errno == EAGAIN || errno == EEXIST ? Outcome::try_again : Outcome::failed;
    struct flock lock = whole_file();
    if (fcntl(fd, F_SETLK, &lock) == 0) {
        if (is_still_there(fd))
            return Outcome::claimed;  // the descriptor stays open for the process's whole life
        close(fd);
        return Outcome::try_again;
    }
    const bool is_held = errno == EAGAIN || errno == EACCES;
    lock = whole_file();
    *holder = is_held && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
    const int error = errno;
    close(fd);
    errno = error;
    return is_held ? Outcome::other_runs : Outcome::failed;
}

}  // namespace

int claim_instance() {
    pid_t holder = 0;
    Outcome outcome = Outcome::try_again;
    for (int attempt = 0; outcome == Outcome::try_again && attempt < kAttempts; attempt++)
        outcome = try_to_claim(&holder);
    if (outcome == Outcome::claimed)
        return 0;
    if (outcome == Outcome::other_runs) {
        platform_error("<PROCESS>: another vyrwrap runs on this machine (process %d has locked %s): this one ends",
                       holder, kLockFile);
        return -1;
    }
    const int error = errno;
    if (outcome == Outcome::failed && (error == EACCES || error == EPERM)) {
        platform_error("<PROCESS>: another user's vyrwrap may run on this machine (%s: %s): this one ends", kLockFile,
                       strerror(error));
        return -1;
    }
    platform_warning("<PROCESS>: cannot lock %s (%s): a second vyrwrap would not be noticed", kLockFile,
                     strerror(error));
    return 0;
}
