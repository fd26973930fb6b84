/* Changes, losses and comparisons in random order: in the end every subscriber has seen what the store holds. */
#include <map>
#include <random>

#include "linux/dal/context.h"
#include "resync_fixture.h"

namespace {

/** How a subscriber gets at a value: by the client, past it, or the one or the other. */
enum class Reads { by_client, past_it, at_random };

struct Subscriber {
    Reads reads;
    Redis *redis;
    std::mt19937 *random;
    std::map<std::string, std::string> seen;
    size_t deliveries;
};

std::string read_by_client(dal_ctx *ctx, const std::string &key, bool is_hash) {
    if (!is_hash) {
        char value[64];
        uint32_t length = sizeof value;
        const bool read = dal_get(ctx, key.c_str(), static_cast<uint32_t>(key.size()), value, &length) == 0;
        return read ? std::string(value, length) : "";
    }
    dal_hash_request request{};
    snprintf(request.key, sizeof request.key, "%s", key.c_str());
    std::string text;
    if (dal_hgetall(ctx, &request) == 0 && request.kvlist) {
        ListGet(request.kvlist, LIST_REWIND);
        while (const auto *field = static_cast<const dal_kv *>(ListGet(request.kvlist, LIST_NEXT)))
            text = std::string(field->key, field->key_len) + "=" + std::string(field->value, field->value_len);
        dal_free_slist(request.kvlist);
        ListDestroy(request.kvlist);
    }
    return text;
}

std::string read_past_client(Redis &redis, const std::string &key, bool is_hash) {
    const std::string value = is_hash ? redis("HGET " + key + " f") : redis("GET " + key);
    if (value == "(nil)" || value.starts_with("(error)"))
        return "";
    return is_hash ? "f=" + value : value;
}

void follow_value(dal_ctx *ctx, const dal_reply *reply, void *arg) {
    auto *subscriber = static_cast<Subscriber *>(arg);
    const std::string key = reply->element[2]->str + strlen("__keyspace@0__:");
    const std::string event = reply->element[3]->str;
    subscriber->deliveries++;
    const int type = dal_keyspace_notify_type(event.c_str());
    if (type == DAL_NOTIFY_DEL)
        subscriber->seen.erase(key);
    if (type != DAL_NOTIFY_SET && type != DAL_NOTIFY_CHANGE && type != DAL_NOTIFY_HSET && type != DAL_NOTIFY_HDEL)
        return;
    const bool is_hash = type == DAL_NOTIFY_HSET || type == DAL_NOTIFY_HDEL;
    const bool by_client =
        subscriber->reads == Reads::by_client || (subscriber->reads == Reads::at_random && (*subscriber->random)() % 2);
    const std::string value =
        by_client ? read_by_client(ctx, key, is_hash) : read_past_client(*subscriber->redis, key, is_hash);
    if (value.empty())
        subscriber->seen.erase(key);
    else
        subscriber->seen[key] = value;
}

class DalRandom : public DalResync {
protected:
    unsigned below(unsigned end) { return static_cast<unsigned>(random()) % end; }
    std::string key() {
        return "/" + std::string(1, static_cast<char>('a' + below(2))) + "/" + std::to_string(below(6));
    }
    std::string value() { return "v" + std::to_string(below(3)); }

    void write() {
        switch (below(12)) {
            case 0:
                redis("DEL " + key());
                break;
            case 1:
                redis("RENAME " + key() + " " + key());
                break;
            case 2:
                redis("HSET " + key() + " f " + value());
                break;
            case 3:
                redis("EXPIRE " + key() + " 1000");
                break;
            case 4:
                redis("APPEND " + key() + " x");
                break;
            case 5:
                redis("HDEL " + key() + " f");
                break;
            case 6:
                redis("COPY " + key() + " " + key() + " REPLACE");
                break;
            case 7:
                redis("PEXPIRE " + key() + " 1");
                break;
            case 8:
                redis("DEL " + key() + " " + key() + " " + key());
                break;
            default:
                redis("SET " + key() + " " + value());
        }
    }

    void disturb() {
        switch (below(12)) {
            case 0:
                redis.run({"CONFIG", "SET", "notify-keyspace-events", ""});
                break;
            case 1:
                redis("FLUSHALL");
                break;
            case 2:
                redis("CLIENT KILL TYPE pubsub");
                break;
            case 3:
                redis("CLIENT KILL TYPE normal");
                break;
            case 4:
                redis("SWAPDB 0 1");
                break;
            case 5:
                loop::advance(10000);
                break;
            case 6:
                loop::advance(1000);
                break;
            default:
                dal_sub_ctx_chk(ctx);
        }
    }

    void turn(int ms) {
        loop::run_until([] { return false; }, ms);
    }

    void settle() {
        for (int i = 0; i < 8; i++) {
            loop::advance(10000);
            // A loss of the last turn may be seen only now, and the next attempt then waits for the clock.
            if (!loop::run_until([this] { return ctx->state == dal::State::up && dal_sub_ctx_chk(ctx) == 0; }, 200))
                continue;
            ASSERT_TRUE(run_until_compared());
        }
    }

    std::map<std::string, std::string> stored() {
        std::map<std::string, std::string> found;
        for (const char *prefix : {"/a/", "/b/"})
            for (int i = 0; i < 6; i++) {
                const std::string name = prefix + std::to_string(i);
                const std::string type = redis("TYPE " + name);
                if (type != "none")
                    found[name] = read_past_client(redis, name, type == "hash");
            }
        return found;
    }

    void check(const Subscriber &subscriber, const std::string &prefix) {
        std::map<std::string, std::string> wanted = stored();
        std::erase_if(wanted, [&](const auto &each) { return !each.first.starts_with(prefix); });
        EXPECT_EQ(subscriber.seen, wanted) << prefix << " reads " << static_cast<int>(subscriber.reads);
    }

    std::mt19937 random;
};

TEST_F(DalRandom, NoOrderOfChangesAndFaultsLosesOne) {
    const char *rounds = getenv("DAL_ROUNDS");
    const char *start = getenv("DAL_SEED");
    const unsigned first = start ? static_cast<unsigned>(atoi(start)) : 1;
    const unsigned end = first + (rounds ? static_cast<unsigned>(atoi(rounds)) : 10);
    for (unsigned seed = first; seed < end && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        random.seed(seed);
        open();
        Subscriber all{Reads::by_client, &redis, &random, {}, 0};
        Subscriber some{static_cast<Reads>(below(3)), &redis, &random, {}, 0};
        all.reads = static_cast<Reads>(below(3));
        redis("FLUSHALL");
        redis("CONFIG SET notify-keyspace-events KA");
        ASSERT_EQ(dal_sub_command(ctx, follow_value, &all, "PSUBSCRIBE __keyspace@0__:/*"), 0);
        ASSERT_EQ(dal_sub_command(ctx, follow_value, &some, "PSUBSCRIBE __keyspace@0__:/a/*"), 0);
        for (int i = 0; i < 60; i++) {
            for (unsigned writes = below(4); writes > 0; writes--)
                write();
            if (below(3) == 0)
                disturb();
            if (below(2) == 0)
                turn(static_cast<int>(below(4)));
        }
        settle();
        check(all, "/");
        check(some, "/a/");
        const size_t before = all.deliveries + some.deliveries;
        dal_sub_ctx_chk(ctx);
        ASSERT_TRUE(run_until_compared());
        EXPECT_EQ(all.deliveries + some.deliveries, before) << "nothing has changed";
        close();
    }
}

}  // namespace
