#include "event/event_channel.h"

#include <string.h>

#include "fakes/fakes.h"

namespace {

using EventChannelTest = fake::Test;

std::string row(unsigned entry, unsigned number) {
    return eid_mapping_table[entry] + size_t{number} * kEventRowSize;
}

TEST_F(EventChannelTest, FifteenOfTwentyEntriesAreFilled) {
    event_channel(kRouteLimitEid);
    for (unsigned i = 0; i < 15; i++)
        EXPECT_NE(eid_mapping_table[i], nullptr) << i;
    for (unsigned i = 15; i < 20; i++)
        EXPECT_EQ(eid_mapping_table[i], nullptr) << i;
    EXPECT_EQ(sizeof eid_mapping_table / sizeof eid_mapping_table[0], 20U);
}

TEST_F(EventChannelTest, EntryZeroHoldsTheChannelTemplates) {
    event_channel(kRouteLimitEid);
    const std::vector<std::string> expected = {"/event/*",
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
                                               "/event/idstrap/tid{%s}/%s"};
    for (unsigned i = 0; i < expected.size(); i++)
        EXPECT_EQ(row(0, i), expected[i]) << i;
}

TEST_F(EventChannelTest, EachCategoryHasItsRowsAndBeginsWithTheWildcard) {
    event_channel(kRouteLimitEid);
    const std::vector<unsigned> rows = {69, 22, 3, 8, 3, 29, 6, 3, 3, 2, 2, 6, 2, 1};
    for (unsigned category = 1; category <= rows.size(); category++) {
        EXPECT_EQ(row(category, 0), "*");
        for (unsigned i = 1; i < rows[category - 1]; i++)
            EXPECT_EQ(row(category, i), category == 2 && i == 16 ? "route_limit" : "") << category << " " << i;
    }
}

TEST_F(EventChannelTest, TheRouteLimitEventHasItsChannel) {
    EXPECT_STREQ(event_channel(116), "/event/ap/route_limit");
}

TEST_F(EventChannelTest, OtherIdentifiersHaveNone) {
    for (unsigned eid = 0; eid <= UINT16_MAX; eid++)
        if (eid != kRouteLimitEid) {
            ASSERT_EQ(event_channel(static_cast<uint16_t>(eid)), nullptr) << eid;
        }
}

TEST_F(EventChannelTest, TheFormatterHoldsThirtyTwoResults) {
    std::vector<const char *> results;
    for (int i = 0; i < 32; i++)
        results.push_back(vyrwrap_format_rotating("result %d", i));
    for (int i = 0; i < 32; i++)
        EXPECT_EQ(results[static_cast<size_t>(i)], "result " + std::to_string(i));
    EXPECT_EQ(vyrwrap_format_rotating("one more"), results[0]);
    EXPECT_EQ(vyrwrap_format_rotating("and another"), results[1]);
}

TEST_F(EventChannelTest, TheFormatterCutsAtItsBuffersSize) {
    const std::string text(200, 'x');
    EXPECT_EQ(vyrwrap_format_rotating("%s", text.c_str()), std::string(95, 'x'));
    EXPECT_EQ(vyrwrap_format_rotating("%s", text.substr(0, 95).c_str()), std::string(95, 'x'));
}

TEST_F(EventChannelTest, TheTableIsFilledOnce) {
    event_channel(kRouteLimitEid);
    char other[17][kEventRowSize] = {};
    strcpy(other[16], "other");
    const char *entry = eid_mapping_table[2];
    eid_mapping_table[2] = other[0];
    EXPECT_STREQ(event_channel(kRouteLimitEid), "/event/ap/other");
    eid_mapping_table[2] = entry;
}

}  // namespace
