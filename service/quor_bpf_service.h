// QuorBpfService: the one service object of libquorbpfservice.
//
// It owns the socket server through which clients subscribe to kernel events,
// the table that maps ring-buffer event types to their handlers, and two
// producer threads:
//   "BpfServicePoll"  starts the socket server, waits for the readiness
//                     property, prepares the time base and kernel maps,
//                     starts the GPL thread, attaches the main programme set
//                     and drains the main ring buffer;
//   "BpfServicePGpl"  attaches the GPL programme set and drains its ring buffer.
// Both are pinned to CPUs 0-2. Wait() supervises them and restarts one that
// has ended. The instance is created lazily under `servicelock` and never
// destroyed by the library.
//
// Lifecycle: created -> started (start()) -> serving -> stopping (stop())
// -> joined (Wait() returns). The monitors block in their ring-buffer poll
// without a time-out and notice stop() only at their next record, so a host
// that wants to end quickly ends its process after stop().
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <bitset>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bpf/quor_bpf_dmabuf_maps.h"
#include "bpf/quor_bpf_pin_paths.h"
#include "bpf/quor_bpf_procfs_paths.h"
#include "bpf/quor_bpf_prog_table.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "ipc/unix_ipc_manager.h"
#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

class QuorBpfService {
public:
    using EventHandler = std::function<int(char*, long)>;

    static QuorBpfService* GetInstance();
    // The instance or null; the caller holds `servicelock`.
    static QuorBpfService* GetInstanceLocked() { return instance; }

    // Starts the producer thread. Calling it again while that thread is still
    // held logs a warning and changes nothing.
    bool start();
    // Stops the socket server and clears the running flag.
    int stop();
    // Supervisory loop: restarts an ended producer thread, checking every
    // 60 seconds, until stop(); then joins both threads.
    int Wait();
    // One check of that loop: restarts a producer thread that has ended. A
    // restarted producer runs its monitor only; what it attached and
    // prepared before stays.
    void superviseProducers();

    int eventProduceThread();
    int gpleventProduceThread();

    bool isRunning() const { return running_.load(); }

    // Ring-buffer monitors (quor_bpf_service_monitor.cpp). Index 0 is the
    // main ring buffer, 1 the GPL one; an index above 1 does nothing.
    int eventMonitor();
    int gpleventMonitor();
    // Counts a record and hands it to its subscribers and its handler. A
    // record of a type above the kernel's known range is skipped (counted,
    // logged at a bounded rate) and returns 0, so polling goes on.
    int handleBpfRingBuffEvent(void* ctx, void* data, size_t size);
    // Records of unknown types skipped since the service was created.
    uint64_t unknownRecordCount() const { return unknownRecords_.load(); }
    int checkBpfRingBuffStatus(int index, bool force);
    bool enableCoreBpf(int index, bool enable);
    bool enableNormalBpf(int index, bool enable);

    // Kernel event handlers (quor_bpf_service_handlers.cpp); each returns 0.
    int handleQuorTaskInitEvent(char* data, long len);
    int handleKmem_RssStat(char* data, long len);
    int handleSched_SchedProcessFork(char* data, long len);
    int handleSched_SchedProcessExit(char* data, long len);
    int handleBpfPassthrough(char* data, long len);
    // After the main ring buffer overflowed, exit records may have been lost:
    // every registered process that no longer exists is handled as if its
    // exit record had come. Returns how many there were. When the real exit
    // record of such a process comes after all, it is dropped: a process
    // ends once for a client. Thread records may have been lost as well: the
    // thread count of every live one is taken again from procfs.
    size_t reapLostExits();

    // Procfs readers and kernel maps: delegates to bpf/
    // (quor_bpf_service_kernel_data.cpp).
    void initTaskInfo();
    int getProcessInfo(int pid, struct UpdateProcessExdata* out);
    static int64_t GetFdSize(const std::string& path);
    static uint64_t GetFdInode(const std::string& path);

