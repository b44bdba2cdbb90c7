// Attaching the pinned programmes by table and by directory against what the
// running kernel offers, files the walk must not count, and the name rules.
#include <bpf/bpf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "bpf/quor_bpf_prog_attach.h"
#include "service/quor_bpf_service.h"
#include "tests/kernel/kernel_test_env.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;
using quor_test::KernelHasKprobes;
using quor_test::TracepointExists;

namespace {

const std::string kDir = "/sys/fs/bpf/quor/";
const std::string kFdInstall = "prog_QuorBpfDefineset_kprobe_enter_fd_install";

std::string g_skip;

struct RowCounts {
    int admitted = 0;         // rows the running kernel's version admits ("N.M+")
    int lacking = 0;          // of those, rows hooking what the kernel lacks
    int kprobesAttached = 0;  // of those, kprobe rows the kernel has
};

RowCounts CountRows(const BpfProgTable& table) {
    int kernelMajor = 0, kernelMinor = 0;
    RowCounts counts;
    quor_test::KernelVersion(&kernelMajor, &kernelMinor);
    for (const auto& [object, byType] : table) {
        for (const auto& [type, rows] : byType) {
            for (const auto& row : rows) {
                int major = 0, minor = 0;
                if (sscanf(row[3].c_str(), "%d.%d+", &major, &minor) != 2 ||
                    std::make_pair(kernelMajor, kernelMinor) < std::make_pair(major, minor)) {
                    continue;
                }
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
// attachment of a tracepoint fails with EEXIST: the table walk counts it, the
// directory walk does not; one of a kprobe fails so through tracefs but
// succeeds through the kprobe PMU, which makes a new probe each time.
TEST_F(ProgAttachTest, WalksAttachWhatTheKernelOffersAndTreatEexistDifferently) {
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

    // Extra files: a kretprobe (unknown to the walk, not counted), a name with
    // too few parts (ignored), and a probe whose kind is neither enter nor return.
    const std::vector<std::string> aliases = {"prog_QuorBpfDefineset_kretprobe_return_fd_install",
                                              "prog_short_name",
                                              "prog_QuorBpfDefineset_kprobe_bogus_fd_install"};
    const int fd = bpf_obj_get((kDir + kFdInstall).c_str());
    ASSERT_GE(fd, 0);
    for (const auto& alias : aliases) ASSERT_EQ(bpf_obj_pin(fd, (kDir + alias).c_str()), 0);
    close(fd);

    // The directory walk: tracepoints are attached already (EEXIST, not
    // counted) or absent (counted); the fd_install file fails where the kernel
    // lacks kprobes (elsewhere it attaches again or meets EEXIST), and the two
    // "dma_buf_*" names fail everywhere: cut at the first "_" they give the
    // kind "dma", neither enter nor return. So does the bogus alias.
    int expected = 1 + 2 + !KernelHasKprobes();
    for (const auto& [sub, event] : {std::pair<const char*, const char*>{"sched", "sched_switch"},
                                     {"sched", "sched_process_exit"},
                                     {"sched", "sched_process_exit"},
                                     {"sched", "sched_process_fork"},
                                     {"kmem", "rss_stat"},
                                     {"cgroup", "cgroup_attach_task"}}) {
        expected += !TracepointExists(sub, event);
    }
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir), expected);
    EXPECT_EQ(AttachKProbeProgram(kDir, "QuorBpfDefineset", "bogus_fd_install"), -1);
    if (!KernelHasKprobes()) {
        EXPECT_EQ(quortest::OpenDescriptors(), fdsAttached);
    }
    for (const auto& alias : aliases) (void)unlink((kDir + alias).c_str());
}

// A row whose programme is not pinned counts as a failure, unless the kernel's
// version rules the row out; so do a missing directory and a file where the
// directory should be.
TEST_F(ProgAttachTest, MissingProgrammesAndDirectoriesAreCounted) {
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
    EXPECT_EQ(AttachAllQuorBpfProgram("/sys/fs/bpf/no_such_dir"), 1);
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir + "map_QuorBpfDefineset_ringbuf_map"), 1);
}

}  // namespace
