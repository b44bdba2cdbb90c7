#include "quor/bpf_service_main.h"

#include <android-base/properties.h>

#include <mutex>

#include "diag/quor_bpf_dump_signals.h"
#include "diag/quor_bpf_error_log.h"
#include "diag/quor_bpf_log.h"
#include "service/quor_bpf_service.h"
#include "service/quor_bpf_service_settings.h"

namespace Quor {
namespace Bpf {

namespace {

// Set once BpfServiceMain() has created the service; the host's Wait and
// Stop calls must not create it themselves.
bool gStarted = false;

QuorBpfService* StartedService() {
    std::lock_guard<std::mutex> lock(QuorBpfService::servicelock);
    return gStarted ? QuorBpfService::GetInstanceLocked() : nullptr;
}

}  // namespace

int BpfServiceMain() {
    // Only the exact value "1" disables; "11" or "true" do not.
    if (android::base::GetProperty(QUOR_BPF_DISABLE_PROPERTY, "0") == "1") {
        QLOGI(QUOR_TAG_SERVICE, "[BpfServiceMain] Starting QUOR Bpf Service disabled!");
        return 0;
    }
    QLOGI(QUOR_TAG_SERVICE, "[BpfServiceMain] Starting QUOR Bpf Service");
    InitBpfServiceErrorLog();
    // The monitors install the dump handlers too, but a dump signal that
    // arrived before them would end the host process by default.
    InstallDumpSignalHandlers();
    QuorBpfService* service = QuorBpfService::GetInstance();
    {
        std::lock_guard<std::mutex> lock(QuorBpfService::servicelock);
        gStarted = true;
    }
    service->start();
    return 1;
}

int WaitBpfService() {
    QuorBpfService* service = StartedService();
    return service == nullptr ? -1 : service->Wait();
}

int StopBpfService() {
    QuorBpfService* service = StartedService();
    return service == nullptr ? -1 : service->stop();
}

}  // namespace Bpf
}  // namespace Quor
