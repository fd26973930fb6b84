/* Start-up and the timer with memory failing at every single allocation, one after the other. */
#include <errno.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "core/startup.h"
#include "core/timer.h"
#include "fakes/fakes.h"

namespace {

constexpr int kStatusNoTable = 12;

using Steps = void (*)();

class MemoryTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        fake::write_file("/etc/bird/vyr.conf", std::string(10000, '#'));
        fake::write_file("/etc/bird/vyr_oap.conf", "# overlay\n");
        std::filesystem::create_directories("/tmp/.sock");
        std::filesystem::remove_all("/tmp/bird_event_exp.ctl");
        fake::strings["/op/staticroute/{0.0.0.0:0.0.0.0:1:1.1.1.1}"] = "1";
        fake::strings["/op/staticroute/{10.1.0.0:255.255.0.0:2:map}"] = "2";
        fake::strings["/op/staticroute/{10.1.0.0:255.255.0.0:3:c}"] = "2";
    }

    /**
     * Runs the steps in a process of their own (which looks for leaks at its end) with the call failing behind `skip`
     * others, and expects an orderly end. Returns whether the steps made the call so often.
     */
    static bool steps_with_failure(const char *call, int skip, Steps steps) {
        constexpr int kNotReached = 99;
        const pid_t pid = fork();
        if (pid == 0) {
            vyrwrap_global = {};
            fake::fail_call(call, ENOMEM, skip);
            steps();
            exit(fake::call_count(call) > skip ? 0 : kNotReached);
        }
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status)) << call << " " << skip;
        const int result = WEXITSTATUS(status);
        EXPECT_TRUE(result == 0 || result == kNotReached || result == kStatusNoTable)
            << call << " " << skip << " ends with " << result;
        return result != kNotReached && WIFEXITED(status);
    }

    static void expect_no_failure_to_hurt(Steps steps) {
        for (const char *call : {"calloc", "realloc"}) {
            int skip = 0;
            while (steps_with_failure(call, skip, steps))
                skip++;
            EXPECT_GT(skip, 0) << call << " is never made to fail";
        }
    }
};

void pretend_vyr() {
    fake::on_fork = [](long *result) {
        *result = 4242;
        return true;
    };
    fake::on_kill = [](int, int, int *) { return true; };
}

TEST_F(MemoryTest, StartUpAndTheTimerOutliveEveryFailure) {
    expect_no_failure_to_hurt([] {
        pretend_vyr();
        fake::on_process = [] {
            fake::debug_enabled = 1;
            vyrwrap_global.dal_lost = 1;
            for (int run = 0; run < 3; run++)
                vyrwrap_mytimer();
            fake::notify_key("/op/staticroute/{10.1.0.0:255.255.0.0:2:other}", "set");
            fake::notify_key("/op/staticroute/{10.1.0.0:255.255.0.0:2:map}", "del");
        };
        vyrwrap_main();
    });
}

}  // namespace
