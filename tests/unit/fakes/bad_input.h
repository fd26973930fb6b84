/*
 * Input that nobody should send, made systematically.
 */
#pragma once

#include <functional>
#include <random>
#include <string>

#include "platform/dal.h"

namespace fake {

/** What a reply of for_each_reply has of a notification. */
struct ReplyShape {
    bool is_array;
    bool has_four_elements;
    bool has_channel;
    bool has_event;

    bool is_notification() const { return is_array && has_four_elements && has_channel && has_event; }
};

/**
 * Hands over replies of every type with 0 to 6 elements, in which the elements, their texts or the table of them are
 * there or not in every combination. The channel and the event are those given.
 */
void for_each_reply(const std::string &channel, const std::string &event,
                    const std::function<void(const dal_reply *reply, const ReplyShape &shape)> &handle);

/** A text of up to `length_max` of these characters; the same ones in every run of a test. */
std::string random_text(std::mt19937 &random, const std::string &characters, size_t length_max);

/** Every byte but NUL. */
std::string all_characters();

/**
 * Runs `action` again and again with malloc, calloc or realloc failing at its first call, its second call and so on,
 * until it makes no more. `check` runs after each, with memory there again.
 */
void with_every_allocation_failing(const std::function<void()> &action, const std::function<void()> &check);

}  // namespace fake
