/*
 * What it costs to know the keys of a pattern and to compare them with what is there. Prints one line a figure;
 * bench.py starts it with DAL_URL and the number of keys.
 */
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "bench/support.h"
#include "core/dal_adapter.h"
#include "linux/dal/context.h"
#include "loop.h"

namespace {

constexpr int kHashesIn = 10; /**< every tenth key is a hash of so many fields */
constexpr int kFields = 13;
constexpr int kRounds = 15;
constexpr size_t kBigValue = 100000;
constexpr int kHugeValues = 4;
constexpr size_t kHugeValue = 15 << 20;
constexpr int kManyFields = 100000;
constexpr char kCommand[] = "PSUBSCRIBE __keyspace@0__:/op/*";

dal_ctx *ctx;
redisContext *server;
int delivered;

void count(dal_ctx *, const dal_reply *, void *) {
    delivered++;
}

void settle(int commands) {
    for (int i = 0; i < commands; i++)
        next_reply(server);
}

/** From here on the client is told of no change. */
void silence() {
    command(server, "CONFIG SET notify-keyspace-events %s", "");
}

/** Gives every key a value in which `round` can be seen, behind the client's back. */
void fill(int keys, int round) {
    silence();
    for (int i = 0; i < keys; i++) {
        if (i % kHashesIn != 0) {
            redisAppendCommand(server, "SET /op/staticroute/{10.%d.%d.0:255.255.255.0:1:192.168.10.2} %d", i / 256,
                               i % 256, round);
            continue;
        }
        std::string text = "HSET /op/tunnel/tunnel_number_" + std::to_string(i);
        for (int field = 0; field < kFields; field++)
            text += " field_" + std::to_string(field) + " value_" + std::to_string(field * round);
        redisAppendCommand(server, text.c_str());
    }
    settle(keys);
}

void fill_values(const char *kind, int keys, const std::string &value) {
    silence();
    for (int i = 0; i < keys; i++)
        redisAppendCommand(server, "SET /op/%s/%d %b", kind, i, value.data(), value.size());
    settle(keys);
}

void fill_hash() {
    silence();
    for (int field = 0; field < kManyFields; field++)
        redisAppendCommand(server, "HSET /op/hash field_%d value_%d", field, field);
    settle(kManyFields);
}

void open_context() {
    dal_evloop_ctx *evloop =
        dal_evloop_ctx_init(loop::reset(), vyrwrap_dal_add_read, vyrwrap_dal_delete_read, vyrwrap_dal_add_write,
                            vyrwrap_dal_delete_write, redisDispatcherCleanup, vyrwrap_dal_attach, nullptr, nullptr);
    ctx = dal_ctx_init(DAL_CTX_SYNC | DAL_CTX_SUBSCRIBE | DAL_CTX_PUBLISH, nullptr, nullptr, nullptr, nullptr, evloop);
}

int64_t monotonic_us() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

double ms_since(int64_t begin) {
    return static_cast<double>(monotonic_us() - begin) / 1000;
}

/** The subscription, which reads what stands. */
void subscribe_and_print(int keys) {
    open_context();
    const size_t before = mallinfo2().uordblks;
    const int64_t begin = monotonic_us();
    if (dal_sub_command(ctx, count, nullptr, kCommand) != 0)
        die("dal_sub_command");
    const double ms = ms_since(begin);
    const size_t bytes = mallinfo2().uordblks - before;
    printf("subscription that reads %d keys: %.1f ms\n", keys, ms);
    printf("memory: %zu KiB, %zu bytes a key\n", bytes / 1024, bytes / static_cast<size_t>(keys));
}

/** Comparisons, each to its last delivery, of which there are that many; prints the slowest of `rounds`. */
void compare_and_print(const char *what, int deliveries, int rounds = 1) {
    double slowest_ms = 0;
    loop::longest_us = 0;
    const auto over = [] {
        return ctx->audit.phase == dal::AuditPhase::none && !ctx->audit.wanted && !ctx->waiting.first;
    };
    for (int round = 0; round < rounds; round++) {
        delivered = 0;
        const int64_t begin = monotonic_us();
        if (dal_sub_ctx_chk(ctx) != 0 || !loop::run_until(over, 60000) || delivered != deliveries)
            die(what);
        slowest_ms = std::max(slowest_ms, ms_since(begin));
    }
    printf("%s: %.1f ms, loop held for %.2f ms at most, %d deliveries\n", what, slowest_ms,
           static_cast<double>(loop::longest_us) / 1000, deliveries);
}

}  // namespace

int main(int argc, char **argv) {
    const char *url = getenv("DAL_URL");
    const int keys = argc > 1 ? atoi(argv[1]) : 0;
    if (keys < kHashesIn || !url || strncmp(url, "unix://", strlen("unix://")) != 0) {
        fputs("usage: DAL_URL=unix:///path resync KEYS\n", stderr);
        return 2;
    }
    server = connect_dal(url + strlen("unix://"));
    fill(keys, 0);
    subscribe_and_print(keys);
    compare_and_print("comparison that finds nothing, slowest of 15", 0, kRounds);
    fill(keys, 1);
    compare_and_print("comparison that finds every key changed", keys);
    fill_values("big", keys / 10, std::string(kBigValue, 'x'));
    compare_and_print("comparison that finds values of 100 kB, a tenth as many", keys / 10);
    compare_and_print("comparison over these that finds nothing", 0);
    fill_values("huge", kHugeValues, std::string(kHugeValue, 'x'));
    compare_and_print("comparison that finds 4 values of 15 MiB", kHugeValues);
    compare_and_print("comparison over these that finds nothing, slowest of 15", 0, kRounds);
    silence();
    command(server, "DEL /op/huge/0 /op/huge/1 /op/huge/2 /op/huge/3");
    compare_and_print("comparison that finds these gone", kHugeValues);
    fill_hash();
    compare_and_print("comparison that finds a hash of 100,000 fields", 1);
    compare_and_print("comparison over it that finds nothing, slowest of 15", 0, kRounds);
    dal::context_free(ctx);
    return 0;
}
