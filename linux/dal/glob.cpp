#include "linux/dal/glob.h"

#include <string.h>

namespace dal {

namespace {

bool in_range(unsigned char one, unsigned char other, unsigned char byte) {
    return one < other ? one <= byte && byte <= other : other <= byte && byte <= one;
}

/** A class from behind its '[' on. `*at` is moved behind it; one that is not closed ends with the pattern. */
bool class_matches(const char **at, const char *end, unsigned char byte) {
    const char *place = *at;
    const bool negated = place < end && *place == '^';
    if (negated)
        place++;
    bool found = false;
    while (place < end && *place != ']') {
        if (*place == '\\' && end - place >= 2) {
            found = found || static_cast<unsigned char>(place[1]) == byte;
            place += 2;
        } else if (end - place >= 3 && place[1] == '-') {
            found = found || in_range(static_cast<unsigned char>(place[0]), static_cast<unsigned char>(place[2]), byte);
            place += 3;
        } else {
            found = found || static_cast<unsigned char>(*place) == byte;
            place++;
        }
    }
    *at = place < end ? place + 1 : end;
    return found != negated;
}

/** Whether one byte is what stands at `*at`, which is no star. `*at` is moved behind that. */
bool one_matches(const char **at, const char *end, char byte) {
    const char first = *(*at)++;
    if (first == '?')
        return true;
    if (first == '[')
        return class_matches(at, end, static_cast<unsigned char>(byte));
    if (first == '\\' && *at < end)
        return *(*at)++ == byte;
    return first == byte;
}

}  // namespace

bool glob_matches(const char *pattern, size_t pattern_length, const char *text, size_t length) {
    const char *pattern_end = pattern + pattern_length;
    const char *text_end = text + length;
    const char *behind_star = nullptr;  // where to go on with the next byte given to the last star
    const char *star_text = nullptr;
    while (text < text_end || pattern < pattern_end) {
        if (pattern < pattern_end && *pattern == '*') {
            behind_star = ++pattern;
            star_text = text;
            continue;
        }
        if (text < text_end && pattern < pattern_end && one_matches(&pattern, pattern_end, *text)) {
            text++;
            continue;
        }
        if (!behind_star || star_text >= text_end)
            return false;
        pattern = behind_star;
        text = ++star_text;
    }
    return true;
}

bool glob_is_plain(const char *pattern) {
    return strpbrk(pattern, "*?[\\") == nullptr;
}

}  // namespace dal
