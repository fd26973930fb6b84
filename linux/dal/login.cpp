#include "linux/dal/login.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "core/descriptor.h"

namespace dal {

namespace {

constexpr char kVariable[] = "DAL_AUTH_FILE";
constexpr char kUser[] = "user ";
constexpr char kPassword[] = "password ";

/** The file's text, and where in it the two are. */
struct Login {
    char text[4096];
    const char *user;     /**< NULL: none */
    const char *password; /**< NULL: none yet */
};

const char *file_name() {
    const char *name = getenv(kVariable);
    return name && *name ? name : nullptr;
}

bool fail(Link *link, const char *reason) {
    snprintf(link->reason, sizeof link->reason, "%s %s: %s", kVariable, file_name(), reason);
    return false;
}

bool read_text(Link *link, const char *name, Login *login) {
    const int fd = move_above_stdio(open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (fd < 0)
        return fail(link, strerror(errno));
    struct stat status;
    const char *objection = fstat(fd, &status) < 0 ? strerror(errno) : login_file_objection(status, geteuid());
    const ssize_t length = objection ? 0 : read(fd, login->text, sizeof login->text);
    if (length < 0)
        objection = strerror(errno);
    else if (length == sizeof login->text)
        objection = "it is too long";
    else if (memchr(login->text, '\0', static_cast<size_t>(length)))
        objection = "it has a NUL in it";
    else
        login->text[length] = '\0';
    close(fd);
    return !objection || fail(link, objection);
}

/** The rest of a line that begins like this and goes on, else NULL. */
const char *value_of(const char *line, const char *begin) {
    const size_t length = strlen(begin);
    return strncmp(line, begin, length) == 0 && line[length] ? line + length : nullptr;
}

bool parse_line(Login *login, const char *line) {
    if (line[0] == '\0' || line[0] == '#')
        return true;
    const char *user = value_of(line, kUser);
    const char *password = value_of(line, kPassword);
    if (user)
        login->user = user;
    if (password)
        login->password = password;
    return user || password;
}

/** Cuts the text into lines. */
bool parse(Link *link, Login *login) {
    char *line = login->text;
    for (unsigned number = 1; line; number++) {
        char *end = strchr(line, '\n');
        if (end)
            *end++ = '\0';
        if (!parse_line(login, line)) {
            char reason[64];
            snprintf(reason, sizeof reason, "line %u is neither user NAME nor password TEXT", number);
            return fail(link, reason);
        }
        line = end;
    }
    return login->password || fail(link, "it has no password");
}

bool queue(Link *link, const Login *login) {
    const Argument with_user[] = {argument("AUTH"), argument(login->user ? login->user : ""),
                                  argument(login->password)};
    const Argument without[] = {with_user[0], with_user[2]};
    return link_queue(link, Question::login, nullptr,
                      login->user ? std::span<const Argument>(with_user) : std::span<const Argument>(without));
}

}  // namespace

const char *login_file_objection(const struct stat &status, uid_t own_user) {
    if (!S_ISREG(status.st_mode))
        return "it is no regular file";
    if (status.st_uid != 0 && status.st_uid != own_user)
        return "it belongs to another user";
    if (status.st_mode & (S_IRWXO | S_IWGRP))
        return "others may read or change it";
    return nullptr;
}

bool login_queue(Link *link) {
    const char *name = file_name();
    if (!name)
        return true;
    Login login = {};
    const bool queued = read_text(link, name, &login) && parse(link, &login) && queue(link, &login);
    explicit_bzero(&login, sizeof login);
    return queued;
}

/** Only the error's first word: servers that do not know the command repeat its arguments. */
bool login_answered(Link *link, const redisReply *reply) {
    if (reply->type == REDIS_REPLY_STATUS && strcmp(reply->str, "OK") == 0)
        return true;
    constexpr int kLongestWord = 32;
    char reason[96];
    const int length = reply->type == REDIS_REPLY_ERROR ? static_cast<int>(strcspn(reply->str, " ")) : 0;
    snprintf(reason, sizeof reason, "the server refuses this user and password (%.*s)",
             length < kLongestWord ? length : kLongestWord, length ? reply->str : "no answer to a login");
    return fail(link, reason);
}

}  // namespace dal
