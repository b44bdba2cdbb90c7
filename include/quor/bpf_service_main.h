// Entry point of libquorbpfservice.
//
// A host process calls BpfServiceMain() once. It returns 1 when the service
// was started (it keeps running on its own threads; the call does not block)
// and 0 when the property "persist.sys.stability.bpfframework.disable" is "1".
#pragma once

#define QUOR_BPF_EXPORT __attribute__((visibility("default")))

namespace Quor {
namespace Bpf {

QUOR_BPF_EXPORT int BpfServiceMain();

// Blocks until the service has been stopped (StopBpfService) and its threads
// joined; restarts a producer thread that ended, checking once a minute.
// Returns 0, or -1 when the service was never started.
QUOR_BPF_EXPORT int WaitBpfService();

// Stops the socket server and asks the producer threads to end. Safe to call
// from any thread; returns 0, or -1 when the service was never started.
QUOR_BPF_EXPORT int StopBpfService();

}  // namespace Bpf
}  // namespace Quor
