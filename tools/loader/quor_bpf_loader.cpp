#include "tools/loader/quor_bpf_loader.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>

#include "diag/quor_bpf_log.h"
#include "quor/quor_bpf_records.h"
#include "quor_bpf_objects.h"
#include "tools/loader/quor_bpf_fs_mounts.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr const char* kTag = "QuorBpfLoader";

// libbpf's own warnings (the verifier's log among them) go to the log too.
int LibbpfPrint(enum libbpf_print_level level, const char* format, va_list args) {
    if (level == LIBBPF_DEBUG) return 0;
    char line[1024];
    int n = vsnprintf(line, sizeof(line), format, args);
    if (n > 0 && line[std::min<size_t>(n, sizeof(line) - 1) - 1] == '\n') {
        line[std::min<size_t>(n, sizeof(line) - 1) - 1] = '\0';
    }
    __android_log_print(level == LIBBPF_WARN ? ANDROID_LOG_WARN : ANDROID_LOG_INFO, kTag, "%s",
                        line);
    return n;
}

std::string Errno(int err) {
    return strerror(err < 0 ? -err : err);
}

std::string WithSlash(const std::string& dir) {
    return (!dir.empty() && dir.back() == '/') ? dir : dir + "/";
}

// Section "tracepoint/sched/sched_switch" -> "tracepoint".
std::string ProgramType(const bpf_program* prog) {
    std::string section = bpf_program__section_name(prog);
    return section.substr(0, section.find('/'));
}

std::string MapPinName(const std::string& object, const bpf_map* map) {
    return "map_" + object + "_" + bpf_map__name(map);
}

std::string ProgPinName(const std::string& object, const bpf_program* prog) {
    return "prog_" + object + "_" + ProgramType(prog) + "_" + bpf_program__name(prog);
}

bool MakeDirs(const std::string& path) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/') continue;
        const std::string prefix = path.substr(0, pos);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// Opens an embedded object (not loaded); null with the reason on failure.
bpf_object* OpenEmbedded(const quor_bpf_embedded_object& embedded, std::string* error) {
    LIBBPF_OPTS(bpf_object_open_opts, opts, .object_name = embedded.name);
    bpf_object* obj = bpf_object__open_mem(embedded.data, embedded.size, &opts);
    const long err = libbpf_get_error(obj);
    if (err != 0) {
        *error = Errno(static_cast<int>(err));
        return nullptr;
    }
    return obj;
}

void ForEachObject(const std::function<void(const quor_bpf_embedded_object&)>& visit) {
    for (unsigned i = 0; i < quor_bpf_embedded_object_count; ++i) {
        visit(quor_bpf_embedded_objects[i]);
    }
}

// Whether the pinned map `fd` has the shape that `map` asks for.
bool SameShape(int fd, const bpf_map* map, std::string* why) {
    bpf_map_info info = {};
    __u32 len = sizeof(info);
    if (bpf_obj_get_info_by_fd(fd, &info, &len) != 0) {
        *why = "cannot read its info: " + Errno(errno);
        return false;
    }
    char shape[160];
    if (info.type != static_cast<__u32>(bpf_map__type(map)) ||
        info.key_size != bpf_map__key_size(map) || info.value_size != bpf_map__value_size(map) ||
        info.max_entries != bpf_map__max_entries(map) ||
        info.map_flags != bpf_map__map_flags(map)) {
        snprintf(shape, sizeof(shape),
                 "pinned type %u key %u value %u entries %u flags %#x, built type %d key %u value "
                 "%u entries %u flags %#x",
                 info.type, info.key_size, info.value_size, info.max_entries, info.map_flags,
                 bpf_map__type(map), bpf_map__key_size(map), bpf_map__value_size(map),
                 bpf_map__max_entries(map), bpf_map__map_flags(map));
        *why = shape;
        return false;
    }
    return true;
}

// Makes every map of `obj` reuse its pin when the shape matches; a stale pin
// is removed so that load creates the map afresh. Returns the maps reused.
std::vector<std::string> ReusePinnedMaps(const std::string& dir, const std::string& object,
                                         bpf_object* obj, QuorBpfLoadReport* report) {
    std::vector<std::string> reused;
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, obj) {
        const std::string name = MapPinName(object, map);
        const std::string path = dir + name;
        const int fd = bpf_obj_get(path.c_str());
        if (fd < 0) continue;
        std::string why;
        if (SameShape(fd, map, &why) && bpf_map__reuse_fd(map, fd) == 0) {
            reused.push_back(name);
        } else {
            QLOGW(kTag, "[Load] pinned map %s no longer matches (%s): replacing it", name.c_str(),
                  why.c_str());
            if (unlink(path.c_str()) == 0) report->removed.push_back(name);
        }
        close(fd);
    }
    return reused;
}

