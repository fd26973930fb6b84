#include "linux/dal/login.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "fixture.h"
#include "linux/dal/context.h"

namespace {

constexpr char kFile[] = "/tmp/dal-auth";
constexpr char kPassword[] = "s3cret with blanks # and more";
constexpr char kUnreachable[] = "3 <DAL>: cannot reach the server unix:///tmp/redis.sock: ";
constexpr uid_t kSomebodyElse = 12345;

void write_file(const std::string &text, mode_t mode = 0600) {
    unlink(kFile);
    std::ofstream(kFile, std::ios::binary) << text;
    chmod(kFile, mode);
}

class DalLogin : public DalTest {
protected:
    void SetUp() override {
        loop::reset();
        setenv("DAL_AUTH_FILE", kFile, 1);
        write_file(std::string("user vyrwrap\npassword ") + kPassword + "\n");
    }

    void TearDown() override {
        unsetenv("DAL_AUTH_FILE");
        unlink(kFile);
        rmdir(kFile);
        DalTest::TearDown();
        EXPECT_FALSE(loop::logged("s3cret")) << "no password in the log";
    }

    /** With a user that may do everything, and a default user that may do nothing. */
    void start_guarded() {
        redis.start();
        redis.run({"ACL", "SETUSER", "vyrwrap", "on", std::string(">") + kPassword, "~*", "&*", "+@all"});
        redis("ACL SETUSER default resetpass >admin");
        redis("AUTH admin");
    }

    void expect_working() {
        EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
        EXPECT_EQ(subscribe("p"), 0);
        EXPECT_EQ(dal_async_pub(ctx, "p", 1, "d", 1), 0);
        EXPECT_TRUE(run_until_delivered(1));
    }

    /** What an attempt with this file fails with. */
    static std::string complaint_about(const std::string &text, mode_t mode = 0600) {
        write_file(text, mode);
        return complaint();
    }
    static std::string complaint() {
        dal::Link link = {};
        return dal::login_queue(&link) ? "(none)" : link.reason;
    }
};

TEST_F(DalLogin, IsMadeOnEveryLink) {
    start_guarded();
    open();
    expect_working();
    const std::string clients = redis("CLIENT LIST");
    size_t count = 0;
    for (size_t at = 0; (at = clients.find(" user=vyrwrap ", at)) != std::string::npos; at++)
        count++;
    EXPECT_EQ(count, 3U);
}

TEST_F(DalLogin, TakesAPasswordAlone) {
    redis.start({"--requirepass", kPassword});
    write_file(std::string("# of the default user\n\npassword ") + kPassword);
    open();
    expect_working();
}

TEST_F(DalLogin, IsNotMadeWithoutAFile) {
    redis.start();
    for (const char *name : {"", static_cast<const char *>(nullptr)}) {
        name ? setenv("DAL_AUTH_FILE", name, 1) : unsetenv("DAL_AUTH_FILE");
        open();
        expect_working();
        EXPECT_EQ(redis("ACL LOG"), "[]");
        close();
        delivered.clear();
    }
}

TEST_F(DalLogin, IsAskedForInOneLineWhereItIsMissing) {
    redis.start({"--requirepass", "x"});
    unsetenv("DAL_AUTH_FILE");
    open();
    EXPECT_EQ(loop::log_lines.back(), std::string(kUnreachable) + "NOAUTH Authentication required.; trying again");
}

TEST_F(DalLogin, ThatIsWrongIsOneLineAndTriedAgainUntilTheFileIsRight) {
    start_guarded();
    write_file("user vyrwrap\npassword wrong\n");
    open();
    for (int i = 0; i < 3; i++) {
        loop::advance(10000);
        loop::run_until([this] { return ctx->state == dal::State::lost; });
    }
    EXPECT_EQ(loop::log_count(std::string(kUnreachable) + "DAL_AUTH_FILE /tmp/dal-auth: the server refuses this user "
                                                          "and password (WRONGPASS); trying again"),
              1U);
    EXPECT_EQ(loop::log_count("3 "), 1U);
    write_file(std::string("user vyrwrap\npassword ") + kPassword + "\n");
    ASSERT_TRUE(run_until_back());
    expect_working();
    EXPECT_EQ(losses, 1);
}

TEST_F(DalLogin, FollowsAPasswordThatIsChangedWhileTheDaemonRuns) {
    start_guarded();
    open();
    expect_working();
    redis("ACL SETUSER vyrwrap resetpass >next");
    write_file("user vyrwrap\npassword next\n");
    redis("CLIENT KILL USER vyrwrap");
    ASSERT_TRUE(run_until_lost());
    ASSERT_TRUE(run_until_back());
    delivered.clear();
    expect_working();
}

TEST_F(DalLogin, RefusedToAReaderThatConnectsAgainIsALoss) {
    start_guarded();
    open();
    redis("ACL SETUSER vyrwrap resetpass >next");
    redis("CLIENT KILL TYPE normal");
    EXPECT_EQ(dal_sync_ctx_chk(ctx), -1);
    EXPECT_EQ(loop::log_lines.back(),
              "3 <DAL>: lost the server unix:///tmp/redis.sock: DAL_AUTH_FILE /tmp/dal-auth: "
              "the server refuses this user and password (WRONGPASS)");
}

TEST_F(DalLogin, IsNotRepeatedInTheLogByAServerThatDoesNotKnowIt) {
    redis.start({"--rename-command", "AUTH", ""});
    ASSERT_NE(redis("AUTH x s3cret").find("s3cret"), std::string::npos) << "this one repeats what it does not know";
    open();
    EXPECT_EQ(loop::log_lines.back(), std::string(kUnreachable) +
                                          "DAL_AUTH_FILE /tmp/dal-auth: the server refuses this "
                                          "user and password (ERR); trying again");
}

/** A server that takes what comes and says nothing. */
struct SilentServer {
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    SilentServer() {
        sockaddr_un where{};
        where.sun_family = AF_UNIX;
        strcpy(where.sun_path, "/tmp/redis.sock");
        unlink(where.sun_path);
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
        EXPECT_EQ(listen(listener, 8), 0);
    }
    ~SilentServer() { ::close(listener); }
    SilentServer(const SilentServer &) = delete;
    SilentServer &operator=(const SilentServer &) = delete;

