#include "logctl/level_word.h"

#include <stdio.h>
#include <string.h>

#include "core/global.h"

bool read_level_word(const char *key, LevelWord *word) {
    *word = {};
    word->length = sizeof word->text - 1;
    return dal_get(vyrwrap_global.dal_ctx, key, static_cast<uint32_t>(strlen(key)), word->text, &word->length) == 0;
}

void format_key_subscription(char *command, size_t size, const char *key) {
    snprintf(command, size, "%s %s%s", "PSUBSCRIBE", kKeyspaceChannel, key);
}
