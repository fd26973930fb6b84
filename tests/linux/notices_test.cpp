#include "linux/notices.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstring>

#include "linux/process.h"
#include "platform/korvalog.h"
#include "support.h"

namespace {

using support::arg;
using support::call_timer;
using support::Clock;
using support::ms_since;

constexpr char kPath[] = "/tmp/manager.sock";
constexpr char kLog[] = "/tmp/notices.log";

/** A service manager's end: a datagram socket under NOTIFY_SOCKET's name, and what came. */
struct Manager {
    int fd;

    explicit Manager(const std::string &name) {
        sockaddr_un where{};
        where.sun_family = AF_UNIX;
        memcpy(where.sun_path, name.data(), name.size());
        if (name[0] == '@')
            where.sun_path[0] = '\0';
        else
            unlink(name.c_str());
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&where), length), 0);
    }
    ~Manager() { close(fd); }
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    std::vector<std::string> notices() const {
        std::vector<std::string> all;
        char text[256];
        for (ssize_t length; (length = recv(fd, text, sizeof text, 0)) >= 0;)
            all.emplace_back(text, static_cast<size_t>(length));
        return all;
    }
};

using Texts = std::vector<std::string>;

class Notices : public testing::Test {
protected:
    void SetUp() override {
        setenv("KORVA_LOG", (std::string("file:") + kLog).c_str(), 1);
        unlink(kPath);
        open_log();
        take(nullptr);
    }
    void TearDown() override {
        DispatcherDestroy(dispatcher);
        take(nullptr);
    }

    /** An empty one. */
    static void open_log() {
        unlink(kLog);
        korvaLogInit(712, "test", 4);
    }

    static void set(const char *variable, const char *value) {
        if (value)
            setenv(variable, value, 1);
        else
            unsetenv(variable);
    }

    static void take(const char *address, const char *interval = nullptr, const char *pid = nullptr) {
        set("NOTIFY_SOCKET", address);
        set("WATCHDOG_USEC", interval);
        set("WATCHDOG_PID", pid);
        notices_take_environment();
    }

    /** Runs a loop for so long, with nothing in it but its end. */
    void run_loop(uint32_t ms) {
        if (!dispatcher)
            dispatcher = DispatcherCreate();
        std::function<void()> end = [] { kill(getpid(), SIGTERM); };
        ASSERT_NE(DispAddTimerInternal(dispatcher, ms, call_timer, arg(end), 0, 0, "test", 1), 0U);
        DispProcess(dispatcher, 0);
    }

    Dispatcher *dispatcher = nullptr;
};

TEST_F(Notices, SayReadyWhenTheLoopBeginsAndStoppingWhenItEnds) {
    for (const char *name : {kPath, "@manager"}) {
        const Manager manager(name);
        take(name);
        dispatcher = DispatcherCreate();
        EXPECT_EQ(manager.notices(), Texts{});
        Texts inside;
        std::function<void()> look = [&] { inside = manager.notices(); };
        ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(look), 0, 0, "test", 1), 0U);
        run_loop(20);
        EXPECT_EQ(inside, Texts{"READY=1"}) << name;
        EXPECT_EQ(manager.notices(), Texts{"STOPPING=1"}) << name;
        DispatcherDestroy(dispatcher);
        dispatcher = nullptr;
    }
}

TEST_F(Notices, SayReadyOnce) {
    const Manager manager(kPath);
    take(kPath);
    run_loop(1);
    run_loop(1);
    EXPECT_EQ(manager.notices(), (Texts{"READY=1", "STOPPING=1", "STOPPING=1"}));
}

TEST_F(Notices, SayAliveTwiceInEachOfTheManagersIntervals) {
    const Manager manager(kPath);
    take(kPath, "100000");
    EXPECT_EQ(notices_alive_interval_us(), 50000U);
    run_loop(275);
    const Texts notices = manager.notices();
    EXPECT_GE(notices.size(), 5U);
    EXPECT_LE(notices.size(), 7U);
    EXPECT_EQ(notices.front(), "READY=1");
    EXPECT_EQ(notices[1], "WATCHDOG=1");
    EXPECT_EQ(notices.back(), "STOPPING=1");
}

TEST_F(Notices, SayNothingWhileAHandlerHangs) {
    const Manager manager(kPath);
    take(kPath, "20000");
    dispatcher = DispatcherCreate();
    Texts inside;
    std::function<void()> hang = [&] {
        manager.notices();
        usleep(200000);  // the handler's own time
        inside = manager.notices();
    };
    ASSERT_NE(DispAddTimerInternal(dispatcher, 1, call_timer, arg(hang), 0, 0, "test", 1), 0U);
    run_loop(50);
    EXPECT_EQ(inside, Texts{});
}

