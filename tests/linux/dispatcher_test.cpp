#include <dirent.h>
#include <string.h>
#include <sys/socket.h>

#include <set>
#include <vector>

#include "linux/dispatcher/loop.h"
#include "support.h"

namespace {

using support::arg;
using support::call_input;
using support::call_timer;
using support::Clock;
using support::ms_since;
using support::Pipe;

std::set<int> open_descriptors() {
    std::set<int> found;
    DIR *folder = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(folder))
        if (const int fd = atoi(entry->d_name); entry->d_name[0] != '.' && fd != dirfd(folder))
            found.insert(fd);
    closedir(folder);
    return found;
}

class DispatcherInputs : public support::DispatcherTest {
protected:
    int add(int fd, int type, std::function<void()> &called) {
        return DispAddInput(dispatcher, fd, type, call_input, arg(called));
    }
    int remove(int fd, int type) { return DispRemoveInput(dispatcher, fd, type); }
};

class DispatcherTimers : public support::DispatcherTest {
protected:
    uint32_t add(uint32_t interval_ms, std::function<void()> &called, int periodic) {
        return DispAddTimerInternal(dispatcher, interval_ms, call_timer, arg(called), periodic, 0, "test", 1);
    }
    void remove(uint32_t timer) { EXPECT_EQ(DispRemoveTimerInternal(dispatcher, timer, "test", 1), 0); }
};

TEST(DispatcherLife, OpensOnlyCloseOnExecDescriptorsAboveTheStandardOnes) {
    const std::set<int> before = open_descriptors();
    Dispatcher *dispatcher = DispatcherCreate();
    ASSERT_NE(dispatcher, nullptr);
    int opened = 0;
    for (const int fd : open_descriptors())
        if (!before.count(fd)) {
            opened++;
            EXPECT_GT(fd, 2);
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
        }
    EXPECT_GE(opened, 3);  // the loop's, and two for signals
    DispatcherDestroy(dispatcher);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(DispatcherLife, ShowsThatItIsShuttingDownOnceItsEndHasBegun) {
    Dispatcher *dispatcher = DispatcherCreate();
    ASSERT_NE(dispatcher, nullptr);
    EXPECT_EQ(dispatcher->shutting_down, 0);
    EXPECT_EQ(current_dispatcher(), dispatcher);
    DispatcherDestroy(dispatcher);
    EXPECT_EQ(dispatcher->shutting_down, 1);
    EXPECT_EQ(current_dispatcher(), nullptr);
}

TEST(DispatcherLife, TakesLateCallsWithoutHarm) {
    Dispatcher *dispatcher = DispatcherCreate();
    ASSERT_NE(dispatcher, nullptr);
    DispatcherDestroy(dispatcher);
    std::function<void()> never = [] { FAIL(); };
    EXPECT_EQ(DispAddInput(dispatcher, 0, DISP_READ, call_input, arg(never)), -1);
    EXPECT_EQ(DispRemoveInput(dispatcher, 0, DISP_READ), 0);
    EXPECT_EQ(DispAddTimerInternal(dispatcher, 1, call_timer, arg(never), 0, 0, "test", 1), 0U);
    EXPECT_EQ(DispRemoveTimerInternal(dispatcher, 1, "test", 1), 0);
    EXPECT_EQ(DispProcess(dispatcher, 0), 0);
    DispatcherDestroy(dispatcher);
}

TEST(DispatcherLife, FreesWhatIsStillRegistered) {
    Dispatcher *dispatcher = DispatcherCreate();
    ASSERT_NE(dispatcher, nullptr);
    const Pipe pipe;
    std::function<void()> never = [] { FAIL(); };
    EXPECT_EQ(DispAddInput(dispatcher, pipe.reader, DISP_READ, call_input, arg(never)), 0);
    EXPECT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(never), 1, 0, "test", 1), 0U);
    DispatcherDestroy(dispatcher);  // the leak checker looks at the rest
}

