/* A program of its own: nothing has used the table when it begins. */
#include "event/event_channel.h"
#include "fakes/fakes.h"

namespace {

using EventTableTest = fake::Test;

TEST_F(EventTableTest, TheTableIsFilledOnFirstUse) {
    for (const char *entry : eid_mapping_table)
        EXPECT_EQ(entry, nullptr);
    event_channel(kRouteLimitEid);
    EXPECT_NE(eid_mapping_table[0], nullptr);
    EXPECT_NE(eid_mapping_table[14], nullptr);
}

}  // namespace
