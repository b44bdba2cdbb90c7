#include <gtest/gtest.h>

#include "service/quor_bpf_event_tables.h"
#include "service/quor_bpf_service.h"

using namespace Quor::Bpf;

TEST(EventTablesTest, StatisticsNamesByType) {
    EXPECT_STREQ(EventTypeName(0), "quor_task_init");
    EXPECT_STREQ(EventTypeName(3), "sched_task_exit");
    EXPECT_STREQ(EventTypeName(7), "dmabuf_update");
    EXPECT_STREQ(EventTypeName(8), "PollCount");
    EXPECT_STREQ(EventTypeName(9), "UNKNOW");
    EXPECT_STREQ(EventTypeName(-1), "UNKNOW");
}

TEST(EventTablesTest, ProgrammeTablesHoldWellFormedRowsInOrder) {
    const auto& main = QuorBpfService::PROG_EVENT_MAP.at("QuorBpfDefineset");
    ASSERT_EQ(main.size(), 3u);
    EXPECT_TRUE(main.at(BPF_ATTACH_KRETPROBE).empty());
    ASSERT_EQ(main.at(BPF_ATTACH_TRACEPOINT).size(), 4u);
    EXPECT_EQ(main.at(BPF_ATTACH_TRACEPOINT)[2][0], "sched_sched_process_fork");
    EXPECT_EQ(main.at(BPF_ATTACH_KPROBE)[0][1], "fd_install");

    const auto& gpl = QuorBpfService::PROG_GPL_EVENT_MAP.at("QuorBpfGplDefineset");
    EXPECT_EQ(gpl.at(BPF_ATTACH_KPROBE)[1][3], "6.1+");
    for (const auto* table :
         {&QuorBpfService::PROG_EVENT_MAP, &QuorBpfService::PROG_GPL_EVENT_MAP}) {
        for (const auto& [object, byType] : *table) {
            for (const auto& [type, rows] : byType) {
                for (const auto& row : rows) EXPECT_EQ(row.size(), 4u) << object << " " << type;
            }
        }
    }
}
