#include "fakes/resources.h"

#include <dirent.h>
#include <malloc.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__)
// The compiler's header for this is not installed everywhere.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace fake {

size_t memory_in_use() {
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

size_t open_descriptors() {
    size_t count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder))
        count++;
    closedir(folder);
    return count;
}

}  // namespace fake