TEST_F(Notices, SayAliveOnlyWhereThisProcessIsMeant) {
    take(kPath, "100000", std::to_string(getpid()).c_str());
    EXPECT_EQ(notices_alive_interval_us(), 50000U);
    take(kPath, "100000", std::to_string(getppid()).c_str());
    EXPECT_EQ(notices_alive_interval_us(), 0U);
    take(kPath, "100000", "");
    EXPECT_EQ(notices_alive_interval_us(), 0U);
}

TEST_F(Notices, TakeOnlyAWholeNumberForAnInterval) {
    for (const char *interval : {"", "0", "-1", "+5", " 5", "5s", "1e6", "99999999999999999999999"}) {
        take(kPath, interval);
        EXPECT_EQ(notices_alive_interval_us(), 0U) << interval;
    }
}

TEST_F(Notices, AreNotWantedWithoutASocket) {
    take(nullptr, "100000");
    EXPECT_EQ(notices_alive_interval_us(), 0U);
}

/** Turns that a loop takes in 200 ms with nothing to do. */
long wake_ups(Dispatcher *dispatcher) {
    std::function<void()> end = [] { kill(getpid(), SIGTERM); };
    EXPECT_NE(DispAddTimerInternal(dispatcher, 200, call_timer, arg(end), 0, 0, "test", 1), 0U);
    rusage before;
    rusage after;
    getrusage(RUSAGE_SELF, &before);
    DispProcess(dispatcher, 0);
    getrusage(RUSAGE_SELF, &after);
    return after.ru_nvcsw - before.ru_nvcsw;
}

TEST_F(Notices, AddNoWakeUpWhereNobodyAskedForThem) {
    dispatcher = DispatcherCreate();
    const long idle = wake_ups(dispatcher);
    EXPECT_LE(idle, 3);
    DispatcherDestroy(dispatcher);
    const Manager manager(kPath);
    take(kPath, "20000");
    dispatcher = DispatcherCreate();
    EXPECT_GE(wake_ups(dispatcher), idle + 10);  // so it would have been seen
}

TEST_F(Notices, TakeTheirVariablesOutOfTheEnvironmentOfChildren) {
    for (const char *address : {kPath, "", "nonsense"}) {
        take(address, "100000", "1");
        for (const char *variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            EXPECT_EQ(getenv(variable), nullptr) << address;
    }
}

TEST_F(Notices, AreTakenFromTheEnvironmentBeforeAnythingRuns) {
    setenv("NOTIFY_SOCKET", kPath, 1);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(prepare_process() == 0 && !getenv("NOTIFY_SOCKET") ? 0 : 1);
    int status;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

TEST_F(Notices, AreRefusedAnAddressOfAnotherKind) {
    const std::string too_long = "/" + std::string(sizeof(sockaddr_un::sun_path), 'x');
    for (const std::string &address : {std::string("vsock:2:1234"), std::string("@"), std::string("/"), too_long}) {
        open_log();
        take(address.c_str(), "100000");
        EXPECT_EQ(notices_alive_interval_us(), 0U);
        notices_ready();
        EXPECT_EQ(support::lines_of(kLog).back(),
                  "4 416 0 <PROCESS>: NOTIFY_SOCKET \"" + address + "\" is neither /path nor @name: no notices");
    }
}

TEST_F(Notices, ComplainOnceOfAManagerThatIsNotThere) {
    take(kPath);
    const size_t before = support::lines_of(kLog).size();
    notices_ready();
    notices_alive();
    notices_alive();
    const Texts lines = support::lines_of(kLog);
    ASSERT_EQ(lines.size(), before + 1);
    EXPECT_EQ(lines.back(),
              "4 416 0 <PROCESS>: cannot tell the service manager \"READY=1\": No such file or directory");
}

TEST_F(Notices, DoNotHangOnAManagerThatDoesNotRead) {
    const Manager manager(kPath);
    take(kPath);
    const auto start = Clock::now();
    for (size_t told = 0; support::lines_of(kLog).empty(); told++) {
        ASSERT_LT(told, 5000U);
        notices_alive();
    }
    EXPECT_LT(ms_since(start), 10000);
    EXPECT_EQ(support::lines_of(kLog).back(),
              "4 416 0 <PROCESS>: cannot tell the service manager \"WATCHDOG=1\": Resource temporarily unavailable");
}

TEST_F(Notices, LeaveNoDescriptorBehind) {
    const Manager manager(kPath);
    take(kPath);
    const int before = dup(0);
    close(before);
    notices_ready();
    notices_alive();
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

}  // namespace
