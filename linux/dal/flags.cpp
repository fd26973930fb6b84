/* The server's notify-keyspace-events: what is missing for the notifications that the daemon lives on is added. */
#include <stdio.h>

#include "linux/dal/context.h"
#include "linux/platform_log.h"

namespace dal {

namespace {

constexpr char kName[] = "notify-keyspace-events";

/** K: by key; then the events of keys of any type, of strings, of hashes, of expiry and of eviction. */
constexpr char kNeeded[] = "Kg$hxe";
constexpr char kAllTypes = 'A'; /**< stands for all of kNeeded but K */

bool has_flag(const char *flags, char flag) {
    return strchr(flags, flag) || (flag != 'K' && strchr(flags, kAllTypes));
}

/** `flags` with what is missing behind it. Returns whether anything was. */
bool complete(const char *flags, char *completed, size_t size) {
    size_t length = static_cast<size_t>(snprintf(completed, size, "%s", flags));
    const size_t before = length;
    for (const char *flag = kNeeded; *flag; flag++)
        if (!has_flag(flags, *flag) && length + 1 < size)
            completed[length++] = *flag;
    if (length < size)
        completed[length] = '\0';
    return length > before;
}

bool set_flags(Link *link, const char *flags) {
    const Argument arguments[] = {argument("CONFIG"), argument("SET"), argument(kName), argument(flags)};
    platform_info("<DAL>: setting %s to %s", kName, flags);
    return link_send(link, Question::set_flags, nullptr, arguments);
}

constexpr char kNotKnown[] = "the server does not know them";

/** Goes on without: the server's owner may have set the flags, and may not. The same is said once in a connection. */
void warn(dal_ctx *ctx, const char *reason) {
    char kept[sizeof ctx->flags_refusal];
    snprintf(kept, sizeof kept, "%s", reason);
    if (strcmp(kept, ctx->flags_refusal) == 0)
        return;
    memcpy(ctx->flags_refusal, kept, sizeof kept);
    if (reason == kNotKnown)
        platform_warning("<DAL>: the server does not know %s: no key's change may be told", kName);
    else
        platform_warning("<DAL>: may not look after %s, which has to contain %s: %s", kName, kNeeded, reason);
}

void warn_if_refused(dal_ctx *ctx, const redisReply *reply) {
    if (reply->type == REDIS_REPLY_ERROR)
        warn(ctx, reply->str);
}

/** The flags in the answer to CONFIG GET; NULL when it has none. */
const char *flags_of(const redisReply *reply) {
    const bool has_flags =
        reply->type == REDIS_REPLY_ARRAY && reply->elements == 2 && reply->element[1]->type == REDIS_REPLY_STRING;
    return has_flags ? reply->element[1]->str : nullptr;
}

}  // namespace

bool flags_ask(Link *link) {
    const Argument arguments[] = {argument("CONFIG"), argument("GET"), argument(kName)};
    return link_send(link, Question::read_flags, nullptr, arguments);
}

void flags_read(Link *link, const redisReply *reply) {
    const char *flags = flags_of(reply);
    warn_if_refused(link->ctx, reply);
    if (!flags && reply->type != REDIS_REPLY_ERROR)
        warn(link->ctx, kNotKnown);
    char completed[64];
    if (!flags || !complete(flags, completed, sizeof completed))
        flags_finished(link);
    else if (!set_flags(link, completed))
        link->on_failed(link);
}

void flags_set(Link *link, const redisReply *reply) {
    warn_if_refused(link->ctx, reply);
    flags_finished(link);
}

}  // namespace dal
