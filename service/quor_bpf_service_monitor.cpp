// Draining the two ring buffers, and the status words that switch the kernel
// programmes on in two stages and report overflow.
#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "diag/quor_bpf_dump_signals.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_rate_limiter.h"
#include "diag/quor_bpf_state.h"
#include "diag/quor_bpf_task_manager.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service.h"
#include "service/quor_bpf_service_settings.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr int kMaxConsecutivePollErrors = 5;
constexpr int64_t kStatusCheckIntervalS = 30;

// The main ring buffer's reader polls while records flow and sleeps when they
// stop. Polling every kPollIntervalNs bounds a record's wait for the reader
// to that interval without a wake-up (an interrupt of the writer) per record,
// and bounds the reader's own wake-ups to one per interval however fast
// records come; kIdlePollsBeforeSleep empty polls in a row send it back to
// sleep, announced, so that the next record wakes it at once. The low-latency
// mode polls five times as often, with a tighter timer.
//
// A round that found kBusyRoundRecords or more makes the next one as short as
// the low-latency mode's: records then come faster than half a million a
// second, each wake-up still carries a hundred or more of them, and the ring
// buffer and the records' wait stay small. A storm of forks brings tens of
// records a millisecond and keeps the long rounds.
constexpr long kPollIntervalNs = 1000000;
constexpr long kLowLatencyPollIntervalNs = 200000;
constexpr int kBusyRoundRecords = 512;
constexpr long kPollTimerSlackNs = 10000;
constexpr int kIdlePollsBeforeSleep = 2;

// A monitor thread's records of the current round are counted here and go
// to the statistics together after the round; null on other threads.
thread_local QuorBpfDataState::Tally* tRoundTally = nullptr;

// The service rides in libbpf's context pointer, so that a record costs no
// singleton lookup (that takes servicelock); the handler's own ctx stays null.
int RingBufferCallback(void* ctx, void* data, size_t size) {
    return static_cast<QuorBpfService*>(ctx)->handleBpfRingBuffEvent(nullptr, data, size);
}

uint64_t LookupStatus(int mapFd, uint32_t key) {
    uint64_t value = 0;
    (void)bpf_map_lookup_elem(mapFd, &key, &value);
    return value;
}

// Sets or clears `bits` in the status word. The caller holds servicelock.
bool UpdateStatusBits(int mapFd, uint64_t bits, bool set) {
    const uint32_t key = QUOR_STATUS_KEY_FLAGS;
    uint64_t word = LookupStatus(mapFd, key);
    word = set ? (word | bits) : (word & ~bits);
    return bpf_map_update_elem(mapFd, &key, &word, BPF_ANY) == 0;
}

// Tells the kernel programmes how this reader waits (enum quor_reader_state).
// The fence orders the announcement before the reader's next look at the ring
// buffer; the programmes look at it after committing a record.
void AnnounceReader(int mapFd, uint64_t state) {
    const uint32_t key = QUOR_STATUS_KEY_READER;
    (void)bpf_map_update_elem(mapFd, &key, &state, BPF_ANY);
    __sync_synchronize();
}

// The main ring buffer's wait: polling while records flow, an announced
// sleep once they stop. Each call is one round; it returns what
// ring_buffer__poll / ring_buffer__consume returned (records handled, or
// negative with errno set).
class AnnouncedWait {
public:
    AnnouncedWait(ring_buffer* rb, int statusFd, long intervalNs)
        : rb_(rb), statusFd_(statusFd), intervalNs_(intervalNs) {}

