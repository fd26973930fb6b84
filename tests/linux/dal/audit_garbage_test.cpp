/* Comparisons with servers that do not speak as they should. */
#include <stdlib.h>

#include "linux/dal/context.h"
#include "resync_fixture.h"
#include "script.h"

namespace {

const char kConfirmed[] = "*3\r\n$10\r\npsubscribe\r\n$17\r\n__keyspace@0__:/*\r\n:1\r\n";
std::string bulk(const std::string &text) {
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

const std::string kInfo = bulk("# Persistence\r\nloading:0\r\n");
const std::string kLoading = bulk("# Persistence\r\nloading:1\r\n");
const char kNoKeys[] = "*2\r\n$1\r\n0\r\n*0\r\n";
const char kOneKey[] = "*2\r\n$1\r\n0\r\n*1\r\n$2\r\n/k\r\n";
const char kTwoKeys[] = "*2\r\n$1\r\n0\r\n*2\r\n$2\r\n/k\r\n$2\r\n/l\r\n";
const char kNothing[] = "$-1\r\n";
const char kValue[] = "$1\r\nv\r\n";
const char kHash[] = "*2\r\n$1\r\nf\r\n$1\r\nv\r\n";
const std::string kFlushed = "*3\r\n$7\r\nmessage\r\n$20\r\n__redis__:invalidate\r\n*-1\r\n";
const char kTooLarge[] = "$20000000\r\n";

/** A comparison that finds a key; its value is read again, with the last answer, before it is delivered. */
const Script::Answers kWithAFinding = {kInfo, kFlags, kOneKey, kValue, kInfo, kValue};

/** Answers to HGETALL that are none. */
const char *const kNoHashes[] = {":5\r\n",
                                 kValue,
                                 "*1\r\n$1\r\nf\r\n",
                                 "*2\r\n:1\r\n:2\r\n",
                                 "*2\r\n$1\r\nf\r\n$-1\r\n",
                                 "*2\r\n$1\r\nf\r\n+v\r\n",
                                 "*2\r\n$1\r\nf\r\n*1\r\n$1\r\nv\r\n",
                                 "*2\r\n*0\r\n*-1\r\n",
                                 "-E\r\n"};

/** These answers but the last, and then the others. */
Script::Answers instead_of_last(Script::Answers answers, const Script::Answers &others) {
    answers.pop_back();
    answers.insert(answers.end(), others.begin(), others.end());
    return answers;
}

/** Connections in the order in which they are made: the subscriber's, the reader's, then one for each comparison. */
class DalAuditGarbage : public DalResync {
protected:
    void SetUp() override { loop::reset(); }

    static Script::Connections connections(const Script::Answers &answers) {
        return {{{kPong, std::string(kNoClient) + kFlags, kConfirmed, kPongToSubscriber},
                 {kPong, kNoKeys, kValue},
                 answers}};
    }

    /** One comparison goes over two connections. */
    static Script::Connections connections(const Script::Answers &first, const Script::Answers &second) {
        Script::Connections both = connections(first);
        both.each.push_back(second);
        return both;
    }

    /** Without the PING that goes along once a minute: what comes of that, the test says. */
    void begin_comparison() {
        open_at(std::string("unix://") + Script::kPath);
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(subscribe("__keyspace@0__:/*"), 0);
        dal::audit_want(ctx);
        dal::audit_settle(ctx);
    }

    bool run_until_over(int limit_ms = 10000) {
        return loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::none; }, limit_ms);
    }

    /** Runs the loop until so much of an answer has come to the comparison. */
    bool run_until_received(size_t bytes) {
        return loop::run_until(
            [=, this] { return ctx->auditor.context && ctx->auditor.context->reader->len >= bytes; });
    }

    /** A subscription while there are no keys, then one comparison with these answers. */
    void compare_with(const Script::Answers &answers, Then then = Then::the_same, bool may_stall = false) {
        const Script script(connections(answers), then);
        begin_comparison();
        if (may_stall && !run_until_over(100))
            loop::advance(2000);
        EXPECT_TRUE(run_until_over());
        delivered_count = delivered.size();
        state = ctx->state;
        close();
        delivered.clear();
    }

    size_t delivered_count = 0;
    dal::State state = dal::State::lost;
};

TEST_F(DalAuditGarbage, AServerThatAnswersWellIsCompared) {
    compare_with(kWithAFinding);
    EXPECT_EQ(delivered_count, 1U);
    EXPECT_EQ(loop::log_count("not compared"), 0U);
}

TEST_F(DalAuditGarbage, ALoadingServerIsNotCompared) {
    for (const std::string &info : {kLoading, bulk("loading:1"), bulk("async_loading:1\r\n")}) {
        compare_with({info, kFlags, kOneKey, "$1\r\nv\r\n", kInfo});
        EXPECT_EQ(delivered_count, 0U) << info;
    }
}

