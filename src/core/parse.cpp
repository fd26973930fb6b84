#include "core/parse.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>

int parse_int(const char *text) {
    const char *end;
    return text ? parse_int(text, &end) : 0;
}

int parse_int(const char *text, const char **end) {
    const int saved_errno = errno;
    char *stop;
    const long number = strtol(text, &stop, 10);
    errno = saved_errno;
    *end = stop;
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}
