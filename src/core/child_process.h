/*
 * What a child process sets right between fork and exec.
 */
#pragma once

/**
 * Default dispositions but for `ignored_signal` (0 for none), an empty signal mask, and /dev/null on each of 0, 1 and 2
 * that would be closed behind exec.
 */
void prepare_child_process(int ignored_signal);
