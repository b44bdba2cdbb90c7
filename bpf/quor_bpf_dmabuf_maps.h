// Seeding and pruning of the kernel maps in which the eBPF programmes account
// open descriptors and dmabuf buffers per process.
//
// The programmes only see changes from the moment they are attached, so the
// service writes the state that already exists, read from procfs. Whoever
// owns a QuorBpfDmabufMaps (the service) calls, on one thread at a time:
//   InitBpfMap(&maps)          opens the maps that a process's exit prunes;
//   InitFdBpfProg()            seeds the open-descriptor counts;
//   InitDmabufBpfProg(&maps)   seeds buffers, holders, totals and mappings;
//   CleanUpDmabufMaps(&maps, pids)  removes ended processes' entries.
// Every map update is a whole-entry replace: the programmes update the same
// maps concurrently. Failures are logged and returned, never thrown.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

struct QuorBpfDmabufMaps {
    // The maps a process's exit is cleaned from; -1 when not open. The two
    // per-process maps are required, the others are skipped when missing.
    android::base::unique_fd processInodeMapFd;
    android::base::unique_fd processMmapInfos;
    android::base::unique_fd allocateMapFd;
    android::base::unique_fd sizeMapFd;
    android::base::unique_fd perprocessSizeMapFd;
    android::base::unique_fd openFdCallerMapFd;

    // What the last seeding found in procfs: the buffers by inode (last
    // holder seen, size), each holder's total, the descriptors per
    // (pid, inode) and the mappings per (pid, start address).
    std::map<uint64_t, dmabuf_info> dmabufInfoByInode;
    std::map<int32_t, dmabuf_stat> dmabufStatByPid;
    std::map<int32_t, std::map<uint64_t, uint64_t>> processInodes;
    std::map<int32_t, std::map<uint64_t, uint64_t>> processMmaps;

    // When InitFdBpfProg() last finished writing (CLOCK_MONOTONIC ns, the
    // programmes' clock); 0 before.
    std::atomic<uint64_t> fdScanEndNs{0};
};

// 0, or -1 when one of the two per-process maps cannot be opened.
int InitBpfMap(QuorBpfDmabufMaps* maps);
// 0 after the walk, -1 when the map cannot be opened.
int InitFdBpfProg(QuorBpfDmabufMaps* maps);
// A process that ended while InitFdBpfProg() ran may have had its entry
// written after the kernel's exit programme looked: its exit record
// (timestamp `exitNs`, programmes' clock) removes it here.
void ForgetFdEntryOfScanExit(const QuorBpfDmabufMaps& maps, int32_t pid, uint64_t exitNs);
// 0 after seeding, -1 when one of its five maps cannot be opened.
int InitDmabufBpfProg(QuorBpfDmabufMaps* maps);
// Removes what the maps hold of the processes in `pids`: their per-process
// entries, their totals, their descriptor count and the buffers last seen
// held by them. An entry the programmes deleted meanwhile is no failure.
int CleanUpDmabufMaps(QuorBpfDmabufMaps* maps, const std::vector<int32_t>& pids);

}  // namespace Bpf
}  // namespace Quor