    int initBpfMap();
    int initFdBpfProg();
    // A process that ended while initFdBpfProg() ran may have had its entry
    // written after the kernel's exit programme looked: its exit record
    // (timestamp `exitNs`, programmes' clock) removes it here.
    void forgetFdEntryOfScanExit(int32_t pid, uint64_t exitNs);
    int initDmabufBpfProg();
    // Removes an ended process's entries: its per-process dmabuf entries,
    // its totals, its descriptor count and the buffers last seen held by it.
    // An entry the programmes deleted meanwhile is no failure.
    int cleanUpDmabufMap(int pid);
    // As cleanUpDmabufMap for every pid of `pids`, in one walk of each map.
    int cleanUpDmabufMaps(const std::vector<int32_t>& pids);
    // Cleans up the gathered exits once they have waited long enough
    // (called by the main monitor after every poll).
    void flushDueDmabufCleanup();

    // Client connections (quor_bpf_service_clients.cpp); all but
    // notifyClientEventReady run on the socket thread "BpfServiceTr".
    int onClientLibConnection(int fd);
    int onClientLibReadable(int fd, BufferState* buf);
    int onClientLibWriteable(int fd, BufferState* buf);
    int onClientLibClose(int fd);
    int onEventProvideReqCallBack(int fd, char* data, long len);
    void notifyClientEventReady(const std::vector<int32_t>& fds);

    // Clients connected at once; one more is refused at accept, with a log.
    static constexpr size_t MAX_CLIENT_CONNECTIONS = 64;

    static const BpfProgTable PROG_EVENT_MAP;
    static const BpfProgTable PROG_GPL_EVENT_MAP;

    // Procfs files read by the procfs readers and the dmabuf scan, and the
    // pins of the two per-process dmabuf maps (bpf/).
    static constexpr const char* PROC_FS_PATH = Procfs::PROC_FS_PATH;
    static constexpr const char* TASK_STATUS_TEMPLATE = Procfs::TASK_STATUS_TEMPLATE;
    static constexpr const char* TASK_STATUS_PID_TEMPLATE = Procfs::TASK_STATUS_PID_TEMPLATE;
    static constexpr const char* TASK_STAT_TEMPLATE = Procfs::TASK_STAT_TEMPLATE;
    static constexpr const char* TASK_FD_TEMPLATE = Procfs::TASK_FD_TEMPLATE;
    static constexpr const char* TASK_FDINFO_TEMPLATE = Procfs::TASK_FDINFO_TEMPLATE;
    static constexpr const char* TASK_MAPS_TEMPLATE = Procfs::TASK_MAPS_TEMPLATE;
    static constexpr const char* TASK_DMABUF_PREFIX = Procfs::TASK_DMABUF_PREFIX;
    static constexpr const char* TASK_DMABUF_PATH_PREFIX = Procfs::TASK_DMABUF_PATH_PREFIX;
    static constexpr const char* TASK_COMM_PREFIX = Procfs::TASK_COMM_PREFIX;
    static constexpr const char* TASK_PPID_PREFIX = Procfs::TASK_PPID_PREFIX;
    static constexpr const char* TASK_RSS_ANON_PREFIX = Procfs::TASK_RSS_ANON_PREFIX;
    static constexpr const char* TASK_RSS_FILE_PREFIX = Procfs::TASK_RSS_FILE_PREFIX;
    static constexpr const char* TASK_RSS_SHMEM_PREFIX = Procfs::TASK_RSS_SHMEM_PREFIX;
    static constexpr const char* TASK_VM_SWAP_PREFIX = Procfs::TASK_VM_SWAP_PREFIX;
    static constexpr const char* TASK_PROC_UID_PREFIX = Procfs::TASK_PROC_UID_PREFIX;
    static constexpr const char* TASK_THREADS_PREFIX = Procfs::TASK_THREADS_PREFIX;
    static constexpr const char* TASK_DMABUF_SIZE_PREFIX = Procfs::TASK_DMABUF_SIZE_PREFIX;
    static constexpr const char* TASK_DMABUF_INO_PREFIX = Procfs::TASK_DMABUF_INO_PREFIX;
    static constexpr const char* DMABUF_BPF_PROCESS_INODE_MAP_PATH =
        Pins::DMABUF_BPF_PROCESS_INODE_MAP_PATH;
    static constexpr const char* DMABUF_BPF_PROCESS_MMAP_INFOS_PATH =
        Pins::DMABUF_BPF_PROCESS_MMAP_INFOS_PATH;
    static std::mutex servicelock;

