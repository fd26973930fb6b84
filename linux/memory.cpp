#include "linux/memory.h"

#include <malloc.h>

/*
 * An export takes two blocks of up to 1 MiB. Given back to the system after each one, they come page by page the next
 * time, which takes longer than the export itself. Where addresses are short memory is too: there they are given back,
 * and the C library is told so, because it would keep more once it has seen a large block.
 */
void choose_memory_kept() {
#ifdef __GLIBC__  // others have no such thresholds
    constexpr int kMostKept = sizeof(void *) > 4 ? 4 * 1024 * 1024 : 128 * 1024;
    mallopt(M_MMAP_THRESHOLD, kMostKept);
    mallopt(M_TRIM_THRESHOLD, kMostKept);
#endif
}

size_t memory_in_use_kib() {
#ifdef __GLIBC__
#if __GLIBC_PREREQ(2, 33)
    const struct mallinfo2 memory = mallinfo2();
    return (memory.uordblks + memory.hblkhd) / 1024;
#endif
#endif
    return 0;
}
