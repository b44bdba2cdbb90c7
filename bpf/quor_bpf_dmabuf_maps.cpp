// Seeding and pruning of the kernel maps in which the eBPF programmes account
// open descriptors and dmabuf buffers per process.
//
// The programmes only see changes from the moment they are attached, so the
// service writes the state that already exists, read from procfs: the number
// of open descriptors of every process, and every dmabuf buffer a process
// holds through a descriptor or has mapped. Every update is a whole-entry
// replace (flags 0): the programmes update the same maps concurrently.
//
// A pinned map is only used when its key and value sizes are exactly those of
// the layouts in quor_bpf_records.h: the kernel copies key_size and value_size
// bytes to and from the service's buffers, so a map of another layout would
// make it read or write past them.
#include <bpf/bpf.h>
#include <dirent.h>
#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bpf/quor_bpf_line_reader.h"
#include "bpf/quor_bpf_proc_info.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "service/quor_bpf_service.h"

namespace Quor {
namespace Bpf {

namespace {

using android::base::unique_fd;

constexpr const char* OPEN_FD_CALLER_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_open_fd_caller_map";
constexpr const char* DMABUF_ALLOCATE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_allocate_map";
constexpr const char* DMABUF_SIZE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_size_map";
constexpr const char* DMABUF_PERPROCESS_SIZE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_perprocess_size_map";

// The attribute size the service passes with every map update.
constexpr unsigned int MAP_UPDATE_ATTR_SIZE = 144;
static_assert(sizeof(union bpf_attr) >= MAP_UPDATE_ATTR_SIZE, "bpf_attr smaller than passed");

// Opens the map pinned at `path`; -1 with errno set when it cannot be opened,
// EINVAL when its key or value size differs from the given layout.
int OpenPinnedMap(const char* path, uint32_t keySize, uint32_t valueSize) {
    unique_fd fd(bpf_obj_get(path));
    if (fd.get() < 0) return -1;
    bpf_map_info info;
    memset(&info, 0, sizeof(info));
    uint32_t infoLen = sizeof(info);
    if (bpf_obj_get_info_by_fd(fd.get(), &info, &infoLen) != 0) return -1;
    if (info.key_size != keySize || info.value_size != valueSize) {
        QLOGE(QUOR_TAG_SERVICE,
              "[QuorBpfService][INIT] %s has key/value size %u/%u, expected %u/%u", path,
              info.key_size, info.value_size, keySize, valueSize);
        errno = EINVAL;
        return -1;
    }
    return fd.release();
}

int UpdateMapElem(int fd, const void* key, const void* value) {
    union bpf_attr attr;
    memset(&attr, 0, sizeof(attr));
    attr.map_fd = static_cast<uint32_t>(fd);
    attr.key = reinterpret_cast<uintptr_t>(key);
    attr.value = reinterpret_cast<uintptr_t>(value);
    attr.flags = 0;
    return static_cast<int>(syscall(__NR_bpf, BPF_MAP_UPDATE_ELEM, &attr, MAP_UPDATE_ATTR_SIZE));
}

// Deletes every key of a map keyed by quor_process_inode_key or
// quor_process_mmap_key (same layout) whose pid `doomed` accepts; `mapName`
// names the map in the logs. The next key is fetched before the current one
// is deleted: resuming from a deleted key would restart a hash map's walk at
// its start. A walk costs a system call per entry plus a scan of every bucket
// (even an empty map's), so callers walk once for as many pids as they can.
template <typename Key, typename Doomed>
int DeletePidKeys(int mapFd, const Doomed& doomed, const char* mapName) {
    static_assert(sizeof(Key) == 16, "per-process dmabuf key layout");
    Key key{};
    Key next{};
    bool haveKey = bpf_map_get_next_key(mapFd, nullptr, &key) == 0;
    while (haveKey) {
        haveKey = bpf_map_get_next_key(mapFd, &key, &next) == 0;
        const int nextErrno = errno;
        if (doomed(key.pid) && bpf_map_delete_elem(mapFd, &key) != 0) {
            QLOGW(QUOR_TAG_SERVICE, "Clean up %s faield! %s", mapName, strerror(errno));
            return -1;
        }
        errno = nextErrno;
        key = next;
    }
    if (errno == ENOENT) return 0;  // walked to the end
    QLOGW(QUOR_TAG_SERVICE, "get %s frist key failed! %s", mapName, strerror(errno));
    return -1;
}

// Number of entries of the descriptor directory `fdPath`, or -1 when it does
// not open.
int64_t CountDescriptors(const std::string& fdPath) {
    DIR* dir = opendir(fdPath.c_str());
    if (dir == nullptr) return -1;
    int64_t count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    (void)closedir(dir);
    return count;
}

// What one initDmabufBpfProg() run collects; the service's own tables.
struct DmabufTables {
    std::map<uint64_t, dmabuf_info>& infoByInode;
    std::map<int32_t, dmabuf_stat>& statByPid;
    std::map<int32_t, std::map<uint64_t, uint64_t>>& processInodes;
    std::map<int32_t, std::map<uint64_t, uint64_t>>& processMmaps;
};

// Records the dmabuf buffers that process `pidName` holds through its
// descriptors; returns the sum of their sizes, each buffer counted once.
uint64_t ScanDmabufDescriptors(const std::string& pidName, int32_t pid, DmabufTables* tables) {
    const std::string fdPath = StringPrintf(QuorBpfService::TASK_FD_TEMPLATE, pidName.c_str());
    DIR* dir = opendir(fdPath.c_str());
    if (dir == nullptr) return 0;
    uint64_t total = 0;
    while (const dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        const std::string link = fdPath + "/" + entry->d_name;
        if (ReadSymlink(link.c_str()).find(QuorBpfService::TASK_DMABUF_PREFIX) ==
            std::string::npos) {
            continue;
        }
        const std::string fdinfo =
            StringPrintf(QuorBpfService::TASK_FDINFO_TEMPLATE, pidName.c_str(), entry->d_name);
        // A size below 1 is no buffer the programmes could account.
        const int64_t size = QuorBpfService::GetFdSize(fdinfo);
        if (size <= 0) continue;
        const uint64_t inode = QuorBpfService::GetFdInode(fdinfo);
        if (inode == 0) continue;

        std::map<uint64_t, uint64_t>& inodes = tables->processInodes[pid];
        auto held = inodes.find(inode);
        if (held != inodes.end()) {
            ++held->second;  // another descriptor on a buffer already counted
            continue;
        }
        inodes.emplace(inode, 1);
        // A holder seen later, in another process, takes the buffer over.
        tables->infoByInode[inode] = dmabuf_info{pid, 0, static_cast<uint64_t>(size)};
        total += static_cast<uint64_t>(size);
    }
    (void)closedir(dir);
    return total;
}

// Records the dmabuf mappings of process `pidName` by start address.
void ScanDmabufMappings(const std::string& pidName, int32_t pid, DmabufTables* tables) {
    const std::string mapsPath = StringPrintf(QuorBpfService::TASK_MAPS_TEMPLATE, pidName.c_str());
    std::map<uint64_t, uint64_t> mappings;
    if (!ReadDmabufMappings(mapsPath, &mappings)) {
        QLOGW(QUOR_TAG_SERVICE, "[QuorBpfService][IMIT] Task not exists, so we skip it (%s)",
              mapsPath.c_str());
        return;
    }
    if (!mappings.empty()) tables->processMmaps[pid].insert(mappings.begin(), mappings.end());
}

}  // namespace

int QuorBpfService::initBpfMap() {
    const int inodeFd = OpenPinnedMap(DMABUF_BPF_PROCESS_INODE_MAP_PATH,
                                      sizeof(quor_process_inode_key), sizeof(uint64_t));
    if (inodeFd < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][InitBpfMap] get processInodeMap failed: %s",
              strerror(errno));
        errno = 0;
        return -1;
    }
    processInodeMapFd_.reset(inodeFd);
    const int mmapFd = OpenPinnedMap(DMABUF_BPF_PROCESS_MMAP_INFOS_PATH,
                                     sizeof(quor_process_mmap_key), sizeof(uint64_t));
    if (mmapFd < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][InitBpfMap] get processMmapInfos failed: %s",
              strerror(errno));
        errno = 0;
        return -1;
    }
    processMmapInfos_.reset(mmapFd);
    return 0;
}

