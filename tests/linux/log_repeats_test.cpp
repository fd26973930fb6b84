#include <sys/wait.h>
#include <time.h>

#include "platform/korvalog.h"
#include "support.h"

namespace {

using support::arg;
using support::call_timer;
using support::lines_of;

constexpr char kPath[] = "/tmp/repeats.log";

void log_line(const char *text, int id = 1) {
    _korvaNewLogWithFltr(416, 3, 4, id, "", text);
}

void log_lines(int count, const char *text) {
    for (int i = 0; i < count; i++)
        log_line(text);
}

class LogRepeats : public support::DispatcherTest {
protected:
    void SetUp() override {
        support::DispatcherTest::SetUp();
        use_file();
    }
    void TearDown() override {
        log_line("the end of any run");
        setenv("KORVA_LOG", "stderr", 1);
        korvaLogInit(712, "vyr", 4);
        support::DispatcherTest::TearDown();
    }
    static void use_file() {
        log_line("the end of any run", 0);
        unlink(kPath);
        setenv("KORVA_LOG", "file:/tmp/repeats.log", 1);
        korvaLogInit(712, "vyr", 4);
    }
    static size_t written() { return lines_of(kPath).size(); }
    static std::string last() { return lines_of(kPath).back(); }
};

TEST_F(LogRepeats, WritesAHundredEqualLinesAndNoMore) {
    log_lines(100, "same");
    EXPECT_EQ(written(), 100U);
    log_lines(5000, "same");
    EXPECT_EQ(written(), 100U);
}

TEST_F(LogRepeats, WritesTheCountBeforeTheNextLine) {
    log_lines(1100, "same");
    log_line("other");
    const std::vector<std::string> lines = lines_of(kPath);
    ASSERT_EQ(lines.size(), 102U);
    EXPECT_EQ(lines[99], "3 416 1 same");
    EXPECT_EQ(lines[100], "3 416 1 last message repeated 1000 times");
    EXPECT_EQ(lines[101], "3 416 1 other");
}

TEST_F(LogRepeats, WritesNoCountWhereNothingWasLeftOut) {
    log_lines(100, "same");
    log_line("other");
    EXPECT_EQ(written(), 101U);
}

TEST_F(LogRepeats, TakesLinesAsEqualOnlyWhenAllOfThemIs) {
    for (int i = 0; i < 300; i++) {
        log_line(i % 2 ? "one" : "two");
        log_line("same text", 2 + i % 2);
    }
    EXPECT_EQ(written(), 600U);
}

TEST_F(LogRepeats, WritesTheCountFromTheLoopOnceTheRunIsOver) {
    log_lines(150, "same");
    EXPECT_EQ(written(), 100U);
    EXPECT_TRUE(run_until([] { return written() == 101; }));
    EXPECT_EQ(last(), "3 416 1 last message repeated 50 times");
    log_lines(2, "same");  // a new run
    EXPECT_EQ(written(), 103U);
}

TEST_F(LogRepeats, GoesOnCountingThroughARunThatDoesNotPause) {
    int rounds = 0;
    std::function<void()> spin = [&] {
        rounds++;
        log_lines(20, "same");
    };
    const uint32_t timer = DispAddTimerInternal(dispatcher, 5, call_timer, arg(spin), 1, 0, "test", 1);
    const auto start = support::Clock::now();
    EXPECT_TRUE(run_until([&] { return support::ms_since(start) > 2500; }));
    DispRemoveTimerInternal(dispatcher, timer, "test", 1);
    EXPECT_EQ(written(), 100U);
    log_line("other");
    EXPECT_EQ(lines_of(kPath)[100], "3 416 1 last message repeated " + std::to_string(20 * rounds - 100) + " times");
}

TEST_F(LogRepeats, DoesNotCountLinesThatComeSlowly) {
    int lines = 0;
    std::function<void()> drip = [&] {
        lines++;
        log_line("same");
    };
    const uint32_t timer = DispAddTimerInternal(dispatcher, 12, call_timer, arg(drip), 1, 0, "test", 1);
    EXPECT_TRUE(run_until([&] { return lines >= 130; }));
    DispRemoveTimerInternal(dispatcher, timer, "test", 1);
    EXPECT_EQ(written(), static_cast<size_t>(lines));
}

TEST_F(LogRepeats, WritesTheCountAtExit) {
    const pid_t pid = fork();
    if (pid == 0) {
        log_lines(130, "same");
        exit(0);
    }
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_EQ(last(), "3 416 1 last message repeated 30 times");
}

}  // namespace
