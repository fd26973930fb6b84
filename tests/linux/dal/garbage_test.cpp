/* Servers that do not speak as they should. */
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fixture.h"
#include "linux/dal/context.h"

namespace {

/** Answers the n-th chunk that a connection sends with the n-th text, then with the last one; "" closes. */
class Script {
public:
    explicit Script(const std::vector<std::string> &answers) {
        unlink(kPath);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un where{};
        where.sun_family = AF_UNIX;
        strcpy(where.sun_path, kPath);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
        EXPECT_EQ(listen(listener_, 16), 0);
        pid_ = fork();
        if (pid_ == 0)
            serve(answers);
        ::close(listener_);
    }
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;
    ~Script() {
        ::kill(pid_, SIGKILL);
        while (waitpid(pid_, nullptr, 0) < 0)
            continue;
    }
    static constexpr char kPath[] = "/tmp/script.sock";

private:
    [[noreturn]] void serve(const std::vector<std::string> &answers) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGCHLD, SIG_IGN);
        for (;;) {
            const int connection = accept(listener_, nullptr, nullptr);
            if (fork() != 0) {
                ::close(connection);
                continue;
            }
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            char buffer[4096];
            for (size_t i = 0; read(connection, buffer, sizeof buffer) > 0; i++) {
                const std::string &answer = answers[std::min(i, answers.size() - 1)];
                if (answer.empty() || write(connection, answer.data(), answer.size()) < 0)
                    break;
            }
            _exit(0);
        }
    }
    int listener_;
    pid_t pid_;
};

class DalGarbage : public DalTest {
protected:
    void SetUp() override { loop::reset(); }
};

const char kPong[] = "+PONG\r\n";
const char kFlags[] = "*2\r\n$1\r\nx\r\n$2\r\nKA\r\n";

TEST_F(DalGarbage, InsteadOfAPongIsAServerNotReached) {
    for (const char *answer :
         {"garbage\r\n", "$-1\r\n", "*-1\r\n", "*0\r\n", ":1\r\n", "+\r\n", "-\r\n", "-ERR x\r\n",
          "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n:1\r\n", "$-5\r\n", "*2\r\n$-1\r\n$-1\r\n",
          "$99999999999999999999\r\n", "*4\r\n$-1\r\n$-1\r\n$-1\r\n$-1\r\n"}) {
        const Script script({answer});
        open_at(std::string("unix://") + Script::kPath);
        ASSERT_NE(ctx, nullptr);
        EXPECT_TRUE(loop::logged("3 <DAL>: cannot reach the server")) << answer;
        EXPECT_EQ(get("k"), "(failed)");
        close();
    }
}

TEST_F(DalGarbage, AnAnswerThatNobodyAskedForIsALoss) {
    const Script script({std::string(kPong) + kFlags + kPong});
    open_at(std::string("unix://") + Script::kPath, DAL_CTX_SUBSCRIBE);
    ASSERT_NE(ctx, nullptr);
    ASSERT_TRUE(loop::run_until([this] { return ctx->state == dal::State::lost; }));
    EXPECT_TRUE(loop::logged(": an answer to no question"));
}

TEST_F(DalGarbage, AFlagsAnswerOfTheWrongShapeIsLoggedAndTheServerUsed) {
    for (const char *answer : {"*0\r\n", "*2\r\n:1\r\n:2\r\n", "*1\r\n$1\r\nx\r\n"}) {
        const Script script({kPong, answer});
        open_at(std::string("unix://") + Script::kPath);
        EXPECT_TRUE(loop::logged("4 <DAL>: the server does not know notify-keyspace-events")) << answer;
        close();
    }
}

TEST_F(DalGarbage, AConfirmationOfAnotherPatternIsARefusal) {
    const Script script({kPong, kFlags, "*3\r\n$10\r\npsubscribe\r\n$1\r\ny\r\n:1\r\n"});
    open_at(std::string("unix://") + Script::kPath, DAL_CTX_SUBSCRIBE);
    EXPECT_EQ(subscribe("x"), -1);
    EXPECT_TRUE(loop::logged("the subscription to x was refused: an answer of the wrong kind"));
}

TEST_F(DalGarbage, MessagesOfOtherShapesReachNoCallback) {
    const std::string confirmed = "*3\r\n$10\r\npsubscribe\r\n$1\r\nx\r\n:1\r\n";
    for (const char *message : {"*-1\r\n", "$-1\r\n", "*4\r\n$8\r\npmessage\r\n$1\r\nx\r\n$1\r\nx\r\n$-1\r\n", "*0\r\n",
                                "*4\r\n$8\r\npmessage\r\n$1\r\nz\r\n$1\r\nx\r\n$1\r\nd\r\n",
                                "*3\r\n$7\r\nmessage\r\n$1\r\nx\r\n$1\r\nd\r\n"}) {
        const Script script({kPong, kFlags, confirmed + message});
        open_at(std::string("unix://") + Script::kPath, DAL_CTX_SUBSCRIBE);
        subscribe("x");
        loop::drain();
        EXPECT_TRUE(delivered.empty()) << message;
        close();
    }
}

TEST_F(DalGarbage, InsteadOfAValueFailsTheReadOnly) {
    for (const char *answer : {":5\r\n", "*0\r\n", "+x\r\n", "*2\r\n$1\r\n0\r\n:7\r\n", "*2\r\n:0\r\n*0\r\n"}) {
        const Script script({kPong, answer});
        open_at(std::string("unix://") + Script::kPath, DAL_CTX_SYNC);
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
    open_at(std::string("unix://") + Script::kPath, DAL_CTX_SYNC);
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_EQ(ctx->state, dal::State::lost);
}

TEST_F(DalGarbage, AnAnswerThatTricklesIsBoundedAsAWhole) {
    const Script script({kPong, "$100\r\na"});
    open_at(std::string("unix://") + Script::kPath, DAL_CTX_SYNC);
    const int64_t begin = dal::now_ms();
    EXPECT_EQ(get("k"), "(failed)");
    EXPECT_LT(dal::now_ms() - begin, 2500);
    EXPECT_TRUE(loop::logged("no answer"));
}

}  // namespace
