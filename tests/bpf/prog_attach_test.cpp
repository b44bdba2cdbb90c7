// Attaching the pinned programmes by table against what the running kernel
// offers, and the failures the walks count.
#include <gtest/gtest.h>
#include <unistd.h>

#include "bpf/quor_bpf_compat.h"
#include "bpf/quor_bpf_prog_attach.h"
#include "service/quor_bpf_service.h"
#include "tests/kernel/kernel_test_env.h"

using namespace Quor::Bpf;
using quor_test::KernelHasKprobes;
using quor_test::TracepointExists;

namespace {

const std::string kDir = "/sys/fs/bpf/quor/";

std::string g_skip;

// The rows the running kernel's version admits (compatibility has tests of
// its own) that hook what the kernel lacks.
int LackingRows(const BpfProgTable& table) {
    int lacking = 0;
    for (const auto& [object, byType] : table) {
        for (const auto& [type, rows] : byType) {
            for (const auto& row : rows) {
                if (!CheckBpfCompatibility(row[3])) continue;
                if (type == BPF_ATTACH_TRACEPOINT) {
                    lacking += !TracepointExists(row[1], row[2]);
                } else {
                    lacking += !KernelHasKprobes() || !quor_test::KernelHasFunction(row[1]);
                }
            }
        }
    }
    return lacking;
}

class ProgAttachTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { g_skip = quor_test::LoadProgrammeSets(); }
    void SetUp() override {
        if (!g_skip.empty()) GTEST_SKIP() << g_skip;
    }
};

// A kprobe row fails where the kernel lacks kprobes or the function (a
// kernel without dmabuf statistics has no dma_buf_stats_setup); every other
// row attaches.
TEST_F(ProgAttachTest, TableWalkAttachesWhatTheKernelOffersAndCountsTheRest) {
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP),
              LackingRows(QuorBpfService::PROG_EVENT_MAP));
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_GPL_EVENT_MAP),
              LackingRows(QuorBpfService::PROG_GPL_EVENT_MAP));
}

// A row whose programme is not pinned counts as a failure, unless the kernel's
// version rules the row out.
TEST_F(ProgAttachTest, MissingProgrammesAreCounted) {
    // The kretprobe row looks for prog_..._kretprobe_enter_fd_install, which is not pinned.
    const BpfProgTable missing = {
        {"QuorBpfDefineset",
         {
             {BPF_ATTACH_TRACEPOINT,
              {
                  {"no_such_prog", "sched", "sched_switch", "5.0+"},
                  {"no_such_prog", "sched", "sched_switch", "99.0+"},  // skipped by version
              }},
             {BPF_ATTACH_KRETPROBE, {{"enter_fd_install", "fd_install", "", "5.0+"}}},
         }},
    };
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, missing), 2);
    errno = 0;
    EXPECT_EQ(AttachTracepointProgram(kDir, "QuorBpfDefineset", "no_such_prog", "sched", "x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
