#include "core/dal_adapter.h"

#include <errno.h>
#include <stdlib.h>

#include "fakes/fakes.h"

namespace {

using Calls = std::vector<std::string>;

class DalAdapterTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        conn = {};
        conn.dispatcher = fake::dispatcher();
        conn.fd = 7;
        conn.connection = &handled;
    }

    void shut_down() { fake::dispatcher()->shutting_down = 1; }

    static void count_handled(void *connection) { ++*static_cast<int *>(connection); }

    dal_evloop_conn conn;
    int handled = 0;
};

TEST_F(DalAdapterTest, AddReadReplacesTheInputAndSetsBit0) {
    vyrwrap_dal_add_read(&conn);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 1", "DispAddInput 7 1"}));
    EXPECT_EQ(conn.mask, 1U);
    EXPECT_EQ(conn.errors, 0U);
}

TEST_F(DalAdapterTest, AddWriteReplacesTheInputAndSetsBit1) {
    vyrwrap_dal_add_write(&conn);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 2", "DispAddInput 7 2"}));
    EXPECT_EQ(conn.mask, 2U);
    EXPECT_EQ(conn.errors, 0U);
}

TEST_F(DalAdapterTest, AFailedAddClearsItsBitAndCountsAnError) {
    fake::failing_dispatcher_calls.insert("DispAddInput");
    conn.mask = 3;
    vyrwrap_dal_add_read(&conn);
    EXPECT_EQ(conn.mask, 2U);
    EXPECT_EQ(conn.errors, 1U);
    vyrwrap_dal_add_write(&conn);
    EXPECT_EQ(conn.mask, 0U);
    EXPECT_EQ(conn.errors, 2U);
}

TEST_F(DalAdapterTest, AnAddWhileShuttingDownTouchesNoInputAndCountsAnError) {
    shut_down();
    conn.mask = 3;
    vyrwrap_dal_add_read(&conn);
    vyrwrap_dal_add_write(&conn);
    EXPECT_TRUE(fake::dispatcher_calls.empty());
    EXPECT_EQ(conn.mask, 0U);
    EXPECT_EQ(conn.errors, 2U);
}

TEST_F(DalAdapterTest, DeleteReadRemovesTheInputAlsoWhileShuttingDown) {
    conn.mask = 3;
    vyrwrap_dal_delete_read(&conn);
    EXPECT_EQ(conn.mask, 2U);
    shut_down();
    vyrwrap_dal_delete_read(&conn);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 1", "DispRemoveInput 7 1"}));
}

TEST_F(DalAdapterTest, DeleteWriteRemovesTheInputUnlessShuttingDown) {
    conn.mask = 3;
    vyrwrap_dal_delete_write(&conn);
    EXPECT_EQ(conn.mask, 1U);
    shut_down();
    conn.mask = 3;
    vyrwrap_dal_delete_write(&conn);
    EXPECT_EQ(conn.mask, 1U);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 2"}));
}

TEST_F(DalAdapterTest, AttachGivesAZeroedTimerSlot) {
    EXPECT_EQ(vyrwrap_dal_attach(&conn), 0);
    ASSERT_NE(conn.timer_slot, nullptr);
    EXPECT_EQ(*conn.timer_slot, 0U);
    free(conn.timer_slot);
}

TEST_F(DalAdapterTest, AttachToNothingSucceeds) {
    EXPECT_EQ(vyrwrap_dal_attach(nullptr), 0);
}

TEST_F(DalAdapterTest, CleanupRemovesInputsAndTimerAndFreesTheSlot) {
    vyrwrap_dal_attach(&conn);
    *conn.timer_slot = 9;
    conn.mask = 3;
    redisDispatcherCleanup(&conn);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 1", "DispRemoveInput 7 2",
                                             "DispRemoveTimerInternal 9 redisDispatcherCleanup 180"}));
    EXPECT_EQ(conn.mask, 0U);
    EXPECT_EQ(conn.timer_slot, nullptr);
}

TEST_F(DalAdapterTest, CleanupWithoutATimerRemovesInputsOnly) {
    vyrwrap_dal_attach(&conn);
    redisDispatcherCleanup(&conn);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 1", "DispRemoveInput 7 2"}));
    EXPECT_EQ(conn.timer_slot, nullptr);
}

TEST_F(DalAdapterTest, CleanupOfAConnectionThatGotNoSlotRemovesInputsOnly) {
    fake::fail_call("calloc", ENOMEM);
    EXPECT_EQ(vyrwrap_dal_attach(&conn), 0);
    EXPECT_EQ(conn.timer_slot, nullptr);
    redisDispatcherCleanup(&conn);
    EXPECT_EQ(fake::dispatcher_calls, (Calls{"DispRemoveInput 7 1", "DispRemoveInput 7 2"}));
}

TEST_F(DalAdapterTest, CleanupWhileShuttingDownOnlyClearsTheRecord) {
    vyrwrap_dal_attach(&conn);
    *conn.timer_slot = 9;
    conn.mask = 3;
    shut_down();
    redisDispatcherCleanup(&conn);
    EXPECT_TRUE(fake::dispatcher_calls.empty());
    EXPECT_EQ(conn.mask, 0U);
    EXPECT_EQ(conn.timer_slot, nullptr);
}

TEST_F(DalAdapterTest, ReadinessCallsTheConnectionsHandlerWhenThereIsOne) {
    vyrwrap_dal_add_read(&conn);
    vyrwrap_dal_add_write(&conn);
    EXPECT_EQ(fake::input_ready(7, DISP_READ), 0);
    EXPECT_EQ(fake::input_ready(7, DISP_WRITE), 0);
    EXPECT_EQ(handled, 0);
    conn.read_handler = count_handled;
    fake::input_ready(7, DISP_READ);
    EXPECT_EQ(handled, 1);
    fake::input_ready(7, DISP_WRITE);
    EXPECT_EQ(handled, 1);
    conn.write_handler = count_handled;
    fake::input_ready(7, DISP_WRITE);
    EXPECT_EQ(handled, 2);
}

}  // namespace
