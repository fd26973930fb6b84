#include "linux/instance.h"

#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "support.h"

namespace {

constexpr char kLockFile[] = "/tmp/.vyrwrap.lock";
constexpr char kLog[] = "/tmp/instance.log";
constexpr uid_t kSomebodyElse = 12345;

/** A sandbox has one user only. */
uid_t own_user;

}  // namespace

extern "C" {
uid_t __wrap_geteuid();
uid_t __wrap_geteuid() {
    return own_user;
}
}

namespace {

/** The process may no more than the modes of files say. */
void give_up_privileges() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    syscall(SYS_capset, &header, none);
}

/** A process that claims the instance between `before` and `after`, and holds it until it is let go. */
struct Claimer {
    pid_t pid;
    int result = -2;
    support::Pipe said;
    support::Pipe go;

    explicit Claimer(
        const std::function<void()> &before = [] {}, const std::function<void()> &after = [] {}) {
        pid = fork();
        if (pid == 0) {
            go.close_writer();
            before();
            const int claimed = claim_instance();
            after();
            EXPECT_EQ(write(said.writer, &claimed, sizeof claimed), ssize_t{sizeof claimed});
            char byte;
            fcntl(go.reader, F_SETFL, 0);
            while (read(go.reader, &byte, 1) < 0)
                continue;
            _exit(0);
        }
        said.close_writer();
        fcntl(said.reader, F_SETFL, 0);
        if (read(said.reader, &result, sizeof result) != sizeof result)
            result = -3;
    }
    ~Claimer() { end(); }
    Claimer(const Claimer &) = delete;
    Claimer &operator=(const Claimer &) = delete;

    void end() {
        go.close_writer();
        if (pid > 0)
            waitpid(pid, nullptr, 0);
        pid = 0;
    }

    void kill_hard() const { kill(pid, SIGKILL); }
};

class Instance : public testing::Test {
protected:
    void SetUp() override {
        setenv("KORVA_LOG", (std::string("file:") + kLog).c_str(), 1);
        own_user = 0;
        unlink(kLog);
        unlink(kLockFile);
        rmdir(kLockFile);
    }

    static bool is_trusted_now() {
        struct stat status;
        return lstat(kLockFile, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == 0 &&
               (status.st_mode & 07777) == 0600;
    }
};

std::vector<std::string> refusal_of(pid_t holder) {
    return {"3 416 0 <PROCESS>: another vyrwrap runs on this machine (process " + std::to_string(holder) +
            " has locked /tmp/.vyrwrap.lock): this one ends"};
}

TEST_F(Instance, IsClaimedByTheFirstProcessInSilence) {
    const Claimer first;
    EXPECT_EQ(first.result, 0);
    EXPECT_TRUE(is_trusted_now());
    EXPECT_EQ(support::read_file(kLog), "(no file)");
}

TEST_F(Instance, IsRefusedToASecondProcessWithOneLineThatNamesTheFirst) {
    const Claimer first;
    const Claimer second;
    EXPECT_EQ(second.result, -1);
    EXPECT_EQ(support::lines_of(kLog), refusal_of(first.pid));
}

TEST_F(Instance, IsStillRefusedAfterARefusal) {
    const Claimer first;
    const Claimer second;
    const Claimer third;
    EXPECT_EQ(third.result, -1);
}

TEST_F(Instance, IsFreeAgainHoweverTheFirstEnded) {
    for (const bool hard : {false, true}) {
        Claimer first;
        ASSERT_EQ(first.result, 0);
        if (hard)
            first.kill_hard();
        first.end();
        const Claimer next;
        EXPECT_EQ(next.result, 0) << hard;
    }
}

TEST_F(Instance, IsNotHeldByAChildThatOutlivesTheProcess) {
    pid_t *child =
        static_cast<pid_t *>(mmap(nullptr, sizeof(pid_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    Claimer first([] {},
                  [child] {
                      const pid_t forked = fork();
                      if (forked == 0)
                          for (;;)
                              pause();
                      *child = forked;
                  });
    ASSERT_EQ(first.result, 0);
    first.end();
    ASSERT_GT(*child, 0);
    ASSERT_EQ(kill(*child, 0), 0);
    const Claimer next;
    EXPECT_EQ(next.result, 0);
    kill(*child, SIGKILL);
    munmap(child, sizeof(pid_t));
}

TEST_F(Instance, IsClaimedThroughAStaleFile) {
    std::ofstream(kLockFile) << "4711\n";
    ASSERT_EQ(chmod(kLockFile, 0600), 0);
    const Claimer first;
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(support::read_file(kLockFile), "4711\n");
}

TEST_F(Instance, DoesNotFollowALink) {
    std::ofstream("/tmp/target") << "theirs\n";
    ASSERT_EQ(chmod("/tmp/target", 0600), 0);
    ASSERT_EQ(symlink("/tmp/target", kLockFile), 0);
    const Claimer first;
    EXPECT_EQ(first.result, 0);
    EXPECT_TRUE(is_trusted_now());
    EXPECT_EQ(support::read_file("/tmp/target"), "theirs\n");
}

TEST_F(Instance, DoesNotTrustWhatAnybodyCouldLock) {
    const std::function<void()> obstacles[] = {
        [] { std::ofstream(kLockFile).put('x'); },  // 0644
        [] { ASSERT_EQ(mkfifo(kLockFile, 0600), 0); },
        [] { ASSERT_EQ(mkdir(kLockFile, 0700), 0); },
    };
    for (const auto &obstacle : obstacles) {
        SetUp();
        obstacle();
        const Claimer first;
        EXPECT_EQ(first.result, 0);
        EXPECT_TRUE(is_trusted_now());
        const Claimer second;
        EXPECT_EQ(second.result, -1);
    }
}

TEST_F(Instance, IsClaimedAnewWhereSomebodyElseMadeTheFile) {
    std::ofstream(kLockFile) << "theirs\n";
    ASSERT_EQ(chmod(kLockFile, 0600), 0);
    own_user = kSomebodyElse;
    const Claimer first;
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(support::read_file(kLockFile), "");
}

TEST_F(Instance, IsRefusedToAUserWhoMayNeitherOpenNorRemoveTheFile) {
    std::ofstream(kLockFile) << "";
    ASSERT_EQ(chmod(kLockFile, 0), 0);
    ASSERT_EQ(chmod("/tmp", 0555), 0);
    for (const uid_t user : {uid_t{0}, kSomebodyElse}) {
        unlink(kLog);
        const Claimer second([user] {
            dup2(open(kLog, O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
            setenv("KORVA_LOG", "stderr", 1);
            own_user = user;
            give_up_privileges();
        });
        EXPECT_EQ(second.result, -1);
        EXPECT_EQ(support::lines_of(kLog),
                  std::vector<std::string>{"3 416 0 <PROCESS>: another user's vyrwrap may run on this machine "
                                           "(/tmp/.vyrwrap.lock: Permission denied): this one ends"});
    }
    chmod("/tmp", 01777);
}

TEST_F(Instance, GoesOnWithAWarningWhereThereCanBeNoLock) {
    const Claimer first([] {
        dup2(open(kLog, O_WRONLY | O_CREAT, 0644), STDERR_FILENO);
        setenv("KORVA_LOG", "stderr", 1);
        const rlimit standard_ones = {3, 3};
        setrlimit(RLIMIT_NOFILE, &standard_ones);
    });
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(support::lines_of(kLog),
              std::vector<std::string>{"4 416 0 <PROCESS>: cannot lock /tmp/.vyrwrap.lock (Too many open files): "
                                       "a second vyrwrap would not be noticed"});
}

}  // namespace
