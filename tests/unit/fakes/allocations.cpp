#include "fakes/allocations.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "fakes/fakes.h"
#include "fakes/internal.h"

extern "C" const char *__ubsan_default_options();
extern "C" const char *__ubsan_default_options() {
    return "print_stacktrace=1";
}

// There in a build with AddressSanitizer.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check(void);

namespace fake {

namespace {

constexpr char kReport[] = "/tmp/allocation_report";
constexpr rlimit kLongestTest = {20, RLIM_INFINITY}; /**< seconds of the processor's */
constexpr unsigned kLongestWaitSeconds = 200;        /**< for others that use it, too */
constexpr int kStatusLeak = 98;
constexpr int kStatusNoTable = 12; /**< the daemon's own, where there is no memory for the static route table */

/** What a child tells its parent. */
struct Told {
    long allocations;
    long failed;
};
Told *told;

struct Sum {
    long tests;
    long allocations;
    long tried;
    long ended_tests; /**< tests that stumbled over what they had expected */
    long problems;
};

[[noreturn]] void run_in_child(const std::string &test, long failing, long step) {
    setrlimit(RLIMIT_CPU, &kLongestTest);
    alarm(kLongestWaitSeconds);
    const int null_fd = open("/dev/null", O_WRONLY);
    const int report_fd = open(kReport, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(null_fd, STDOUT_FILENO);
    dup2(report_fd, STDERR_FILENO);
    close(null_fd);
    close(report_fd);
    GTEST_FLAG_SET(filter, test);
    fail_allocation(failing, step);
    [[maybe_unused]] const int expectations = RUN_ALL_TESTS();  // they are about a daemon that has memory
    *told = {allocations(), allocations_failed()};
    fail_allocation(0);
    const bool leaks = __lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check() != 0;
    __real__exit(leaks ? kStatusLeak : 0);
}

/** Returns the child's status. */
int run_test(const std::string &test, long failing, long step = 0) {
    fflush(stdout);
    *told = {};
    const pid_t pid = __real_fork();
    if (pid == 0)
        run_in_child(test, failing, step);
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

/** Whether a sanitizer's report names the daemon's own code: src/FOLDER/FILE on a stack. */
bool report_names_daemon() {
    std::ifstream report(kReport);
    bool reported = false;
    for (std::string line; std::getline(report, line);) {
        reported = reported || line.find("    #0 ") == 0;
        if (line.find(" ../../src/") != std::string::npos || line.find(" ../src/") != std::string::npos)
            return true;
    }
    return !reported;
}

enum class Outcome { good, test_ended, problem };

/** What went wrong behind the daemon's back, in a test whose expectations did not hold, is none of the daemon's. */
Outcome outcome_of(int status) {
    if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kStatusNoTable))
        return Outcome::good;
    return WIFEXITED(status) && !report_names_daemon() ? Outcome::test_ended : Outcome::problem;
}

void show_problem(const std::string &test, long failing, int status) {
    printf("%s, allocation %ld: %s %d\n", test.c_str(), failing, WIFEXITED(status) ? "status" : "signal",
           WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
    std::ifstream report(kReport);
    int shown = 0;
    for (std::string line; shown < 12 && std::getline(report, line);)
        if (line.find("ERROR") != std::string::npos || line.find("rror:") != std::string::npos ||
            line.find("    #") == 0) {
            printf("    %s\n", line.c_str());
            shown++;
        }
}

void try_test(const std::string &test, long limit, Sum *sum) {
    sum->tests++;
    if (const int status = run_test(test, 0); outcome_of(status) != Outcome::good) {
        show_problem(test, 0, status);
        sum->problems++;
        return;
    }
    const long count = told->allocations;
    sum->allocations += count;
    for (long failing = 1; failing <= std::min(count, limit); failing++) {
        const int status = run_test(test, failing, count > limit ? limit : 0);
        const Outcome outcome = outcome_of(status);
        sum->tried += told->failed;
        sum->ended_tests += outcome == Outcome::test_ended;
        if (outcome == Outcome::problem) {
            show_problem(test, failing, status);
            sum->problems++;
        }
    }
}

}  // namespace

int fail_each_allocation(long limit) {
    reset();  // what the fakes allocate once is there
    told = static_cast<Told *>(mmap(nullptr, sizeof *told, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const std::string pattern = GTEST_FLAG_GET(filter);
    Sum sum = {};
    const auto *all = testing::UnitTest::GetInstance();
    for (int i = 0; i < all->total_test_suite_count(); i++) {
        const auto *suite = all->GetTestSuite(i);
        for (int j = 0; j < suite->total_test_count(); j++) {
            const std::string test = std::string(suite->name()) + "." + suite->GetTestInfo(j)->name();
            if (fnmatch(pattern.c_str(), test.c_str(), 0) == 0)
                try_test(test, limit, &sum);
        }
    }
    printf("%ld tests, %ld allocations, %ld made to fail (%ld of them ended the test), %ld problems\n", sum.tests,
           sum.allocations, sum.tried, sum.ended_tests, sum.problems);
    return sum.problems ? 1 : 0;
}

}  // namespace fake