TEST_F(DalAuditGarbage, AServerThatIsLoadingBehindTheWalkIsNotBelieved) {
    compare_with({kInfo, kFlags, kOneKey, "$1\r\nv\r\n", kLoading});
    EXPECT_EQ(delivered_count, 0U);
    EXPECT_TRUE(loop::logged("not compared with what is known of them: the server is loading its data"));
}

TEST_F(DalAuditGarbage, LinesThatOnlyLookLikeItAreNone) {
    compare_with({bulk("xloading:1\r\nloading:10\r\n# loading:1\r\n"), kFlags, kOneKey, "$1\r\nv\r\n", kInfo});
    EXPECT_EQ(delivered_count, 1U);
}

TEST_F(DalAuditGarbage, InsteadOfAnAnswerGivesTheComparisonUpAndTheServerStaysUsed) {
    for (const char *answer : {":5\r\n", "*0\r\n", "+x\r\n", "*2\r\n$1\r\n0\r\n:7\r\n", "*2\r\n:0\r\n*0\r\n",
                               "*2\r\n$1\r\n0\r\n*1\r\n:1\r\n", "-ERR x\r\n", "garbage\r\n", "$-1\r\n", "*-1\r\n"}) {
        compare_with({kInfo, kFlags, answer});
        EXPECT_EQ(delivered_count, 0U) << answer;
        EXPECT_EQ(state, dal::State::up) << answer;
        EXPECT_EQ(loop::log_count("4 <DAL>: the keys are not compared"), 1U) << answer;
    }
    for (const char *answer : {":5\r\n", "*0\r\n", "*-1\r\n", "garbage\r\n", "+OK\r\n"}) {
        compare_with({answer});
        EXPECT_EQ(state, dal::State::up) << answer;
        EXPECT_EQ(loop::log_count("4 <DAL>: the keys are not compared"), 1U) << answer;
    }
}

TEST_F(DalAuditGarbage, InsteadOfAValueGivesTheComparisonUp) {
    for (const char *answer : {":5\r\n", "+x\r\n", kHash, "-ERR x\r\n", "*0\r\n"}) {
        compare_with({kInfo, kFlags, kOneKey, answer});
        EXPECT_EQ(delivered_count, 0U) << answer;
        EXPECT_EQ(loop::log_count("not compared"), 1U) << answer;
    }
    for (const char *answer : kNoHashes) {
        compare_with({kInfo, kFlags, kOneKey, "-WRONGTYPE x\r\n", answer});
        EXPECT_EQ(delivered_count, 0U) << answer;
        EXPECT_EQ(loop::log_count("not compared"), 1U) << answer;
    }
}

TEST_F(DalAuditGarbage, AHashOfAnyNumberOfFieldsIsCompared) {
    constexpr int kFields = 2200000;
    std::string hash = "*" + std::to_string(2 * kFields) + "\r\n";
    for (int i = 0; i < kFields; i++)
        hash += "$1\r\nf\r\n$1\r\nv\r\n";
    const Script script(connections({kInfo, kFlags, kOneKey, "-WRONGTYPE x\r\n", hash, kInfo, Script::kSink}));
    begin_comparison();
    EXPECT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::again; }));
}

TEST_F(DalAuditGarbage, KeysWithoutEndGiveTheComparisonUp) {
    compare_with({kInfo, kFlags, "$2000000000\r\n" + std::string(17 << 20, 'x')});
    EXPECT_EQ(state, dal::State::up);
    EXPECT_EQ(loop::log_count("not compared with what is known of them: an answer without end"), 1U);
}

TEST_F(DalAuditGarbage, AKeyThatIsOfNoTypeAskedForIsNotThere) {
    compare_with({kInfo, kFlags, kOneKey, "-WRONGTYPE x\r\n", "-WRONGTYPE x\r\n", kInfo});
    EXPECT_EQ(delivered_count, 0U);
    EXPECT_EQ(loop::log_count("not compared"), 0U);
    compare_with({kInfo, kFlags, kOneKey, kNothing, kInfo});
    EXPECT_EQ(delivered_count, 0U);
    EXPECT_EQ(loop::log_count("not compared"), 0U);
}

TEST_F(DalAuditGarbage, AWalkThatNeverEndsIsGivenUp) {
    compare_with({kInfo, kFlags, "*2\r\n$1\r\n7\r\n*0\r\n"});
    EXPECT_EQ(loop::log_count("not compared"), 1U);
}