    int round() {
        if (sleeping_) {
            epoll_event ready;
            if (epoll_wait(ring_buffer__epoll_fd(rb_), &ready, 1, -1) < 0) return -errno;
            const int ret = consume();
            if (ret < 0) return ret;
            AnnounceReader(statusFd_, QUOR_READER_POLLING);
            busy_ = ret >= kBusyRoundRecords;
            sleeping_ = false;
            idlePolls_ = 0;
            return ret;
        }
        const timespec interval = {0, busy_ ? kLowLatencyPollIntervalNs : intervalNs_};
        (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &interval, nullptr);
        int ret = consume();
        busy_ = ret >= kBusyRoundRecords;
        if (ret != 0) {
            idlePolls_ = 0;
            return ret;
        }
        if (++idlePolls_ < kIdlePollsBeforeSleep) return 0;
        // Say so first, then look once more: a record committed meanwhile is
        // either found now or wakes the sleep.
        AnnounceReader(statusFd_, QUOR_READER_SLEEPING);
        ret = consume();
        if (ret != 0) {
            AnnounceReader(statusFd_, QUOR_READER_POLLING);
            idlePolls_ = 0;
            return ret;
        }
        sleeping_ = true;
        return 0;
    }

private:
    // Drains what is there. Nearly every record visits the registry, so the
    // registry's lock is held for the drain (bounded by the ring buffer's
    // size: a millisecond or two) and never during a wait.
    int consume() {
        QuorTaskManager::BatchHold hold;
        return ring_buffer__consume(rb_);
    }

    ring_buffer* rb_;
    int statusFd_;
    long intervalNs_;
    bool sleeping_ = false;
    bool busy_ = false;                          // the last round found kBusyRoundRecords or more
    int idlePolls_ = kIdlePollsBeforeSleep - 1;  // starts with the announced sleep
};

struct MonitorText {
    const char* prefix;
    const char* stopMessage;
};

constexpr MonitorText kMonitorText[2] = {
    {"[QuorBpfService][eventMonitor]",
     "[QuorBpfService][eventMonitor] Stop Event Produce Thread..."},
    {"[QuorBpfService][gpleventMonitor]",
     "[QuorBpfService][gpleventMonitor] Stop GPL Event Produce Thread..."},
};

}  // namespace

int QuorBpfService::eventMonitor() {
    return runMonitor(RINGBUF_MAIN);
}

int QuorBpfService::gpleventMonitor() {
    return runMonitor(RINGBUF_GPL);
}

void QuorBpfService::runInitialScan(int index) {
    if (index == RINGBUF_MAIN) {
        initTaskInfo();
        (void)initFdBpfProg();
    } else {
        (void)initDmabufBpfProg();
    }
}

