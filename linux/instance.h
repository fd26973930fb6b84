/*
 * One instance a machine: two would write the same files.
 */
#pragma once

/** Status of a process that ends because another instance runs; no other end of the daemon has it. */
inline constexpr int kOtherInstanceStatus = 69;

/**
 * Takes the lock that says that this process is the instance. It stands in /tmp, beside the files that it protects: who
 * shares these shares it. The kernel gives it up with the process, however that ends; children do not inherit it.
 *
 * @return 0 with the lock held; -1 when another instance holds it, or may hold it, with one line in the log. Where
 *         there can be no lock at all (a full /tmp) a warning is logged and 0 returned: the files' own errors follow.
 */
[[nodiscard]] int claim_instance();