int QuorBpfService::initFdBpfProg() {
    // Logged at error priority so that it shows in logs filtered to errors.
    QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update open_fd_caller_map !");
    unique_fd map(
        OpenPinnedMap(OPEN_FD_CALLER_MAP_PATH, sizeof(int32_t), sizeof(quor_open_fd_value)));
    if (map.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE,
              "[QuorBpfService][INIT] get map_QuorBpfDefineset_open_fd_caller_map(%d) failed! %s",
              -1, strerror(errno));
        return -1;
    }

    // One buffer for all processes, never cleared: a shorter name leaves the
    // tail of the one before, and a status without a name keeps the previous
    // name. The programmes that read these values expect exactly that.
    quor_open_fd_value value;
    memset(&value, 0, sizeof(value));
    const int rc = ForEachProcPid([&map, &value](const std::string& pidName) {
        QuorBpfLineReader status;
        if (!status.Open(StringPrintf(TASK_STATUS_TEMPLATE, pidName.c_str()))) return;
        std::string line;
        std::string name;
        std::string state;
        while (status.Next(&line)) {
            if (ProcLineValue(line, TASK_COMM_PREFIX, &name)) CopyProcName(name, value.comm);
            (void)ProcLineValue(line, "State:\t", &state);
        }
        status.Close();
        // A zombie has been through the kernel's exit programme, perhaps
        // before it ran at all: an entry written now would never go.
        if (!state.empty() && (state[0] == 'Z' || state[0] == 'X')) return;

        const int64_t count = CountDescriptors(StringPrintf(TASK_FD_TEMPLATE, pidName.c_str()));
        if (count < 0) return;
        const int32_t pid = ProcToInt32(pidName);
        value.pid = pid;
        value.open_fds = static_cast<uint64_t>(count);
        value.open_fds_again = static_cast<uint64_t>(count);
        if (UpdateMapElem(map.get(), &pid, &value) != 0) {
            QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update open_fd_caller_map failed! %s",
                  strerror(errno));
        }
    });
    if (rc != 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] read %s failed! %s", PROC_FS_PATH,
              strerror(errno));
    }
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    fdScanEndNs_.store(static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + now.tv_nsec);
    return 0;
}

