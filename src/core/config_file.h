/*
 * Files that the routing daemon reads.
 *
 * A file is rendered whole in memory, written to a new file beside the old one and renamed over it: the routing daemon
 * never sees half a file, and a full file system leaves the old one as it was.
 */
#pragma once

#include <stddef.h>
#include <string.h>

#include <string_view>

struct ConfigFile;

/**
 * Begins a file at `path` (at most 63 characters), mode 0644. Fails where the target is anything but a regular file or
 * absent, or where no file can be made beside it. Returns NULL with errno set; else the caller owns the result and
 * hands it to config_file_close or config_file_discard.
 */
[[nodiscard]] ConfigFile *config_file_open(const char *path);

/** Appends text. A failure is reported by the flush or close that follows. */
void config_file_put(ConfigFile *file, std::string_view text);
void config_file_put_number(ConfigFile *file, unsigned number);
void config_file_printf(ConfigFile *file, const char *format, ...) __attribute__((format(printf, 2, 3)));

/** Room for `length` bytes behind what was appended, to be filled and then taken; NULL after a failure. */
[[nodiscard]] char *config_file_room(ConfigFile *file, size_t length);
void config_file_take(ConfigFile *file, size_t length);

/**
 * Appends several std::string_view, none of which has NULL data, one behind the other. Always inline, as a constant
 * text is a store or two then: a full route table has thousands of them, at each change.
 */
template <typename... Texts>
[[gnu::always_inline]] inline void config_file_put_all(ConfigFile *file, Texts... texts) {
    const size_t length = (texts.size() + ...);
    char *at = config_file_room(file, length);
    if (!at)
        return;
    ((memcpy(at, texts.data(), texts.size()), at += texts.size()), ...);
    config_file_take(file, length);
}

/**
 * What was appended and not yet flushed: its length, and its text from a place on (valid until the next call), which is
 * empty after a failure, as a part of it may be missing.
 */
size_t config_file_length(const ConfigFile *file);
std::string_view config_file_text_from(const ConfigFile *file, size_t begin);

/** Writes what was appended to the new file; the old one still stands. Returns 0, or -1 with errno set. */
[[nodiscard]] int config_file_flush(ConfigFile *file);

/** Flushes and puts the new file in the old one's place. Returns 0, or -1 with errno set and the old file as it was. */
[[nodiscard]] int config_file_close(ConfigFile *file);

/** Drops the new file. errno stays. */
void config_file_discard(ConfigFile *file);
