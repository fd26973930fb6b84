/*
 * What the platform's main calls, after it has done what dispatcher.h asks for.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** The whole life of the daemon. Returns its exit status: 0, or -1 when a configuration file cannot be written. */
int vyrwrap_main(void);

#ifdef __cplusplus
}
#endif
