
#include "fixture.h"
#include "linux/dal/context.h"
#include "script.h"

namespace {

class DalPublish : public DalTest {
protected:
    void SetUp() override {
        DalTest::SetUp();
        open();
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(subscribe("e:*"), 0);
    }

    int publish(const std::string &channel, const std::string &data) {
        return dal_async_pub(ctx, channel.data(), static_cast<uint32_t>(channel.size()), data.data(),
                             static_cast<uint32_t>(data.size()));
    }
};

TEST_F(DalPublish, PublishesBytesInOrder) {
    const std::string bytes("a\0b\r\n", 5);
    EXPECT_EQ(publish("e:1", bytes), 0);
    EXPECT_EQ(publish("e:2", ""), 0);
    ASSERT_TRUE(run_until_delivered(2));
    EXPECT_EQ(delivered[0].channel, "e:1");
    EXPECT_EQ(delivered[0].data, bytes);
    EXPECT_EQ(delivered[1].data, "");
}

TEST_F(DalPublish, UsesTheChannelLengthGiven) {
    EXPECT_EQ(dal_async_pub(ctx, "e:1234", 3, "d", 1), 0);
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered[0].channel, "e:1");
}

TEST_F(DalPublish, APublisherThatTheServerClosedIsOpenedAgain) {
    EXPECT_EQ(publish("e:1", "x"), 0);
    ASSERT_TRUE(run_until_delivered(1));
    ASSERT_TRUE(loop::run_until([this] { return ctx->publisher.expected == 0; }));
    redis("CLIENT KILL TYPE normal");
    EXPECT_EQ(publish("e:2", "y"), 0) << "before the loop has seen it";
    ASSERT_TRUE(run_until_delivered(2));
    ASSERT_TRUE(loop::run_until([this] { return ctx->publisher.expected == 0; }));
    redis("CLIENT KILL TYPE normal");
    ASSERT_TRUE(loop::run_until([this] { return !ctx->publisher.context; }));
    EXPECT_EQ(publish("e:3", "z"), 0);
    ASSERT_TRUE(run_until_delivered(3));
    EXPECT_EQ(losses, 0);
}

TEST_F(DalPublish, AServerThatTakesNothingFillsNoMemory) {
    redis.freeze();
    const std::string data(8192, 'x');
    int queued = 0;
    while (queued < 1000 && publish("e:1", data) == 0)
        queued++;
    EXPECT_LT(queued, 300);
    EXPECT_TRUE(loop::logged("4 <DAL>: too much waits to be published"));
    loop::advance(2000);
    EXPECT_TRUE(run_until_lost());
    EXPECT_TRUE(loop::logged(std::to_string(queued) + " publications were not confirmed"));
    EXPECT_EQ(publish("e:1", data), -1);
    redis.thaw();
    EXPECT_TRUE(run_until_back());
    EXPECT_EQ(publish("e:1", "again"), 0);
    EXPECT_TRUE(loop::run_until([] { return !delivered.empty() && delivered.back().data == "again"; }));
}

TEST_F(DalPublish, WhatIsBiggerThanTheSocketTakesGoesOutFromTheLoop) {
    const std::string data(900000, 'x');
    EXPECT_EQ(publish("e:1", data), 0);
    ASSERT_TRUE(run_until_delivered(1));
    EXPECT_EQ(delivered[0].data, data);
}

TEST_F(DalPublish, ARefusedPublicationIsLogged) {
    redis("ACL SETUSER default -publish");
    EXPECT_EQ(publish("e:1", "x"), 0);
    EXPECT_TRUE(loop::run_until([] { return loop::logged("4 <DAL>: a publication was refused: NOPERM"); }));
    EXPECT_EQ(publish("e:1", "x"), 0);
}

TEST_F(DalPublish, AContextWithoutThatConnectionDoesNotPublish) {
    close();
    open(DAL_CTX_SYNC);
    EXPECT_EQ(publish("e:1", "x"), -1);
    EXPECT_EQ(subscribe("x"), -1);
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
    close();
    open(DAL_CTX_PUBLISH);
    EXPECT_EQ(publish("e:1", "x"), 0);
    EXPECT_EQ(dal_sync_ctx_chk(ctx), -1);
}

/** As any server does at first, and no answer to a publication. */
TEST_F(DalPublish, AServerThatTakesAllAndAnswersNothingIsBoundedInWhatItOwes) {
    close();
    redis.kill();
    const Script script(Script::Connections{{{kPong, kFlags, kPongToSubscriber}, {Script::kSink}}});
    open_at(std::string("unix://") + Script::kPath, DAL_CTX_SUBSCRIBE | DAL_CTX_PUBLISH);
    ASSERT_EQ(ctx->state, dal::State::up);
    loop::refuse_timers = true;  // it may take longer than an answer may
    uint32_t queued = 0;
    for (; queued < 100001 && publish("e:1", "x") == 0; queued++)
        while (dal::link_unsent(&ctx->publisher) > 100000)
            loop::drain();
    EXPECT_EQ(queued, 100000U);
    EXPECT_TRUE(loop::logged("4 <DAL>: too much waits to be published"));
    EXPECT_EQ(ctx->state, dal::State::up);
}

}  // namespace
