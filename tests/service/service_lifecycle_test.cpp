// The service singleton lives once per process, so its whole lifecycle is one
// test. Runs in private namespaces: it writes under /data and listens on the
// service's abstract socket.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "diag/quor_bpf_time.h"
#include "quor/bpf_service_main.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;
using android::base::SetProperty;

TEST(ServiceLifecycleTest, DisableStartReadinessStopAndJoin) {
    EXPECT_EQ(WaitBpfService(), -1);  // nothing started yet
    EXPECT_EQ(StopBpfService(), -1);

    // Only the exact value "1" disables.
    SetProperty("persist.sys.stability.bpfframework.disable", "1");
    EXPECT_EQ(BpfServiceMain(), 0);
    EXPECT_EQ(quortest::ThreadsNamed("BpfServicePoll"), 0);

    ASSERT_EQ(system("mkdir -p /data/quorlog/stability/quorbpfframework && "
                     "echo previous > /data/quorlog/stability/quorbpfframework/error.log"),
              0);
    SetProperty("persist.sys.stability.bpfframework.disable", "11");
    SetProperty("sys.quor_bpf_ready", "0");
    ASSERT_EQ(BpfServiceMain(), 1);
    EXPECT_EQ(access("/data/quorlog/stability/quorbpfframework/error.old.log", F_OK), 0);

    ASSERT_TRUE(quortest::WaitFor([] { return quortest::ThreadsNamed("BpfServicePoll") == 1; }));
    // Not ready: the producer keeps waiting and prepares nothing.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(GetBasetime(), 0);
    EXPECT_EQ(quortest::ThreadsNamed("BpfServicePGpl"), 0);

    SetProperty("sys.quor_bpf_ready", "1");
    EXPECT_TRUE(quortest::WaitFor([] { return GetBasetime() != 0; }));

    EXPECT_EQ(StopBpfService(), 0);
    auto joined = std::async(std::launch::async, [] { return WaitBpfService(); });
    ASSERT_EQ(joined.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(joined.get(), 0);
}
