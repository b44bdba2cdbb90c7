#include "bpf/quor_bpf_prog_attach.h"

// BCC's libbpf layer; its declarations clash with libbpf's, so it stays here.
#include <android-base/strings.h>
#include <bcc/libbpf.h>
#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>
#include <vector>

#include "bpf/quor_bpf_compat.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr const char* kProbeEventSuffix = "_quorbpf";
constexpr size_t kBpfAttrSize = 144;

// Head and tail of a programme name cut at its first "_". Without "_" both
// are the whole name.
void SplitProgName(const std::string& name, std::string* head, std::string* tail) {
    const size_t pos = name.find('_');
    *head = name.substr(0, pos);
    *tail = (pos == std::string::npos) ? name : name.substr(pos + 1);
}

bool PathExists(const char* path) {
    return access(path, F_OK) == 0;
}

// Kprobes are usable through the kprobe PMU or tracefs's kprobe_events.
bool KernelHasKprobes() {
    return PathExists("/sys/bus/event_source/devices/kprobe") ||
           PathExists("/sys/kernel/tracing/kprobe_events") ||
           PathExists("/sys/kernel/debug/tracing/kprobe_events");
}

// Whether the kernel has a function of that name (its symbol table lists
// every function; an unreadable table counts as "has it": nothing to report).
bool KernelHasFunction(const std::string& name) {
    FILE* f = fopen("/proc/kallsyms", "re");
    if (f == nullptr) return true;
    char line[512];
    bool found = false;
    while (!found && fgets(line, sizeof(line), f) != nullptr) {
        char symbol[256];
        if (sscanf(line, "%*s %*s %255s", symbol) == 1) found = (name == symbol);
    }
    fclose(f);
    return found;
}

// Names the missing hook when an attach failed because the kernel lacks it:
// kprobes altogether, or the function (a kernel built without the feature
// that has it), said once per function: the service attaches at every start.
void ExplainKprobeFailure(const std::string& functionName) {
    if (!KernelHasKprobes()) {
        QLOGW(QUOR_TAG_UTILS, "[AttachKProbeProgram] kernel lacks kprobes: %s cannot be probed",
              functionName.c_str());
        return;
    }
    static std::mutex mutex;
    static std::set<std::string> reported;
    std::lock_guard<std::mutex> lock(mutex);
    if (reported.count(functionName) != 0 || KernelHasFunction(functionName)) return;
    reported.insert(functionName);
    QLOGW(QUOR_TAG_UTILS, "[AttachKProbeProgram] kernel lacks function %s: it cannot be probed",
          functionName.c_str());
}

