// The arm64 programme sets relocate and verify on this kernel, and their probes
// read arguments from arm64's registers (the first words of user_pt_regs).
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

namespace {

constexpr const char* kObjectDir = QUOR_ARM64_BPF_OBJECT_DIR;
const char* const kObjects[] = {"QuorBpfDefineset", "QuorBpfGplDefineset"};

// Offsets of the loads a programme makes from its context, following the
// context through register copies in straight-line order (enough for the
// argument loads, which come first) until overwritten or clobbered by a call.
std::vector<int> ContextLoadOffsets(const bpf_program* prog) {
    const bpf_insn* insns = bpf_program__insns(prog);
    const size_t count = bpf_program__insn_cnt(prog);
    std::set<int> ctx = {BPF_REG_1};
    std::vector<int> offsets;
    for (size_t i = 0; i < count; ++i) {
        const bpf_insn& in = insns[i];
        const int cls = BPF_CLASS(in.code);
        if (cls == BPF_LDX && BPF_MODE(in.code) == BPF_MEM) {
            if (ctx.count(in.src_reg) != 0) offsets.push_back(in.off);
            ctx.erase(in.dst_reg);
        } else if (cls == BPF_ALU64 && BPF_OP(in.code) == BPF_MOV && BPF_SRC(in.code) == BPF_X) {
            ctx.count(in.src_reg) != 0 ? (void)ctx.insert(in.dst_reg) : (void)ctx.erase(in.dst_reg);
        } else if (cls == BPF_JMP && BPF_OP(in.code) == BPF_CALL) {
            for (int r = BPF_REG_1; r <= BPF_REG_5; ++r) ctx.erase(r);
            ctx.erase(BPF_REG_0);
        } else if (cls == BPF_ALU || cls == BPF_ALU64 || cls == BPF_LD) {
            ctx.erase(in.dst_reg);
        }
    }
    return offsets;
}

class Arm64ObjectsTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (kObjectDir[0] == '\0')
            GTEST_SKIP()
                << "no arm64 objects: the arm64 UAPI headers (linux-libc-dev:arm64) were "
                   "missing when this build was configured (scripts/install-arm64-deps.sh)";
        const std::string path = std::string(kObjectDir) + "/" + GetParam() + ".bpf.o";
        obj_ = bpf_object__open_file(path.c_str(), nullptr);
        ASSERT_NE(obj_, nullptr) << path << ": " << libbpf_get_error(obj_);
    }
    void TearDown() override { bpf_object__close(obj_); }

    bpf_object* obj_ = nullptr;
};

TEST_P(Arm64ObjectsTest, ProbesReadArgumentsFromArm64Registers) {
    int probes = 0;
    bpf_program* prog;
    bpf_object__for_each_program(prog, obj_) {
        if (bpf_program__type(prog) != BPF_PROG_TYPE_KPROBE) continue;
        ++probes;
        const std::vector<int> offsets = ContextLoadOffsets(prog);
        EXPECT_FALSE(offsets.empty()) << bpf_program__name(prog) << " reads no argument";
        // user_pt_regs.regs[0..7] hold the first eight arguments.
        for (const int off : offsets) {
            EXPECT_TRUE(off >= 0 && off < 8 * 8 && off % 8 == 0)
                << bpf_program__name(prog) << " loads context offset " << off
                << ", which is no arm64 argument register";
        }
    }
    EXPECT_GT(probes, 0);
}

TEST_P(Arm64ObjectsTest, RelocatesAndVerifiesOnThisKernel) {
    if (geteuid() != 0) GTEST_SKIP() << "loading programmes needs root";
    const int err = bpf_object__load(obj_);
    ASSERT_EQ(err, 0) << GetParam() << ": " << err
                      << " (a CO-RE relocation failed or the verifier refused)";
    bpf_program* prog;
    bpf_object__for_each_program(prog, obj_) {
        EXPECT_GE(bpf_program__fd(prog), 0) << bpf_program__name(prog);
    }
}

INSTANTIATE_TEST_SUITE_P(Objects, Arm64ObjectsTest, ::testing::ValuesIn(kObjects));

}  // namespace
