#include "bpf/quor_bpf_proc_info.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "bpf/quor_bpf_line_reader.h"
#include "bpf/quor_bpf_procfs_paths.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "diag/quor_bpf_time.h"

namespace Quor {
namespace Bpf {

namespace {

// A stat file is "pid (name) state ppid ...", and the name may hold blanks,
// parentheses and newlines ("tmux: server"). Only the text after the last ')'
// has a fixed shape: split on blanks, its piece 0 is the state (field 3),
// piece 17 the thread count (field 20), piece 19 the start time in clock
// ticks since boot (field 22).
constexpr size_t STAT_THREADS_PIECE = 17;
constexpr size_t STAT_START_TIME_PIECE = 19;
// Far above a real stat file (a name is at most 64 bytes), a bound for a
// crafted one.
constexpr size_t STAT_MAX_BYTES = 4096;

// Fields of a maps line split on blanks: address range, perms, offset,
// device, inode, path.
constexpr size_t MAPS_RANGE_PIECE = 0;
constexpr size_t MAPS_INODE_PIECE = 4;
constexpr size_t MAPS_PATH_PIECE = 5;

// Fills the field of `record` that one status line names; the first key that
// matches decides.
void ApplyStatusLine(const std::string& line, quor_task_init_record* record) {
    std::string value;
    if (ProcLineValue(line, Procfs::TASK_COMM_PREFIX, &value)) {
        CopyProcName(value, record->comm);
    } else if (ProcLineValue(line, Procfs::TASK_PPID_PREFIX, &value)) {
        record->ppid = ProcToInt32(value);
    } else if (ProcLineValue(line, Procfs::TASK_RSS_ANON_PREFIX, &value)) {
        record->rss_anon = ProcKbToBytes(value);
    } else if (ProcLineValue(line, Procfs::TASK_RSS_FILE_PREFIX, &value)) {
        record->rss_file = ProcKbToBytes(value);
    } else if (ProcLineValue(line, Procfs::TASK_RSS_SHMEM_PREFIX, &value)) {
        record->rss_shmem = ProcKbToBytes(value);
    } else if (ProcLineValue(line, Procfs::TASK_VM_SWAP_PREFIX, &value)) {
        record->swap = ProcKbToBytes(value);
    } else if (ProcLineValue(line, Procfs::TASK_PROC_UID_PREFIX, &value)) {
        record->uid = ProcToInt32(value);
    }
}

// Start time in seconds on the service's wall-clock base.
int64_t StartTimeSeconds(const std::string& startTicks) {
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    const int64_t seconds = ticksPerSecond > 0 ? ProcToInt64(startTicks) / ticksPerSecond : 0;
    // Wraps rather than overflowing on a nonsense tick count.
    return static_cast<int64_t>(static_cast<uint64_t>(GetBasetime()) +
                                static_cast<uint64_t>(seconds));
}

// The value of the first line of an fdinfo file holding `key`.
// False when the file does not open (logged) or has no such line.
bool ReadFdinfoValue(const std::string& path, const char* key, std::string* value) {
    QuorBpfLineReader reader;
    if (!reader.Open(path)) {
        QLOGW(QUOR_TAG_SERVICE, "Unable to open %s", path.c_str());
        return false;
    }
    std::string line;
    while (reader.Next(&line)) {
        if (ProcLineValue(line, key, value)) return true;
    }
    return false;
}

}  // namespace

bool ProcLineValue(const std::string& line, const char* key, std::string* value) {
    if (line.find(key) == std::string::npos) return false;
    // The key occurs in the line, so the line is at least as long as the key.
    value->assign(line, strlen(key), std::string::npos);
    return true;
}

int64_t ProcToInt64(const std::string& text) {
    const int saved = errno;
    const long long v = strtoll(text.c_str(), nullptr, 10);
    errno = saved;
    return v;
}

uint64_t ProcToUint64(const std::string& text) {
    const int saved = errno;
    const unsigned long long v = strtoull(text.c_str(), nullptr, 10);
    errno = saved;
    return v;
}

int32_t ProcToInt32(const std::string& text) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(ProcToInt64(text))));
}

int64_t ProcKbToBytes(const std::string& text) {
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    const int64_t kb = ProcToInt64(text);
    if (kb > kMax / 1024) return kMax;
    if (kb < kMin / 1024) return kMin;
    return kb * 1024;
}

void CopyProcName(const std::string& name, char* comm) {
    memcpy(comm, name.data(), std::min(name.size(), static_cast<size_t>(QUOR_COMM_LEN)));
    comm[QUOR_COMM_LEN - 1] = '\0';
}

int ForEachProcPid(const std::function<void(const std::string& pidName)>& visit) {
    DIR* dir = opendir(Procfs::PROC_FS_PATH);
    if (dir == nullptr) return -1;
    int result = 0;
    while (true) {
        errno = 0;
        const dirent* entry = readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) result = -1;
            break;
        }
        const std::string name(entry->d_name);
        if (IsDigits(name)) visit(name);
    }
    const int saved = errno;
    (void)closedir(dir);
    errno = saved;
    return result;
}

