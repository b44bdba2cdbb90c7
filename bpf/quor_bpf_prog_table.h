// The type of a programme table: which pinned programmes to attach.
//
// Object (programme set) name -> attach type -> rows. A row is four strings:
//   0 programme name (as in the pinned file name),
//   1 tracepoint subsystem, or the kernel function of a probe,
//   2 tracepoint event ("" for probes),
//   3 kernel compatibility string, e.g. "5.0+".
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {

enum BpfAttachType : int32_t {
    BPF_ATTACH_TRACEPOINT = 0,
    BPF_ATTACH_KPROBE = 1,
    BPF_ATTACH_KRETPROBE = 2,
};

using BpfProgRow = std::vector<std::string>;
using BpfProgTable = std::map<std::string, std::map<int32_t, std::vector<BpfProgRow>>>;

}  // namespace Bpf
}  // namespace Quor
