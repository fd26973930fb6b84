#include "core/parse.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>

int parse_int(const char *text) {
    if (!text)
        return 0;
    const int saved_errno = errno;
    const long number = strtol(text, nullptr, 10);
    errno = saved_errno;
    if (number > INT_MAX)
        return INT_MAX;
    return number < INT_MIN ? INT_MIN : static_cast<int>(number);
}
