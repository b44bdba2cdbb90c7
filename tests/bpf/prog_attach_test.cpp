// Attaching the pinned programmes by table against what the running kernel
// offers, and the failures the walks count.
#include <gtest/gtest.h>
#include <unistd.h>

#include "bpf/quor_bpf_compat.h"
#include "bpf/quor_bpf_prog_attach.h"
#include "service/quor_bpf_service.h"
#include "tests/kernel/kernel_test_env.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;
using quor_test::KernelHasKprobes;
using quor_test::TracepointExists;

namespace {

const std::string kDir = "/sys/fs/bpf/quor/";

std::string g_skip;

struct RowCounts {
    int admitted = 0;
    int lacking = 0;          // rows hooking what the kernel lacks
    int kprobesAttached = 0;  // kprobe rows the kernel has
};

// The rows the running kernel's version admits (compatibility has tests of its own).
RowCounts CountRows(const BpfProgTable& table) {
    RowCounts counts;
    for (const auto& [object, byType] : table) {
        for (const auto& [type, rows] : byType) {
            for (const auto& row : rows) {
                if (!CheckBpfCompatibility(row[3])) continue;
                ++counts.admitted;
                if (type == BPF_ATTACH_TRACEPOINT) {
                    counts.lacking += !TracepointExists(row[1], row[2]);
                } else if (KernelHasKprobes() && quor_test::KernelHasFunction(row[1])) {
                    ++counts.kprobesAttached;
                } else {
                    ++counts.lacking;
                }
            }
        }
    }
    return counts;
}

class ProgAttachTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { g_skip = quor_test::LoadProgrammeSets(); }
    void SetUp() override {
        if (!g_skip.empty()) GTEST_SKIP() << g_skip;
    }
};

// A kprobe row fails where the kernel lacks kprobes or the function (a
// kernel without dmabuf statistics has no dma_buf_stats_setup). A second
// attachment of a tracepoint fails with EEXIST, which the table walk counts;
// one of a kprobe succeeds through the kprobe PMU, which makes a new probe.
TEST_F(ProgAttachTest, TableWalkAttachesWhatTheKernelOffersAndCountsTheRest) {
    const RowCounts main = CountRows(QuorBpfService::PROG_EVENT_MAP);
    const RowCounts gpl = CountRows(QuorBpfService::PROG_GPL_EVENT_MAP);
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP), main.lacking);
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_GPL_EVENT_MAP), gpl.lacking);
    // Again: a failed attach keeps no descriptor. Where kprobes exist, one
    // attached a second time through the PMU holds its own, so the count is
    // checked where every row fails.
    const size_t fdsAttached = quortest::OpenDescriptors();
    const int again = AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP);
    EXPECT_GE(again, main.admitted - main.kprobesAttached);
    EXPECT_LE(again, main.admitted);
    if (main.kprobesAttached == 0) {
        EXPECT_EQ(quortest::OpenDescriptors(), fdsAttached);
    }
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
