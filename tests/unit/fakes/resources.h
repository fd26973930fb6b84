/* What a long run must not use more and more of. */
#pragma once

#include <stddef.h>

namespace fake {

size_t memory_in_use(); /**< bytes */
size_t open_descriptors();

}  // namespace fake
