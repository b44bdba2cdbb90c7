// Attaching the pinned programmes: the table walk and the directory walk
// against what the running kernel offers, rows the walk must not count, and
// the name rules. Runs isolated, with the programme sets loaded into the
// test's private bpffs.
#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>

#include "bpf/quor_bpf_prog_attach.h"
#include "service/quor_bpf_service.h"
#include "tests/kernel/kernel_test_env.h"
#include "tools/loader/quor_bpf_loader.h"

using namespace Quor::Bpf;
using quor_test::KernelHasKprobes;
using quor_test::TracepointExists;

namespace {

constexpr const char* kDir = "/sys/fs/bpf/quor/";

std::string g_skip;
int g_major = 0;
int g_minor = 0;

// What a table walk must count as failed on this kernel: rows whose hook the
// kernel lacks, among the rows its version admits (all rows here use "N.M+").
int ExpectedFailures(const BpfProgTable& table) {
    int failures = 0;
    for (const auto& [object, byType] : table) {
        for (const auto& [type, rows] : byType) {
            for (const auto& row : rows) {
                int major = 0, minor = 0;
                if (sscanf(row[3].c_str(), "%d.%d+", &major, &minor) != 2) continue;
                if (g_major < major || (g_major == major && g_minor < minor)) continue;
                const bool present = type == BPF_ATTACH_TRACEPOINT
                                         ? TracepointExists(row[1], row[2])
                                         : KernelHasKprobes();
                if (!present) ++failures;
            }
        }
    }
    return failures;
}

int AdmittedRows(const BpfProgTable& table) {
    int rows = 0;
    for (const auto& [object, byType] : table) {
        for (const auto& [type, list] : byType) {
            for (const auto& row : list) {
                int major = 0, minor = 0;
                if (sscanf(row[3].c_str(), "%d.%d+", &major, &minor) != 2) continue;
                if (g_major > major || (g_major == major && g_minor >= minor)) ++rows;
            }
        }
    }
    return rows;
}

class ProgAttachTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        utsname name = {};
        (void)uname(&name);
        (void)sscanf(name.release, "%d.%d", &g_major, &g_minor);
        android::base::SetProperty("ro.kernel.version",
                                   std::to_string(g_major) + "." + std::to_string(g_minor));
        if (geteuid() != 0) {
            g_skip = "needs root to load BPF programmes";
            return;
        }
        if (!quor_test::PathExists("/sys/kernel/btf/vmlinux")) {
            g_skip = "the kernel has no BTF";
            return;
        }
        QuorBpfLoadReport report;
        if (QuorBpfLoader::Load(QuorBpfLoader::Options(), &report) != 0) {
            g_skip = "the programme sets did not load";
        }
    }
    void SetUp() override {
        if (!g_skip.empty()) GTEST_SKIP() << g_skip;
    }

    // Pins the programme of `existing` again under `alias`.
    static void PinAlias(const std::string& existing, const std::string& alias) {
        const int fd = bpf_obj_get((std::string(kDir) + existing).c_str());
        ASSERT_GE(fd, 0);
        ASSERT_EQ(bpf_obj_pin(fd, (std::string(kDir) + alias).c_str()), 0);
        close(fd);
    }
};

TEST(IsBpfProgTest, OnlyALeadingPrefixCounts) {
    for (std::string name : {"prog_", "prog_QuorBpfDefineset_tracepoint_x", "prog_a"}) {
        EXPECT_TRUE(IsBpfProg(name)) << name;
    }
    for (std::string name :
         {"", "prog", "pro", "map_QuorBpfDefineset_ringbuf_map", "xprog_a", "a_prog_b"}) {
        EXPECT_FALSE(IsBpfProg(name)) << name;
    }
}

