#include "host/SharedIdSerializer.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

TEST(SerializerTest, EmptyRecordIsEightyFourBytes) {
    std::vector<std::uint8_t> bytes = NS_DATA_STREAM_UTILS::SerializeSharedId(CSharedId());
    ASSERT_EQ(bytes.size(), 84u);
    EXPECT_EQ(bytes[0], 80);
    EXPECT_EQ(bytes[1] | bytes[2] | bytes[3], 0);
    for (size_t item = 0; item < 10; ++item) {
        EXPECT_EQ(bytes[4 + item * 8], 4);
        EXPECT_EQ(bytes[8 + item * 8], 0);
    }
}

TEST(SerializerTest, MeasuringTwiceGivesTheSameLengthOnStackAndHeap) {
    CSharedId onStack = CSharedId::SignatureKey(L"https://corvin", L"svc", L"role");
    auto onHeap = std::make_unique<CSharedId>(onStack);
    const std::uint32_t expected = 80 + 2 * (14 + 3 + 4);
    EXPECT_EQ(NS_DATA_STREAM_UTILS::MeasureSharedId(onStack), expected);
    EXPECT_EQ(NS_DATA_STREAM_UTILS::MeasureSharedId(*onHeap), expected);
    EXPECT_EQ(NS_DATA_STREAM_UTILS::MeasureSharedId(*onHeap), expected);
    // A heap record changed between two serializations is measured afresh.
    EXPECT_EQ(NS_DATA_STREAM_UTILS::SerializeSharedId(*onHeap).size(), expected + 4);
    onHeap->SetSharedId(L"acct");
    EXPECT_EQ(NS_DATA_STREAM_UTILS::SerializeSharedId(*onHeap).size(), expected + 4 + 8);
    // Measuring never reads.
    NS_DATA_STREAM_UTILS::CCountingStream counter;
    char byte;
    EXPECT_FALSE(counter.Read(&byte, 1));
    EXPECT_EQ(counter.Error(), "cannot read from stream");
}

}  // namespace
