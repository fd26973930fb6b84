#include "staticroute/kept_text.h"

#include <string.h>

namespace {

struct KeptRoute {
    size_t length;                        /**< of text; 0 when nothing was kept */
    uint8_t plain[kStaticRoutePlainSize]; /**< of the entry that was rendered */
    char text[160];
};

KeptRoute kept_routes[kMaxStaticRoutes];

}  // namespace

bool route_text_can_be_kept(const StaticRouteEntry *entry, uint8_t filter_mode) {
    for (const uint32_t flags : entry->flags)
        if (flags & (NEXT_HOP_CLUSTER | NEXT_HOP_IPSEC))
            return false;
    return filter_mode == 0;
}

std::string_view kept_route_text(size_t index, const StaticRouteEntry *entry) {
    const KeptRoute &kept = kept_routes[index];
    if (kept.length == 0 || memcmp(kept.plain, entry, sizeof kept.plain) != 0)
        return {};
    return {kept.text, kept.length};
}

void keep_route_text(size_t index, const StaticRouteEntry *entry, std::string_view text) {
    KeptRoute &kept = kept_routes[index];
    if (text.empty() || text.size() > sizeof kept.text)
        return;
    memcpy(kept.plain, entry, sizeof kept.plain);
    memcpy(kept.text, text.data(), text.size());
    kept.length = text.size();
}
