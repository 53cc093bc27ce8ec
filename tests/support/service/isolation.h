#pragma once

namespace tarn::test {

// Runs `test_main` with mounts, network, process ids and a /tmp of its own, where this user may
// make such: FIFO names and ports are global, and whatever a test leaves behind ends with it.
// Elsewhere runs it in place, one such program at a time. Ends the program with its exit status,
// which is not 0 when `test_main` has left a process or a volume behind.
[[noreturn]] void RunIsolated(int (*test_main)(int count, char** texts), int count, char** texts);

}  // namespace tarn::test
