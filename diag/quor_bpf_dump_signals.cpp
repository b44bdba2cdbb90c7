#include "diag/quor_bpf_dump_signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_state.h"
#include "diag/quor_bpf_task_manager.h"

namespace Quor {
namespace Bpf {

namespace {

// One dump kind per signal number, index = signal - DUMP_SIGNAL_FIRST.
constexpr int DUMP_KINDS = DUMP_SIGNAL_LAST - DUMP_SIGNAL_FIRST + 1;
constexpr const char* DUMP_THREAD_NAME = "BpfServiceDump";

// Shared with the handlers, hence atomics that are lock-free (and with that
// async-signal-safe).
std::atomic<int> wakeFd{-1};
std::atomic<uint32_t> pendingDumps{0};
std::atomic<uint64_t> receivedCount[DUMP_KINDS];
std::atomic<uint64_t> dumpedCount[DUMP_KINDS];
static_assert(std::atomic<int>::is_always_lock_free, "handlers need lock-free atomics");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "handlers need lock-free atomics");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "handlers need lock-free atomics");

// Guards starting the thread and installing the handlers.
std::mutex installLock;
bool dumpThreadStarted = false;

// Async-signal-safe: atomics and write(2) only.
void RequestDump(int kind) {
    const int savedErrno = errno;
    // Counted before the pending bit is published, so that the dump thread,
    // having taken the bit, sees this arrival in receivedCount.
    receivedCount[kind].fetch_add(1, std::memory_order_relaxed);
    pendingDumps.fetch_or(1u << kind, std::memory_order_release);
    const int fd = wakeFd.load(std::memory_order_acquire);
    if (fd >= 0) {
        const uint64_t one = 1;
        (void)write(fd, &one, sizeof(one));
    }
    errno = savedErrno;
}

void RunDump(int kind) {
    switch (kind) {
        case 0:
            QuorBpfDataState::GetInstance()->DumpState();
            break;
        case 1:
            QuorTaskManager::GetInstance()->DumpQuorTaskInfo();
            break;
        case 2:
            QuorTaskManager::GetInstance()->DumpQuorTaskIgnoreKernelTaskInfo();
            break;
        case 3:
            QuorTaskManager::GetInstance()->DumpQuorTaskInfoNormal();
            break;
        case 4:
            QuorTaskManager::GetInstance()->DumpQuorTaskIgnoreKernelTaskInfoNormal();
            break;
        default:
            break;
    }
}

void RunDumpSafely(int kind) {
    // Nothing may end the process from here, not even an allocation failure.
    try {
        RunDump(kind);
    } catch (const std::exception& e) {
        QLOGE(QUOR_TAG_UTILS, "[QuorBpfDumpSignals][DumpThread] dump %d failed: %s",
              DUMP_SIGNAL_FIRST + kind, e.what());
    } catch (...) {
        QLOGE(QUOR_TAG_UTILS, "[QuorBpfDumpSignals][DumpThread] dump %d failed",
              DUMP_SIGNAL_FIRST + kind);
    }
}

void DumpThreadMain(int fd) {
    // Let the other threads take the dump signals: this one is the consumer.
    sigset_t dumpSignals;
    (void)sigemptyset(&dumpSignals);
    for (int signo = DUMP_SIGNAL_FIRST; signo <= DUMP_SIGNAL_LAST; ++signo) {
        (void)sigaddset(&dumpSignals, signo);
    }
    (void)pthread_sigmask(SIG_BLOCK, &dumpSignals, nullptr);

    for (;;) {
        pollfd waitFor = {fd, POLLIN, 0};
        if (poll(&waitFor, 1, -1) < 0) {
            if (errno == EINTR) continue;
            QLOGE(QUOR_TAG_UTILS, "[QuorBpfDumpSignals][DumpThread] poll failed: %s",
                  strerror(errno));
            std::this_thread::sleep_for(std::chrono::seconds(1));
            continue;
        }
        // Reset the wake-up before taking the bits: a signal after this read
        // wakes us again, one before it left its bit for the exchange below.
        uint64_t wakeups = 0;
        (void)read(fd, &wakeups, sizeof(wakeups));
        const uint32_t pending = pendingDumps.exchange(0, std::memory_order_acq_rel);
        for (int kind = 0; kind < DUMP_KINDS; ++kind) {
            if ((pending & (1u << kind)) == 0) continue;
            const uint64_t covered = receivedCount[kind].load(std::memory_order_acquire);
            // A handler counts its arrival before it sets the bit, so an
            // earlier dump may already have covered the arrival that set it.
            if (covered == dumpedCount[kind].load(std::memory_order_relaxed)) continue;
            RunDumpSafely(kind);
            dumpedCount[kind].store(covered, std::memory_order_release);
        }
    }
}

// Called with installLock held.
bool StartDumpThread() {
    if (dumpThreadStarted) return true;
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        QLOGE(QUOR_TAG_UTILS, "[QuorBpfDumpSignals][InstallDumpSignalHandlers] eventfd failed: %s",
              strerror(errno));
        return false;
    }
    try {
        std::thread thread(DumpThreadMain, fd);
        // Named before this returns, so whoever installed the handlers sees
        // the thread under its name at once.
        (void)pthread_setname_np(thread.native_handle(), DUMP_THREAD_NAME);
        thread.detach();
    } catch (const std::system_error& e) {
        QLOGE(QUOR_TAG_UTILS,
              "[QuorBpfDumpSignals][InstallDumpSignalHandlers] start dump thread failed: %s",
              e.what());
        (void)close(fd);
        return false;
    }
    wakeFd.store(fd, std::memory_order_release);
    dumpThreadStarted = true;
    return true;
}

}  // namespace

void DumpState(int) {
    RequestDump(0);
}
void HandleDumpSignal(int) {
    RequestDump(1);
}
void HandleNonKernelDumpSignal(int) {
    RequestDump(2);
}
void HandleDumpSignalNormal(int) {
    RequestDump(3);
}
void HandleNonKernelDumpSignalNormal(int) {
    RequestDump(4);
}

void InstallDumpSignalHandlers() {
    static void (*const handlers[DUMP_KINDS])(int) = {
        DumpState,
        HandleDumpSignal,
        HandleNonKernelDumpSignal,
        HandleDumpSignalNormal,
        HandleNonKernelDumpSignalNormal,
    };
    std::lock_guard<std::mutex> lock(installLock);
    // The thread and its eventfd exist before any handler can run.
    if (!StartDumpThread()) return;
    for (int kind = 0; kind < DUMP_KINDS; ++kind) {
        struct sigaction action = {};
        action.sa_handler = handlers[kind];
        (void)sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        if (sigaction(DUMP_SIGNAL_FIRST + kind, &action, nullptr) != 0) {
            QLOGE(QUOR_TAG_UTILS, "[QuorBpfDumpSignals][InstallDumpSignalHandlers] signal %d: %s",
                  DUMP_SIGNAL_FIRST + kind, strerror(errno));
        }
    }
}

bool GetDumpSignalProgress(int signo, DumpSignalProgress* out) {
    if (signo < DUMP_SIGNAL_FIRST || signo > DUMP_SIGNAL_LAST || out == nullptr) return false;
    const int kind = signo - DUMP_SIGNAL_FIRST;
    // dumped first: read the other way round, a dump finishing in between
    // could make dumped appear ahead of received.
    out->dumped = dumpedCount[kind].load(std::memory_order_acquire);
    out->received = receivedCount[kind].load(std::memory_order_acquire);
    return true;
}

}  // namespace Bpf
}  // namespace Quor