int QuorBpfService::runMonitor(int index) {
    const char* prefix = kMonitorText[index].prefix;
    android::base::unique_fd& ringFd = index == RINGBUF_MAIN ? ringBuffFd_ : gplRingBuffFd_;
    android::base::unique_fd& statusFd =
        index == RINGBUF_MAIN ? ringBuffStatusFd_ : gplRingBuffStatusFd_;

    InstallDumpSignalHandlers();

    ringFd.reset(bpf_obj_get(RINGBUF_MAP_PATHS[index]));
    if (ringFd.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "%s QUORBPF: get ringbuf failed: %s, map fd: %d", prefix,
              strerror(errno), ringFd.get());
        errno = 0;
        return -1;
    }
    statusFd.reset(bpf_obj_get(RINGBUF_STATUS_PATHS[index]));
    if (statusFd.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "%s QUORBPF: get ringbuf status map failed: %s, map fd: %d", prefix,
              strerror(errno), statusFd.get());
        errno = 0;
        return -1;
    }
    ring_buffer* rb = ring_buffer__new(ringFd.get(), RingBufferCallback, this, nullptr);
    if (rb == nullptr) {
        QLOGE(QUOR_TAG_SERVICE, "%s QUORBPF: Set up ringbuf failed: %s, ringbufMap fd: %d", prefix,
              strerror(errno), ringFd.get());
        errno = 0;
        return -1;
    }

    // Core records (fork, exit) flow while existing state is scanned, so
    // nothing that changes during the scan is missed; the rest only after.
    {
        std::lock_guard<std::mutex> lock(servicelock);
        (void)UpdateStatusBits(statusFd.get(), QUOR_STATUS_CORE_ON, true);
    }
    runInitialScan(index);
    {
        std::lock_guard<std::mutex> lock(servicelock);
        (void)UpdateStatusBits(statusFd.get(), QUOR_STATUS_NORMAL_ON, true);
    }

    // Main set: while records flow the reader polls in rounds instead of
    // blocking, and it tells the programmes when it goes to sleep so that the
    // next record wakes it at once; a record thus waits at most a round, and a
    // storm costs the reader one wake-up per round, not one per record nor a
    // wait for the programmes' paced flush. The opt-in low-latency mode makes
    // the rounds shorter. The GPL set's records are rare: it blocks in its
    // poll and the kernel's own rule wakes it.
    const bool announces = index == RINGBUF_MAIN;
    const bool lowLatency = android::base::GetProperty(QUOR_BPF_LOW_LATENCY_PROPERTY, "0") == "1";
    AnnouncedWait announced(rb, statusFd.get(),
                            lowLatency ? kLowLatencyPollIntervalNs : kPollIntervalNs);
    if (announces && lowLatency) (void)prctl(PR_SET_TIMERSLACK, kPollTimerSlackNs, 0, 0, 0);
    // A round's records go to the clients together, after the round.
    EventManager::GetInstance()->BatchThisThread();
    QuorBpfDataState::Tally tally;
    tRoundTally = &tally;
    int consecutiveErrors = 0;
    while (true) {
        if (!running_.load()) {
            QLOGW(QUOR_TAG_SERVICE, "%s", kMonitorText[index].stopMessage);
            // Whoever reads next is woken by the pacing rule until it says
            // otherwise.
            if (announces) AnnounceReader(statusFd.get(), QUOR_READER_UNANNOUNCED);
            ring_buffer__free(rb);
            tRoundTally = nullptr;
            return 0;
        }
        const int ret = announces ? announced.round() : ring_buffer__poll(rb, -1);
        EventManager::GetInstance()->PublishPending();
        // Empty polling rounds are not counted as polls.
        if (ret > 0 || (ret == 0 && !announces)) tally.add(QUOR_EVENT_POLL_COUNT);
        QuorBpfDataState::GetInstance()->RecordEvents(&tally);
        if (ret >= 0) {
            (void)checkBpfRingBuffStatus(index, false);
            if (index == RINGBUF_MAIN) flushDueDmabufCleanup();
            consecutiveErrors = 0;
            continue;
        }
        const int pollErrno = errno;
        (void)checkBpfRingBuffStatus(index, true);
        if (pollErrno == EINTR) continue;
        QLOGE(QUOR_TAG_SERVICE, "%s QUORBPF: ret %d .Error ring buf poll. %s", prefix, ret,
              strerror(pollErrno));
        errno = 0;
        sleep(1);
        if (consecutiveErrors++ >= kMaxConsecutivePollErrors) {
            if (announces) AnnounceReader(statusFd.get(), QUOR_READER_UNANNOUNCED);
            ring_buffer__free(rb);
            tRoundTally = nullptr;
            return -1;
        }
    }
}

int QuorBpfService::handleBpfRingBuffEvent(void* /*ctx*/, void* data, size_t size) {
    // Records come from the kernel but are still bounds-checked: nothing is
    // read beyond what the ring buffer reported.
    if (data == nullptr || size < sizeof(uint32_t)) return -1;
    uint32_t type = 0;
    memcpy(&type, data, sizeof(type));
    if (tRoundTally != nullptr) {
        tRoundTally->add(type);
    } else {
        QuorBpfDataState::GetInstance()->RecordEvent(static_cast<int>(type), 1);
    }
    if (type > QUOR_EVENT_KERNEL_MAX) {
        // Skipped, not failed: a failing callback makes the poll fail, and a
        // few such records in a row would end the monitor. A newer kernel
        // side may write types this service does not know.
        const uint64_t skipped = unknownRecords_.fetch_add(1, std::memory_order_relaxed) + 1;
        static RateLimiter limiter(5, std::chrono::seconds(10));
        uint64_t heldBack = 0;
        if (limiter.allow(&heldBack)) {
            QLOGE(QUOR_TAG_SERVICE,
                  "[QuorBpfService] handleEvent ERROR!!! Type: %u (%llu records of unknown "
                  "types skipped so far)",
                  type, static_cast<unsigned long long>(skipped));
        }
        return 0;
    }
    EventManager::GetInstance()->AppendEvent(static_cast<char*>(data), size);
    const auto handler = eventHandlers_.find(static_cast<int32_t>(type));
    if (handler == eventHandlers_.end()) return 0;
    return handler->second(static_cast<char*>(data), static_cast<long>(size));
}