int LoadObject(const quor_bpf_embedded_object& embedded, const QuorBpfLoader::Options& options,
               const std::string& dir, QuorBpfLoadReport* report) {
    const std::string object = embedded.name;
    std::string error;
    bpf_object* obj = OpenEmbedded(embedded, &error);
    if (obj == nullptr) {
        report->failures.push_back(object + ": cannot open the object: " + error);
        return 1;
    }
    if (options.ringbufBytes != 0) {
        bpf_map* map = nullptr;
        bpf_object__for_each_map(map, obj) {
            if (bpf_map__type(map) == BPF_MAP_TYPE_RINGBUF) {
                (void)bpf_map__set_max_entries(map, options.ringbufBytes);
            }
        }
    }

    const std::vector<std::string> reused = ReusePinnedMaps(dir, object, obj, report);
    const int err = bpf_object__load(obj);
    if (err != 0) {
        report->failures.push_back(object + ": load failed: " + Errno(err) +
                                   " (the verifier's reasons are in the log above)");
        bpf_object__close(obj);
        return 1;
    }

    int failures = 0;
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, obj) {
        const std::string name = MapPinName(object, map);
        // A reused status map still says "enabled" from the service run
        // before: the new programmes would run before the next service has
        // seeded anything. They start switched off, as in a fresh map.
        if (strcmp(bpf_map__name(map), "ringbuf_status") == 0) {
            const uint32_t key = QUOR_STATUS_KEY_FLAGS;
            const uint64_t off = 0;
            if (bpf_map_update_elem(bpf_map__fd(map), &key, &off, BPF_ANY) != 0) {
                report->failures.push_back(name +
                                           ": cannot reset the status word: " + Errno(-errno));
                ++failures;
            }
        }
        if (std::find(reused.begin(), reused.end(), name) != reused.end()) {
            report->reused.push_back(name);
            continue;
        }
        const std::string path = dir + name;
        (void)unlink(path.c_str());
        const int pinErr = bpf_map__pin(map, path.c_str());
        if (pinErr != 0) {
            report->failures.push_back(name + ": pin failed: " + Errno(pinErr));
            ++failures;
        } else {
            report->pinned.push_back(name);
        }
    }
    bpf_program* prog = nullptr;
    bpf_object__for_each_program(prog, obj) {
        const std::string name = ProgPinName(object, prog);
        const std::string path = dir + name;
        (void)unlink(path.c_str());
        const int pinErr = bpf_program__pin(prog, path.c_str());
        if (pinErr != 0) {
            report->failures.push_back(name + ": pin failed: " + Errno(pinErr));
            ++failures;
        } else {
            report->pinned.push_back(name);
        }
    }
    bpf_object__close(obj);
    return failures;
}

}  // namespace

std::vector<std::string> QuorBpfLoadReport::Lines() const {
    std::vector<std::string> lines;
    for (const auto& note : notes) lines.push_back(note);
    for (const auto& name : reused) lines.push_back("reused  " + name);
    for (const auto& name : pinned) lines.push_back("pinned  " + name);
    for (const auto& name : removed) lines.push_back("removed " + name);
    for (const auto& failure : failures) lines.push_back("FAILED  " + failure);
    return lines;
}

int QuorBpfLoader::Load(const Options& options, QuorBpfLoadReport* report) {
    libbpf_set_print(LibbpfPrint);
    const std::string dir = WithSlash(options.pinDir);
    if (options.mountFilesystems) {
        bool mounted = false;
        std::string error;
        if (!EnsureBpffs(QUOR_BPFFS_ROOT, &mounted, &error)) {
            report->failures.push_back("bpffs: " + error);
            return 1;
        }
        if (mounted) report->notes.push_back(std::string("mounted bpffs on ") + QUOR_BPFFS_ROOT);
        if (!EnsureTracefs(&mounted, &error)) {
            // Not fatal to loading; attaching tracepoints will fail later.
            report->notes.push_back("tracefs unavailable: " + error);
        } else if (mounted) {
            report->notes.push_back(std::string("mounted tracefs on ") + QUOR_TRACEFS_ROOT);
        }
    }
    if (!MakeDirs(dir)) {
        report->failures.push_back(dir + ": " + Errno(errno));
        return 1;
    }
    int failures = 0;
    ForEachObject([&](const quor_bpf_embedded_object& embedded) {
        failures += LoadObject(embedded, options, dir, report);
    });
    return failures;
}

int QuorBpfLoader::Unload(const std::string& pinDir, QuorBpfLoadReport* report) {
    const std::string dir = WithSlash(pinDir);
    int failures = 0;
    for (const auto& name : PinNames()) {
        const std::string path = dir + name;
        if (unlink(path.c_str()) == 0) {
            report->removed.push_back(name);
        } else if (errno != ENOENT) {
            report->failures.push_back(name + ": " + Errno(errno));
            ++failures;
        }
    }
    (void)rmdir(dir.c_str());  // only succeeds when nothing else is pinned there
    return failures;
}

std::vector<std::string> QuorBpfLoader::PinNames() {
    std::vector<std::string> maps;
    std::vector<std::string> progs;
    ForEachObject([&](const quor_bpf_embedded_object& embedded) {
        std::string error;
        bpf_object* obj = OpenEmbedded(embedded, &error);
        if (obj == nullptr) return;
        bpf_map* map = nullptr;
        bpf_object__for_each_map(map, obj) maps.push_back(MapPinName(embedded.name, map));
        bpf_program* prog = nullptr;
        bpf_object__for_each_program(prog, obj) progs.push_back(ProgPinName(embedded.name, prog));
        bpf_object__close(obj);
    });
    std::sort(maps.begin(), maps.end());
    std::sort(progs.begin(), progs.end());
    maps.insert(maps.end(), progs.begin(), progs.end());
    return maps;
}

std::vector<std::string> QuorBpfLoader::ObjectNames() {
    std::vector<std::string> names;
    ForEachObject(
        [&](const quor_bpf_embedded_object& embedded) { names.push_back(embedded.name); });
    return names;
}

}  // namespace Bpf
}  // namespace Quor