// The kernel refuses a second attachment of a programme to the same hook
// with EEXIST: the table walk counts it, the directory walk does not.
TEST_F(ProgAttachTest, WalksAttachWhatTheKernelOffersAndTreatEexistDifferently) {
    const int lackingMain = ExpectedFailures(QuorBpfService::PROG_EVENT_MAP);
    const int lackingGpl = ExpectedFailures(QuorBpfService::PROG_GPL_EVENT_MAP);
    if (!KernelHasKprobes()) {
        EXPECT_GE(lackingMain, 1) << "the kprobe row is a hook this kernel lacks";
    }
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP), lackingMain);
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_GPL_EVENT_MAP), lackingGpl);

    // Again: every admitted row now fails, those attached before with EEXIST.
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP),
              AdmittedRows(QuorBpfService::PROG_EVENT_MAP));

    // Extra files: a kretprobe (unknown to the walk, not counted), a name with
    // too few parts (ignored), and a probe whose kind is neither enter nor return.
    PinAlias("prog_QuorBpfDefineset_kprobe_enter_fd_install",
             "prog_QuorBpfDefineset_kretprobe_return_fd_install");
    PinAlias("prog_QuorBpfDefineset_kprobe_enter_fd_install", "prog_short_name");
    PinAlias("prog_QuorBpfDefineset_kprobe_enter_fd_install",
             "prog_QuorBpfDefineset_kprobe_bogus_fd_install");

    // The directory walk: tracepoints are all attached already (EEXIST, not
    // counted) or absent (counted); kprobe files fail where the kernel lacks
    // kprobes, and "dma_buf_*" names fail everywhere: cut at the first "_"
    // they give the kind "dma", which is neither enter nor return. So does
    // the bogus alias.
    int expected = 1 + 2;
    if (!KernelHasKprobes()) ++expected;  // enter_fd_install
    for (const auto& [sub, event] : {std::pair<const char*, const char*>{"sched", "sched_switch"},
                                     {"sched", "sched_process_exit"},
                                     {"sched", "sched_process_exit"},
                                     {"sched", "sched_process_fork"},
                                     {"kmem", "rss_stat"},
                                     {"cgroup", "cgroup_attach_task"}}) {
        if (!TracepointExists(sub, event)) ++expected;
    }
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir), expected);
    errno = 0;
    EXPECT_EQ(AttachKProbeProgram(kDir, "QuorBpfDefineset", "bogus_fd_install"), -1);

    const std::string root = kDir;
    for (const char* alias : {"prog_QuorBpfDefineset_kretprobe_return_fd_install",
                              "prog_short_name", "prog_QuorBpfDefineset_kprobe_bogus_fd_install"}) {
        (void)unlink((root + alias).c_str());
    }
}

TEST_F(ProgAttachTest, SkippedMalformedAndUnknownRowsAreNotFailures) {
    const BpfProgTable table = {
        {"QuorBpfDefineset",
         {
             {BPF_ATTACH_TRACEPOINT,
              {
                  {"no_such_prog", "sched", "no_such_event", "99.0+"},  // skipped by version
                  {"no_such_prog", "sched", "no_such_event", "junk"},   // malformed rule: skipped
                  {"sched_sched_process_fork", "sched", "sched_process_fork"},  // three columns
                  {"a", "b", "c", "5.0+", "e"},                                 // five columns
              }},
             {7, {{"sched_sched_switch", "sched", "sched_switch", "5.0+"}}},  // unknown type
         }},
    };
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, table), 0);
}

TEST_F(ProgAttachTest, MissingPinnedProgrammesAreCountedWithTheirErrno) {
    const BpfProgTable table = {
        {"QuorBpfDefineset",
         {
             {BPF_ATTACH_TRACEPOINT, {{"no_such_prog", "sched", "sched_switch", "5.0+"}}},
             {BPF_ATTACH_KRETPROBE, {{"enter_fd_install", "fd_install", "", "5.0+"}}},
         }},
    };
    // The kretprobe row looks for prog_..._kretprobe_enter_fd_install, which is not pinned.
    EXPECT_EQ(AttachAllQuorBpfProgram(kDir, table), 2);
    errno = 0;
    EXPECT_EQ(AttachTracepointProgram(kDir, "QuorBpfDefineset", "no_such_prog", "sched", "x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProgAttachTest, DirectoryWalkOfAnUnreadableDirectoryFailsWithoutThrowing) {
    EXPECT_EQ(AttachAllQuorBpfProgram("/sys/fs/bpf/no_such_dir"), 1);
    // A file where a directory is expected.
    EXPECT_EQ(AttachAllQuorBpfProgram(std::string(kDir) + "map_QuorBpfDefineset_ringbuf_map"), 1);
}

}  // namespace
