// The service's procfs readers and kernel-map operations: each is the bpf/
// function of the same purpose, applied to the service's own state.
#include "bpf/quor_bpf_dmabuf_maps.h"
#include "bpf/quor_bpf_proc_info.h"
#include "bpf/quor_bpf_task_scan.h"
#include "service/quor_bpf_service.h"

namespace Quor {
namespace Bpf {

void QuorBpfService::initTaskInfo() {
    (void)ScanRunningTasks([this](quor_task_init_record* record) {
        (void)handleBpfRingBuffEvent(nullptr, record, sizeof(*record));
    });
}

int QuorBpfService::getProcessInfo(int pid, UpdateProcessExdata* out) {
    return ReadProcessInfo(pid, out);
}

int64_t QuorBpfService::GetFdSize(const std::string& path) {
    return ReadFdSize(path);
}

uint64_t QuorBpfService::GetFdInode(const std::string& path) {
    return ReadFdInode(path);
}

int QuorBpfService::initBpfMap() {
    return InitBpfMap(&dmabufMaps_);
}

int QuorBpfService::initFdBpfProg() {
    return InitFdBpfProg(&dmabufMaps_);
}

void QuorBpfService::forgetFdEntryOfScanExit(int32_t pid, uint64_t exitNs) {
    ForgetFdEntryOfScanExit(dmabufMaps_, pid, exitNs);
}

int QuorBpfService::initDmabufBpfProg() {
    return InitDmabufBpfProg(&dmabufMaps_);
}

int QuorBpfService::cleanUpDmabufMap(int pid) {
    return CleanUpDmabufMaps(&dmabufMaps_, std::vector<int32_t>{pid});
}

int QuorBpfService::cleanUpDmabufMaps(const std::vector<int32_t>& pids) {
    return CleanUpDmabufMaps(&dmabufMaps_, pids);
}

}  // namespace Bpf
}  // namespace Quor
