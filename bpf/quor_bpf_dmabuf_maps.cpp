// The seeding writes the state that already exists, read from procfs: the
// number of open descriptors of every process, and every dmabuf buffer a
// process holds through a descriptor or has mapped.
//
// A pinned map is only used when its key and value sizes are exactly those of
// the layouts in quor_bpf_records.h: the kernel copies key_size and value_size
// bytes to and from the service's buffers, so a map of another layout would
// make it read or write past them.
#include "bpf/quor_bpf_dmabuf_maps.h"

#include <bpf/bpf.h>
#include <dirent.h>
#include <linux/bpf.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "bpf/quor_bpf_line_reader.h"
#include "bpf/quor_bpf_pin_paths.h"
#include "bpf/quor_bpf_proc_info.h"
#include "bpf/quor_bpf_procfs_paths.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "diag/quor_bpf_time.h"

namespace Quor {
namespace Bpf {

namespace {

using android::base::unique_fd;

using namespace Pins;
using namespace Procfs;

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

// Opens one of the maps the dmabuf seeding writes; false (logged, naming the
// map) when it cannot be opened.
bool OpenSeedMap(const char* path, uint32_t keySize, uint32_t valueSize, const char* name,
                 unique_fd* fd) {
    fd->reset(OpenPinnedMap(path, keySize, valueSize));
    if (fd->get() >= 0) return true;
    QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] get %s(%d) failed! %s", name, -1,
          strerror(errno));
    return false;
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

// Deletes every key of `mapFd` that `doomed` accepts; `mapName` names the map
// in the logs. The next key is fetched before the current one is deleted:
// resuming from a deleted key would restart a hash map's walk at its start.
// A key the programmes deleted meanwhile (ENOENT) is no failure. A walk costs
// a system call per entry plus a scan of every bucket (even an empty map's),
// so callers walk once for as many pids as they can.
template <typename Key, typename Doomed>
int DeleteKeys(int mapFd, const Doomed& doomed, const char* mapName) {
    Key key{};
    Key next{};
    bool haveKey = bpf_map_get_next_key(mapFd, nullptr, &key) == 0;
    while (haveKey) {
        haveKey = bpf_map_get_next_key(mapFd, &key, &next) == 0;
        const int nextErrno = errno;
        if (doomed(key) && bpf_map_delete_elem(mapFd, &key) != 0 && errno != ENOENT) {
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

// Deletes `key` from a map keyed by pid; one that is not there is no failure.
int DeletePidKey(int mapFd, int32_t pid, const char* mapName) {
    if (mapFd < 0 || bpf_map_delete_elem(mapFd, &pid) == 0 || errno == ENOENT) return 0;
    QLOGW(QUOR_TAG_SERVICE, "Clean up %s faield! %s", mapName, strerror(errno));
    return -1;
}

// Whether process `pid` has ended: its status file is gone, or says it is a
// zombie (its descriptors, and with them its buffers, are closed already).
bool ProcessEnded(int32_t pid) {
    QuorBpfLineReader status;
    if (!status.Open(StringPrintf(TASK_STATUS_PID_TEMPLATE, pid))) return true;
    std::string line;
    while (status.Next(&line)) {
        if (line.rfind("State:\t", 0) == 0) {
            return line.size() > 7 && (line[7] == 'Z' || line[7] == 'X');
        }
    }
    return false;
}

// A descriptor or mapping of a dmabuf buffer names a path that begins with
// "/dmabuf:"; the text elsewhere in a path (a file named "x/dmabuf") is none.
bool IsDmabufPath(const std::string& path) {
    return path.rfind(TASK_DMABUF_PATH_PREFIX, 0) == 0;
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

// Records the dmabuf buffers that process `pidName` holds through its
// descriptors; true when it holds any.
bool ScanDmabufDescriptors(const std::string& pidName, int32_t pid, QuorBpfDmabufMaps* tables) {
    const std::string fdPath = StringPrintf(TASK_FD_TEMPLATE, pidName.c_str());
    DIR* dir = opendir(fdPath.c_str());
    if (dir == nullptr) return false;
    bool found = false;
    while (const dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        const std::string link = fdPath + "/" + entry->d_name;
        if (!IsDmabufPath(ReadSymlink(link.c_str()))) continue;
        const std::string fdinfo =
            StringPrintf(TASK_FDINFO_TEMPLATE, pidName.c_str(), entry->d_name);
        // A size below 1 is no buffer the programmes could account.
        const int64_t size = ReadFdSize(fdinfo);
        if (size <= 0) continue;
        uint64_t inode = ReadFdInode(fdinfo);
        // Older kernels write no "ino:" line; the descriptor's file says it.
        struct stat target;
        if (inode == 0 && stat(link.c_str(), &target) == 0) inode = target.st_ino;
        if (inode == 0) continue;

        std::map<uint64_t, uint64_t>& inodes = tables->processInodes[pid];
        auto held = inodes.find(inode);
        if (held != inodes.end()) {
            ++held->second;  // another descriptor on a buffer already counted
            continue;
        }
        inodes.emplace(inode, 1);
        // A holder seen later, in another process, takes the buffer over.
        tables->dmabufInfoByInode[inode] = dmabuf_info{pid, 0, static_cast<uint64_t>(size)};
        found = true;
    }
    (void)closedir(dir);
    return found;
}

// Records the dmabuf mappings of process `pidName` by start address.
void ScanDmabufMappings(const std::string& pidName, int32_t pid, QuorBpfDmabufMaps* tables) {
    const std::string mapsPath = StringPrintf(TASK_MAPS_TEMPLATE, pidName.c_str());
    std::map<uint64_t, uint64_t> mappings;
    if (!ReadDmabufMappings(mapsPath, &mappings)) {
        QLOGW(QUOR_TAG_SERVICE, "[QuorBpfService][IMIT] Task not exists, so we skip it (%s)",
              mapsPath.c_str());
        return;
    }
    if (!mappings.empty()) tables->processMmaps[pid].insert(mappings.begin(), mappings.end());
}

// Up to this many ended processes are removed from a pid-keyed map by one
// delete each; more by a walk of the map.
constexpr size_t kDeletesPerPidUpTo = 64;

// Removes what the maps hold of the processes in `sortedPids`: their
// per-process entries, their totals, their descriptor count and the buffers
// they were last seen holding. A descriptor of -1 is skipped.
int RemoveDmabufEntries(const std::vector<int32_t>& sortedPids, int allocateFd, int sizeFd,
                        int perprocessFd, int inodeFd, int mmapFd, int openFdFd) {
    const auto doomed = [&sortedPids](int32_t pid) {
        return std::binary_search(sortedPids.begin(), sortedPids.end(), pid);
    };
    int result = 0;
    // Walked to its end whatever another map did: one map's failure must not
    // leave the others holding a dead process's entries.
    if (inodeFd >= 0 &&
        DeleteKeys<quor_process_inode_key>(
            inodeFd, [&](const quor_process_inode_key& key) { return doomed(key.pid); },
            "processInodeMapFd") != 0) {
        result = -1;
    }
    if (mmapFd >= 0 &&
        DeleteKeys<quor_process_mmap_key>(
            mmapFd, [&](const quor_process_mmap_key& key) { return doomed(key.pid); },
            "processMmapInfos") != 0) {
        result = -1;
    }
    if (allocateFd >= 0) {
        const auto heldByDoomed = [&](const uint64_t& inode) {
            dmabuf_info info{};
            return bpf_map_lookup_elem(allocateFd, &inode, &info) == 0 && doomed(info.pid);
        };
        if (DeleteKeys<uint64_t>(allocateFd, heldByDoomed, "dmabufAllocateMap") != 0) result = -1;
    }
    // The pid-keyed maps: a delete per pid for a few pids; for many (a storm's
    // second of exits, most of which left no entry) one walk over the entries,
    // which are the live processes that have one.
    const struct {
        int fd;
        const char* name;
    } pidMaps[] = {{sizeFd, "dmabufSizeMap"},
                   {perprocessFd, "dmabufPerprocessSizeMap"},
                   {openFdFd, "open_fd_caller_map"}};
    for (const auto& map : pidMaps) {
        if (map.fd < 0) continue;
        if (sortedPids.size() > kDeletesPerPidUpTo) {
            if (DeleteKeys<int32_t>(map.fd, doomed, map.name) != 0) result = -1;
            continue;
        }
        for (const int32_t pid : sortedPids) {
            if (DeletePidKey(map.fd, pid, map.name) != 0) result = -1;
        }
    }
    return result;
}

// Sets the bits of `pids` in the pinned bitmap at `bitsPath`, which tells a
// kernel exit programme which pids have an entry to remove: without its bit a
// seeded entry would outlive its process. A word is read and written back
// whole; a bit the programmes set in between is lost, which leaves that
// process's entry to the service's cleanup of ended processes, never a wrong
// count. Objects without the bitmap check no bits.
void MarkPids(const char* bitsPath, const std::vector<int32_t>& pids) {
    unique_fd bits(OpenPinnedMap(bitsPath, sizeof(uint32_t), sizeof(uint64_t)));
    if (bits.get() < 0) return;
    std::map<uint32_t, uint64_t> words;
    for (const int32_t pid : pids) {
        if (pid < 0 || pid >= QUOR_PID_BITS) continue;
        words[static_cast<uint32_t>(pid) / 64] |= uint64_t{1} << (pid % 64);
    }
    for (const auto& [index, mask] : words) {
        uint64_t word = 0;
        if (bpf_map_lookup_elem(bits.get(), &index, &word) != 0) continue;
        word |= mask;
        (void)bpf_map_update_elem(bits.get(), &index, &word, BPF_ANY);
    }
}

}  // namespace

int InitBpfMap(QuorBpfDmabufMaps* maps) {
    const int inodeFd = OpenPinnedMap(DMABUF_BPF_PROCESS_INODE_MAP_PATH,
                                      sizeof(quor_process_inode_key), sizeof(uint64_t));
    if (inodeFd < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][InitBpfMap] get processInodeMap failed: %s",
              strerror(errno));
        errno = 0;
        return -1;
    }
    maps->processInodeMapFd.reset(inodeFd);
    const int mmapFd = OpenPinnedMap(DMABUF_BPF_PROCESS_MMAP_INFOS_PATH,
                                     sizeof(quor_process_mmap_key), sizeof(uint64_t));
    if (mmapFd < 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][InitBpfMap] get processMmapInfos failed: %s",
              strerror(errno));
        errno = 0;
        return -1;
    }
    maps->processMmapInfos.reset(mmapFd);
    // The other maps a process's exit cleans; one that is missing is skipped.
    maps->allocateMapFd.reset(
        OpenPinnedMap(DMABUF_ALLOCATE_MAP_PATH, sizeof(uint64_t), sizeof(dmabuf_info)));
    maps->sizeMapFd.reset(
        OpenPinnedMap(DMABUF_SIZE_MAP_PATH, sizeof(int32_t), sizeof(dmabuf_stat)));
    maps->perprocessSizeMapFd.reset(
        OpenPinnedMap(DMABUF_PERPROCESS_SIZE_MAP_PATH, sizeof(int32_t), sizeof(dmabuf_stat)));
    maps->openFdCallerMapFd.reset(
        OpenPinnedMap(OPEN_FD_CALLER_MAP_PATH, sizeof(int32_t), sizeof(quor_open_fd_value)));
    errno = 0;
    return 0;
}

int InitFdBpfProg(QuorBpfDmabufMaps* maps) {
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
    std::vector<int32_t> seeded;
    const int rc = ForEachProcPid([&map, &value, &seeded](const std::string& pidName) {
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
            return;
        }
        seeded.push_back(pid);
    });
    if (rc != 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] read %s failed! %s", PROC_FS_PATH,
              strerror(errno));
    }
    // Before the scan's end is known: an exit stamped until then is the
    // service's to clean (ForgetFdEntryOfScanExit), a later one the kernel's.
    MarkPids(OPEN_FD_PID_BITS_MAP_PATH, seeded);
    maps->fdScanEndNs.store(static_cast<uint64_t>(MonotonicNs()));
    return 0;
}

