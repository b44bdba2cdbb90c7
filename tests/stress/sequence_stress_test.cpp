// Numbered records (a type no handler reads, the number where the timestamp
// would be) are injected into the real main ring buffer at a steady rate and
// followed to a library client: 63 clients that never read, whose queues
// overflow again and again, do not hold up its records, and their overflows
// are logged at a bounded rate.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quor/quorbpf_client.h"
#include "service/event_manager.h"
#include "tests/support/live_service.h"
#include "tests/support/raw_ipc_client.h"
#include "tests/support/record_injector.h"

using namespace Quor::Bpf;
using namespace quortest;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr int32_t kType = QUOR_EVENT_DMABUF_UPDATE;
constexpr uint32_t kSeqOffset = offsetof(quor_record_header, timestamp_ns);
std::string gStartError;
quor_test::RecordInjector* gInjector = nullptr;
uint64_t gNextSeq = 0;

}  // namespace

// Injects kPerMs numbered records every millisecond for `ms` milliseconds
// and measures the longest wait of `reader` between two of them, and the
// injecting thread's own longest interval (a busy machine delays it too).
struct Gaps {
    Clock::duration reader{0};
    Clock::duration injector{0};
};

double Ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

class GapReader {
public:
    explicit GapReader(uint64_t capacity)
        : arrivals_(new Clock::time_point[capacity]), capacity_(capacity) {}
    bool start() { return client_.connect(5000) && Subscribed(client_, kType); }

    Gaps run(int ms) {
        // 20000 records a second; a quarter of that in sanitized builds,
        // whose fan-out to the stalled clients could not keep up with it.
        constexpr uint32_t kPerMs = kSanitized ? 5 : 20;
        quor_dmabuf_update_record record = {};
        record.header.type = kType;
        record.pid = 4000000;
        arrived_.store(0);
        const uint64_t total = std::min<uint64_t>(uint64_t{kPerMs} * ms, capacity_);
        Gaps gaps;
        auto last = Clock::now();
        auto next = last;
        for (uint64_t sent = 0; sent < total; sent += kPerMs) {
            next += std::chrono::milliseconds(1);
            std::this_thread::sleep_until(next);
            EXPECT_EQ(gInjector->Inject(&record, sizeof(record), kPerMs, 0, kSeqOffset, gNextSeq),
                      0);
            gNextSeq += kPerMs;
            const auto now = Clock::now();
            gaps.injector = std::max(gaps.injector, now - last);
            last = now;
        }
        EXPECT_TRUE(WaitFor([&] { return arrived_.load() >= total; }, std::chrono::seconds(30)))
            << arrived_.load() << " of " << total << " records reached the reader";
        for (uint64_t i = 1; i < std::min<uint64_t>(arrived_.load(), total); ++i) {
            gaps.reader = std::max(gaps.reader, arrivals_[i] - arrivals_[i - 1]);
        }
        return gaps;
    }

private:
    std::unique_ptr<Clock::time_point[]> arrivals_;
    const uint64_t capacity_;
    std::atomic<uint64_t> arrived_{0};
    QuorBpfClient client_{[this](uint32_t type, const uint8_t*, size_t) {
        if (static_cast<int32_t>(type) != kType) return;
        // Acquire: a new run's reset of the count orders the previous run's
        // reads of the arrival times before this write.
        const uint64_t at = arrived_.load(std::memory_order_acquire);
        if (at < capacity_) arrivals_[at] = Clock::now();
        arrived_.store(at + 1, std::memory_order_release);
    }};
};

TEST(SequenceStressTest, SixtyThreeStalledClientsDoNotHoldUpAReader) {
    if (!gStartError.empty()) GTEST_SKIP() << gStartError;
    constexpr int kStalled = 63;
    constexpr int kMs = 3000;
    ASSERT_TRUE(
        WaitFor([] { return EventManager::GetInstance()->GetEventObservers(kType).empty(); },
                std::chrono::seconds(30)));
    GapReader reader(20 * kMs);
    ASSERT_TRUE(reader.start());
    const Gaps alone = reader.run(kMs / 2);

    std::vector<std::unique_ptr<RawIpcClient>> stalled;
    for (int i = 0; i < kStalled; ++i) {
        stalled.push_back(std::make_unique<RawIpcClient>("/mnt/bpfframework/quorbpfdispatcher"));
        ASSERT_EQ(stalled.back()->ask(1, 51, kType), 0) << "stalled client " << i;
    }
    const size_t overflowsBefore = ErrorLogCount(4);
    const auto measured = Clock::now();
    // Every stalled queue overflows five times a run. A busy machine delays
    // the injector and the reader by itself now and then; the stalled
    // clients' cost comes every time. So the best of three runs counts.
    Gaps beside;
    Clock::duration excess = Clock::duration::max();
    for (int run = 0; run < 3 && excess >= std::chrono::milliseconds(10); ++run) {
        const Gaps gaps = reader.run(kMs);
        const Clock::duration own = std::max(alone.reader, gaps.injector);
        const Clock::duration added = gaps.reader > own ? gaps.reader - own : Clock::duration(0);
        if (added < excess) {
            excess = added;
            beside = gaps;
        }
    }

    // Hundreds of overflows are reported, but not one record each: a few at
    // once, then one per 10 seconds.
    const size_t overflowRecords = ErrorLogCount(4) - overflowsBefore;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - measured).count();
    EXPECT_LE(overflowRecords, 4u + static_cast<size_t>(seconds) / 10);
    // The stalled clients add less than 10 ms to the reader's longest wait.
    // Where the reader alone waits longer, or in sanitized builds (a slower
    // fan-out), only a stall per overflow (tens of milliseconds) is caught.
    const bool quiet = alone.reader < std::chrono::milliseconds(10) && !kSanitized;
    EXPECT_LT(excess, std::chrono::milliseconds(quiet ? 10 : 50))
        << "the reader waited " << Ms(beside.reader) << " ms beside the stalled clients, "
        << Ms(alone.reader) << " ms alone";
    if (!quiet) printf("too busy or too slow a build to check the 10 ms bound\n");
    printf("longest gap %.2f ms alone, %.2f ms beside (injector %.2f / %.2f ms); %zu overflows\n",
           Ms(alone.reader), Ms(beside.reader), Ms(alone.injector), Ms(beside.injector),
           overflowRecords);
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    gStartError = StartLiveService();
    quor_test::RecordInjector injector;
    if (gStartError.empty()) {
        std::string error;
        if (!injector.Open(RINGBUF_MAP_PATHS[RINGBUF_MAIN], &error)) gStartError = error;
    }
    gInjector = &injector;
    const int result = RUN_ALL_TESTS();
    (void)StopBpfService();
    EndProcess(result);
}
