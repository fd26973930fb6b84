#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "linux/korvalog/escape.h"
#include "linux/korvalog/sink.h"
#include "linux/platform_log.h"
#include "platform/korvalog.h"
#include "support.h"

namespace {

using support::lines_of;
using support::read_file;

constexpr char kPath[] = "/tmp/log_test.log";
constexpr int kModule = 416;
constexpr int kEventModule = 448;

void log_line(int level, int id, const char *text) {
    _korvaNewLogWithFltr(kModule, level, 4, id, " ^[error %s]", text);
}

int level_of(int module) {
    const auto *row = static_cast<lgModuleLevel *>(HashFind(lgClientInfo.levels, module));
    EXPECT_NE(row, nullptr);
    EXPECT_EQ(row->module, module);
    return row->level;
}

int change_level(uint32_t operation, uint32_t module, uint32_t level) {
    korvaLevelChange request = {};
    request.operation = operation;
    request.module = module;
    request.level = level;
    return korvaChangeLglvl(&request);
}

void use(const char *korva_log) {
    setenv("KORVA_LOG", korva_log, 1);
    EXPECT_EQ(korvaLogInit(712, "vyr", 4), 0);
}

class Log : public testing::Test {
protected:
    void SetUp() override {
        unlink(kPath);
        use("file:/tmp/log_test.log");
    }
    void TearDown() override { use("stderr"); }
};

/** What a call writes to stderr. */
std::string stderr_of(const std::function<void()> &called) {
    testing::internal::CaptureStderr();
    called();
    return testing::internal::GetCapturedStderr();
}

// Runs first, as the state it speaks of is the one before anything was set up.
TEST(LogBeforeSetUp, WritesEverythingToWhereKorvaLogSays) {
    EXPECT_EQ(_isdefaultLogLevel, 1);
    EXPECT_EQ(lgClientInfo.levels, nullptr);
    EXPECT_EQ(isDbgLvlEnabled(400), 0);
    setenv("KORVA_LOG", "file:/tmp/early.log", 1);
    log_line(7, 399814, "early");
    EXPECT_EQ(read_file("/tmp/early.log"), "7 416 399814 early\n");
}

TEST(LogBeforeSetUp, KeepsTheDefaultLevelFlagUntilTheFirstLevelChange) {
    setenv("KORVA_LOG", "stderr", 1);
    EXPECT_EQ(korvaLogInit(712, "vyr", 4), 0);
    EXPECT_EQ(_isdefaultLogLevel, 1);
    EXPECT_EQ(change_level(1, kModule, 8), -1);
    EXPECT_EQ(_isdefaultLogLevel, 1);
    EXPECT_EQ(change_level(1, kModule, 4), 0);
    EXPECT_EQ(_isdefaultLogLevel, 0);
}

TEST_F(Log, WritesOneLineForEachMessage) {
    log_line(3, 399816, "<VYRWRAP>: Dispatcher Create failed");
    _korvaNewLogWithFltr(kEventModule, 6, 4, 312401, "", "published");
    EXPECT_EQ(read_file(kPath), "3 416 399816 <VYRWRAP>: Dispatcher Create failed\n6 448 312401 published\n");
}

TEST_F(Log, WritesEachLineAtOnce) {
    log_line(3, 1, "one");
    EXPECT_EQ(read_file(kPath), "3 416 1 one\n");
}

TEST_F(Log, AppendsToTheFile) {
    std::ofstream(kPath) << "old\n";
    use("file:/tmp/log_test.log");
    log_line(3, 1, "new");
    EXPECT_EQ(read_file(kPath), "old\n3 416 1 new\n");
    std::ofstream(kPath, std::ios::trunc) << "";
    log_line(3, 2, "after it was emptied by others");
    EXPECT_EQ(read_file(kPath), "3 416 2 after it was emptied by others\n");
}

TEST_F(Log, WritesAMissingTextAsNull) {
    log_line(3, 1, nullptr);
    EXPECT_EQ(read_file(kPath), "3 416 1 NULL\n");
}

TEST_F(Log, LetsNoValueForgeALine) {
    log_line(3, 1, "value\n3 416 1 forged\r\t\a\b\v\f\033[2J\x01\x7f end");
    EXPECT_EQ(read_file(kPath), "3 416 1 value\\n3 416 1 forged\\r\\t\\a\\b\\v\\f\\033[2J\\001\\177 end\n");
}

TEST_F(Log, EscapesControlCharactersOfUtf8AndNothingElse) {
    log_line(3, 1, "\xc2\x9b\xc2\x85 gr\xc3\xbc\xc3\x9f\xc2\xa0 \\ \xc2");
    EXPECT_EQ(read_file(kPath), "3 416 1 \\302\\233\\302\\205 gr\xc3\xbc\xc3\x9f\xc2\xa0 \\ \xc2\n");
}

TEST_F(Log, CutsALineToWhatAPipeTakesInOnePiece) {
    log_line(3, 1, std::string(5000, 'x').c_str());
    log_line(3, 2, std::string(2000, '\n').c_str());
    log_line(3, 3, "next");
    const std::vector<std::string> lines = lines_of(kPath);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].size(), 4095U - 1);
    EXPECT_LE(lines[1].size(), 4095U);
    EXPECT_EQ(lines[1].substr(lines[1].size() - 2), "\\n");
    EXPECT_EQ(lines[2], "3 416 3 next");
}

