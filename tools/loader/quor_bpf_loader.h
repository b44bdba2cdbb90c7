// QuorBpfLoader: loads the two programme sets into the kernel and pins them.
//
// On a device the platform loads and pins the service's BPF objects; on a
// plain Linux machine this does it, from the objects built into the binary
// (kernel/). Everything is pinned flat in one bpffs directory, by default
// "/sys/fs/bpf/quor/", under the names the service opens:
//   map_<object>_<map>             e.g. map_QuorBpfDefineset_ringbuf_map
//   prog_<object>_<type>_<name>    e.g. prog_QuorBpfDefineset_kprobe_enter_fd_install
// where <type> is the programme's section kind (tracepoint, kprobe,
// kretprobe) and <name> its function name.
//
// Load() mounts bpffs (and tracefs, which tracepoint attachment needs) when
// absent, then per object: reuses every map already pinned under its name
// whose shape still matches, so that a restarted daemon keeps the kernel's
// state; replaces a pinned map whose shape changed; loads the programmes
// and pins them, replacing older pins. One object failing does not stop the
// other. Unload() removes the pins of both objects (and the directory when
// it is left empty); programmes stay in the kernel while something still
// holds them, e.g. an attachment.
//
// Usage:
//   QuorBpfLoadReport report;
//   int failures = QuorBpfLoader::Load(QuorBpfLoader::Options(), &report);
//   for (auto& line : report.Lines()) puts(line.c_str());
//
// Threading: calls are independent, but two loads into the same directory at
// once race on the pins; serialise them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {

struct QuorBpfLoadReport {
    std::vector<std::string> pinned;    // pin names created by this call
    std::vector<std::string> reused;    // map pin names kept from before
    std::vector<std::string> removed;   // pin names removed (Unload, stale maps)
    std::vector<std::string> failures;  // "what: why", one per failure
    std::vector<std::string> notes;     // mounts made, and the like

    // Human-readable summary, one line each.
    std::vector<std::string> Lines() const;
};

class QuorBpfLoader {
public:
    struct Options {
        std::string pinDir = "/sys/fs/bpf/quor/";
        // Ring-buffer size in bytes for newly created ring buffers (a power
        // of two, a multiple of the page size); 0 keeps the built-in size.
        uint32_t ringbufBytes = 0;
        // Mount bpffs on /sys/fs/bpf and tracefs when they are absent.
        bool mountFilesystems = true;
    };

    // Returns the number of failures (0: everything pinned).
    static int Load(const Options& options, QuorBpfLoadReport* report);
    // Removes the pins of the built-in objects from `pinDir`; returns the
    // number of pins that could not be removed.
    static int Unload(const std::string& pinDir, QuorBpfLoadReport* report);
    // The pin names the built-in objects produce, maps first, sorted.
    static std::vector<std::string> PinNames();
    // The names of the built-in objects.
    static std::vector<std::string> ObjectNames();
};

}  // namespace Bpf
}  // namespace Quor