void ForgetFdEntryOfScanExit(const QuorBpfDmabufMaps& maps, int32_t pid, uint64_t exitNs) {
    // Later exits find their entry in the kernel, which removes it.
    if (exitNs > maps.fdScanEndNs.load()) return;
    unique_fd map(
        OpenPinnedMap(OPEN_FD_CALLER_MAP_PATH, sizeof(int32_t), sizeof(quor_open_fd_value)));
    if (map.get() >= 0) (void)bpf_map_delete_elem(map.get(), &pid);
}

int InitDmabufBpfProg(QuorBpfDmabufMaps* maps) {
    std::map<uint64_t, dmabuf_info>& dmabufInfoByInode = maps->dmabufInfoByInode;
    std::map<int32_t, dmabuf_stat>& dmabufStatByPid = maps->dmabufStatByPid;
    std::map<int32_t, std::map<uint64_t, uint64_t>>& processInodes = maps->processInodes;
    std::map<int32_t, std::map<uint64_t, uint64_t>>& processMmaps = maps->processMmaps;
    dmabufInfoByInode.clear();
    dmabufStatByPid.clear();
    processInodes.clear();
    processMmaps.clear();

    // All five maps are opened before the scan, so a missing one seeds none.
    unique_fd allocateMap;
    unique_fd sizeMap;
    unique_fd perprocessSizeMap;
    unique_fd inodeMap;
    unique_fd mmapMap;
    if (!OpenSeedMap(DMABUF_ALLOCATE_MAP_PATH, sizeof(uint64_t), sizeof(dmabuf_info),
                     "dmabufAllocateMap", &allocateMap) ||
        !OpenSeedMap(DMABUF_SIZE_MAP_PATH, sizeof(int32_t), sizeof(dmabuf_stat), "dmabufSizeMap",
                     &sizeMap) ||
        !OpenSeedMap(DMABUF_PERPROCESS_SIZE_MAP_PATH, sizeof(int32_t), sizeof(dmabuf_stat),
                     "dmabufPerprocessSizeMap", &perprocessSizeMap) ||
        !OpenSeedMap(DMABUF_BPF_PROCESS_INODE_MAP_PATH, sizeof(quor_process_inode_key),
                     sizeof(uint64_t), "processInodeMap", &inodeMap) ||
        !OpenSeedMap(DMABUF_BPF_PROCESS_MMAP_INFOS_PATH, sizeof(quor_process_mmap_key),
                     sizeof(uint64_t), "processMmapInfos", &mmapMap)) {
        return -1;
    }

    QuorBpfDmabufMaps& tables = *maps;
    const int rc = ForEachProcPid([&tables](const std::string& pidName) {
        const int32_t pid = ProcToInt32(pidName);
        // A process without dmabuf descriptors: its mappings are not read.
        if (ScanDmabufDescriptors(pidName, pid, &tables)) {
            ScanDmabufMappings(pidName, pid, &tables);
        }
    });
    if (rc != 0) {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] read %s failed! %s", PROC_FS_PATH,
              strerror(errno));
    }

    // A buffer the allocate map did not take is never released from a
    // total by the programmes, so it is counted in none.
    std::set<uint64_t> refused;
    for (const auto& [inode, info] : dmabufInfoByInode) {
        if (UpdateMapElem(allocateMap.get(), &inode, &info) != 0) {
            QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][INIT] update dmabuf allocate map failed! %s",
                  strerror(errno));
            refused.insert(inode);
        }
    }
    for (const auto& [pid, inodes] : processInodes) {
        uint64_t total = 0;
        for (const auto& held : inodes) {
            const auto info = dmabufInfoByInode.find(held.first);
            if (info != dmabufInfoByInode.end() && refused.count(held.first) == 0) {
                total += info->second.size;
            }
        }
        if (total != 0) dmabufStatByPid[pid] = dmabuf_stat{total, 0};
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
    std::vector<int32_t> holders;
    for (const auto& held : dmabufStatByPid) holders.push_back(held.first);
    MarkPids(DMABUF_PID_BITS_MAP_PATH, holders);
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

    // A process that ended while it was scanned may have had its exit cleaned
    // up before its entries were written: they go again now.
    std::vector<int32_t> ended;
    for (const auto& held : processInodes) {
        if (ProcessEnded(held.first)) ended.push_back(held.first);
    }
    if (!ended.empty()) {
        for (const int32_t pid : ended) {
            dmabufStatByPid.erase(pid);
            processInodes.erase(pid);
            processMmaps.erase(pid);
        }
        for (auto it = dmabufInfoByInode.begin(); it != dmabufInfoByInode.end();) {
            it = std::binary_search(ended.begin(), ended.end(), it->second.pid)
                     ? dmabufInfoByInode.erase(it)
                     : std::next(it);
        }
        (void)RemoveDmabufEntries(ended, allocateMap.get(), sizeMap.get(), perprocessSizeMap.get(),
                                  inodeMap.get(), mmapMap.get(), -1);
    }
    return 0;
}

int CleanUpDmabufMaps(QuorBpfDmabufMaps* maps, const std::vector<int32_t>& pids) {
    if (maps->processInodeMapFd.get() < 0 || maps->processMmapInfos.get() < 0) {
        QLOGW(QUOR_TAG_SERVICE, "processInodeMapFd and processMmapInfos not exists");
        return 0;
    }
    std::vector<int32_t> sorted(pids);
    std::sort(sorted.begin(), sorted.end());
    return RemoveDmabufEntries(sorted, maps->allocateMapFd.get(), maps->sizeMapFd.get(),
                               maps->perprocessSizeMapFd.get(), maps->processInodeMapFd.get(),
                               maps->processMmapInfos.get(), maps->openFdCallerMapFd.get());
}

}  // namespace Bpf
}  // namespace Quor
