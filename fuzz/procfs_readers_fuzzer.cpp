// The procfs readers on one arbitrary file, read in turn as a status, stat,
// fdinfo and maps file through /proc/self/fd/<memfd>, as they read procfs.
#include <android/log.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "bpf/quor_bpf_line_reader.h"
#include "bpf/quor_bpf_proc_info.h"
#include "fuzz/fuzz_support.h"
#include "service/quor_bpf_service.h"

using namespace Quor::Bpf;

namespace {
int gFile = -1;
std::string gPath;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    gFile = memfd_create("quor_procfs_fuzz", MFD_CLOEXEC);
    Require(gFile >= 0);
    gPath = "/proc/self/fd/" + std::to_string(gFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Require(ftruncate(gFile, 0) == 0 && pwrite(gFile, data, size, 0) == static_cast<ssize_t>(size));
    const int probe = dup(0);  // the lowest free descriptor before the readers run
    (void)close(probe);

    quor_task_init_record record;
    Require(ReadTaskInitRecordFiles(gPath, gPath, 4242, &record));
    Require(record.header.type == QUOR_EVENT_TASK_INIT && record.pid == 4242);
    Require(record.comm[QUOR_COMM_LEN - 1] == '\0');

    UpdateProcessExdata exdata;
    memset(&exdata, 0, sizeof(exdata));
    Require(ReadProcessExdataFile(gPath, &exdata));
    Require(exdata.comm[QUOR_COMM_LEN - 1] == '\0');

    (void)QuorBpfService::GetFdSize(gPath);
    (void)QuorBpfService::GetFdInode(gPath);

    std::map<uint64_t, uint64_t> mappings;
    Require(ReadDmabufMappings(gPath, &mappings));
    const size_t lines = static_cast<size_t>(std::count(data, data + size, '\n')) + 1;
    Require(mappings.size() <= lines);

    // Lines never exceed the bound, nor outnumber the file's.
    QuorBpfLineReader reader;
    Require(reader.Open(gPath));
    std::string line;
    size_t seen = 0;
    while (reader.Next(&line)) {
        Require(line.size() <= QuorBpfLineReader::kMaxLine);
        ++seen;
    }
    Require(seen <= lines);
    reader.Close();

    const int after = dup(0);
    (void)close(after);
    Require(after == probe);
    return 0;
}