    std::string next_client_said() const {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        char text[1024];
        const ssize_t length = read(fd, text, sizeof text);
        ::close(fd);
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }
};

TEST_F(DalLogin, GoesAheadOfEverythingWithoutAWaitOfItsOwn) {
    const SilentServer server;
    open_at(redis.url());
    const std::string expected =
        "*3\r\n$4\r\nAUTH\r\n$7\r\nvyrwrap\r\n$29\r\n" + std::string(kPassword) + "\r\n*1\r\n$4\r\nPING\r\n";
    EXPECT_EQ(server.next_client_said().substr(0, expected.size()), expected);
    EXPECT_EQ(server.next_client_said().substr(0, expected.size()), expected);
}

TEST_F(DalLogin, FileHasToHoldAPasswordAndNothingUnknown) {
    const std::string of_file = "DAL_AUTH_FILE /tmp/dal-auth: ";
    const std::string no_password = of_file + "it has no password";
    EXPECT_EQ(complaint_about(""), no_password);
    EXPECT_EQ(complaint_about("# password x\n\n"), no_password);
    EXPECT_EQ(complaint_about("user x\n"), no_password);
    const std::string neither = " is neither user NAME nor password TEXT";
    for (const char *line :
         {"passwords x", "password", "password ", "user", "user ", " password x", "Password x", "x:y"})
        EXPECT_EQ(complaint_about(std::string("# here\n") + line + "\npassword y\n"), of_file + "line 2" + neither);
    EXPECT_EQ(complaint_about(std::string("password x\0y\n", 13)), of_file + "it has a NUL in it");
    EXPECT_EQ(complaint_about("password " + std::string(4087, 'x')), of_file + "it is too long");
}

TEST_F(DalLogin, FileIsTheDaemonsAlone) {
    const std::string of_file = "DAL_AUTH_FILE /tmp/dal-auth: ";
    for (const mode_t mode : {0604U, 0602U, 0601U, 0620U, 0644U, 0666U})
        EXPECT_EQ(complaint_about("password x\n", mode), of_file + "others may read or change it") << mode;
    unlink(kFile);
    EXPECT_EQ(complaint(), of_file + "No such file or directory");
    ASSERT_EQ(mkdir(kFile, 0700), 0);
    EXPECT_EQ(complaint(), of_file + "it is no regular file");
    rmdir(kFile);
    ASSERT_EQ(mkfifo(kFile, 0600), 0);
    EXPECT_EQ(complaint(), of_file + "it is no regular file");
    write_file("password x\n");
    struct stat status = {};
    status.st_mode = S_IFREG | 0600;
    status.st_uid = kSomebodyElse;
    EXPECT_STREQ(dal::login_file_objection(status, 0), "it belongs to another user");
    EXPECT_STREQ(dal::login_file_objection(status, kSomebodyElse), nullptr);
    status.st_uid = 0;
    EXPECT_STREQ(dal::login_file_objection(status, kSomebodyElse), nullptr);
}

TEST_F(DalLogin, FileMayBeReadByItsGroupAndBeBehindALink) {
    start_guarded();
    write_file(std::string("password ") + kPassword + "\nuser vyrwrap", 0440);
    ASSERT_EQ(rename(kFile, "/tmp/dal-auth-itself"), 0);
    ASSERT_EQ(symlink("/tmp/dal-auth-itself", kFile), 0);
    open();
    expect_working();
}

TEST_F(DalLogin, LeavesNoDescriptorBehindWhateverTheFile) {
    const auto before = open_descriptors();
    complaint_about("");
    complaint_about("nonsense");
    complaint_about("password x", 0666);
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
