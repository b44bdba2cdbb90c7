#include "service/quor_bpf_service.h"

#include <android-base/properties.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "bpf/quor_bpf_prog_attach.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_time.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service_settings.h"

namespace Quor {
namespace Bpf {

QuorBpfService* QuorBpfService::instance = nullptr;
std::mutex QuorBpfService::servicelock;

namespace {

bool PinToServiceCpus() {
    const cpu_set_t cpus = ServiceCpus();
    return sched_setaffinity(gettid(), sizeof(cpus), &cpus) == 0;
}

}  // namespace

QuorBpfService* QuorBpfService::GetInstance() {
    std::lock_guard<std::mutex> lock(servicelock);
    if (instance == nullptr) instance = new QuorBpfService();
    return instance;
}

QuorBpfService::QuorBpfService() {
    initClientServer();
    using namespace std::placeholders;
    eventHandlers_[QUOR_EVENT_TASK_INIT] =
        std::bind(&QuorBpfService::handleQuorTaskInitEvent, this, _1, _2);
    eventHandlers_[QUOR_EVENT_TASK_CREATE] =
        std::bind(&QuorBpfService::handleSched_SchedProcessFork, this, _1, _2);
    eventHandlers_[QUOR_EVENT_TASK_EXIT] =
        std::bind(&QuorBpfService::handleSched_SchedProcessExit, this, _1, _2);
    eventHandlers_[QUOR_EVENT_RSS_STAT] =
        std::bind(&QuorBpfService::handleKmem_RssStat, this, _1, _2);
    // A process that still carries a generic name has not yet taken its final
    // one; the memory-event handler re-reads such a process from procfs.
    refreshNameMap_["main"] = "re-initialized>";
}

QuorBpfService::~QuorBpfService() {
    // The socket thread reaches the client map through the callbacks: end it
    // before the map goes, and unhook the fan-out from the map.
    server_.reset();
    EventManager* events = EventManager::GetInstance();
    std::lock_guard<std::mutex> lock(EventManager::quorRawEventManagerLock);
    events->setClientMapLocked(nullptr);
    events->setServerLocked(nullptr);
}

void QuorBpfService::launchProducer(std::thread* handle, std::atomic<bool>* alive,
                                    int (QuorBpfService::*body)()) {
    alive->store(true);
    try {
        *handle = std::thread([this, alive, body] {
            (this->*body)();
            alive->store(false);
        });
    } catch (const std::system_error& e) {
        alive->store(false);
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService] thread constructor failed: %s", e.what());
    }
}

void QuorBpfService::reapEndedProducer(std::thread* handle, std::atomic<bool>* alive,
                                       int (QuorBpfService::*body)()) {
    if (handle->joinable() && !alive->load()) handle->join();
    if (!handle->joinable()) launchProducer(handle, alive, body);
}

bool QuorBpfService::start() {
    std::lock_guard<std::mutex> lock(servicelock);
    if (producer_.joinable()) {
        QLOGW(QUOR_TAG_SERVICE, "[QuorBpfService][start] producer thread already running");
        return true;
    }
    running_.store(true);
    launchProducer(&producer_, &producerAlive_, &QuorBpfService::eventProduceThread);
    return true;
}

int QuorBpfService::stop() {
    {
        std::lock_guard<std::mutex> lock(servicelock);
        if (server_) server_->stop();
        running_.store(false);
    }
    std::lock_guard<std::mutex> lock(stopMutex_);
    stopCv_.notify_all();
    return 0;
}

void QuorBpfService::sleepUnlessStopped(int seconds) {
    std::unique_lock<std::mutex> lock(stopMutex_);
    stopCv_.wait_for(lock, std::chrono::seconds(seconds), [this] { return !running_.load(); });
}

void QuorBpfService::superviseProducers() {
    std::lock_guard<std::mutex> lock(servicelock);
    if (!running_.load()) return;
    reapEndedProducer(&producer_, &producerAlive_, &QuorBpfService::eventProduceThread);
    // The GPL thread is started by the producer once the kernel side is
    // ready; only restart it after that has happened once.
    if (gplProducer_.joinable()) {
        reapEndedProducer(&gplProducer_, &gplProducerAlive_,
                          &QuorBpfService::gpleventProduceThread);
    }
}

int QuorBpfService::Wait() {
    while (running_.load()) {
        superviseProducers();
        sleepUnlessStopped(60);
    }
    if (server_) {
        server_->stop();
        server_->waitStopped();
    }
    if (producer_.joinable()) producer_.join();
    if (gplProducer_.joinable()) gplProducer_.join();
    return 0;
}

int QuorBpfService::eventProduceThread() {
    prctl(PR_SET_NAME, "BpfServicePoll", 0, 0, 0);
    if (!PinToServiceCpus()) {
        QLOGE(QUOR_TAG_SERVICE,
              "[QuorBpfService][eventProduceThread] set thread affinity failed. %s",
              strerror(errno));
    }

    // What a restarted producer finds done stays done: the programmes stay
    // attached for the life of the process, and attaching them again would
    // fail (tracepoints) or hook them twice (kprobes), leaking descriptors
    // either way. A restart runs the monitor only.
    if (!mainSetUp_.load()) {
        // Clients may connect and subscribe before the kernel side is ready.
        if (server_) server_->start();

        // The kernel side is loaded by someone else; wait until it says so.
        while (android::base::GetProperty(QUOR_BPF_READY_PROPERTY, "0") == "0") {
            if (!running_.load()) return 0;
            sleep(1);
        }

        if (!InitBasetime()) {
            QLOGE(QUOR_TAG_SERVICE,
                  "[QuorBpfService][eventProduceThread] Init base time failed! errMsg: %s",
                  strerror(errno));
        }
        if (initBpfMap() != 0) {
            QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService][eventProduceThread] Init bpf map failed");
        }

        {
            std::lock_guard<std::mutex> lock(servicelock);
            if (!gplProducer_.joinable()) {
                launchProducer(&gplProducer_, &gplProducerAlive_,
                               &QuorBpfService::gpleventProduceThread);
            }
        }

        mainAttachResult_ = AttachAllQuorBpfProgram(QUOR_BPF_BASE_PATH, PROG_EVENT_MAP);
        if (mainAttachResult_ != 0) {
            QLOGE(QUOR_TAG_SERVICE,
                  "[QuorBpfService][eventProduceThread] Attach all quor bpf error: %d",
                  mainAttachResult_);
        }
        mainSetUp_.store(true);
    }
    (void)eventMonitor();
    return mainAttachResult_;
}

int QuorBpfService::gpleventProduceThread() {
    prctl(PR_SET_NAME, "BpfServicePGpl", 0, 0, 0);
    if (!PinToServiceCpus()) {
        QLOGE(QUOR_TAG_SERVICE,
              "[QuorBpfService][gpleventProduceThread] set thread affinity failed. %s",
              strerror(errno));
    }

    if (!gplAttached_.load()) {
        const int attachResult = AttachAllQuorBpfProgram(QUOR_BPF_BASE_PATH, PROG_GPL_EVENT_MAP);
        if (attachResult != 0) {
            QLOGE(QUOR_TAG_SERVICE,
                  "[QuorBpfService][gpleventProduceThread] Attach all quor bpf error: %d",
                  attachResult);
        }
        gplAttached_.store(true);
    }
    return gpleventMonitor();
}

}  // namespace Bpf
}  // namespace Quor
