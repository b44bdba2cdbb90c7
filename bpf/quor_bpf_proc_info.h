// Procfs readers of the service: what it learns about processes that already
// ran before the kernel programmes were attached, and single values the
// dmabuf scan needs. QuorBpfService's getProcessInfo(), GetFdSize() and
// GetFdInode() are ReadProcessInfo(), ReadFdSize() and ReadFdInode();
// ScanRunningTasks() (quor_bpf_task_scan.h) feeds ReadTaskInitRecord()'s
// records to the record handler.
//
// Procfs text is treated as untrusted: a value that is not a number reads as
// 0, lines are bounded (QuorBpfLineReader), names are copied into fixed
// 16-byte fields and never past them. Nothing here throws.
//
// "Key:\tvalue" lines: a line is taken for a key when the key (with its colon
// and tab) occurs anywhere in it; the value is the line with its first
// key-length bytes cut off, since procfs writes the key at the start. Numbers
// are decimal, leading blanks allowed, trailing text ("kB", further
// tab-separated numbers) ignored.
//
// Every function is reentrant; none keeps state or takes a lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

// A process's parent and name, as read from its status file on demand. The
// caller hands it in zero-filled.
struct UpdateProcessExdata {
    int32_t pid;
    int32_t ppid;
    char comm[QUOR_COMM_LEN];  // at most 15 significant bytes, comm[15] is 0
};

// The value of `line` for `key`, or false when the key does not occur in it.
bool ProcLineValue(const std::string& line, const char* key, std::string* value);

// Decimal text to a number; 0 when the text does not start with one. Values
// out of range saturate, as strtoll/strtoull do.
int64_t ProcToInt64(const std::string& text);
uint64_t ProcToUint64(const std::string& text);
// Pid-sized fields (pid, ppid, uid, thread count): the 64-bit value cut to
// 32 bits, so a uid above INT32_MAX keeps its bit pattern.
int32_t ProcToInt32(const std::string& text);

// A "kB" figure in bytes, saturating at INT64_MAX instead of wrapping.
int64_t ProcKbToBytes(const std::string& text);

// Copies at most QUOR_COMM_LEN bytes of `name` (no terminator) into `comm`,
// then forces comm[QUOR_COMM_LEN - 1] to 0. Bytes past a shorter name keep
// what they held.
void CopyProcName(const std::string& name, char* comm);

// Calls `visit` with the name of every /proc entry that is all digits. Returns
// 0, or -1 with errno set when /proc cannot be opened or read; entries
// visited before a read error stay visited.
int ForEachProcPid(const std::function<void(const std::string& pidName)>& visit);

// Builds the task-init record of the process whose /proc entry is `pidName`
// from its status and stat files. False when either file does not open (the
// process is gone); then *out holds no meaningful record.
bool ReadTaskInitRecord(const std::string& pidName, quor_task_init_record* out);

// The readers above and getProcessInfo() with the files named directly; what
// they do with the text of any file (the fuzzers feed them arbitrary bytes).
// ReadTaskInitRecordFiles fills *out for `pid` from a status and a stat file;
// ReadProcessExdataFile fills out->ppid and out->comm from a status file.
// Both return false when a file does not open.
bool ReadTaskInitRecordFiles(const std::string& statusPath, const std::string& statPath,
                             int32_t pid, quor_task_init_record* out);
bool ReadProcessExdataFile(const std::string& statusPath, UpdateProcessExdata* out);

// Fills out->ppid and out->comm of process `pid` from its status file and
// sets out->pid: 0, or -1 (logged) when the file does not open.
int ReadProcessInfo(int pid, UpdateProcessExdata* out);
// The "size:" (bytes) and "ino:" values of an fdinfo file; 0 when the file
// does not open (logged) or has no such line.
int64_t ReadFdSize(const std::string& path);
uint64_t ReadFdInode(const std::string& path);

// The thread count of a process, from the "Threads:" line of its status
// file. False when the file does not open or has no such line.
bool ReadProcessThreads(int32_t pid, int32_t* threads);

// The dmabuf mappings of a maps file: start address -> inode of every line
// whose path begins with "/dmabuf:". False when the file does not open.
bool ReadDmabufMappings(const std::string& mapsPath, std::map<uint64_t, uint64_t>* mappings);

}  // namespace Bpf
}  // namespace Quor
