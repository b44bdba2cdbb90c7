// Decoding received records: whole records of known bytes and bytes of
// another type.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "quor/quorbpf_event_views.h"

using namespace Quor::Bpf;

namespace {

TEST(EventViewsTest, WholeRecordsDecodeAndForeignBytesAreRefused) {
    for (const QuorEventTypeInfo& info : kQuorEventTypes) {
        const uint32_t type = info.type;
        SCOPED_TRACE(type);
        EXPECT_TRUE(IsSubscribableEventType(type));
        const size_t size = QuorRecordSize(type);
        ASSERT_GT(size, 0u);
        ASSERT_NE(QuorEventName(type), nullptr);
        EXPECT_EQ(QuorEventTypeByName(QuorEventName(type)), type);
        // A decoder that forgot the type would leave pid and fields empty.
        std::string whole(size, '\0');
        memcpy(&whole[0], &type, 4);
        const QuorDecodedEvent decoded = QuorDecodeEvent(type, whole.data(), whole.size());
        EXPECT_TRUE(decoded.error.empty()) << decoded.error;
        EXPECT_FALSE(decoded.fields.empty() && !decoded.hasComm);
    }
    // Short records and views' validity: the event views fuzzer.
    quor_exit_record exitRecord = {};
    exitRecord.header.type = QUOR_EVENT_TASK_EXIT;
    const std::string bytes(reinterpret_cast<const char*>(&exitRecord), sizeof(exitRecord));
    EXPECT_EQ(QuorFormatEvent(42, bytes.data(), bytes.size()), "type 42 unknown type (40 bytes)");
    EXPECT_EQ(QuorFormatEvent(QUOR_EVENT_TASK_CREATE, bytes.data(), bytes.size()),
              "sched_task_create type mismatch: record says 3 (40 bytes)");
    EXPECT_EQ(QuorEventTypeByName("nonsense"), -1);
    for (uint32_t type : {static_cast<uint32_t>(QUOR_EVENT_POLL_COUNT), 50000u, 50005u})
        EXPECT_FALSE(IsSubscribableEventType(type)) << type;
}

// Adding a type to the list means documenting its record.
TEST(EventViewsTest, EveryTypeInTheListIsDocumented) {
    std::ifstream file(QUOR_SOURCE_DIR "/docs/records.md");
    ASSERT_TRUE(file) << "docs/records.md";
    const std::string doc((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    for (const QuorEventTypeInfo& info : kQuorEventTypes) {
        const std::string row = "| " + std::to_string(info.type) + " | `" + info.name + "` |";
        EXPECT_NE(doc.find(row), std::string::npos) << row;
        EXPECT_NE(doc.find(std::string("`") + info.record + "`"), std::string::npos) << info.record;
    }
}

}  // namespace