TEST(Escape, NeverCutsAnEscape) {
    char line[8];
    for (size_t size = 1; size <= sizeof line; size++) {
        const size_t length = escape_controls("\n\033\n", line, size);
        EXPECT_EQ(length, strlen(line));
        EXPECT_LT(length, size);
        EXPECT_EQ(std::string(line), size > 6 ? "\\n\\033" : size > 2 ? "\\n" : "");
    }
}

TEST_F(Log, LeavesErrnoAlone) {
    errno = EXDEV;
    log_line(3, 1, "text");
    platform_error("text");
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(Log, OpensTheFileCloseOnExecAboveTheStandardDescriptors) {
    const int probe = dup(2);
    close(probe);
    unlink(kPath);
    const int saved = dup(0);
    close(0);
    use("file:/tmp/log_test.log");
    EXPECT_EQ(fcntl(0, F_GETFD), -1);  // still free
    dup2(saved, 0);
    close(saved);
    int found = 0;
    for (int fd = 3; fd < 64; fd++) {
        char target[64] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 && strcmp(target, kPath) == 0) {
            found++;
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST(LogSink, WritesToStderr) {
    use("stderr");
    EXPECT_EQ(stderr_of([] { log_line(3, 399816, "text"); }), "3 416 399816 text\n");
}

TEST(LogSink, FallsBackToSyslogAndSaysSoWhereKorvaLogNamesNothingUsable) {
    EXPECT_EQ(stderr_of([] { use("nowhere"); }),
              "vyr: KORVA_LOG \"nowhere\" is none of syslog, stderr and file:/path: logging to syslog\n");
    EXPECT_EQ(stderr_of([] { use("file:/no/such/folder"); }),
              "vyr: KORVA_LOG \"file:/no/such/folder\" No such file or directory: logging to syslog\n");
    EXPECT_EQ(stderr_of([] { use("file:/tmp"); }), "vyr: KORVA_LOG \"file:/tmp\" Is a directory: logging to syslog\n");
}

TEST(LogSink, GoesToTheSystemLogUnlessToldOtherwise) {
    const int server = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    for (const char *value : {"syslog", ""}) {
        use(value);
        log_line(3, 399816, "a\nb");
        char datagram[256] = {};
        ASSERT_GT(recv(server, datagram, sizeof datagram - 1, 0), 0);
        EXPECT_EQ(std::string(datagram).substr(0, 4), "<27>");  // facility daemon, error
        const std::string tail = " vyr[" + std::to_string(getpid()) + "]: 416 399816 a\\nb";
        const std::string whole(datagram);
        EXPECT_EQ(whole.substr(whole.size() - std::min(whole.size(), tail.size())), tail);
    }
    unsetenv("KORVA_LOG");
    EXPECT_EQ(korvaLogInit(712, "vyr", 4), 0);
    log_line(7, 1, "text");
    char datagram[256] = {};
    ASSERT_GT(recv(server, datagram, sizeof datagram - 1, 0), 0);
    EXPECT_EQ(std::string(datagram).substr(0, 4), "<31>");
    use("stderr");
    close(server);
    unlink("/dev/log");
}

TEST(LogSink, DoesNotWaitForAPipeThatNobodyReadsAndCountsWhatIsLost) {
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(mkfifo("/tmp/log.pipe", 0600), 0);
    const int reader = open("/tmp/log.pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    use("file:/tmp/log.pipe");
    ASSERT_GT(fcntl(reader, F_SETPIPE_SZ, 16384), 0);
    const auto start = support::Clock::now();
    for (int i = 0; i < 2000; i++)
        log_line(3, i, "a line of text that fills the pipe");
    EXPECT_LT(support::ms_since(start), 2000);
    std::string received;
    char buffer[32768];
    ssize_t count;
    while ((count = read(reader, buffer, sizeof buffer)) > 0)
        received.append(buffer, static_cast<size_t>(count));
    const auto complete = std::count(received.begin(), received.end(), '\n');
    EXPECT_EQ(received.back(), '\n');
    log_line(3, 9999, "again");
    count = read(reader, buffer, sizeof buffer);
    ASSERT_GT(count, 0);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(count)),
              "4 416 0 <LOG>: " + std::to_string(2000 - complete) + " messages were lost\n3 416 9999 again\n");
    close(reader);
    use("stderr");
}

TEST(LogSink, LosesLinesToAFullDiskWithoutHarm) {
    use("file:/dev/full");
    log_line(3, 1, "lost");
    log_line(3, 2, "lost");
    use("stderr");
    EXPECT_EQ(stderr_of([] { log_line(3, 3, "kept"); }), "3 416 3 kept\n");
}

TEST(LogLevels, AreOnePerFacility) {
    use("stderr");
    EXPECT_EQ(change_level(1, kModule, 6), 0);
    EXPECT_EQ(level_of(kModule), 6);
    EXPECT_EQ(level_of(kEventModule), 6);
    EXPECT_EQ(change_level(1, kEventModule, 3), 0);
    EXPECT_EQ(level_of(kModule), 3);
    EXPECT_EQ(level_of(kEventModule), 3);
    EXPECT_EQ(korvaLogInit(712, "vyr", 5), 0);
    EXPECT_EQ(level_of(kModule), 5);
    EXPECT_EQ(level_of(kEventModule), 5);
    EXPECT_EQ(HashCount(lgClientInfo.levels), 2U);
}

TEST(LogLevels, TakeEveryLevelAndNothingElse) {
    use("stderr");
    for (uint32_t level = 0; level <= 7; level++) {
        EXPECT_EQ(change_level(1, kModule, level), 0);
        EXPECT_EQ(level_of(kModule), static_cast<int>(level));
    }
    for (const uint32_t level : {8U, 1000U, 0x80000000U, static_cast<uint32_t>(-1)})
        EXPECT_EQ(change_level(1, kModule, level), -1);
    EXPECT_EQ(change_level(0, kModule, 3), -1);
    EXPECT_EQ(change_level(2, kModule, 3), -1);
    EXPECT_EQ(change_level(1, 417, 3), -1);
    EXPECT_EQ(korvaChangeLglvl(nullptr), -1);
    EXPECT_EQ(korvaLogInit(712, "vyr", 8), -1);
    EXPECT_EQ(korvaLogInit(712, "vyr", -1), -1);
    EXPECT_EQ(level_of(kModule), 7);
}

TEST(LogLevels, TellWhetherDebuggingIsOn) {
    EXPECT_EQ(change_level(1, kModule, 6), 0);
    EXPECT_EQ(isDbgLvlEnabled(400), 0);
    EXPECT_EQ(change_level(1, kModule, 7), 0);
    EXPECT_EQ(isDbgLvlEnabled(400), 1);
    EXPECT_EQ(isDbgLvlEnabled(401), 0);
    EXPECT_EQ(isDbgLvlEnabled(416), 0);
}

TEST(LogLevels, HoldForThePlatformsOwnMessagesToo) {
    use("stderr");
    EXPECT_EQ(change_level(1, kModule, 4), 0);
    EXPECT_EQ(stderr_of([] { platform_warning("shown %d", 1); }), "4 416 0 shown 1\n");
    EXPECT_EQ(stderr_of([] { platform_info("hidden"); }), "");
}

TEST(LogLevels, LeaveTheSharedBufferToTheDaemon) {
    use("stderr");
    strcpy(lgClientInfo.buffer, "the daemon's");
    EXPECT_EQ(stderr_of([] { platform_error("the platform's"); }), "3 416 0 the platform's\n");
    EXPECT_STREQ(lgClientInfo.buffer, "the daemon's");
}

TEST(LogNames, KnowTheFacility) {
    EXPECT_STREQ(syslog_facility_to_str(416), "network");
    EXPECT_STREQ(syslog_facility_to_str(448), "network");
    EXPECT_STREQ(syslog_facility_to_str(0), "");
    EXPECT_STREQ(syslog_facility_to_str(-1), "");
    EXPECT_EQ(log_str_to_facility("network"), 416);
    for (const char *unknown : {"", "networks", "Network", "net"})
        EXPECT_EQ(log_str_to_facility(unknown), 0);
    EXPECT_EQ(log_str_to_facility(nullptr), 0);
}

TEST(LogNames, KnowTheLevelWords) {
    const struct {
        const char *word;
        int level;
    } known[] = {{"emerg", 0}, {"alert", 1},   {"crit", 2},   {"err", 3},  {"error", 3},
                 {"warn", 4},  {"warning", 4}, {"notice", 5}, {"info", 6}, {"debug", 7}};
    for (const auto &each : known)
        EXPECT_EQ(syslog_level_str_to_id(each.word), each.level) << each.word;
    for (const char *unknown : {"", "3", "ERR", "errors", "debug ", "panic"})
        EXPECT_EQ(syslog_level_str_to_id(unknown), -1) << unknown;
    EXPECT_EQ(syslog_level_str_to_id(nullptr), -1);
}

}  // namespace
