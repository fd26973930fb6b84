/*
 * When a comparison is not to be believed.
 */
#pragma once

#include <hiredis/hiredis.h>
#include <stdint.h>

namespace dal {

/** Between the comparison that finds every key of a pattern gone and the one that has to agree. */
constexpr uint32_t kSuspectMs = 10000;

/** Why a server that answers INFO so is not to be compared; NULL when it is. */
const char *guard_objection(const redisReply *info);

}  // namespace dal
