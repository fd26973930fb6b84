/*
 * Who the daemon is to the DAL's server: a user and a password, from the file that DAL_AUTH_FILE names. Its lines are
 *
 *     user NAME            may be left out: then the password alone is given
 *     password TEXT
 *
 * each with one blank and then everything up to the end of the line; empty lines and those that begin with # are
 * skipped. Only a regular file of root's or of the daemon's own user counts that others may neither read nor change and
 * its group may not change.
 */
#pragma once

#include <sys/stat.h>

#include "linux/dal/link.h"

namespace dal {

/**
 * Queues the login as the first command of a new link, where there is a file to log in with; what is sent behind it
 * does not wait for its answer. The file is read anew for each link, so that a changed password needs no restart.
 *
 * @return false with link->reason set when the file cannot be used or memory is short
 */
bool login_queue(Link *link);

/** The answer. False with link->reason set when the server refuses. */
bool login_answered(Link *link, const redisReply *reply);

/** NULL when the file is one to trust with a password, else what is wrong with it. */
const char *login_file_objection(const struct stat &status, uid_t own_user);

}  // namespace dal
