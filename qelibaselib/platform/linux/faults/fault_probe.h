/// @file
/// Touching one byte that may not be there.
#pragma once

extern "C" {
/// 0 when the byte can be read; no signal handler of the host sees a failure. The thread must be prepared.
int fault_probe_read(const void* address) __attribute__((visibility("hidden")));
/// The same for writing; the byte keeps its value, also against other threads.
int fault_probe_write(void* address) __attribute__((visibility("hidden")));
// The two instructions that may fault, and where the thread goes on then.
extern char fault_probe_read_instruction[] __attribute__((visibility("hidden")));
extern char fault_probe_write_instruction[] __attribute__((visibility("hidden")));
extern char fault_probe_failed[] __attribute__((visibility("hidden")));
}
