// QuorBpfDataState: per-second counts of the events the service handled.
//
// Keeps the last 1800 seconds (30 minutes) of counts: for every second, how
// many records of each kernel event type (0..7 today; one slot per type of the
// list in quor/quor_bpf_records.h) were handled and how many times the ring
// buffers were polled (the last slot, QUOR_EVENT_POLL_COUNT). Seconds without
// events get zeroed slots of their own, so a slot's running index equals
// seconds elapsed since construction. DumpState() writes the window to
// bpfservice_state.csv, newest second first.
//
// Usage: QuorBpfDataState::GetInstance()->RecordEvent(type, 1) for every
// record, RecordEvent(QUOR_EVENT_POLL_COUNT, 1) for every poll; DumpState()
// on request. A reader that handles records in rounds counts a round's in a
// Tally and hands it over with RecordEvents once per round: one lock and one
// clock reading per round instead of per record.
//
// Threading: RecordEvent and DumpState may run on any threads at once. A
// small mutex guards the window; RecordEvent holds it for a few instructions
// (plus one clear per skipped second, at most 1800), DumpState only while it
// copies the window, not while writing the file.
//
// File format (lines ended by "\r\n"):
//   EventCount, quor_task_init, ..., dmabuf_update, PollCount, <head>, <tail> \r\n
//   then one row per second from head down to tail:
//   <sum of types 0..7>, <type 0>, ..., <type 7>, <polls>, \r\n
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "diag/quor_bpf_event_names.h"
#include "diag/quor_bpf_time.h"

namespace Quor {
namespace Bpf {

class QuorBpfDataState {
public:
    using SecondsClock = int64_t (*)();

    static QuorBpfDataState* GetInstance();

    // The service uses GetInstance(); a separate instance with its own clock
    // exists for tests that need to move time. The default clock is seconds
    // since boot, without the time base: the base is set at start-up, maybe
    // after a dump signal created the instance, and must not move the slots.
    explicit QuorBpfDataState(SecondsClock clock = nullptr);
    QuorBpfDataState(const QuorBpfDataState&) = delete;
    QuorBpfDataState& operator=(const QuorBpfDataState&) = delete;

    // Adds `count` (wrapping) to slot `type` (below QUOR_STAT_SLOTS) of the
    // current second; any other type is ignored.
    void RecordEvent(int32_t type, int32_t count);

    // Counts per slot, gathered by one thread between two RecordEvents.
    struct Tally {
        uint32_t counts[QUOR_STAT_SLOTS] = {};
        bool any = false;
        void add(uint32_t type) {
            if (type >= QUOR_STAT_SLOTS) return;
            counts[type] += 1;
            any = true;
        }
    };
    // Adds the tally to the current second and empties it.
    void RecordEvents(Tally* tally);
    // Writes QUORTASK_DUMP_TEMPLATE; logs and gives up if it cannot be opened.
    void DumpState();

    static constexpr int64_t HISTORY_SECONDS = 1800;
    static constexpr const char* QUORTASK_DUMP_PATH = "/data/quorlog/stability/quorbpfframework";
    static constexpr const char* QUORTASK_DUMP_TEMPLATE =
        "/data/quorlog/stability/quorbpfframework/bpfservice_state.csv";

private:
    using Slot = uint32_t[QUOR_STAT_SLOTS];

    // Moves head to the second `now`, clearing the slots it passes.
    void advanceTo(int64_t now);

    const SecondsClock clock_;
    std::mutex lock_;
    int64_t lastSecond;                 // second of the latest recorded event
    int64_t head = 0;                   // running index of the current second; only grows
    int64_t tail = 0;                   // running index of the oldest second kept
    Slot counts[HISTORY_SECONDS] = {};  // running index i lives in i % 1800

    static std::atomic<QuorBpfDataState*> instance;
};

}  // namespace Bpf
}  // namespace Quor
