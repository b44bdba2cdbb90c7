// Diagnostic dumps requested by real-time signals 50 to 54.
//
//   50  DumpState                        event statistics (bpfservice_state.csv)
//   51  HandleDumpSignal                 task table, all columns
//   52  HandleNonKernelDumpSignal        task table, all columns, no kernel tasks
//   53  HandleDumpSignalNormal           task table, short columns
//   54  HandleNonKernelDumpSignalNormal  task table, short columns, no kernel tasks
//
// The handlers themselves do no work: formatting and file I/O are not
// async-signal-safe, and the registry's lock may be held by the very thread a
// signal interrupts. A handler marks its signal pending and wakes the thread
// "BpfServiceDump" through an eventfd; that thread writes the file. A signal
// that arrives while a dump is being written is not lost: every signal number
// that arrived is dumped at least once after its arrival. Several arrivals of
// the same number before the thread gets to it make one dump.
//
// Usage: InstallDumpSignalHandlers() at the start of each ring-buffer monitor.
// It is idempotent and thread-safe: the dump thread is started once, the
// handlers (SA_RESTART) are installed on every call. If the thread cannot be
// started the handlers are not installed (the default action of these
// signals would then still end the process, as before the call) and the
// failure is logged; a later call tries again.
#pragma once

#include <cstdint>

namespace Quor {
namespace Bpf {

constexpr int DUMP_SIGNAL_FIRST = 50;
constexpr int DUMP_SIGNAL_LAST = 54;

// Signal handlers; the signal number is ignored, each knows its own dump.
void DumpState(int);
void HandleDumpSignal(int);
void HandleNonKernelDumpSignal(int);
void HandleDumpSignalNormal(int);
void HandleNonKernelDumpSignalNormal(int);

void InstallDumpSignalHandlers();

// How far the dump thread has got with one signal number: `received` counts
// its arrivals, `dumped` is the value `received` had when the latest finished
// dump for it started. dumped == received means every arrival so far has been
// answered. False for a number outside 50..54.
struct DumpSignalProgress {
    uint64_t received = 0;
    uint64_t dumped = 0;
};
bool GetDumpSignalProgress(int signo, DumpSignalProgress* out);

}  // namespace Bpf
}  // namespace Quor
