#include "diag/quor_bpf_state.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "diag/quor_bpf_log.h"

namespace Quor {
namespace Bpf {

std::atomic<QuorBpfDataState*> QuorBpfDataState::instance{nullptr};

namespace {

// One slot per kernel type, then the poll counter.
constexpr int KERNEL_EVENT_TYPES = static_cast<int>(kQuorKernelEventCount);

std::mutex& InstanceLock() {
    static std::mutex lock;
    return lock;
}

int64_t SecondsSinceBoot() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

}  // namespace

QuorBpfDataState* QuorBpfDataState::GetInstance() {
    QuorBpfDataState* current = instance.load(std::memory_order_acquire);
    if (current != nullptr) return current;
    std::lock_guard<std::mutex> lock(InstanceLock());
    current = instance.load(std::memory_order_relaxed);
    if (current == nullptr) {
        current = new QuorBpfDataState();
        instance.store(current, std::memory_order_release);
    }
    return current;
}

QuorBpfDataState::QuorBpfDataState(SecondsClock clock)
    : clock_(clock != nullptr ? clock : SecondsSinceBoot), lastSecond(clock_()) {}

void QuorBpfDataState::RecordEvent(int32_t type, int32_t count) {
    // A negative type would address memory before the slot.
    if (type < 0 || type >= QUOR_STAT_SLOTS) return;
    std::lock_guard<std::mutex> lock(lock_);
    // Read under the lock so that the seconds seen by successive callers never
    // go backwards, whichever thread wins the lock.
    const int64_t now = clock_();
    if (now != lastSecond) advanceTo(now);
    uint32_t& counter = counts[head % HISTORY_SECONDS][type];
    counter += static_cast<uint32_t>(count);
}

void QuorBpfDataState::RecordEvents(Tally* tally) {
    if (!tally->any) return;
    {
        std::lock_guard<std::mutex> lock(lock_);
        const int64_t now = clock_();
        if (now != lastSecond) advanceTo(now);
        uint32_t* slot = counts[head % HISTORY_SECONDS];
        for (int type = 0; type < QUOR_STAT_SLOTS; ++type) slot[type] += tally->counts[type];
    }
    *tally = Tally();
}

void QuorBpfDataState::advanceTo(int64_t now) {
    const int64_t delta = now - lastSecond;
    lastSecond = now;
    // A clock that steps back keeps counting in the current slot: the running
    // index only grows.
    if (delta <= 0) return;
    const int64_t newHead = head + delta;
    if (newHead - tail > HISTORY_SECONDS - 1) tail = newHead - (HISTORY_SECONDS - 1);
    // Clearing more than the whole window would only repeat itself.
    const int64_t skipped = std::min(delta, HISTORY_SECONDS);
    for (int64_t i = 1; i <= skipped; ++i) {
        memset(counts[(head + i) % HISTORY_SECONDS], 0, sizeof(Slot));
    }
    head = newHead;
}

void QuorBpfDataState::DumpState() {
    // Copy under the lock, write without it: recording must not wait on I/O.
    auto window = std::make_unique<Slot[]>(HISTORY_SECONDS);
    int64_t first = 0;
    int64_t last = 0;
    {
        std::lock_guard<std::mutex> lock(lock_);
        first = head;
        last = tail;
        memcpy(window.get(), counts, sizeof(counts));
    }

    (void)mkdir(QUORTASK_DUMP_PATH, 0775);
    (void)remove(QUORTASK_DUMP_TEMPLATE);
    FILE* out = fopen(QUORTASK_DUMP_TEMPLATE, "we");
    if (out == nullptr) {
        QLOGE(QUOR_TAG_UTILS, "[QuorBpfDataState][DumpState] open file failed!");
        return;
    }
    (void)fputs("EventCount, ", out);
    for (int type = 0; type < KERNEL_EVENT_TYPES; ++type) {
        (void)fprintf(out, "%s, ", EventTypeName(type));
    }
    (void)fprintf(out, "%s, ", EventTypeName(QUOR_EVENT_POLL_COUNT));
    (void)fprintf(out, "%lld, %lld \r\n", static_cast<long long>(first),
                  static_cast<long long>(last));
    for (int64_t i = first; i >= last; --i) {
        const Slot& slot = window[i % HISTORY_SECONDS];
        uint32_t events = 0;
        for (int type = 0; type < KERNEL_EVENT_TYPES; ++type) events += slot[type];
        (void)fprintf(out, "%d, ", static_cast<int>(events));
        for (uint32_t counter : slot) (void)fprintf(out, "%d, ", static_cast<int>(counter));
        (void)fputs("\r\n", out);
    }
    (void)fclose(out);
}

}  // namespace Bpf
}  // namespace Quor