void QuorBpfService::forgetFdEntryOfScanExit(int32_t pid, uint64_t exitNs) {
    // Later exits find their entry in the kernel, which removes it.
    if (exitNs > fdScanEndNs_.load()) return;
    unique_fd map(
        OpenPinnedMap(OPEN_FD_CALLER_MAP_PATH, sizeof(int32_t), sizeof(quor_open_fd_value)));
    if (map.get() >= 0) (void)bpf_map_delete_elem(map.get(), &pid);
}

int QuorBpfService::initDmabufBpfProg() {
    dmabufInfoByInode.clear();
    dmabufStatByPid.clear();
    processInodes.clear();
    processMmaps.clear();

    // All five maps are opened before the scan, so a missing one seeds none.
    unique_fd allocateMap(
        OpenPinnedMap(DMABUF_ALLOCATE_MAP_PATH, sizeof(uint64_t), sizeof(dmabuf_info)));
    if (allocateMap.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] get dmabufAllocateMap(%d) failed! %s", -1,
              strerror(errno));
        return -1;
    }
    unique_fd sizeMap(OpenPinnedMap(DMABUF_SIZE_MAP_PATH, sizeof(int32_t), sizeof(dmabuf_stat)));
    if (sizeMap.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] get dmabufSizeMap(%d) failed! %s", -1,
              strerror(errno));
        return -1;
    }
    unique_fd perprocessSizeMap(
        OpenPinnedMap(DMABUF_PERPROCESS_SIZE_MAP_PATH, sizeof(int32_t), sizeof(dmabuf_stat)));
    if (perprocessSizeMap.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] get dmabufPerprocessSizeMap(%d) failed! %s",
              -1, strerror(errno));
        return -1;
    }
    unique_fd inodeMap(OpenPinnedMap(DMABUF_BPF_PROCESS_INODE_MAP_PATH,
                                     sizeof(quor_process_inode_key), sizeof(uint64_t)));
    if (inodeMap.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] get processInodeMap(%d) failed! %s", -1,
              strerror(errno));
        return -1;
    }
    unique_fd mmapMap(OpenPinnedMap(DMABUF_BPF_PROCESS_MMAP_INFOS_PATH,
                                    sizeof(quor_process_mmap_key), sizeof(uint64_t)));
    if (mmapMap.get() < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] get processMmapInfos(%d) failed! %s", -1,
              strerror(errno));
        return -1;
    }

    DmabufTables tables{dmabufInfoByInode, dmabufStatByPid, processInodes, processMmaps};
    const int rc = ForEachProcPid([&tables](const std::string& pidName) {
        const int32_t pid = ProcToInt32(pidName);
        const uint64_t total = ScanDmabufDescriptors(pidName, pid, &tables);
        if (total == 0) return;  // holds no dmabuf: its mappings are not read
        tables.statByPid[pid] = dmabuf_stat{total, 0};
        ScanDmabufMappings(pidName, pid, &tables);
    });
    if (rc != 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] read %s failed! %s", PROC_FS_PATH,
              strerror(errno));
    }

    for (const auto& [inode, info] : dmabufInfoByInode) {
        if (UpdateMapElem(allocateMap.get(), &inode, &info) != 0) {
            QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update dmabuf allocate map failed! %s",
                  strerror(errno));
        }
    }
    for (const auto& [pid, stat] : dmabufStatByPid) {
        if (UpdateMapElem(sizeMap.get(), &pid, &stat) != 0) {
            QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update dmabufSizeMap failed! %s",
                  strerror(errno));
        }
        if (UpdateMapElem(perprocessSizeMap.get(), &pid, &stat) != 0) {
            QLOGE(QUOR_TAG_SERVICE,
                  "[QuorBpfService][INIT] update dmabufPerprocessSizeMap failed! %s",
                  strerror(errno));
        }
    }
    for (const auto& [pid, inodes] : processInodes) {
        for (const auto& [inode, count] : inodes) {
            const quor_process_inode_key key{pid, 0, inode};
            if (UpdateMapElem(inodeMap.get(), &key, &count) != 0) {
                QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update processInodeMap failed! %s",
                      strerror(errno));
            }
        }
    }
    for (const auto& [pid, mappings] : processMmaps) {
        for (const auto& [start, inode] : mappings) {
            const quor_process_mmap_key key{pid, 0, start};
            if (UpdateMapElem(mmapMap.get(), &key, &inode) != 0) {
                QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update processMmapInfos failed! %s",
                      strerror(errno));
            }
        }
    }
    return 0;
}

int QuorBpfService::cleanUpDmabufMap(int pid) {
    return cleanUpDmabufMaps(std::vector<int32_t>{pid});
}

int QuorBpfService::cleanUpDmabufMaps(const std::vector<int32_t>& pids) {
    if (processInodeMapFd_.get() < 0 || processMmapInfos_.get() < 0) {
        QLOGW(QUOR_TAG_SERVICE, "processInodeMapFd and processMmapInfos not exists");
        return 0;
    }
    std::vector<int32_t> sorted(pids);
    std::sort(sorted.begin(), sorted.end());
    const auto doomed = [&sorted](int32_t pid) {
        return std::binary_search(sorted.begin(), sorted.end(), pid);
    };
    if (DeletePidKeys<quor_process_inode_key>(processInodeMapFd_.get(), doomed,
                                              "processInodeMapFd") != 0) {
        return -1;
    }
    return DeletePidKeys<quor_process_mmap_key>(processMmapInfos_.get(), doomed,
                                                "processMmapInfos");
}

}  // namespace Bpf
}  // namespace Quor
