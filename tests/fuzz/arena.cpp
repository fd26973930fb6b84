/*
 * Memory of one execution, never given out twice in it. The sanitizer sees what goes beyond an allocation, or comes
 * after its end, as it does with its own allocator, which takes a third of an execution's time.
 */
#include <algorithm>

#include "tests/fuzz/platform.h"

// The sanitizer's, where it is there.
extern "C" void __asan_poison_memory_region(const volatile void *memory, size_t size) __attribute__((weak));
extern "C" void __asan_unpoison_memory_region(const volatile void *memory, size_t size) __attribute__((weak));

namespace fuzz {

namespace {

constexpr size_t kAlignment = 16;
constexpr size_t kSize = 4 << 20;
constexpr size_t kZoneMost = 2048;

alignas(kAlignment) uint8_t arena[kSize];
size_t taken = kSize; /**< of the arena, poisoned or not */
bool in_use;

}  // namespace

void begin_arena(bool use) {
    in_use = use && __asan_poison_memory_region;
    if (!in_use)
        return;
    poison(arena, taken);
    taken = kAlignment;
}

void *take_from_arena(size_t size) {
    const size_t zone = std::clamp(size / 8, kAlignment, kZoneMost);
    if (!in_use || size > kSize || size + zone > kSize - kAlignment - taken)
        return nullptr;
    uint8_t *memory = arena + taken;
    taken += (size + zone + kAlignment - 1) / kAlignment * kAlignment;
    unpoison(memory, size);
    return memory;
}

bool is_of_arena(const void *memory) {
    return memory >= arena && memory < arena + kSize;
}

void poison(const void *memory, size_t size) {
    if (__asan_poison_memory_region)
        __asan_poison_memory_region(memory, size);
}

void unpoison(const void *memory, size_t size) {
    if (__asan_unpoison_memory_region)
        __asan_unpoison_memory_region(memory, size);
}

}  // namespace fuzz
