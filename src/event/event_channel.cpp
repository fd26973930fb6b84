#include "event/event_channel.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

const char *eid_mapping_table[kEventTableSize];

namespace {

constexpr unsigned kFormatBuffers = 32;
constexpr size_t kFormatBufferSize = 96;

constexpr unsigned kTemplateEntry = 0;
constexpr unsigned kFirstTemplateRow = 4; /**< a category's template stands in this row plus the category's number */

using Row = char[kEventRowSize];

constexpr Row kChannelTemplates[] = {
    "/event/*",
    "",
    "",
    "",
    "",
    "/event/clients/client{%s}/%s",
    "/event/ap/%s",
    "/event/wlan/wlan{%s}/%s",
    "/event/ids/%s",
    "/event/mesh/%s",
    "/event/radio/radio{%s}/%s",
    "/event/vpn/%s",
    "/event/spec/%s",
    "/event/config/%s",
    "/event/pcap/%s",
    "/event/btm/sta{%s}/%s",
    "/event/dpp/%s",
    "/event/exception/%s",
    "/event/idstrap/tid{%s}/%s",
};

constexpr unsigned kApCategory = 2;
constexpr unsigned kRouteLimitRow = 16;

constexpr unsigned kMostRows = 69; /**< of the longest list, category 1 */

// The names in rows left empty are the platform's: this daemon publishes none of those events.
constexpr Row kApEvents[22] = {"*", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "", "route_limit"};

/** The list of every other category, whatever its length: row 0 is set on first use, and there are no names behind it.
 */
Row other_events[kMostRows];

constexpr unsigned kCategories = 14;
static_assert(kCategories < kEventTableSize);

bool table_unfilled = true;

void fill_table() {
    other_events[0][0] = '*';
    eid_mapping_table[kTemplateEntry] = kChannelTemplates[0];
    for (unsigned category = 1; category <= kCategories; category++)
        eid_mapping_table[category] = category == kApCategory ? kApEvents[0] : other_events[0];
    table_unfilled = false;
}

const char *table_row(unsigned entry, unsigned row) {
    const char *rows = eid_mapping_table[entry];
    return &rows[size_t{row} * kEventRowSize];
}

}  // namespace

const char *vyrwrap_format_rotating(const char *format, ...) {
    static char buffers[kFormatBuffers][kFormatBufferSize];
    static unsigned current;
    current = (current + 1) % kFormatBuffers;
    va_list args;
    va_start(args, format);
    vsnprintf(buffers[current], kFormatBufferSize, format, args);
    va_end(args);
    return buffers[current];
}

const char *event_channel(uint16_t eid) {
    if (table_unfilled)
        fill_table();
    if (eid != kRouteLimitEid)
        return nullptr;
    const char *channel_template = table_row(kTemplateEntry, kFirstTemplateRow + kApCategory);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // a row of the constant templates above, with one conversion
    return vyrwrap_format_rotating(channel_template, table_row(kApCategory, kRouteLimitRow));
#pragma GCC diagnostic pop
}
