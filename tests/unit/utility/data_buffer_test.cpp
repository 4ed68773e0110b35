#include "utility/data_buffer.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

namespace {

class DataBuffer : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, initDataBuffer(&buffer, 10));
    }
    void TearDown() override
    {
        freeDataBuffer(&buffer);
    }

    // The storage's text and both offsets; the spare byte ends the text of a full buffer.
    void expect(const char *text, int read, int write) const
    {
        EXPECT_STREQ(text, buffer.data);
        EXPECT_EQ(read, buffer.read_offset);
        EXPECT_EQ(write, buffer.write_offset);
    }

    DATA_BUFFER_T buffer{};
};

} // namespace

TEST_F(DataBuffer, RefusesBadSizesAndFreesTwice)
{
    for (const int size : {0, -1, INT_MIN})
        EXPECT_EQ(-1, initDataBuffer(&buffer, size));
    freeDataBuffer(&buffer);
    freeDataBuffer(&buffer);
    EXPECT_EQ(-1, appendDataBuffer(&buffer, "x", 1));
}

TEST_F(DataBuffer, AppendsUpToTheCapacity)
{
    ASSERT_EQ(0, appendDataBuffer(&buffer, "0123456", 7));
    for (const int length : {4, INT_MAX, -1}) {
        EXPECT_EQ(-1, appendDataBuffer(&buffer, "abcd", length));
    }
    EXPECT_EQ(-1, appendDataBuffer(&buffer, nullptr, 1));
    EXPECT_EQ(0, appendDataBuffer(&buffer, nullptr, 0));
    expect("0123456", 0, 7);
    ASSERT_EQ(0, appendDataBuffer(&buffer, "abc", 3));
    expect("0123456abc", 0, 10);
    buffer.data[10] = 'x'; // even what a caller broke is cleared
    EXPECT_EQ(0, resetDataBuffer(&buffer));
    EXPECT_EQ(std::string(11, '\0'), std::string(buffer.data, 11));
    expect("", 0, 0);
}

TEST_F(DataBuffer, OffsetsMoveWithinTheStorageOnly)
{
    using ROW_T = std::tuple<int, int, int>;
    const ROW_T rows[] = {{0, 10, 0},  {0, 11, -1}, {4, 6, 0},        {4, 7, -1},      {4, -4, 0},
                          {4, -5, -1}, {10, 0, 0},  {4, INT_MAX, -1}, {4, INT_MIN, -1}};
    for (const auto &[start, count, result] : rows) {
        buffer.read_offset = buffer.write_offset = start;
        const int end = result == 0 ? start + count : start;
        EXPECT_EQ(result, moveBufferWritePointer(&buffer, count)) << count;
        EXPECT_EQ(result, moveBufferReadPointer(&buffer, count)) << count;
        expect("", end, end);
    }
    buffer.read_offset = buffer.write_offset = 3;
    EXPECT_EQ(0, moveBufferReadPointer(&buffer, 4)); // past the write offset
    EXPECT_EQ(-4, getBufferDataLength(&buffer));
    EXPECT_EQ(0, moveBufferContent(&buffer, 3)); // no content; both offsets stay inside
    EXPECT_EQ(-1, moveBufferContent(&buffer, 1));
    EXPECT_EQ(-1, joinContentBeforeBuffer("x", 1, &buffer));
    expect("", 10, 6);
}

TEST_F(DataBuffer, ContentShiftsBothWaysAndUncoveredBytesStay)
{
    ASSERT_EQ(0, appendDataBuffer(&buffer, "abcdef", 6));
    ASSERT_EQ(0, moveBufferReadPointer(&buffer, 2));
    for (const int count : {5, -3, INT_MIN, INT_MAX}) {
        EXPECT_EQ(-1, moveBufferContent(&buffer, count));
    }
    ASSERT_EQ(0, moveBufferContent(&buffer, 4));
    expect("abcdefcdef", 6, 10);
    ASSERT_EQ(0, moveBufferContent(&buffer, -6));
    expect("cdefefcdef", 0, 4);
}

TEST_F(DataBuffer, JoinPutsTheHeaderInFront)
{
    ASSERT_EQ(0, joinContentBeforeBuffer("pay", 3, &buffer)); // in front of nothing
    ASSERT_EQ(0, appendDataBuffer(&buffer, "load", 4));
    EXPECT_EQ(-1, joinContentBeforeBuffer("head", 4, &buffer));
    EXPECT_EQ(-1, joinContentBeforeBuffer("head", -1, &buffer));
    EXPECT_EQ(-1, joinContentBeforeBuffer(nullptr, 1, &buffer));
    expect("payload", 0, 7);
    ASSERT_EQ(0, joinContentBeforeBuffer("hea", 3, &buffer));
    expect("heapayload", 0, 10);
    rewindDataBuffer(&buffer, 4);
    ASSERT_EQ(0, appendDataBuffer(&buffer, "body", 4));
    ASSERT_EQ(0, joinContentBeforeBuffer("top", 3, &buffer)); // no byte of the body moves
    expect("htopbodyad", 1, 8);
}
