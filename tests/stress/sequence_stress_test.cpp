// What the service promises about delivery, checked record by record: records
// carrying a running sequence number are written into the real main ring
// buffer by the injector programme and followed to library clients.
//
//   below capacity  every client gets every record once, in order;
//   above capacity  a client that falls behind loses records only by the
//                   queue rule (more than 10000 queued: the oldest are dropped
//                   until 5000 remain), and each such drop is in the error log;
//   never reading   a client that never reads holds a bounded queue and the
//                   others keep receiving everything at their rate.
//
// The records are of type 7, which no handler interprets; the sequence number
// sits where the timestamp would be.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
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

constexpr int32_t kType = QUOR_EVENT_DMABUF_UPDATE;
constexpr size_t kRecordSize = sizeof(quor_dmabuf_update_record);
constexpr uint32_t kSeqOffset = offsetof(quor_record_header, timestamp_ns);
// A batch fits the 1 MiB ring buffer many times over and stays far below a
// client queue's 10000 packages.
constexpr uint32_t kBatch = 2000;
constexpr uint64_t kDropBlock =
    IpcPackageManager::QUEUE_HIGH_WATER + 1 - IpcPackageManager::QUEUE_LOW_WATER;

std::string gStartError;
quor_test::RecordInjector* gInjector = nullptr;
uint64_t gNextSeq = 0;

struct Subscriber {
    SequenceLog log{kType, kRecordSize, kSeqOffset};
    std::unique_ptr<QuorBpfClient> client;
    std::atomic<int> delayUs{0};
};

std::unique_ptr<Subscriber> Subscribe(int delayUs = 0) {
    auto sub = std::make_unique<Subscriber>();
    sub->delayUs.store(delayUs);
    Subscriber* raw = sub.get();
    sub->client =
        std::make_unique<QuorBpfClient>([raw](uint32_t type, const uint8_t* data, size_t len) {
            raw->log.add(type, data, len);
            const int delay = raw->delayUs.load();
            if (delay > 0) std::this_thread::sleep_for(std::chrono::microseconds(delay));
        });
    if (!sub->client->connect(5000)) return nullptr;
    std::promise<int32_t> answer;
    auto future = answer.get_future();
    if (!sub->client->subscribe(kType, [&answer](int32_t status) { answer.set_value(status); })) {
        return nullptr;
    }
    if (future.wait_for(std::chrono::seconds(5)) != std::future_status::ready ||
        future.get() != 0) {
        return nullptr;
    }
    return sub;
}

// Injects `count` records with the next sequence numbers; every one must be
// accepted by the ring buffer (else the kernel side lost it, not the
// service). Returns the last sequence number.
uint64_t InjectBatch(uint32_t count) {
    quor_dmabuf_update_record record = {};
    record.header.type = kType;
    record.pid = 4000000;
    const uint64_t first = gNextSeq;
    const int refused = gInjector->Inject(&record, sizeof(record), count, 0, kSeqOffset, first);
    EXPECT_EQ(refused, 0) << "the ring buffer refused records: the batch is too large";
    gNextSeq += count;
    return first + count - 1;
}

// Injects `total` records in batches, each after `ready` subscribers have the
// previous one (they pace the injection). Returns the first sequence number.
uint64_t Drive(uint64_t total, const std::vector<Subscriber*>& pacers,
               const std::function<void()>& afterBatch = nullptr) {
    const uint64_t first = gNextSeq;
    for (uint64_t done = 0; done < total; done += kBatch) {
        const uint64_t last =
            InjectBatch(static_cast<uint32_t>(std::min<uint64_t>(kBatch, total - done)));
        for (Subscriber* sub : pacers) {
            if (!sub->log.waitFor(last, std::chrono::seconds(30))) {
                ADD_FAILURE() << "stuck at " << sub->log.size() << " records";
                return first;
            }
        }
        if (afterBatch) afterBatch();
    }
    return first;
}

// True when `seqs` is exactly first, first + 1, ..., first + count - 1.
::testing::AssertionResult Complete(const std::vector<uint64_t>& seqs, uint64_t first,
                                    uint64_t count) {
    if (seqs.size() != count) {
        return ::testing::AssertionFailure() << seqs.size() << " records of " << count;
    }
    for (uint64_t i = 0; i < count; ++i) {
        if (seqs[i] != first + i) {
            return ::testing::AssertionFailure()
                   << "record " << i << " carries " << seqs[i] << ", expected " << first + i;
        }
    }
    return ::testing::AssertionSuccess();
}

class SequenceStressTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!gStartError.empty()) GTEST_SKIP() << gStartError;
    }
};

}  // namespace

TEST_F(SequenceStressTest, BelowCapacityEveryClientGetsEveryRecordOnceInOrder) {
    constexpr int kClients = 8;
    constexpr uint64_t kRecords = Scaled(1000000);
    std::vector<std::unique_ptr<Subscriber>> subs;
    std::vector<Subscriber*> all;
    for (int i = 0; i < kClients; ++i) {
        subs.push_back(Subscribe());
        ASSERT_NE(subs.back(), nullptr);
        all.push_back(subs.back().get());
    }
    const size_t overflowsBefore = ErrorLogCount(4);
    const uint64_t first = Drive(kRecords, all);
    for (int i = 0; i < kClients; ++i) {
        EXPECT_TRUE(Complete(subs[i]->log.snapshot(), first, kRecords)) << "client " << i;
        EXPECT_EQ(subs[i]->log.malformed(), 0u);
    }
    EXPECT_EQ(ErrorLogCount(4), overflowsBefore);
    printf("records checked: %llu (%d clients x %llu), lost: 0\n",
           static_cast<unsigned long long>(kClients * kRecords), kClients,
           static_cast<unsigned long long>(kRecords));
}