TEST_F(DalAuditGarbage, ACloseAtAnyByteDoesNoHarm) {
    const Script::Answers &session = kWithAFinding;
    for (size_t step = 0; step < session.size(); step++) {
        for (size_t length = 0; length < session[step].size(); length++) {
            std::vector<std::string> answers(session.begin(), session.begin() + static_cast<long>(step));
            answers.push_back(session[step].substr(0, length));
            compare_with(answers, Then::its_end);
            EXPECT_EQ(delivered_count, 0U) << step << " " << length;
            EXPECT_EQ(state, dal::State::up) << step << " " << length;
        }
    }
}

TEST_F(DalAuditGarbage, AnswersMadeAtRandomDoNoHarm) {
    const std::string pieces[] = {"*1\r\n",     "*2\r\n",  "*0\r\n", "*-1\r\n", "$2\r\n/k\r\n", "$1\r\n0\r\n",
                                  "$0\r\n\r\n", "$-1\r\n", ":7\r\n", "+OK\r\n", "-ERR\r\n",     "-WRONGTYPE\r\n",
                                  kInfo,        kFlags,    kOneKey,  "$3\r\n",  "\r\n"};
    unsigned seed = 1;
    for (int round = 0; round < 150; round++) {
        Script::Answers answers = kWithAFinding;
        answers.resize(static_cast<size_t>(rand_r(&seed)) % answers.size());
        for (int answer = rand_r(&seed) % 4; answer >= 0; answer--) {
            answers.emplace_back();
            for (int piece = rand_r(&seed) % 3; piece >= 0; piece--)
                answers.back() += pieces[static_cast<size_t>(rand_r(&seed)) % std::size(pieces)];
        }
        compare_with(answers, Then::its_end, true);
    }
}

TEST_F(DalAuditGarbage, AnAnswerThatMakesProgressHasItsTime) {
    const Script script(connections({kInfo, kFlags, kOneKey, Script::kTrickle}));
    begin_comparison();
    for (size_t round = 1; round <= 3; round++) {
        ASSERT_TRUE(run_until_received(round * 16384));
        loop::advance(2000);
        ASSERT_TRUE(run_until_received(round * 16384 + 1));
    }
    EXPECT_EQ(ctx->state, dal::State::up);
    EXPECT_EQ(ctx->audit.phase, dal::AuditPhase::walking);
}

TEST_F(DalAuditGarbage, AnAnswerThatMakesHardlyAnyIsALoss) {
    const Script script(connections({kInfo, kFlags, kOneKey, "$1000000\r\n" + std::string(1000, 'x')}));
    begin_comparison();
    ASSERT_TRUE(run_until_received(1000));
    loop::advance(2000);
    ASSERT_TRUE(run_until_lost());
    EXPECT_TRUE(loop::logged("lost the server unix:///tmp/script.sock: no answer"));
}

TEST_F(DalAuditGarbage, AFindingIsReadAgainWithoutHoldingTheLoop) {
    const Script script(connections(instead_of_last(kWithAFinding, {Script::kSink})));
    begin_comparison();
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::again; }));
    loop::drain();
    EXPECT_EQ(get("/k"), "v");
    EXPECT_EQ(delivered.size(), 0U);
}

/** A finding's key is read again, without an answer, while the subscriber has been told something. */
class DalReadAgain : public DalAuditGarbage {
protected:
    /** The reading begins anew on a connection that answers so, after a flush. */
    static Script::Connections flushed_meanwhile(const Script::Answers &anew) {
        Script::Connections all = connections(instead_of_last(kWithAFinding, {Script::kSink}), anew);
        all.each[0].insert(all.each[0].end(), {kFlushed + kConfirmed, kPongToSubscriber});
        return all;
    }

    /** Until the loop watches the comparison's connection alone. */
    void begin_reading() {
        begin_comparison();
        ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::again; }));
        ASSERT_EQ(loop::input_count(), 2U);
        ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
        ASSERT_TRUE(loop::run_until([] { return loop::input_count() == 1; }));
    }

    /** Runs the loop until it has nothing to do. False when it is never so. */
    static bool run_until_idle() {
        int turns = 0;
        return !loop::run_until([&turns] { return ++turns == 10000; }, 100);
    }
};

TEST_F(DalReadAgain, DoesNotKeepTheLoopBusy) {
    const Script script(flushed_meanwhile({kValue}));
    begin_reading();
    EXPECT_TRUE(run_until_idle());
    EXPECT_EQ(ctx->audit.phase, dal::AuditPhase::again);
}

TEST_F(DalReadAgain, BeginsAnewAfterAFlushAndTheSubscriberIsHeardAgain) {
    const Script script(flushed_meanwhile({kValue}));
    begin_reading();
    ASSERT_EQ(subscribe("__keyspace@0__:/*"), 0);
    EXPECT_TRUE(run_until_delivered(1));
    ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_TRUE(loop::run_until([this] { return ctx->subscriber.expected == 0; }));
    EXPECT_EQ(ctx->state, dal::State::up);
}

