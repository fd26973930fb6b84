#include "fakes/bad_input.h"

#include <errno.h>

#include <array>

#include "fakes/fakes.h"

namespace fake {

namespace {

constexpr size_t kNamedElements = 4;
constexpr size_t kElementsMax = 6;

/** What there is of one element. */
enum Presence { WITH_TEXT, WITHOUT_TEXT, MISSING, PRESENCE_COUNT };

using Presences = std::array<int, kNamedElements>;

/** Counts on. Returns false after the last combination. */
bool next(Presences *presences) {
    for (int &presence : *presences) {
        if (++presence < PRESENCE_COUNT)
            return true;
        presence = WITH_TEXT;
    }
    return false;
}

}  // namespace

void for_each_reply(const std::string &channel, const std::string &event,
                    const std::function<void(const dal_reply *, const ReplyShape &)> &handle) {
    const std::array<std::string, kElementsMax> texts = {"pmessage", "pattern", channel, event, "more", "and more"};
    std::array<dal_reply, kElementsMax> elements;
    std::array<dal_reply *, kElementsMax> table;
    for (const int type : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 99})
        for (size_t count = 0; count <= kElementsMax; count++) {
            const dal_reply without_table = {type, 0, 0, nullptr, count, nullptr};
            handle(&without_table, {type == DAL_REPLY_ARRAY, count == kNamedElements, false, false});
            Presences presences{};
            do {
                for (size_t i = 0; i < kElementsMax; i++) {
                    const int presence = i < kNamedElements ? presences[i] : +WITH_TEXT;
                    elements[i] = {DAL_REPLY_STRING, 0, texts[i].size(), nullptr, 0, nullptr};
                    if (presence == WITH_TEXT)
                        elements[i].str = const_cast<char *>(texts[i].c_str());
                    table[i] = presence == MISSING ? nullptr : &elements[i];
                }
                const dal_reply reply = {type, 0, 0, nullptr, count, table.data()};
                handle(&reply, {type == DAL_REPLY_ARRAY, count == kNamedElements, presences[2] == WITH_TEXT,
                                presences[3] == WITH_TEXT});
            } while (next(&presences));
        }
}

std::string random_text(std::mt19937 &random, const std::string &characters, size_t length_max) {
    std::string text(random() % (length_max + 1), '\0');
    for (char &character : text)
        character = characters[random() % characters.size()];
    return text;
}

std::string all_characters() {
    std::string characters;
    for (int character = 1; character < 256; character++)
        characters += static_cast<char>(character);
    return characters;
}

void with_every_allocation_failing(const std::function<void()> &action, const std::function<void()> &check) {
    for (const char *call : {"malloc", "calloc", "realloc"})
        for (int skip = 0;; skip++) {
            const int before = call_count(call);
            fail_call(call, ENOMEM, skip);
            action();
            const bool reached = call_count(call) - before > skip;
            fail_call(call, 0, 0, 0);
            check();
            if (!reached)
                break;
        }
}

}  // namespace fake