TEST(DispatcherLife, IsTheOnlyOneOfTheProcess) {
    Dispatcher *dispatcher = DispatcherCreate();
    ASSERT_NE(dispatcher, nullptr);
    EXPECT_EQ(DispatcherCreate(), nullptr);
    DispatcherDestroy(dispatcher);
    dispatcher = DispatcherCreate();
    ASSERT_NE(dispatcher, nullptr);
    EXPECT_EQ(dispatcher->shutting_down, 0);
    DispatcherDestroy(dispatcher);
}

TEST_F(DispatcherInputs, CallsTheHandlerAsLongAsTheDescriptorIsReady) {
    const Pipe pipe;
    int calls = 0;
    std::function<void()> read_one = [&] {
        calls++;
        EXPECT_TRUE(pipe.take());
    };
    ASSERT_EQ(add(pipe.reader, DISP_READ, read_one), 0);
    pipe.put();
    pipe.put();
    pipe.put();
    EXPECT_TRUE(run_until([&] { return calls == 3; }));
    run_rounds();
    EXPECT_EQ(calls, 3);
}

TEST_F(DispatcherInputs, KeepsReadingAndWritingOfOneDescriptorApart) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    int reads = 0;
    int writes = 0;
    std::function<void()> on_read = [&] { reads++; };
    std::function<void()> on_write = [&] { writes++; };
    ASSERT_EQ(add(ends[0], DISP_READ, on_read), 0);
    ASSERT_EQ(add(ends[0], DISP_WRITE, on_write), 0);
    EXPECT_TRUE(run_until([&] { return writes > 0; }));
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(remove(ends[0], DISP_WRITE), 0);
    writes = 0;
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_TRUE(run_until([&] { return reads > 0; }));
    EXPECT_EQ(writes, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(DispatcherInputs, ReplacesAStandingRegistration) {
    const Pipe pipe;
    int calls = 0;
    std::function<void()> never = [] { FAIL(); };
    std::function<void()> count = [&] { calls += pipe.take(); };
    ASSERT_EQ(add(pipe.reader, DISP_READ, never), 0);
    ASSERT_EQ(add(pipe.reader, DISP_READ, count), 0);
    pipe.put();
    EXPECT_TRUE(run_until([&] { return calls == 1; }));
    ASSERT_EQ(remove(pipe.reader, DISP_READ), 0);
    pipe.put();
    run_rounds();
    EXPECT_EQ(calls, 1);
}

/** Both ends of a new socket pair, the first one under the number `fd`, which must be free. */
int new_socket_at(int fd) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    if (ends[0] == fd)
        return ends[1];
    const int peer = ends[1] == fd ? dup(ends[1]) : ends[1];
    EXPECT_EQ(dup2(ends[0], fd), fd);
    close(ends[0]);
    return peer;
}

TEST_F(DispatcherInputs, ReplacesARegistrationWhoseDescriptorWasClosedAndItsNumberUsedAgain) {
    Pipe pipe;
    const int fd = pipe.reader;
    std::function<void()> never = [] { FAIL(); };
    ASSERT_EQ(add(fd, DISP_READ, never), 0);
    run_rounds();
    pipe.close_reader();
    const int peer = new_socket_at(fd);
    int calls = 0;
    std::function<void()> count = [&] {
        char byte;
        calls += static_cast<int>(read(fd, &byte, 1));
    };
    ASSERT_EQ(add(fd, DISP_READ, count), 0);
    ASSERT_EQ(write(peer, "x", 1), 1);
    EXPECT_TRUE(run_until([&] { return calls == 1; }));
    EXPECT_EQ(remove(fd, DISP_READ), 0);
    ASSERT_EQ(write(peer, "x", 1), 1);
    run_rounds();
    EXPECT_EQ(calls, 1);
    close(fd);
    close(peer);
}

TEST_F(DispatcherInputs, DoesNotCarryTheOtherTypeOfAClosedDescriptorOverToItsSuccessor) {
    for (const bool adds_again : {true, false}) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        int writes = 0;
        std::function<void()> nothing = [] {};
        std::function<void()> on_write = [&] { writes++; };
        ASSERT_EQ(add(ends[0], DISP_READ, nothing), 0);
        ASSERT_EQ(add(ends[0], DISP_WRITE, on_write), 0);
        ASSERT_TRUE(run_until([&] { return writes > 0; }));
        close(ends[0]);
        const int peer = new_socket_at(ends[0]);
        writes = 0;
        if (adds_again)
            ASSERT_EQ(add(ends[0], DISP_READ, nothing), 0);
        else
            ASSERT_EQ(remove(ends[0], DISP_READ), 0);
        run_rounds();
        EXPECT_EQ(writes, 0);
        remove(ends[0], DISP_READ);
        close(ends[0]);
        close(ends[1]);
        close(peer);
    }
}