bool ReadTaskInitRecord(const std::string& pidName, quor_task_init_record* out) {
    return ReadTaskInitRecordFiles(StringPrintf(Procfs::TASK_STATUS_TEMPLATE, pidName.c_str()),
                                   StringPrintf(Procfs::TASK_STAT_TEMPLATE, pidName.c_str()),
                                   ProcToInt32(pidName), out);
}

bool ReadTaskInitRecordFiles(const std::string& statusPath, const std::string& statPath,
                             int32_t pid, quor_task_init_record* out) {
    memset(out, 0, sizeof(*out));
    out->header.type = QUOR_EVENT_TASK_INIT;
    out->header.timestamp_ns = static_cast<uint64_t>(GetSystemBootNanosencondsTime());
    out->pid = pid;

    QuorBpfLineReader reader;
    std::string line;
    if (!reader.Open(statusPath)) return false;
    while (reader.Next(&line)) ApplyStatusLine(line, out);

    // A process that has gone between the two files is not reported at all.
    if (!reader.Open(statPath)) return false;
    std::string stat;
    while (stat.size() < STAT_MAX_BYTES && reader.Next(&line)) {
        if (!stat.empty()) stat += '\n';  // a newline in the name
        stat += line;
    }
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd != std::string::npos) {
        const std::vector<std::string> pieces = Split(stat.substr(nameEnd + 1), " ");
        if (pieces.size() > STAT_START_TIME_PIECE) {
            out->thread_count = ProcToInt32(pieces[STAT_THREADS_PIECE]);
            out->start_time_s = StartTimeSeconds(pieces[STAT_START_TIME_PIECE]);
        }
    }
    return true;
}

bool ReadProcessExdataFile(const std::string& statusPath, UpdateProcessExdata* out) {
    QuorBpfLineReader reader;
    if (!reader.Open(statusPath)) return false;
    std::string line;
    std::string value;
    while (reader.Next(&line)) {
        if (ProcLineValue(line, Procfs::TASK_COMM_PREFIX, &value)) {
            CopyProcName(value, out->comm);
        } else if (ProcLineValue(line, Procfs::TASK_PPID_PREFIX, &value)) {
            out->ppid = ProcToInt32(value);
        }
    }
    return true;
}

bool ReadProcessThreads(int32_t pid, int32_t* threads) {
    QuorBpfLineReader reader;
    if (!reader.Open(StringPrintf(Procfs::TASK_STATUS_PID_TEMPLATE, pid))) return false;
    std::string line;
    std::string value;
    while (reader.Next(&line)) {
        if (line.rfind(Procfs::TASK_THREADS_PREFIX, 0) == 0 &&
            ProcLineValue(line, Procfs::TASK_THREADS_PREFIX, &value)) {
            *threads = ProcToInt32(value);
            return true;
        }
    }
    return false;
}

bool ReadDmabufMappings(const std::string& mapsPath, std::map<uint64_t, uint64_t>* mappings) {
    QuorBpfLineReader reader;
    if (!reader.Open(mapsPath)) return false;
    std::string line;
    while (reader.Next(&line)) {
        const std::vector<std::string> pieces = Split(line, " ");
        if (pieces.size() <= MAPS_PATH_PIECE ||
            pieces[MAPS_PATH_PIECE].rfind(Procfs::TASK_DMABUF_PATH_PREFIX, 0) != 0) {
            continue;
        }
        const std::vector<std::string> range = Split(pieces[MAPS_RANGE_PIECE], "-");
        if (range.size() != 2) continue;
        const uint64_t start = strtoull(range[0].c_str(), nullptr, 16);
        (*mappings)[start] = ProcToUint64(pieces[MAPS_INODE_PIECE]);
    }
    return true;
}

int ReadProcessInfo(int pid, UpdateProcessExdata* out) {
    if (out == nullptr ||
        !ReadProcessExdataFile(StringPrintf(Procfs::TASK_STATUS_PID_TEMPLATE, pid), out)) {
        QLOGW(QUOR_TAG_SERVICE, "[QuorBpfService][GPI] Task not exists, errno info: %s",
              strerror(out == nullptr ? EINVAL : errno));
        return -1;
    }
    out->pid = pid;
    return 0;
}

int64_t ReadFdSize(const std::string& path) {
    std::string value;
    return ReadFdinfoValue(path, Procfs::TASK_DMABUF_SIZE_PREFIX, &value) ? ProcToInt64(value) : 0;
}

uint64_t ReadFdInode(const std::string& path) {
    std::string value;
    return ReadFdinfoValue(path, Procfs::TASK_DMABUF_INO_PREFIX, &value) ? ProcToUint64(value) : 0;
}

}  // namespace Bpf
}  // namespace Quor