    ~QuorBpfService();

private:
    QuorBpfService();
    QuorBpfService(const QuorBpfService&) = delete;
    QuorBpfService& operator=(const QuorBpfService&) = delete;

    // Both monitors are one procedure over ring-buffer index 0 or 1.
    int runMonitor(int index);
    // Seeds existing state between the two enabling steps of a monitor.
    void runInitialScan(int index);

    // Runs a thread body and records that it ended, so Wait() can restart it.
    void launchProducer(std::thread* handle, std::atomic<bool>* alive,
                        int (QuorBpfService::*body)());
    void reapEndedProducer(std::thread* handle, std::atomic<bool>* alive,
                           int (QuorBpfService::*body)());
    // Sleeps up to `seconds`, returning early when stop() is called.
    void sleepUnlessStopped(int seconds);
    // Builds the socket server, the request dispatcher and the client map's
    // link to EventManager (quor_bpf_service_clients.cpp).
    void initClientServer();

    std::map<int32_t, EventHandler> eventHandlers_;
    std::atomic<bool> running_{false};
    // Written by each monitor; atomic so that a check from any other thread is safe.
    std::atomic<int64_t> lastRingBuffCheck_[2] = {{0}, {0}};
    std::atomic<uint64_t> unknownRecords_{0};
    android::base::unique_fd ringBuffFd_;
    android::base::unique_fd gplRingBuffFd_;
    android::base::unique_fd ringBuffStatusFd_;
    android::base::unique_fd gplRingBuffStatusFd_;
    std::map<std::string, std::string> refreshNameMap_;

    // Processes that ended and whose dmabuf map entries are still to go
    // (quor_bpf_service_handlers.cpp). A walk of those maps scans every
    // bucket, so exits are gathered and cleaned up together at most once a
    // second, or at once when a gathered pid is forked again.
    // Every fork asks whether its pid is gathered, so the pids below
    // QUOR_PID_BITS are also kept as bits.
    void scheduleDmabufCleanup(int32_t pid);
    void flushDmabufCleanup(int32_t reusedPid);
    std::vector<int32_t> takeDmabufCleanup();  // under dmabufCleanupMutex_
    std::mutex dmabufCleanupMutex_;
    std::vector<int32_t> dmabufCleanupPids_;
    std::bitset<QUOR_PID_BITS> dmabufCleanupPending_;
    int64_t dmabufCleanupAtMs_ = 0;

    // Takes a live process's thread count from procfs (reapLostExits()).
    void resyncThreads(int32_t pid);
    // Pids ended by reapLostExits() whose exit record has not come (yet).
    void addSweptExit(int32_t pid);
    bool takeSweptExit(int32_t pid);  // true (and forgotten) when it was one
    std::mutex sweptExitsMutex_;
    std::set<int32_t> sweptExits_;
    std::deque<int32_t> sweptExitOrder_;
    std::atomic<size_t> sweptExitCount_{0};

    std::thread producer_;
    std::thread gplProducer_;
    std::atomic<bool> producerAlive_{false};
    std::atomic<bool> gplProducerAlive_{false};
    // Set by each producer once it has attached its programmes (the main one
    // also once it has seen readiness and prepared the time base and maps).
    std::atomic<bool> mainSetUp_{false};
    std::atomic<bool> gplAttached_{false};
    int mainAttachResult_ = 0;

    std::unique_ptr<UnixIpcManager> server_;
    std::unique_ptr<IpcPackageManager> packageManager_;
    std::unique_ptr<IpcPackageHandler> packageHandler_;
    // Outgoing queue per client descriptor. Changed only on the socket thread
    // and under EventManager::quorRawEventManagerLock (the producers read it
    // under that lock while fanning out).
    std::map<int, IpcPackageManager> clients_;
    // Clients not read from until their queue drains (socket thread only).
    std::set<int> readPaused_;

    // The dmabuf and descriptor maps the service seeds and prunes, and what
    // the last seeding found.
    QuorBpfDmabufMaps dmabufMaps_;

    std::mutex stopMutex_;
    std::condition_variable stopCv_;

    static QuorBpfService* instance;
};

// A handler that does nothing, for tests and experiments.
void TestHandleEvent(char* data, long len);

}  // namespace Bpf
}  // namespace Quor