TEST_F(DispatcherInputs, KeepsTheOtherTypeWhenOneIsReplaced) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    int writes = 0;
    std::function<void()> nothing = [] {};
    std::function<void()> on_write = [&] { writes++; };
    ASSERT_EQ(add(ends[0], DISP_WRITE, on_write), 0);
    ASSERT_EQ(add(ends[0], DISP_READ, nothing), 0);
    ASSERT_EQ(add(ends[0], DISP_READ, nothing), 0);
    EXPECT_TRUE(run_until([&] { return writes > 0; }));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(DispatcherInputs, RefusesWhatCannotBeWatched) {
    const Pipe pipe;
    std::function<void()> never = [] { FAIL(); };
    EXPECT_EQ(add(-1, DISP_READ, never), -1);
    EXPECT_EQ(add(pipe.reader, 0, never), -1);
    EXPECT_EQ(add(pipe.reader, DISP_READ | DISP_WRITE, never), -1);
    EXPECT_EQ(DispAddInput(dispatcher, pipe.reader, DISP_READ, nullptr, nullptr), -1);
    EXPECT_EQ(DispAddInput(nullptr, pipe.reader, DISP_READ, call_input, arg(never)), -1);
    const int closed = dup(pipe.reader);
    close(closed);
    EXPECT_EQ(add(closed, DISP_READ, never), -1);
    const int file = open("/tmp/regular", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(add(file, DISP_READ, never), -1);  // such a file is always ready: nothing to wait for
    close(file);
}

TEST_F(DispatcherInputs, RemovesWhatIsNotThereWithoutError) {
    const Pipe pipe;
    EXPECT_EQ(remove(pipe.reader, DISP_READ), 0);
    EXPECT_EQ(remove(-1, DISP_READ), 0);
    EXPECT_EQ(remove(1000000, DISP_WRITE), 0);
    EXPECT_EQ(DispRemoveInput(nullptr, pipe.reader, DISP_READ), 0);
}

TEST_F(DispatcherInputs, MayRemoveItselfAndTakeItsPlaceAgainFromItsHandler) {
    const Pipe pipe;
    int calls = 0;
    std::function<void()> later = [&] { calls += pipe.take(); };
    std::function<void()> first = [&] {
        EXPECT_TRUE(pipe.take());
        EXPECT_EQ(remove(pipe.reader, DISP_READ), 0);
        EXPECT_EQ(remove(pipe.reader, DISP_READ), 0);
        EXPECT_EQ(add(pipe.reader, DISP_READ, later), 0);
    };
    ASSERT_EQ(add(pipe.reader, DISP_READ, first), 0);
    pipe.put();
    pipe.put();
    EXPECT_TRUE(run_until([&] { return calls == 1; }));
    remove(pipe.reader, DISP_READ);
}

TEST_F(DispatcherInputs, CallsNoHandlerThatAnotherOneOfTheSameRoundHasRemoved) {
    const Pipe one;
    const Pipe two;
    int calls = 0;
    std::function<void()> remove_both = [&] {
        calls++;
        remove(one.reader, DISP_READ);
        remove(two.reader, DISP_READ);
    };
    ASSERT_EQ(add(one.reader, DISP_READ, remove_both), 0);
    ASSERT_EQ(add(two.reader, DISP_READ, remove_both), 0);
    one.put();
    two.put();
    run_rounds();
    EXPECT_EQ(calls, 1);
}

TEST_F(DispatcherTimers, GivesIdsThatAreNeverZero) {
    std::function<void()> nothing = [] {};
    std::set<uint32_t> ids;
    for (int i = 0; i < 100; i++)
        ids.insert(add(1000000, nothing, 1));
    EXPECT_EQ(ids.size(), 100U);
    EXPECT_EQ(ids.count(0), 0U);
    EXPECT_EQ(DispAddTimerInternal(dispatcher, 1, nullptr, nullptr, 1, 0, "test", 1), 0U);
    EXPECT_EQ(DispAddTimerInternal(nullptr, 1, call_timer, arg(nothing), 1, 0, "test", 1), 0U);
}

TEST_F(DispatcherTimers, RunsOnceUnlessPeriodic) {
    int once = 0;
    int often = 0;
    std::function<void()> on_once = [&] { once++; };
    std::function<void()> on_often = [&] { often++; };
    ASSERT_NE(add(5, on_once, 0), 0U);
    ASSERT_NE(add(5, on_often, 1), 0U);
    EXPECT_TRUE(run_until([&] { return often >= 4; }));
    EXPECT_EQ(once, 1);
}

TEST_F(DispatcherTimers, DoesNotRunBeforeItsTime) {
    double after = -1;
    const auto start = Clock::now();
    std::function<void()> on_time = [&] { after = ms_since(start); };
    ASSERT_NE(add(60, on_time, 0), 0U);
    EXPECT_TRUE(run_until([&] { return after >= 0; }));
    EXPECT_GE(after, 55);  // the coarse clock's grain
}

TEST_F(DispatcherTimers, CountsFromItsStartHoweverLongTheHandlerThatStartedItHadRun) {
    double after = -1;
    Clock::time_point start;
    std::function<void()> on_time = [&] { after = ms_since(start); };
    std::function<void()> slow = [&] {
        const auto begin = Clock::now();
        while (ms_since(begin) < 100)
            continue;
        start = Clock::now();
        ASSERT_NE(add(60, on_time, 0), 0U);
    };
    ASSERT_NE(add(1, slow, 0), 0U);
    EXPECT_TRUE(run_until([&] { return after >= 0; }));
    EXPECT_GE(after, 55);
}

TEST_F(DispatcherTimers, KeepsItsPeriodWhateverItsHandlerTakes) {
    constexpr int kPeriod = 20, kBusy = 15, kRuns = 5;
    std::vector<Clock::time_point> begins;
    bool kept = false;  // a loaded machine may delay runs, but never brings drifting ones closer together
    std::function<void()> busy = [&] {
        begins.push_back(Clock::now());
        if (begins.size() > kRuns)
            kept = kept || ms_since(begins[begins.size() - 1 - kRuns]) < kRuns * (kPeriod + kBusy) * 0.85;
        while (ms_since(begins.back()) < kBusy)
            continue;
    };
    ASSERT_NE(add(kPeriod, busy, 1), 0U);
    EXPECT_TRUE(run_until([&] { return kept; }));
}

TEST_F(DispatcherTimers, MayBeRemovedFromItsHandler) {
    int runs = 0;
    uint32_t timer = 0;
    std::function<void()> remove_itself = [&] {
        runs++;
        remove(timer);
        remove(timer);
    };
    timer = add(1, remove_itself, 1);
    run_rounds(10);
    EXPECT_EQ(runs, 1);
    timer = add(1, remove_itself, 0);
    run_rounds(10);
    EXPECT_EQ(runs, 2);
    remove(0);
    remove(123456);
}

TEST_F(DispatcherTimers, RunsPeriodicallyWithNoInterval) {
    int runs = 0;
    std::function<void()> count = [&] { runs++; };
    ASSERT_NE(add(0, count, 1), 0U);
    EXPECT_TRUE(run_until([&] { return runs >= 3; }));
}

TEST_F(DispatcherTimers, RunsWhileAnInputIsReadyAllTheTime) {
    const Pipe pipe;
    int calls = 0;
    int runs = 0;
    std::function<void()> busy = [&] { calls++; };
    std::function<void()> count = [&] { runs++; };
    ASSERT_EQ(DispAddInput(dispatcher, pipe.reader, DISP_READ, call_input, arg(busy)), 0);
    ASSERT_NE(add(5, count, 1), 0U);
    pipe.put();
    EXPECT_TRUE(run_until([&] { return runs >= 3; }));
    EXPECT_GT(calls, 3);
}

}  // namespace
