/* Servers that do not speak as they should. */
#include "fixture.h"
#include "linux/clock.h"
#include "linux/dal/context.h"
#include "script.h"

namespace {

class DalGarbage : public DalTest {
protected:
    void SetUp() override { loop::reset(); }

    void open_at_script(uint32_t connections = 7) { open_at(std::string("unix://") + Script::kPath, connections); }

    /** Makes one of the calls that read; what it gives does not matter here. */
    void read_something(int which) {
        dal_hash_request request{"k", nullptr};
        List *list = ListCreate();
        int found = 0;
        switch (which % 4) {
            case 0:
                get("k");
                break;
            case 1:
                dal_is_key_exist(ctx, "k", 1, &found);
                break;
            case 2:
                dal_hgetall(ctx, &request);
                break;
            default:
                dal_mget_by_wildcard(ctx, "*", list, &ctx);
        }
        for (List *given : {request.kvlist, list}) {
            dal_free_slist(given);
            ListDestroy(given);
        }
    }
};

TEST_F(DalGarbage, InsteadOfAPongIsAServerNotReached) {
    for (const char *answer :
         {"garbage\r\n", "$-1\r\n", "*-1\r\n", "*0\r\n", ":1\r\n", "+\r\n", "-\r\n", "-ERR x\r\n",
          "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n:1\r\n", "$-5\r\n", "*2\r\n$-1\r\n$-1\r\n",
          "$99999999999999999999\r\n", "*4\r\n$-1\r\n$-1\r\n$-1\r\n$-1\r\n"}) {
        const Script script({answer});
        open_at_script();
        ASSERT_NE(ctx, nullptr);
        EXPECT_TRUE(loop::logged("3 <DAL>: cannot reach the server")) << answer;
        EXPECT_EQ(get("k"), "(failed)");
        close();
    }
}

TEST_F(DalGarbage, AnAnswerThatNobodyAskedForIsALoss) {
    const Script script({std::string(kPong) + kFlags + kPong});
    open_at_script(DAL_CTX_SUBSCRIBE);
    ASSERT_NE(ctx, nullptr);
    ASSERT_TRUE(loop::run_until([this] { return ctx->state == dal::State::lost; }));
    EXPECT_TRUE(loop::logged(": an answer to no question"));
}

TEST_F(DalGarbage, AFlagsAnswerOfTheWrongShapeIsLoggedAndTheServerUsed) {
    for (const char *answer : {"*0\r\n", "*2\r\n:1\r\n:2\r\n", "*1\r\n$1\r\nx\r\n"}) {
        const Script script({kPong, kNoClient + std::string(answer)});
        open_at_script();
        EXPECT_TRUE(loop::logged("4 <DAL>: the server does not know notify-keyspace-events")) << answer;
        close();
    }
}

TEST_F(DalGarbage, AConfirmationOfAnotherPatternIsARefusal) {
    const Script script({kPong, kFlags, "*3\r\n$10\r\npsubscribe\r\n$1\r\ny\r\n:1\r\n"});
    open_at_script(DAL_CTX_SUBSCRIBE);
    EXPECT_EQ(subscribe("x"), -1);
    EXPECT_TRUE(loop::logged("the subscription to x was refused: an answer of the wrong kind"));
}

TEST_F(DalGarbage, MessagesOfOtherShapesReachNoCallback) {
    const std::string confirmed = "*3\r\n$10\r\npsubscribe\r\n$1\r\nx\r\n:1\r\n";
    for (const char *message : {"*-1\r\n", "$-1\r\n", "*4\r\n$8\r\npmessage\r\n$1\r\nx\r\n$1\r\nx\r\n$-1\r\n", "*0\r\n",
                                "*4\r\n$8\r\npmessage\r\n$1\r\nz\r\n$1\r\nx\r\n$1\r\nd\r\n",
                                "*3\r\n$7\r\nmessage\r\n$1\r\nx\r\n$1\r\nd\r\n"}) {
        const Script script({kPong, kFlags, confirmed + message});
        open_at_script(DAL_CTX_SUBSCRIBE);
        subscribe("x");
        loop::drain();
        EXPECT_TRUE(delivered.empty()) << message;
        close();
    }
}

TEST_F(DalGarbage, AChannelThatAKeyspacePatternDoesNotStandForReachesNoCallback) {
    const std::string pattern = "$17\r\n__keyspace@0__:k*\r\n";
    const std::string confirmed = "*3\r\n$10\r\npsubscribe\r\n" + pattern + ":1\r\n";
    for (const char *channel :
         {"$0\r\n\r\n", "$1\r\nm\r\n", "$14\r\n__keyspace@0__\r\n", "$16\r\n__keyspace@1__:k\r\n"})
        for (const char *event : {"$3\r\ndel\r\n", "$3\r\nset\r\n"}) {
            const std::string message = "*4\r\n$8\r\npmessage\r\n" + pattern + channel + event;
            const std::string no_keys = "*2\r\n$1\r\n0\r\n*0\r\n";
            const Script script(Script::Connections{
                {{kPong, std::string(kNoClient) + kFlags, confirmed + message}, {kPong, no_keys, "$-1\r\n"}}});
            open_at_script();
            EXPECT_EQ(subscribe("__keyspace@0__:k*"), 0);
            loop::advance(10);
            loop::drain();
            EXPECT_TRUE(delivered.empty()) << channel << event;
            close();
        }
}

TEST_F(DalGarbage, InsteadOfAValueFailsTheReadOnly) {
    for (const char *answer : {":5\r\n", "*0\r\n", "+x\r\n", "*2\r\n$1\r\n0\r\n:7\r\n", "*2\r\n:0\r\n*0\r\n"}) {
        const Script script({kPong, answer});
        open_at_script(DAL_CTX_SYNC);
        EXPECT_EQ(get("k"), "(failed)") << answer;
        List *list = ListCreate();
        EXPECT_EQ(dal_scan(ctx, "*", list), -1) << answer;
        EXPECT_EQ(ListCount(list), 0U);
        ListDestroy(list);
        loop::drain();
        EXPECT_EQ(ctx->state, dal::State::up);
        close();
    }
}

TEST_F(DalGarbage, AnAnswerCutShortIsRepeatedOnceAndThenALoss) {
    const Script script({kPong, "$100\r\nabc", ""});
    open_at_script(DAL_CTX_SYNC);
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_EQ(ctx->state, dal::State::lost);
}

TEST_F(DalGarbage, AnAnswerThatTricklesIsBoundedAsAWhole) {
    const Script script({kPong, "$100\r\na"});
    open_at_script(DAL_CTX_SYNC);
    const int64_t begin = monotonic_ms();
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_LT(monotonic_ms() - begin, 2500);
    EXPECT_TRUE(loop::logged("no answer"));
}

TEST_F(DalGarbage, AHashOfAnythingButTextsInPairsIsNotRead) {
    for (const char *answer :
         {"*2\r\n:1\r\n$1\r\nv\r\n", "*2\r\n$1\r\nf\r\n$-1\r\n", "*2\r\n$1\r\nf\r\n*1\r\n:1\r\n", "*1\r\n$1\r\nf\r\n",
          "*3\r\n$1\r\nf\r\n$1\r\nv\r\n$1\r\ng\r\n", "*2\r\n*-1\r\n$0\r\n\r\n"}) {
        const Script script({kPong, answer});
        open_at_script(DAL_CTX_SYNC);
        dal_hash_request request{};
        EXPECT_EQ(dal_hgetall(ctx, &request), -1) << answer;
        EXPECT_EQ(request.kvlist, nullptr);
        EXPECT_EQ(ctx->state, dal::State::up);
        close();
    }
}

TEST_F(DalGarbage, AnAnswerOfTheWrongKindToSettingTheFlagsIsNoReasonToSetThemAgain) {
    const Script script({kPong, "*2\r\n$1\r\nx\r\n$0\r\n\r\n"});
    open_at_script(DAL_CTX_SUBSCRIBE);
    EXPECT_EQ(ctx->state, dal::State::up);
    EXPECT_EQ(loop::log_count("setting notify-keyspace-events to"), 1U);
}

TEST_F(DalGarbage, AWalkWhoseCursorStaysIsGivenUp) {
    const Script script({kPong, "*2\r\n$1\r\n7\r\n*1\r\n$1\r\nk\r\n"});
    open_at_script(DAL_CTX_SYNC);
    List *list = ListCreate();
    EXPECT_EQ(dal_scan(ctx, "*", list), -1);
    EXPECT_EQ(ListCount(list), 0U);
    ListDestroy(list);
}

TEST_F(DalGarbage, AClaimOfMoreElementsThanAnyAnswerHasTakesNoMemory) {
    for (const char *answer : {"*2147483647\r\n", "*4194305\r\n", "*1\r\n*2147483647\r\n"}) {
        const Script script({kPong, answer});
        open_at_script(DAL_CTX_SYNC);
        EXPECT_EQ(get("k"), "(failed)");
        EXPECT_TRUE(loop::logged("3 <DAL>: lost the server unix:///tmp/script.sock: Out of memory")) << answer;
        close();
    }
}

TEST_F(DalGarbage, AnAnswerWithoutEndIsGivenUpBeforeItFillsTheMemory) {
    const Script script({kPong, "$2000000000\r\n" + std::string(17 << 20, 'x')});
    open_at_script(DAL_CTX_SYNC);
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_TRUE(loop::logged("3 <DAL>: lost the server unix:///tmp/script.sock: an answer without end"));
}

TEST_F(DalGarbage, ACloseAtAnyByteOfAnAnswerIsALossAndNoHarm) {
    const std::string confirmed = "*3\r\n$10\r\npsubscribe\r\n$1\r\nx\r\n:1\r\n";
    const std::vector<std::string> session = {kPong, kFlags, confirmed};
    for (size_t step = 0; step < session.size(); step++) {
        for (size_t length = 0; length < session[step].size(); length++) {
            std::vector<std::string> answers(session.begin(), session.begin() + static_cast<long>(step));
            answers.push_back(session[step].substr(0, length));
            const Script script(answers, Then::its_end);
            open_at_script(DAL_CTX_SUBSCRIBE);
            EXPECT_NE(subscribe("x"), 0) << step << " " << length;
            EXPECT_EQ(ctx->state, dal::State::lost) << step << " " << length;
            close();
        }
    }
}

TEST_F(DalGarbage, ACloseAtAnyByteOfAHashFailsTheRead) {
    const std::string answer = "*2\r\n$1\r\nf\r\n$1\r\nv\r\n";
    for (size_t length = 0; length < answer.size(); length++) {
        const Script script({kPong, answer.substr(0, length)}, Then::its_end);
        open_at_script(DAL_CTX_SYNC);
        dal_hash_request request{};
        EXPECT_EQ(dal_hgetall(ctx, &request), -1) << length;
        close();
    }
}

TEST_F(DalGarbage, AnswersMadeAtRandomDoNoHarm) {
    const char *const pieces[] = {
        "*1\r\n",  "*2\r\n", "*4\r\n",  "*0\r\n",   "*-1\r\n", "$1\r\nk\r\n", "$0\r\n\r\n",
        "$-1\r\n", ":7\r\n", "+OK\r\n", "-ERR\r\n", "$3\r\n",  "\r\n",        "$8\r\npmessage\r\n"};
    unsigned seed = 1;
    for (int round = 0; round < 150; round++) {
        std::string answer;
        for (int piece = rand_r(&seed) % 8; piece >= 0; piece--)
            answer += pieces[static_cast<size_t>(rand_r(&seed)) % std::size(pieces)];
        const Script script({kPong, answer}, Then::its_end);
        open_at_script(DAL_CTX_SYNC);
        read_something(round);
        close();
    }
}

TEST_F(DalGarbage, AWalkWhoseCursorsTakeTurnsIsGivenUp) {
    std::vector<std::string> answers = {kPong};
    for (int i = 0; i < 20; i++)
        for (const char *cursor : {"7", "8", "9"})
            answers.push_back("*2\r\n$1\r\n" + std::string(cursor) + "\r\n*1\r\n$1\r\nk\r\n");
    answers.push_back("*2\r\n$1\r\n0\r\n*0\r\n");  // it would end here
    const Script script(answers);
    open_at_script(DAL_CTX_SYNC);
    List *list = ListCreate();
    EXPECT_EQ(dal_scan(ctx, "*", list), -1);
    EXPECT_EQ(ListCount(list), 0U);
    ListDestroy(list);
}

TEST_F(DalGarbage, AKeyThatAWalkGivesTwiceIsGivenOnce) {
    const Script script(
        {kPong, "*2\r\n$1\r\n7\r\n*2\r\n$1\r\nk\r\n$1\r\nk\r\n", "*2\r\n$1\r\n0\r\n*2\r\n$1\r\nj\r\n$1\r\nk\r\n"});
    open_at_script(DAL_CTX_SYNC);
    EXPECT_EQ(scan("*"), (std::vector<std::string>{"j", "k"}));
}

TEST_F(DalGarbage, AnAnswerThatTricklesWithoutAPauseIsBoundedAsAWhole) {
    const Script script({kPong, Script::kTrickle});
    open_at_script(DAL_CTX_SYNC);
    const int64_t begin = monotonic_ms();
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_LT(monotonic_ms() - begin, 3000);
    EXPECT_TRUE(loop::logged("no answer"));
}

TEST_F(DalGarbage, AReadIsRepeatedWhenTheServerResetTheConnection) {
    const Script script(Script::Connections{{{kPong, Script::kReset}, {"$1\r\nv\r\n"}}});
    open_at_script(DAL_CTX_SYNC);
    EXPECT_EQ(get("k"), "v");
    EXPECT_EQ(ctx->state, dal::State::up);
}

TEST_F(DalGarbage, AReadIsNotRepeatedAfterAnAnswerThatIsNone) {
    const Script script(Script::Connections{{{kPong, "garbage\r\n"}, {"$1\r\nv\r\n"}}});
    open_at_script(DAL_CTX_SYNC);
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_EQ(ctx->state, dal::State::lost);
}

}  // namespace
