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
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

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

    int eventProduceThread();
    int gpleventProduceThread();

    bool isRunning() const { return running_.load(); }

    // Ring-buffer monitors (quor_bpf_service_monitor.cpp). Index 0 is the
    // main ring buffer, 1 the GPL one; an index above 1 does nothing.
    int eventMonitor();
    int gpleventMonitor();
    int handleBpfRingBuffEvent(void* ctx, void* data, size_t size);
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
    // exit record had come. Returns how many there were.
    size_t reapLostExits();

    // Procfs readers (bpf/quor_bpf_proc_info.cpp).
    void initTaskInfo();
    int getProcessInfo(int pid, struct UpdateProcessExdata* out);
    static int64_t GetFdSize(const std::string& path);
    static uint64_t GetFdInode(const std::string& path);

    // Dmabuf and open-descriptor kernel maps (bpf/quor_bpf_dmabuf_maps.cpp).
    int initBpfMap();
    int initFdBpfProg();
    int initDmabufBpfProg();
    int cleanUpDmabufMap(int pid);
    // As cleanUpDmabufMap for every pid of `pids`, in one walk of each map.
    int cleanUpDmabufMaps(const std::vector<int32_t>& pids);

    // Client connections (quor_bpf_service_clients.cpp); all but
    // notifyClientEventReady run on the socket thread "BpfServiceTr".
    int onClientLibConnection(int fd);
    int onClientLibReadable(int fd, BufferState* buf);
    int onClientLibWriteable(int fd, BufferState* buf);
    int onClientLibClose(int fd);
    int onEventProvideReqCallBack(int fd, char* data, long len);
    void notifyClientEventReady(const std::vector<int32_t>& fds);

    static constexpr const char* QUOR_BPF_DISPATCHER_SOCKET = "/mnt/bpfframework/quorbpfdispatcher";
    // Clients connected at once; one more is refused at accept, with a log.
    static constexpr size_t MAX_CLIENT_CONNECTIONS = 64;
    // Who may connect besides uid 0 and the service's own uid: lists of uids
    // and gids ("1000,2000"), read when the service is created. Linux hosts
    // only; on a device the platform's socket policy decides.
    static constexpr const char* ALLOW_UIDS_PROPERTY = "persist.sys.quorbpf.allow_uids";
    static constexpr const char* ALLOW_GIDS_PROPERTY = "persist.sys.quorbpf.allow_gids";

    static const BpfProgTable PROG_EVENT_MAP;
    static const BpfProgTable PROG_GPL_EVENT_MAP;
    static constexpr const char* QUOR_BPF_READY = "sys.quor_bpf_ready";

    // Procfs files read by the procfs readers and the dmabuf scan. A %s is the
    // pid as decimal text (the /proc entry's name), a %d the pid as a number.
    static constexpr const char* PROC_FS_PATH = "/proc";
    static constexpr const char* TASK_STATUS_TEMPLATE = "/proc/%s/status";
    static constexpr const char* TASK_STATUS_PID_TEMPLATE = "/proc/%d/status";
    static constexpr const char* TASK_STAT_TEMPLATE = "/proc/%s/stat";
    static constexpr const char* TASK_FD_TEMPLATE = "/proc/%s/fd";
    static constexpr const char* TASK_FDINFO_TEMPLATE = "/proc/%s/fdinfo/%s";
    static constexpr const char* TASK_MAPS_TEMPLATE = "/proc/%s/maps";
    static constexpr const char* TASK_DMABUF_PREFIX = "/dmabuf";
    // Keys of "Key:\tvalue" lines in status and fdinfo files.
    static constexpr const char* TASK_COMM_PREFIX = "Name:\t";
    static constexpr const char* TASK_PPID_PREFIX = "PPid:\t";
    static constexpr const char* TASK_RSS_ANON_PREFIX = "RssAnon:\t";
    static constexpr const char* TASK_RSS_FILE_PREFIX = "RssFile:\t";
    static constexpr const char* TASK_RSS_SHMEM_PREFIX = "RssShmem:\t";
    static constexpr const char* TASK_VM_SWAP_PREFIX = "VmSwap:\t";
    static constexpr const char* TASK_PROC_UID_PREFIX = "Uid:\t";
    static constexpr const char* TASK_DMABUF_SIZE_PREFIX = "size:\t";
    static constexpr const char* TASK_DMABUF_INO_PREFIX = "ino:\t";
    // The two per-process dmabuf maps that cleanUpDmabufMap() prunes.
    static constexpr const char* DMABUF_BPF_PROCESS_INODE_MAP_PATH =
        "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_process_inode_map";
    static constexpr const char* DMABUF_BPF_PROCESS_MMAP_INFOS_PATH =
        "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_process_mmap_infos";
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
    android::base::unique_fd ringBuffFd_;
    android::base::unique_fd gplRingBuffFd_;
    android::base::unique_fd ringBuffStatusFd_;
    android::base::unique_fd gplRingBuffStatusFd_;
    std::map<std::string, std::string> refreshNameMap_;

    // Processes that ended and whose dmabuf map entries are still to go
    // (quor_bpf_service_handlers.cpp). A walk of those maps scans every
    // bucket, so exits are gathered and cleaned up together at most once a
    // second, or at once when a gathered pid is forked again.
    void scheduleDmabufCleanup(int32_t pid);
    void flushDmabufCleanup(int32_t reusedPid);
    std::mutex dmabufCleanupMutex_;
    std::vector<int32_t> dmabufCleanupPids_;
    int64_t dmabufCleanupAtMs_ = 0;

    std::thread producer_;
    std::thread gplProducer_;
    std::atomic<bool> producerAlive_{false};
    std::atomic<bool> gplProducerAlive_{false};

    std::unique_ptr<UnixIpcManager> server_;
    std::unique_ptr<IpcPackageManager> packageManager_;
    std::unique_ptr<IpcPackageHandler> packageHandler_;
    // Outgoing queue per client descriptor. Changed only on the socket thread
    // and under EventManager::quorRawEventManagerLock (the producers read it
    // under that lock while fanning out).
    std::map<int, IpcPackageManager> clients_;
    // Clients not read from until their queue drains (socket thread only).
    std::set<int> readPaused_;

    android::base::unique_fd processInodeMapFd_;
    android::base::unique_fd processMmapInfos_;

    // What initDmabufBpfProg() found in procfs, kept after seeding: the
    // buffers by inode (last holder seen, size), each holder's total, the
    // descriptors per (pid, inode) and the mappings per (pid, start address).
    std::map<uint64_t, dmabuf_info> dmabufInfoByInode;
    std::map<int32_t, dmabuf_stat> dmabufStatByPid;
    std::map<int32_t, std::map<uint64_t, uint64_t>> processInodes;
    std::map<int32_t, std::map<uint64_t, uint64_t>> processMmaps;

    std::mutex stopMutex_;
    std::condition_variable stopCv_;

    static QuorBpfService* instance;
};

// A handler that does nothing, for tests and experiments.
void TestHandleEvent(char* data, long len);

}  // namespace Bpf
}  // namespace Quor
