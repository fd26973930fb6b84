/* Memory, descriptors and name servers that are not there when they are needed. */
#include <netdb.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>

#include "fixture.h"
#include "linux/dal/context.h"

namespace {

int allocations;
int failing_allocation; /**< counted from 1; 0 for none */

bool allocation_fails() {
    return ++allocations == failing_allocation;
}

int look_ups;
int failing_look_ups; /**< so many of the next ones */
bool two_addresses;   /**< of the host, at the first of which nobody listens */

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *memory, size_t size);
int __real_getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **list);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *memory, size_t size);
int __wrap_getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **list);

void *__wrap_malloc(size_t size) {
    return allocation_fails() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    return allocation_fails() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *memory, size_t size) {
    return allocation_fails() ? nullptr : __real_realloc(memory, size);
}

int __wrap_getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **list) {
    look_ups++;
    if (failing_look_ups > 0) {
        failing_look_ups--;
        return EAI_AGAIN;
    }
    if (!two_addresses)
        return __real_getaddrinfo(host, port, hints, list);
    const int error = __real_getaddrinfo("127.0.0.2", port, hints, list);
    return error ? error : __real_getaddrinfo("127.0.0.1", port, hints, &(*list)->ai_next);
}
}

namespace {

class DalMemory : public DalTest {
protected:
    void SetUp() override {
        DalTest::SetUp();
        redis("SET /a/1 one");
        redis("SET /a/2 two");
        redis("HSET /h f v g w");
    }

    void TearDown() override {
        failing_allocation = 0;
        DalTest::TearDown();
    }

