// The service singleton lives once per process, so its whole lifecycle is one
// test. Runs in private namespaces: it writes under /data and listens on the
// service's abstract socket.
#include <android-base/properties.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>

#include "diag/quor_bpf_time.h"
#include "quor/bpf_service_main.h"

using namespace Quor::Bpf;
using android::base::SetProperty;

namespace {

std::multiset<std::string> ThreadNames() {
    std::multiset<std::string> names;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return names;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        names.insert(name);
    }
    closedir(dir);
    return names;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

}  // namespace

TEST(ServiceLifecycleTest, DisableStartReadinessStopAndJoin) {
    EXPECT_EQ(WaitBpfService(), -1);  // nothing started yet
    EXPECT_EQ(StopBpfService(), -1);

    // Only the exact value "1" disables.
    SetProperty("persist.sys.stability.bpfframework.disable", "1");
    EXPECT_EQ(BpfServiceMain(), 0);
    EXPECT_EQ(ThreadNames().count("BpfServicePoll"), 0u);

    ASSERT_EQ(system("mkdir -p /data/quorlog/stability/quorbpfframework && "
                     "echo previous > /data/quorlog/stability/quorbpfframework/error.log"),
              0);
    SetProperty("persist.sys.stability.bpfframework.disable", "11");
    SetProperty("sys.quor_bpf_ready", "0");
    ASSERT_EQ(BpfServiceMain(), 1);
    EXPECT_EQ(access("/data/quorlog/stability/quorbpfframework/error.old.log", F_OK), 0);

    ASSERT_TRUE(WaitFor([] { return ThreadNames().count("BpfServicePoll") == 1; },
                        std::chrono::seconds(5)));
    // Not ready: the producer keeps waiting and prepares nothing.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(GetBasetime(), 0);
    EXPECT_EQ(ThreadNames().count("BpfServicePGpl"), 0u);

    SetProperty("sys.quor_bpf_ready", "1");
    EXPECT_TRUE(WaitFor([] { return GetBasetime() != 0; }, std::chrono::seconds(5)));

    EXPECT_EQ(StopBpfService(), 0);
    auto joined = std::async(std::launch::async, [] { return WaitBpfService(); });
    ASSERT_EQ(joined.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(joined.get(), 0);
}
