#include "linux/korvalog/escape.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace {

/** Bytes of the control character at `text`, 0 when it is none. The ones behind 0x7f take two bytes of UTF-8. */
size_t control_length(const uint8_t *text) {
    constexpr uint8_t kDelete = 0x7f;
    constexpr uint8_t kLead = 0xc2;
    if (text[0] < ' ' || text[0] == kDelete)
        return 1;
    return text[0] == kLead && text[1] >= 0x80 && text[1] < 0xa0 ? 2 : 0;
}

size_t escape_byte(uint8_t byte, char *escape, size_t size) {
    constexpr char kLetters[] = "abtnvfr";  // in the order of their codes
    const int length = byte >= '\a' && byte <= '\r' ? snprintf(escape, size, "\\%c", kLetters[byte - '\a'])
                                                    : snprintf(escape, size, "\\%03o", static_cast<unsigned>(byte));
    return static_cast<size_t>(length);
}

}  // namespace

size_t escape_controls(const char *text, char *line, size_t size) {
    size_t length = 0;
    for (const auto *byte = reinterpret_cast<const uint8_t *>(text); *byte;) {
        char piece[16];
        size_t piece_length = 0;
        size_t taken = control_length(byte);
        for (size_t i = 0; i < taken; i++)
            piece_length += escape_byte(byte[i], piece + piece_length, sizeof piece - piece_length);
        if (taken == 0) {
            piece[piece_length++] = static_cast<char>(*byte);
            taken = 1;
        }
        if (length + piece_length >= size)
            break;
        memcpy(line + length, piece, piece_length);
        length += piece_length;
        byte += taken;
    }
    line[length] = '\0';
    return length;
}