    /** A day's work: every call, and a delivery. Returns whether all of it succeeded. */
    bool work() {
        open();
        if (!ctx)
            return false;
        bool done = subscribe("__keyspace@0__:/a/*") == 0 && subscribe("p") == 0;
        done = get("/a/1") == "one" && done;
        dal_hash_request request{};
        strcpy(request.key, "/h");
        done = dal_hgetall(ctx, &request) == 0 && done;
        dal_free_slist(request.kvlist);
        ListDestroy(request.kvlist);
        if (List *list = ListCreate()) {
            done = dal_mget_by_wildcard(ctx, "/a/*", list, &ctx) == 0 && ListCount(list) == 2 && done;
            dal_free_slist(list);
            ListDestroy(list);
        }
        done = dal_async_pub(ctx, "p", 1, "d", 1) == 0 && done;
        loop::drain();
        return done;
    }
};

TEST_F(DalMemory, ThatIsShortOnceAtAnyAllocationIsSurvived) {
    for (int failing = 1;; failing++) {
        delivered.clear();
        allocations = 0;
        failing_allocation = failing;
        work();
        failing_allocation = 0;
        if (allocations < failing) {
            EXPECT_GT(failing, 20) << "the allocations of the client are counted";
            return;
        }
        if (ctx) {
            ASSERT_TRUE(ctx->state == dal::State::up || run_until_back()) << failing;
            ASSERT_EQ(get("/a/2"), "two") << failing;
            ASSERT_EQ(subscribe("q"), 0) << failing;
            redis("PUBLISH q " + std::to_string(failing));
            ASSERT_TRUE(loop::run_until([failing] {
                return !delivered.empty() && delivered.back().data == std::to_string(failing);
            })) << failing;
        }
        close();
    }
}

/** Whatever memory was short for, nothing that was missed stays so for longer than the next comparisons. */
TEST_F(DalMemory, ThatIsShortOnceAtAnyAllocationLosesNoChange) {
    for (int failing = 1;; failing++) {
        redis.run({"CONFIG", "SET", "notify-keyspace-events", "KA"});
        redis("MSET /a/1 one /a/2 two");
        redis("DEL /a/3");
        open();
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(subscribe("__keyspace@0__:/a/*"), 0);
        delivered.clear();
        redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
        redis("MSET /a/2 other /a/3 three");
        redis("DEL /a/1");
        allocations = 0;
        failing_allocation = failing;
        dal_sub_ctx_chk(ctx);
        loop::run_until([this] { return ctx->state != dal::State::up || ctx->audit.phase == dal::AuditPhase::none; });
        loop::drain();
        failing_allocation = 0;
        const bool over = allocations < failing;
        ASSERT_TRUE(ctx->state == dal::State::up || run_until_back()) << failing;
        ASSERT_EQ(dal_sub_ctx_chk(ctx), 0) << failing;
        ASSERT_TRUE(run_until_delivered(3)) << failing;
        ASSERT_TRUE(run_until_compared());
        std::sort(delivered.begin(), delivered.end(),
                  [](const Delivered &left, const Delivered &right) { return left.channel < right.channel; });
        // what there was no memory to remember is delivered again
        delivered.erase(std::unique(delivered.begin(), delivered.end()), delivered.end());
        const auto each = [](const char *key, const char *event) {
            return Delivered{"a", "__keyspace@0__:/a/*", std::string("__keyspace@0__:") + key, event};
        };
        ASSERT_EQ(delivered, (std::vector<Delivered>{each("/a/1", "del"), each("/a/2", "set"), each("/a/3", "set")}))
            << failing;
        close();
        if (over) {
            EXPECT_GT(failing, 15) << "the allocations of the comparison are counted";
            return;
        }
    }
}

TEST_F(DalMemory, ThatIsShortOnceAtAnyAllocationOfASubscriptionCostsDeliveriesAndNoChange) {
    for (int failing = 1;; failing++) {
        redis.run({"CONFIG", "SET", "notify-keyspace-events", "KA"});
        redis("MSET /a/1 one /a/2 two");
        open();
        ASSERT_NE(ctx, nullptr);
        delivered.clear();
        allocations = 0;
        failing_allocation = failing;
        subscribe("__keyspace@0__:/a/*");
        failing_allocation = 0;
        const bool over = allocations < failing;
        ASSERT_TRUE(ctx->state == dal::State::up || run_until_back()) << failing;
        ASSERT_EQ(subscribe("__keyspace@0__:/a/*"), 0) << failing;
        redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
        redis("SET /a/2 other");
        ASSERT_EQ(dal_sub_ctx_chk(ctx), 0);
        ASSERT_TRUE(run_until_compared());
        size_t told = 0;
        for (const Delivered &each : delivered)
            told += each.channel == "__keyspace@0__:/a/2" && each.data == "set";
        EXPECT_EQ(told, 1U) << failing;
        close();
        if (over)
            return;
    }
}

class DalDescriptors : public DalTest {
protected:
    /** Lets no further descriptor be opened. */
    void exhaust() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none = {3, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    void relieve() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_{};
};

TEST_F(DalDescriptors, ThatAreExhaustedPutAComparisonOff) {
    open();
    ASSERT_EQ(subscribe("__keyspace@0__:k"), 0);
    redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
    redis("SET k v");
    exhaust();
    EXPECT_EQ(dal_sub_ctx_chk(ctx), 0);
    EXPECT_TRUE(run_until_compared());
    relieve();
    EXPECT_TRUE(loop::logged("4 <DAL>: the keys are not compared with what is known of them: Too many open files"));
    EXPECT_EQ(ctx->state, dal::State::up);
    loop::advance(10000);
    EXPECT_TRUE(run_until_delivered(1));
}

TEST_F(DalDescriptors, ThatAreExhaustedAreALossUntilThereAreSomeAgain) {
    open();
    ASSERT_EQ(subscribe("p"), 0);
    redis("SET k v");
    redis("CLIENT KILL TYPE pubsub");
    ASSERT_TRUE(run_until_lost());
    exhaust();
    loop::advance(10000);
    ASSERT_TRUE(loop::run_until([] { return loop::logged("Too many open files"); }));
    EXPECT_EQ(get("k"), "(failed)");
    relieve();
    ASSERT_TRUE(run_until_back());
    EXPECT_EQ(get("k"), "v");
    EXPECT_EQ(losses, 1);
}

class DalNames : public DalTest {
protected:
    void SetUp() override {
        loop::reset();
        redis.start({"--port", "7777", "--bind", "127.0.0.1"});
        look_ups = 0;
    }
    void TearDown() override {
        failing_look_ups = 0;
        two_addresses = false;
        DalTest::TearDown();
    }
    static constexpr char kUrl[] = "tcp://localhost:7777";
};

TEST_F(DalNames, AreLookedUpAtTheStartAndNotFromTheLoop) {
    open_at(kUrl);
    EXPECT_EQ(subscribe("x"), 0);
    const int at_start = look_ups;
    EXPECT_LE(at_start, 2) << "one for each kind of connection";
    EXPECT_EQ(dal_async_pub(ctx, "p", 1, "d", 1), 0);
    for (int i = 0; i < 3; i++) {
        redis("CLIENT KILL TYPE pubsub");
        ASSERT_TRUE(run_until_lost());
        ASSERT_TRUE(run_until_back());
    }
    EXPECT_EQ(look_ups, at_start);
}

TEST_F(DalNames, ThatWereNotFoundAtTheStartAreLookedUpAgain) {
    failing_look_ups = 2;
    open_at(kUrl);
    EXPECT_TRUE(
        loop::logged("3 <DAL>: cannot reach the server tcp://localhost:7777: Temporary failure in name "
                     "resolution; trying again"));
    ASSERT_TRUE(loop::run_until([] {
        loop::advance(10000);
        return failing_look_ups == 0;
    }));
    ASSERT_TRUE(run_until_back());
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
}

TEST_F(DalNames, OfSeveralAddressesAreTriedInTurn) {
    two_addresses = true;
    open_at(kUrl);
    ASSERT_TRUE(loop::run_until([this] {
        if (ctx->state == dal::State::lost)
            loop::advance(10000);
        return ctx->state == dal::State::up;
    }));
    EXPECT_EQ(dal_sync_ctx_chk(ctx), 0);
}

TEST_F(DalNames, LeadToConnectionsThatMissNoDeadPeerAndHoldNothingBack) {
    open_at(kUrl);
    for (const auto &[level, option] :
         {std::pair<int, int>(SOL_SOCKET, SO_KEEPALIVE), std::pair<int, int>(IPPROTO_TCP, TCP_NODELAY)}) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(ctx->subscriber.conn.fd, level, option, &value, &length), 0);
        EXPECT_NE(value, 0) << option;
    }
}

}  // namespace
