#include <gtest/gtest.h>

#include "service/quor_bpf_service.h"
#include "service/quor_bpf_service_settings.h"

using namespace Quor::Bpf;

TEST(EventTablesTest, NamesOutsideTheTableAndProgrammeRowsStayInBounds) {
    EXPECT_STREQ(EventTypeName(QUOR_EVENT_POLL_COUNT), "PollCount");
    for (int type : {QUOR_STAT_SLOTS, -1, 1 << 30})
        EXPECT_STREQ(EventTypeName(type), "UNKNOW") << type;
    // The service reads four fields of every programme row.
    for (const auto* table : {&QuorBpfService::PROG_EVENT_MAP, &QuorBpfService::PROG_GPL_EVENT_MAP})
        for (const auto& [object, byType] : *table)
            for (const auto& [type, rows] : byType)
                for (const auto& row : rows) EXPECT_EQ(row.size(), 4u) << object << " " << type;
}
