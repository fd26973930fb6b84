/* What the files of the fakes need of each other. */
#pragma once

#include <stddef.h>
#include <sys/types.h>

/* The C library's own, which no test makes fail. */
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
pid_t __real_fork(void);
[[noreturn]] void __real__exit(int status);
}

namespace fake {

void reset_calls();
void reset_dal();

}  // namespace fake