TEST_F(DalReadAgain, IsALossWhereTheLoopDoesNotWatchTheSubscriberAfterwards) {
    const Script script(flushed_meanwhile({kValue}));
    begin_reading();
    ASSERT_EQ(subscribe("__keyspace@0__:/*"), 0);
    loop::refuse_inputs = true;
    EXPECT_TRUE(run_until_lost());
    loop::refuse_inputs = false;
    EXPECT_TRUE(loop::logged("lost the server unix:///tmp/script.sock: the loop does not watch it for reading"));
}

TEST_F(DalAuditGarbage, AFindingThatIsNotReadAgainInTimeIsALossAndNotTriedTwice) {
    const Script script(connections(instead_of_last(kWithAFinding, {Script::kSink})));
    begin_comparison();
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::again; }));
    loop::advance(2000);
    ASSERT_TRUE(run_until_lost());
    EXPECT_TRUE(loop::logged("lost the server unix:///tmp/script.sock: no answer"));
    ASSERT_NE(ctx->waiting.first, nullptr);
    EXPECT_TRUE(ctx->waiting.first->tried);
}

TEST_F(DalAuditGarbage, AConnectionThatEndsBeforeFindingsAreReadAgainHasThemFoundAgainLater) {
    const Script script(connections({kInfo, kFlags, kTwoKeys, std::string(kValue) + kValue, kInfo, ""},
                                    {kInfo, kFlags, kTwoKeys, std::string(kValue) + kValue, kInfo, kValue}));
    begin_comparison();
    EXPECT_TRUE(run_until_over());
    EXPECT_EQ(delivered.size(), 0U);
    EXPECT_EQ(ctx->waiting.first, nullptr);
    EXPECT_EQ(ctx->state, dal::State::up);
    EXPECT_EQ(loop::log_count("4 <DAL>: the keys are not compared with what is known of them: "
                              "Server closed the connection; trying again"),
              1U);
    loop::advance(10000);
    EXPECT_TRUE(run_until_delivered(2));
}

TEST_F(DalAuditGarbage, AFindingThatHasBecomeTooLargeIsSaidAndTheNextOneDelivered) {
    const Script script(
        connections({kInfo, kFlags, kTwoKeys, std::string(kValue) + kValue, kInfo, kTooLarge}, {kValue}));
    begin_comparison();
    EXPECT_TRUE(run_until_delivered(1));
    EXPECT_EQ(told(), (Texts{"/l set"}));
    EXPECT_EQ(ctx->state, dal::State::up);
    EXPECT_EQ(loop::log_count("4 <DAL>: the value of /k is too large to be compared"), 1U);
}

TEST_F(DalAuditGarbage, FindingsForWhichThereIsNoConnectionAreDropped) {
    const Script script(connections({kInfo, kFlags, kTwoKeys, std::string(kValue) + kValue, kInfo, kTooLarge}));
    begin_comparison();
    ASSERT_TRUE(loop::run_until([this] { return ctx->audit.phase == dal::AuditPhase::again; }));
    loop::refuse_inputs = true;
    EXPECT_TRUE(run_until_over());
    loop::refuse_inputs = false;
    EXPECT_EQ(ctx->waiting.first, nullptr);
    EXPECT_EQ(delivered.size(), 0U);
    EXPECT_TRUE(loop::logged("the keys are not compared with what is known of them: the loop does not watch it"));
}

TEST_F(DalAuditGarbage, AFindingThatHasBecomeAHashIsDeliveredAsOne) {
    const Script script(connections(instead_of_last(kWithAFinding, {"-WRONGTYPE x\r\n", kHash})));
    begin_comparison();
    EXPECT_TRUE(run_until_delivered(1));
    EXPECT_EQ(told(), (Texts{"/k hset"}));
}

TEST_F(DalAuditGarbage, AFindingThatIsOfNoTypeAskedForIsNotDelivered) {
    compare_with(instead_of_last(kWithAFinding, {"-WRONGTYPE x\r\n", "-WRONGTYPE x\r\n", kValue}));
    EXPECT_EQ(delivered_count, 0U);
}

TEST_F(DalAuditGarbage, InsteadOfAFindingsValueIsNotDelivered) {
    for (const char *answer : {":5\r\n", "+x\r\n", kHash, "-ERR x\r\n", "*0\r\n"}) {
        compare_with(instead_of_last(kWithAFinding, {answer, kValue}));
        EXPECT_EQ(delivered_count, 0U) << answer;
        EXPECT_EQ(state, dal::State::up) << answer;
    }
    for (const char *answer : kNoHashes) {
        compare_with(instead_of_last(kWithAFinding, {"-WRONGTYPE x\r\n", answer, kValue}));
        EXPECT_EQ(delivered_count, 0U) << answer;
        EXPECT_EQ(state, dal::State::up) << answer;
    }
}

}  // namespace
