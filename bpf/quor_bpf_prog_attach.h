// Attaching pinned BPF programmes to their kernel hooks.
//
// The programmes are loaded and pinned in bpffs before the service starts,
// each as the file "<dir>/prog_<object>_<type>_<name>", where <type> is
// "tracepoint", "kprobe" or "kretprobe" and, for a tracepoint, <name> is its
// subsystem and event joined by "_" (prog_QuorBpfDefineset_tracepoint_
// sched_sched_process_fork). These functions open such a file and attach the
// programme: to a tracepoint, or as a kprobe / kretprobe registered under the
// event name "<name>_quorbpf". The programme and attachment descriptors of
// an attachment are kept open on purpose: it lives as long as the process;
// a programme whose attachment failed has its descriptor closed again.
//
// Two walks attach many at once and return how many attachments failed:
//   AttachAllQuorBpfProgram(dir, table)  every row of a programme table whose
//                                        compatibility rule accepts the kernel;
//   AttachAllQuorBpfProgram(dir)         every "prog_" file in the directory.
// A hook that the running kernel lacks (no kprobe support, an absent
// tracepoint) fails like any other attachment, with a log line naming it.
//
// Single attach functions return a descriptor (>= 0) or -1 with errno as the
// failing call left it. They log under the tag "BpfUtils", keep no state and
// take no lock: any thread may call them. Nothing here throws.
#pragma once

#include <string>

#include "bpf/quor_bpf_prog_table.h"

namespace Quor {
namespace Bpf {

// True exactly when `name` begins with "prog_".
bool IsBpfProg(std::string& name);

// Opens (read-only) the pinned object dir + "/" + fileName.
int RetrieveProgramFd(const std::string& dir, const std::string& fileName);
// Opens "<dir>/prog_<objectName>_<progType>_<progName>".
int RetrieveProgramFd(const std::string& dir, const std::string& objectName,
                      const std::string& progType, const std::string& progName);

// Table-driven: the programme of type "tracepoint" named progName.
int AttachTracepointProgram(const std::string& dir, const std::string& objectName,
                            const std::string& progName, const std::string& subSystem,
                            const std::string& eventName);
// The pinned file is named whole.
int AttachTracepointProgram(const std::string& dir, const std::string& fileName,
                            const std::string& subSystem, const std::string& eventName);
// Name-driven: subsystem and event come from progName, cut at its first "_"
// (falls back to objectName as the whole file name when the first open fails).
int AttachTracepointProgram(const std::string& dir, const std::string& objectName,
                            const std::string& progName);

// Table-driven: isEntry attaches the "kprobe" file at function entry, else
// the "kretprobe" file at function return.
int AttachKProbeProgram(const std::string& dir, const std::string& objectName,
                        const std::string& progName, const std::string& functionName, bool isEntry);
// Name-driven: progName is "<kind>_<function>"; a kind holding "enter" is an
// entry probe, else one holding "return" a return probe. Always opens the
// "kprobe" file.
int AttachKProbeProgram(const std::string& dir, const std::string& objectName,
                        const std::string& progName);

int AttachAllQuorBpfProgram(const std::string& path, const BpfProgTable& table);
int AttachAllQuorBpfProgram(const std::string& path);

}  // namespace Bpf
}  // namespace Quor