int QuorBpfService::checkBpfRingBuffStatus(int index, bool force) {
    if (index < 0 || index > 1) return 0;
    const int64_t now = time(nullptr);
    if (!force && now - lastRingBuffCheck_[index].load() < kStatusCheckIntervalS) return 1;
    lastRingBuffCheck_[index].store(now);

    const int mapFd = index == RINGBUF_MAIN ? ringBuffStatusFd_.get() : gplRingBuffStatusFd_.get();
    const uint64_t avail = LookupStatus(mapFd, QUOR_STATUS_KEY_AVAIL_DATA);
    uint64_t word = LookupStatus(mapFd, QUOR_STATUS_KEY_FLAGS);
    if ((word & QUOR_STATUS_OVERFLOW) == 0) return 1;

    word &= ~static_cast<uint64_t>(QUOR_STATUS_OVERFLOW);
    QLOGW(QUOR_TAG_SERVICE, "[QuorBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
    QLOGW(QUOR_TAG_SERVICE,
          "[QuorBpfService][checkBpfRingBuffStatus] avail data: %lu, ringbuf size: %lu, cons "
          "pos: %lu, prod pos: %lu",
          static_cast<unsigned long>(avail),
          static_cast<unsigned long>(LookupStatus(mapFd, QUOR_STATUS_KEY_RING_SIZE)),
          static_cast<unsigned long>(LookupStatus(mapFd, QUOR_STATUS_KEY_CONS_POS)),
          static_cast<unsigned long>(LookupStatus(mapFd, QUOR_STATUS_KEY_PROD_POS)));
    const uint32_t key = QUOR_STATUS_KEY_FLAGS;
    (void)bpf_map_update_elem(mapFd, &key, &word, BPF_ANY);
    // Lost exit records would leave dead processes in the registry for good.
    if (index == RINGBUF_MAIN) {
        const size_t reaped = reapLostExits();
        // This thread batches: the sweep's exits must not wait for its next
        // round, which may be the next record.
        EventManager::GetInstance()->PublishPending();
        if (reaped != 0) {
            QLOGW(QUOR_TAG_SERVICE,
                  "[QuorBpfService][checkBpfRingBuffStatus] %zu exited processes whose exit "
                  "record was lost removed from the registry",
                  reaped);
        }
    }
    return 0;
}

bool QuorBpfService::enableCoreBpf(int index, bool enable) {
    if (index < 0 || index > 1) return false;
    std::lock_guard<std::mutex> lock(servicelock);
    const int mapFd = index == RINGBUF_MAIN ? ringBuffStatusFd_.get() : gplRingBuffStatusFd_.get();
    return UpdateStatusBits(mapFd, QUOR_STATUS_CORE_ON, enable);
}

bool QuorBpfService::enableNormalBpf(int index, bool enable) {
    if (index < 0 || index > 1) return false;
    std::lock_guard<std::mutex> lock(servicelock);
    const int mapFd = index == RINGBUF_MAIN ? ringBuffStatusFd_.get() : gplRingBuffStatusFd_.get();
    return UpdateStatusBits(mapFd, QUOR_STATUS_NORMAL_ON, enable);
}

}  // namespace Bpf
}  // namespace Quor
