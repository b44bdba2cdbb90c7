// The procfs readers on arbitrary file contents: the input is one file's
// bytes, read as a status file, a stat file, an fdinfo file and a maps file
// in turn (the seeds hold real examples of each). The file is a memfd reached
// through /proc/self/fd, so the readers open, read and close it exactly as
// they do a procfs file.
//
// Checked beyond the sanitizers: names stay terminated inside their 16-byte
// fields, a maps file yields at most one mapping per line, and no descriptor
// is left open.
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
#include "service/quor_bpf_service.h"

using namespace Quor::Bpf;

namespace {

int gFile = -1;
std::string gPath;

void Require(bool condition) {
    if (!condition) __builtin_trap();
}

bool Replace(const uint8_t* data, size_t size) {
    if (ftruncate(gFile, 0) != 0) return false;
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(gFile, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    gFile = memfd_create("quor_procfs_fuzz", MFD_CLOEXEC);
    Require(gFile >= 0);
    gPath = "/proc/self/fd/" + std::to_string(gFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Require(Replace(data, size));
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

    // Lines come out whole up to the bound, never longer, and never more of
    // them than the file holds.
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