TEST_F(SequenceStressTest, AboveCapacityLossesFollowTheQueueRuleAndAreLogged) {
    constexpr uint64_t kRecords = 120000;
    auto fastA = Subscribe();
    auto fastB = Subscribe();
    // About 10000 records a second: far behind the injection.
    auto slow = Subscribe(60);
    ASSERT_TRUE(fastA && fastB && slow);
    const size_t overflowsBefore = ErrorLogCount(4);
    const size_t stallsBefore = ErrorLogCount(1);

    const uint64_t first = Drive(kRecords, {fastA.get(), fastB.get()});
    const uint64_t last = first + kRecords - 1;
    // What is still queued for the slow client reaches it in the end.
    slow->delayUs.store(0);
    ASSERT_TRUE(slow->log.waitFor(last, std::chrono::seconds(60)));

    EXPECT_TRUE(Complete(fastA->log.snapshot(), first, kRecords));
    EXPECT_TRUE(Complete(fastB->log.snapshot(), first, kRecords));
    ASSERT_EQ(ErrorLogCount(1), stallsBefore)
        << "a send stalled for a second: losses cannot be attributed to the queue rule";

    // Queue contents are always a run of consecutive records, so every drop
    // removes a block of 5001 consecutive ones: gaps are whole blocks.
    const std::vector<uint64_t> seqs = slow->log.snapshot();
    ASSERT_FALSE(seqs.empty());
    EXPECT_EQ(seqs.front(), first);
    EXPECT_EQ(seqs.back(), last);
    uint64_t lost = 0;
    for (size_t i = 1; i < seqs.size(); ++i) {
        ASSERT_GT(seqs[i], seqs[i - 1]) << "out of order or duplicated at " << i;
        const uint64_t gap = seqs[i] - seqs[i - 1] - 1;
        ASSERT_EQ(gap % kDropBlock, 0u) << "a loss of " << gap << " records after " << seqs[i - 1];
        lost += gap;
    }
    EXPECT_EQ(lost + seqs.size(), kRecords);
    const uint64_t drops = lost / kDropBlock;
    EXPECT_GT(drops, 0u) << "the slow client never fell behind far enough";
    EXPECT_EQ(ErrorLogCount(4) - overflowsBefore, drops) << "every drop is logged, once";
    printf(
        "slow client: %zu received, %llu lost in %llu drops of %llu; fast clients: %llu each, "
        "lost 0\n",
        seqs.size(), static_cast<unsigned long long>(lost), static_cast<unsigned long long>(drops),
        static_cast<unsigned long long>(kDropBlock), static_cast<unsigned long long>(kRecords));
}

TEST_F(SequenceStressTest, NeverReadingClientStaysBoundedAndOthersKeepTheirRate) {
    constexpr uint64_t kRecords = Scaled(1000000);
    auto fastA = Subscribe();
    auto fastB = Subscribe();
    ASSERT_TRUE(fastA && fastB);
    fastA->log.reserve(2 * kRecords);
    fastB->log.reserve(2 * kRecords);

    // The rate of the two readers alone...
    auto started = Clock::now();
    uint64_t first = Drive(kRecords, {fastA.get(), fastB.get()});
    const double alone = kRecords / std::chrono::duration<double>(Clock::now() - started).count();
    EXPECT_TRUE(Complete(fastA->log.snapshot(), first, kRecords));

    // ...and beside a client that subscribes and never reads again.
    RawIpcClient stuck("/mnt/bpfframework/quorbpfdispatcher");
    ASSERT_TRUE(stuck.connected());
    ASSERT_TRUE(stuck.send(Request(1, 51, kType)));
    uint32_t type = 0;
    std::string body;
    ASSERT_TRUE(stuck.readFrame(&type, &body));
    const size_t overflowsBefore = ErrorLogCount(4);
    const size_t heapBefore = HeapBytes();
    size_t heapPeak = heapBefore;
    const size_t fastBefore = fastA->log.size();
    started = Clock::now();
    first = Drive(kRecords, {fastA.get(), fastB.get()},
                  [&] { heapPeak = std::max(heapPeak, HeapBytes()); });
    const double beside = kRecords / std::chrono::duration<double>(Clock::now() - started).count();

    std::vector<uint64_t> seqs = fastA->log.snapshot();
    seqs.erase(seqs.begin(), seqs.begin() + static_cast<long>(fastBefore));
    EXPECT_TRUE(Complete(seqs, first, kRecords));
    seqs = fastB->log.snapshot();
    seqs.erase(seqs.begin(), seqs.begin() + static_cast<long>(fastBefore));
    EXPECT_TRUE(Complete(seqs, first, kRecords));
    // 200000 records or more queued without bound would hold over 25 MiB;
    // the rule keeps at most 10001 of them (1.4 MiB), and the package block
    // pool may keep up to 4 MiB of freed blocks for reuse.
    const size_t growth = heapPeak > heapBefore ? heapPeak - heapBefore : 0;
    EXPECT_LT(growth, size_t{12} << 20);
    EXPECT_GT(ErrorLogCount(4), overflowsBefore);
    // A socket thread waiting for the stuck client would hold the others up
    // for a second per stall; the rate would fall by orders of magnitude.
    EXPECT_GT(beside, alone * 0.25);
    printf(
        "never-reading client: heap grew by %zu bytes at most; readers' rate %.0f records/s "
        "alone, %.0f beside it (ratio %.2f)\n",
        growth, alone, beside, beside / alone);
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