void ExplainTracepointFailure(const std::string& subSystem, const std::string& eventName) {
    for (const char* root : {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"}) {
        if (!PathExists((std::string(root) + "/events").c_str())) continue;
        const std::string event = std::string(root) + "/events/" + subSystem + "/" + eventName;
        if (!PathExists(event.c_str())) {
            QLOGW(QUOR_TAG_UTILS, "[AttachTracepointProgram] kernel lacks tracepoint %s/%s",
                  subSystem.c_str(), eventName.c_str());
        }
        return;
    }
    QLOGW(QUOR_TAG_UTILS, "[AttachTracepointProgram] no tracefs mounted: %s/%s cannot be found",
          subSystem.c_str(), eventName.c_str());
}

// Closes a programme descriptor whose attach failed, keeping errno: only an
// attached programme's descriptors stay open for the life of the process.
void CloseFailedProgram(int progFd) {
    const int saved = errno;
    (void)close(progFd);
    errno = saved;
}

int AttachTracepoint(int progFd, const std::string& subSystem, const std::string& eventName) {
    const int fd = bpf_attach_tracepoint(progFd, subSystem.c_str(), eventName.c_str());
    if (fd < 0) {
        const int saved = errno;
        ExplainTracepointFailure(subSystem, eventName);
        CloseFailedProgram(progFd);
        errno = saved;
        return -1;
    }
    return fd;
}

int AttachKprobe(int progFd, bool isEntry, const std::string& progName,
                 const std::string& functionName) {
    const std::string eventName = progName + kProbeEventSuffix;
    const int fd = bpf_attach_kprobe(progFd, isEntry ? BPF_PROBE_ENTRY : BPF_PROBE_RETURN,
                                     eventName.c_str(), functionName.c_str(), 0, 0);
    if (fd < 0) {
        const int saved = errno;
        ExplainKprobeFailure(functionName);
        CloseFailedProgram(progFd);
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace

bool IsBpfProg(std::string& name) {
    return name.compare(0, 5, "prog_") == 0;
}

int RetrieveProgramFd(const std::string& dir, const std::string& fileName) {
    const std::string path = dir + "/" + fileName;
    union {
        union bpf_attr attr;
        char bytes[kBpfAttrSize];
    } block;
    static_assert(sizeof(block) >= kBpfAttrSize, "bpf_attr block");
    memset(&block, 0, sizeof(block));
    block.attr.pathname = reinterpret_cast<__u64>(path.c_str());
    block.attr.file_flags = BPF_F_RDONLY;
    return static_cast<int>(syscall(__NR_bpf, BPF_OBJ_GET, &block, kBpfAttrSize));
}

int RetrieveProgramFd(const std::string& dir, const std::string& objectName,
                      const std::string& progType, const std::string& progName) {
    const std::string path = StringPrintf("%s/prog_%s_%s_%s", dir.c_str(), objectName.c_str(),
                                          progType.c_str(), progName.c_str());
    const size_t slash = path.rfind('/');
    return RetrieveProgramFd(path.substr(0, slash), path.substr(slash + 1));
}

int AttachTracepointProgram(const std::string& dir, const std::string& objectName,
                            const std::string& progName, const std::string& subSystem,
                            const std::string& eventName) {
    const int progFd = RetrieveProgramFd(dir, objectName, "tracepoint", progName);
    if (progFd < 0) {
        QLOGE(QUOR_TAG_UTILS, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
              progName.c_str());
        return -1;
    }
    return AttachTracepoint(progFd, subSystem, eventName);
}

int AttachTracepointProgram(const std::string& dir, const std::string& fileName,
                            const std::string& subSystem, const std::string& eventName) {
    const int progFd = RetrieveProgramFd(dir, fileName);
    if (progFd < 0) {
        QLOGE(QUOR_TAG_UTILS,
              "[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: %s, "
              "eventName: %s",
              subSystem.c_str(), eventName.c_str());
        return -1;
    }
    return AttachTracepoint(progFd, subSystem, eventName);
}

int AttachTracepointProgram(const std::string& dir, const std::string& objectName,
                            const std::string& progName) {
    int progFd = RetrieveProgramFd(dir, objectName, "tracepoint", progName);
    if (progFd < 0) progFd = RetrieveProgramFd(dir, objectName);
    if (progFd < 0) {
        QLOGE(QUOR_TAG_UTILS, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
              progName.c_str());
        return -1;
    }
    std::string subSystem;
    std::string eventName;
    SplitProgName(progName, &subSystem, &eventName);
    return AttachTracepoint(progFd, subSystem, eventName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& objectName,
                        const std::string& progName, const std::string& functionName,
                        bool isEntry) {
    const int progFd =
        RetrieveProgramFd(dir, objectName, isEntry ? "kprobe" : "kretprobe", progName);
    if (progFd < 0) {
        if (isEntry) {
            QLOGE(QUOR_TAG_UTILS,
                  "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, function: %s",
                  progName.c_str(), functionName.c_str());
        } else {
            QLOGE(QUOR_TAG_UTILS,
                  "[AttachKProbeProgram] Retrieve kretprobe prog failed: %s, function: %s",
                  progName.c_str(), functionName.c_str());
        }
        return -1;
    }
    if (isEntry) {
        QLOGI(QUOR_TAG_UTILS,
              "[AttachKProbeProgram] Attach kprobe prog: enter: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
    } else {
        QLOGI(QUOR_TAG_UTILS,
              "[AttachKProbeProgram] Attach kretprobe prog: return: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
    }
    return AttachKprobe(progFd, isEntry, progName, functionName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& objectName,
                        const std::string& progName) {
    const int progFd = RetrieveProgramFd(dir, objectName, "kprobe", progName);
    if (progFd < 0) {
        QLOGE(QUOR_TAG_UTILS, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, prog: %s",
              progName.c_str(), objectName.c_str());
        return -1;
    }
    std::string eventType;
    std::string eventName;
    SplitProgName(progName, &eventType, &eventName);
    bool isEntry = true;
    if (eventType.find("enter") != std::string::npos) {
        QLOGI(QUOR_TAG_UTILS,
              "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: %s, eventName: %s",
              eventType.c_str(), eventName.c_str());
    } else if (eventType.find("return") != std::string::npos) {
        QLOGI(QUOR_TAG_UTILS,
              "[AttachKProbeProgram] Attach kprobe prog: return: eventType: %s, eventName: %s",
              eventType.c_str(), eventName.c_str());
        isEntry = false;
    } else {
        QLOGE(QUOR_TAG_UTILS,
              "[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: %s, prog: %s",
              progName.c_str(), objectName.c_str());
        // No call failed: say why, rather than leave a stale errno (EEXIST
        // would hide the failure from the directory walk).
        (void)close(progFd);
        errno = EINVAL;
        return -1;
    }
    return AttachKprobe(progFd, isEntry, progName, eventName);
}

int AttachAllQuorBpfProgram(const std::string& path, const BpfProgTable& table) {
    int failures = 0;
    for (const auto& [objectName, byType] : table) {
        for (const auto& [attachType, rows] : byType) {
            for (const auto& row : rows) {
                if (row.size() != 4) {
                    QLOGE(QUOR_TAG_UTILS, "Error format!: %s", objectName.c_str());
                    continue;
                }
                if (!CheckBpfCompatibility(row[3])) {
                    QLOGW(QUOR_TAG_UTILS, "Skip bpf prog: %s, progName: %s, kernelCompat: %s",
                          objectName.c_str(), row[0].c_str(), row[3].c_str());
                    continue;
                }
                QLOGI(QUOR_TAG_UTILS, "Attach bpf prog start: %s, progName: %s", objectName.c_str(),
                      row[0].c_str());
                int result = 0;
                const char* failure = nullptr;
                switch (attachType) {
                    case BPF_ATTACH_TRACEPOINT:
                        result = AttachTracepointProgram(path, objectName, row[0], row[1], row[2]);
                        failure = "Attach tracepoint prog failed: %s, type: %s, msg: %s";
                        break;
                    case BPF_ATTACH_KPROBE:
                        result = AttachKProbeProgram(path, objectName, row[0], row[1], true);
                        failure = "Attach kprobe prog failed: %s, progname: %s, msg: %s";
                        break;
                    case BPF_ATTACH_KRETPROBE:
                        result = AttachKProbeProgram(path, objectName, row[0], row[1], false);
                        failure = "Attach kretprobe prog failed: %s, progname: %s, msg: %s";
                        break;
                    default:
                        QLOGE(QUOR_TAG_UTILS, "(UNKNOW TYPE) attach prog failed: %s, type: %s",
                              objectName.c_str(), row[0].c_str());
                        continue;
                }
                if (result == -1) {
                    QLOGE(QUOR_TAG_UTILS, failure, objectName.c_str(), row[0].c_str(),
                          strerror(errno));
                    ++failures;
                }
            }
        }
    }
    return failures;
}

int AttachAllQuorBpfProgram(const std::string& path) {
    namespace fs = std::filesystem;
    int failures = 0;
    std::error_code ec;
    fs::directory_iterator it(path, ec);
    if (ec) {
        QLOGE(QUOR_TAG_UTILS, "[AttachAllQuorBpfProgram] cannot read directory %s: %s",
              path.c_str(), ec.message().c_str());
        return failures + 1;
    }
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        std::string fileName = it->path().filename().string();
        if (!IsBpfProg(fileName)) continue;
        const std::vector<std::string> parts = android::base::Split(fileName, "_");
        if (parts.size() < 4) continue;
        const std::string& objectName = parts[1];
        const std::string& progType = parts[2];
        const std::string progName =
            android::base::Join(std::vector<std::string>(parts.begin() + 3, parts.end()), "_");
        QLOGI(QUOR_TAG_UTILS, "Attach bpf prog (%s, type: %s) to %s", fileName.c_str(),
              progType.c_str(), progName.c_str());
        if (progType == "kprobe") {
            if (AttachKProbeProgram(path, objectName, progName) == -1 && errno != EEXIST) {
                QLOGE(QUOR_TAG_UTILS, "Attach kprobe prog failed: %s, type: %s, msg: %s",
                      progType.c_str(), progName.c_str(), strerror(errno));
                ++failures;
            }
        } else if (progType == "tracepoint") {
            if (AttachTracepointProgram(path, objectName, progName) == -1 && errno != EEXIST) {
                QLOGE(QUOR_TAG_UTILS, "Attach tracepoint prog failed: %s, type: %s, msg: %s",
                      objectName.c_str(), progName.c_str(), strerror(errno));
                ++failures;
            }
        } else {
            QLOGE(QUOR_TAG_UTILS, "(UNKNOW TYPE) attach prog failed: %s, type: %s",
                  objectName.c_str(), progName.c_str());
        }
    }
    if (ec) {
        QLOGE(QUOR_TAG_UTILS, "[AttachAllQuorBpfProgram] cannot read directory %s: %s",
              path.c_str(), ec.message().c_str());
        ++failures;
    }
    return failures;
}

}  // namespace Bpf
}  // namespace Quor
