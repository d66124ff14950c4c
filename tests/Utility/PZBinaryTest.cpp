#include "Framework/Utility/PZBinary.h"

#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

namespace {

constexpr unsigned int kMax = 0xFFFFFFFF;

PZBinary binary_of(const std::string& bytes) {
    return {reinterpret_cast<const unsigned char*>(bytes.data()),
            static_cast<unsigned int>(bytes.size())};
}

std::string content(const PZBinary& binary) {
    return {reinterpret_cast<const char*>(binary.getBuffer()), binary.getSize()};
}

/// A text literal with its zeros.
template <size_t N>
std::string bytes(const char (&literal)[N]) {
    return {literal, N - 1};
}

void expect_empty(PZBinary& binary) {
    EXPECT_EQ(nullptr, binary.getBuffer());
    EXPECT_EQ(0U, binary.getSize());
    EXPECT_EQ(0U, binary.seek(1, 1)) << "the cursor";
}

unsigned int cursor_of(PZBinary& binary) {
    return binary.seek(0, 99);  // an unknown origin moves nothing
}

class PZBinaryTest : public testing::Test {
protected:
    PZBinary empty;
    PZBinary abc = binary_of("abc");
    PZBinary five = binary_of("12345");
    PZBinary numbers = binary_of(bytes("\x01\x02\x03\x04\x05\x06\x07\x08\xF9"));
};

}  // namespace

// ---- construction and copies ----

TEST_F(PZBinaryTest, HoldsItsFieldsInTheSettledOrder) {
    struct Fields {
        void* virtualTable;
        unsigned char* buffer;
        unsigned int size;
        unsigned int cursor;
    };
    static_assert(sizeof(PZBinary) == sizeof(Fields), "no further fields");
    five.seek(3, 0);
    Fields fields{};
    std::memcpy(&fields, static_cast<const void*>(&five), sizeof fields);
    EXPECT_NE(nullptr, fields.virtualTable);
    EXPECT_EQ(five.getBuffer(), fields.buffer);
    EXPECT_EQ(5U, fields.size);
    EXPECT_EQ(3U, fields.cursor);
}

TEST_F(PZBinaryTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<PZBinary>::value);
}

TEST_F(PZBinaryTest, IsEmptyByDefault) {
    expect_empty(empty);
}

TEST_F(PZBinaryTest, AllocatesZeroedBytes) {
    PZBinary zeros(300);
    ASSERT_EQ(300U, zeros.getSize());
    EXPECT_EQ(std::string(300, '\0'), content(zeros));
    EXPECT_EQ(0U, cursor_of(zeros));
}

TEST_F(PZBinaryTest, AllocatesNothingForSizeZero) {
    PZBinary nothing(0U);
    expect_empty(nothing);
}

TEST_F(PZBinaryTest, CopiesTheBytesItIsMadeFrom) {
    unsigned char source[] = {1, 2, 3};
    PZBinary copy(source, 3);
    source[0] = 99;
    EXPECT_NE(source, copy.getBuffer());
    EXPECT_EQ(bytes("\1\2\3"), content(copy));
    EXPECT_EQ(0U, cursor_of(copy));
}

TEST_F(PZBinaryTest, IsEmptyWhenMadeFromNullOrFromNoBytes) {
    PZBinary fromNull(nullptr, 5);
    expect_empty(fromNull);
    const unsigned char byte = 7;
    PZBinary fromNothing(&byte, 0);
    expect_empty(fromNothing);
}

TEST_F(PZBinaryTest, IsWritableThroughItsBuffer) {
    abc.getBuffer()[1] = 'X';
    EXPECT_EQ("aXc", content(abc));
}

TEST_F(PZBinaryTest, CopyConstructsBytesSizeAndCursor) {
    abc.seek(2, 0);
    PZBinary copy(abc);
    EXPECT_NE(abc.getBuffer(), copy.getBuffer());
    EXPECT_EQ("abc", content(copy));
    EXPECT_EQ(2U, cursor_of(copy));
    copy.getBuffer()[0] = 'X';
    EXPECT_EQ("abc", content(abc));
}

TEST_F(PZBinaryTest, CopyConstructsFromAnEmptyObjectWithTheCursorAtZero) {
    empty.seek(5, 0);
    PZBinary copy(empty);
    EXPECT_EQ(0U, cursor_of(copy));
    expect_empty(copy);
}

TEST_F(PZBinaryTest, AssignsBytesSizeAndCursor) {
    abc.seek(2, 0);
    five.seek(4, 0);
    EXPECT_EQ(&five, &(five = abc));
    EXPECT_NE(abc.getBuffer(), five.getBuffer());
    EXPECT_EQ("abc", content(five));
    EXPECT_EQ(2U, cursor_of(five));
}

TEST_F(PZBinaryTest, AssignsAnEmptyObjectWithTheCursorAtZero) {
    empty.seek(5, 0);
    five.seek(4, 0);
    five = empty;
    EXPECT_EQ(0U, cursor_of(five));
    expect_empty(five);
}

TEST_F(PZBinaryTest, DoesNothingWhenAssignedToItself) {
    abc.seek(2, 0);
    const unsigned char* const before = abc.getBuffer();
    const PZBinary& self = abc;
    abc = self;
    EXPECT_EQ(before, abc.getBuffer());
    EXPECT_EQ("abc", content(abc));
    EXPECT_EQ(2U, cursor_of(abc));
}

TEST_F(PZBinaryTest, KeepsTheCursorOfAnEmptyObjectAssignedToItself) {
    empty.seek(5, 0);
    const PZBinary& self = empty;
    empty = self;
    EXPECT_EQ(5U, cursor_of(empty));
}

// ---- adding, copying, clearing ----

TEST_F(PZBinaryTest, AppendsAfterTheOldBytesAndKeepsTheCursor) {
    abc.seek(2, 0);
    unsigned char more[] = {'d', 'e'};
    abc.add(more, 2);
    EXPECT_EQ("abcde", content(abc));
    EXPECT_EQ(5U, abc.getSize());
    EXPECT_EQ(2U, cursor_of(abc));
}

TEST_F(PZBinaryTest, AppendsToAnEmptyObject) {
    const unsigned char byte = 'x';
    empty.add(&byte, 1);
    EXPECT_EQ("x", content(empty));
}

TEST_F(PZBinaryTest, AppendsNothingForNullOrSizeZero) {
    empty.add(nullptr, 4);
    expect_empty(empty);

    const unsigned char* const before = abc.getBuffer();
    abc.add(nullptr, 4);
    abc.add(five.getBuffer(), 0);
    EXPECT_EQ(before, abc.getBuffer()) << "not moved either";
    EXPECT_EQ("abc", content(abc));
}

TEST_F(PZBinaryTest, RefusesToGrowBeyond32Bits) {
    const unsigned char* const before = abc.getBuffer();
    const unsigned char byte = 'x';
    abc.add(&byte, kMax);      // 2^32 + 2
    abc.add(&byte, kMax - 2);  // 2^32: the first sum that does not fit
    EXPECT_EQ(before, abc.getBuffer());
    EXPECT_EQ("abc", content(abc));
}

TEST_F(PZBinaryTest, AppendsAnotherObject) {
    abc.add(five);
    EXPECT_EQ("abc12345", content(abc));
    EXPECT_EQ("12345", content(five));
    abc.add(empty);
    EXPECT_EQ("abc12345", content(abc));
}

TEST_F(PZBinaryTest, AppendsItself) {
    abc.add(abc);
    EXPECT_EQ("abcabc", content(abc));
}

TEST_F(PZBinaryTest, AppendsAPartOfItself) {
    five.add(five.getBuffer() + 1, 3);
    EXPECT_EQ("12345234", content(five));
}

TEST_F(PZBinaryTest, TakesACopyInPlaceOfItsBytes) {
    abc.seek(2, 0);
    abc.copy(five.getBuffer(), 4);
    EXPECT_EQ("1234", content(abc));
    EXPECT_NE(five.getBuffer(), abc.getBuffer());
    EXPECT_EQ(0U, cursor_of(abc));
}

TEST_F(PZBinaryTest, IsEmptyAfterCopyOfNullOrOfNoBytes) {
    abc.seek(2, 0);
    abc.copy(nullptr, 4);
    expect_empty(abc);
    five.seek(2, 0);
    five.copy(five.getBuffer(), 0);
    expect_empty(five);
}

TEST_F(PZBinaryTest, TakesACopyOfItsOwnBytes) {
    abc.copy(abc.getBuffer(), 3);
    EXPECT_EQ("abc", content(abc));
    five.copy(five.getBuffer() + 2, 2);
    EXPECT_EQ("34", content(five));
}

TEST_F(PZBinaryTest, ClearsBytesSizeAndCursor) {
    five.seek(4, 0);
    five.clear();
    EXPECT_EQ(0U, cursor_of(five));
    expect_empty(five);
    five.clear();
    expect_empty(five);
}

// ---- numbers ----

TEST_F(PZBinaryTest, ReadsNumbersAsTheyLieInMemory) {
    EXPECT_EQ(0x01U, numbers.getUInt8(0));
    EXPECT_EQ(0x0201U, numbers.getUInt16(0, false));
    EXPECT_EQ(0x04030201U, numbers.getUInt32(0, false));
    EXPECT_EQ(0x0807060504030201U, numbers.getUInt64(0, false));
}

TEST_F(PZBinaryTest, ReadsBigEndianNumbersWhenSwapped) {
    EXPECT_EQ(0x0102U, numbers.getUInt16(0, true));
    EXPECT_EQ(0x01020304U, numbers.getUInt32(0, true));
    EXPECT_EQ(0x0102030405060708U, numbers.getUInt64(0, true));
}

TEST_F(PZBinaryTest, ReadsUnsignedNumbersAtAnyAlignmentUpToTheLastByte) {
    EXPECT_EQ(0xF9U, numbers.getUInt8(8));
    EXPECT_EQ(0xF908U, numbers.getUInt16(7, false));
    EXPECT_EQ(0x08F9U, numbers.getUInt16(7, true));
    EXPECT_EQ(0xF9080706U, numbers.getUInt32(5, false));
    EXPECT_EQ(0x060708F9U, numbers.getUInt32(5, true));
    EXPECT_EQ(0xF908070605040302U, numbers.getUInt64(1, false));
    EXPECT_EQ(0x02030405060708F9U, numbers.getUInt64(1, true));
}

TEST_F(PZBinaryTest, ReadsZeroWhenTheNumberIsNotCompletelyThere) {
    EXPECT_EQ(0U, numbers.getUInt8(9));
    EXPECT_EQ(0U, numbers.getUInt16(8, false));
    EXPECT_EQ(0U, numbers.getUInt32(6, true));
    EXPECT_EQ(0U, numbers.getUInt64(2, false));
}

TEST_F(PZBinaryTest, ReadsTwoBytesInBothOrders) {
    const PZBinary two = binary_of("\x12\x34");
    EXPECT_EQ(0x3412U, two.getUInt16(0, false));
    EXPECT_EQ(0x1234U, two.getUInt16(0, true));
    EXPECT_EQ(0U, two.getUInt16(1, false));
}

TEST_F(PZBinaryTest, ReadsZeroFromAnEmptyObject) {
    EXPECT_EQ(0U, empty.getUInt8(0));
    EXPECT_EQ(0U, empty.getUInt16(0, true));
    EXPECT_EQ(0U, empty.getUInt32(0, true));
    EXPECT_EQ(0U, empty.getUInt64(0, true));
    EXPECT_EQ(0U, empty.readUInt8(0));
    EXPECT_EQ(0U, empty.readUInt16(0, true));
    EXPECT_EQ(0U, empty.readUInt32(0, true));
    EXPECT_EQ(0U, empty.readUInt64(0, true));
}

// A wrapping sum of offset and width would make these the first bytes again, or pass the test of
// bounds and read in front of the buffer.
TEST_F(PZBinaryTest, ReadsZeroWhereTheEndOfANumberDoesNotFit32Bits) {
    EXPECT_EQ(0U, numbers.getUInt8(kMax));
    for (unsigned int offset = kMax - 8; offset >= kMax - 8; ++offset) {
        EXPECT_EQ(0U, numbers.getUInt16(offset, false)) << offset;
        EXPECT_EQ(0U, numbers.getUInt32(offset, true)) << offset;
        EXPECT_EQ(0U, numbers.getUInt64(offset, false)) << offset;
    }
}

TEST_F(PZBinaryTest, ReadsNumbersFromTheCursor) {
    numbers.seek(3, 0);
    EXPECT_EQ(0x05U, numbers.readUInt8(1));
    EXPECT_EQ(0x0605U, numbers.readUInt16(1, false));
    EXPECT_EQ(0x0506U, numbers.readUInt16(1, true));
    EXPECT_EQ(0x08070605U, numbers.readUInt32(1, false));
    EXPECT_EQ(0x05060708U, numbers.readUInt32(1, true));
    numbers.seek(1, 0);
    EXPECT_EQ(0xF908070605040302U, numbers.readUInt64(0, false));
    EXPECT_EQ(0x02030405060708F9U, numbers.readUInt64(0, true));
}

TEST_F(PZBinaryTest, ReadsZeroFromTheCursorBeyondTheEnd) {
    numbers.seek(8, 0);
    EXPECT_EQ(0xF9U, numbers.readUInt8(0));
    EXPECT_EQ(0U, numbers.readUInt8(1));
    EXPECT_EQ(0U, numbers.readUInt16(0, false));
    EXPECT_EQ(0U, numbers.readUInt32(0, false));
    EXPECT_EQ(0U, numbers.readUInt64(0, false));
}

TEST_F(PZBinaryTest, ReadsZeroWhereCursorAndOffsetDoNotFit32Bits) {
    numbers.seek(2, 0);
    EXPECT_EQ(0U, numbers.readUInt8(kMax));  // 2^32 + 1: not the byte at 1
    EXPECT_EQ(0U, numbers.readUInt16(kMax, false));
    EXPECT_EQ(0U, numbers.readUInt32(kMax, false));
    numbers.seek(kMax, 0);
    EXPECT_EQ(0U, numbers.readUInt8(1));
    EXPECT_EQ(0U, numbers.readUInt64(1, false));
    EXPECT_EQ(0U, numbers.readUInt64(kMax, false));
}

TEST_F(PZBinaryTest, MovesTheCursorInNoReader) {
    abc.seek(1, 0);
    const PZBinary& reader = abc;
    EXPECT_EQ('b', reader.readUInt8(0));
    EXPECT_EQ('a', reader.getUInt8(0));
    reader.readUInt16(0, true);
    reader.readUInt32(0, true);
    reader.readUInt64(0, true);
    reader.getUInt16(0, true);
    reader.getUInt32(0, true);
    reader.getUInt64(0, true);
    reader.getString(0, 2);
    reader.readString(0, 2);
    reader.getBinary(0, 2);
    reader.readBinary(0, 2);
    EXPECT_EQ(1U, cursor_of(abc));
}

// ---- texts ----

TEST_F(PZBinaryTest, GetsAStringWithANulThatCounts) {
    EXPECT_EQ(bytes("abc\0"), abc.getString(0, 3));
    EXPECT_EQ(bytes("b\0"), abc.getString(1, 1));
    EXPECT_EQ(bytes("\0"), abc.getString(1, 0));
    EXPECT_EQ(bytes("\0"), abc.getString(3, 0));
}

TEST_F(PZBinaryTest, GetsNulsOfTheSameNumberWhenOutOfRange) {
    EXPECT_EQ(bytes("\0\0\0\0"), abc.getString(2, 3));
    EXPECT_EQ(std::string(5, '\0'), abc.getString(0, 4));
    EXPECT_EQ(std::string(1, '\0'), abc.getString(4, 0));
    EXPECT_EQ(std::string(1001, '\0'), abc.getString(0, 1000));
    EXPECT_EQ(std::string(3, '\0'), empty.getString(0, 2));
    EXPECT_EQ(std::string(1, '\0'), empty.getString(0, 0));
}

TEST_F(PZBinaryTest, GetsAStringFromTheStartWhereverTheCursorIs) {
    abc.seek(2, 0);
    EXPECT_EQ(bytes("abc\0"), abc.getString(0, 3));
}

TEST_F(PZBinaryTest, GetsNulsWhereOffsetAndLengthDoNotFit32Bits) {
    EXPECT_EQ(std::string(3, '\0'), abc.getString(kMax, 2));      // 2^32 + 1
    EXPECT_EQ(std::string(3, '\0'), abc.getString(kMax - 1, 2));  // 2^32
}

TEST_F(PZBinaryTest, GetsAnEmptyStringInPlaceOfABlankOneThatNoStringCanHold) {
    EXPECT_EQ("", abc.getString(0, kMax));
    EXPECT_EQ("", abc.getString(1, kMax));
    EXPECT_EQ("", abc.getString(kMax, kMax));
    EXPECT_EQ("", abc.getString(0, kMax - 1));
    EXPECT_EQ("", abc.getString(0, 0x7FFFFFFF));
    EXPECT_EQ("", empty.getString(0, kMax));
}

TEST_F(PZBinaryTest, ReadsAStringWithoutNul) {
    EXPECT_EQ("abc", abc.readString(0, 3));
    abc.seek(1, 0);
    EXPECT_EQ("bc", abc.readString(0, 2));
    EXPECT_EQ("c", abc.readString(1, 1));
    EXPECT_EQ("", abc.readString(0, 0));
    EXPECT_EQ(bytes("a\0b"), binary_of(bytes("a\0b")).readString(0, 3));
}

TEST_F(PZBinaryTest, ReadsAnEmptyStringWhenOutOfRange) {
    EXPECT_EQ("", abc.readString(2, 3));
    EXPECT_EQ("", abc.readString(0, 4));
    EXPECT_EQ("", empty.readString(0, 1));
    abc.seek(1, 0);
    EXPECT_EQ("", abc.readString(0, 3));
    EXPECT_EQ("", abc.readString(1, 2));
}

TEST_F(PZBinaryTest, ReadsAnEmptyStringWhereTheSumDoesNotFit32Bits) {
    abc.seek(1, 0);
    EXPECT_EQ("", abc.readString(0, kMax));
    EXPECT_EQ("", abc.readString(kMax, 1));
    EXPECT_EQ("", abc.readString(kMax, kMax));
    abc.seek(kMax, 0);
    EXPECT_EQ("", abc.readString(1, 2));
    EXPECT_EQ("", abc.readString(kMax, 2));
}

// ---- parts ----

TEST_F(PZBinaryTest, GetsACopyOfAPartWithTheCursorAtZero) {
    five.seek(2, 0);
    PZBinary part = five.getBinary(1, 3);
    EXPECT_EQ("234", content(part));
    EXPECT_EQ(0U, cursor_of(part));
    EXPECT_NE(five.getBuffer() + 1, part.getBuffer());
    EXPECT_EQ("12345", content(five.getBinary(0, 5)));
}

TEST_F(PZBinaryTest, ReadsAPartFromTheCursor) {
    five.seek(2, 0);
    PZBinary part = five.readBinary(1, 2);
    EXPECT_EQ("45", content(part));
    EXPECT_EQ(0U, cursor_of(part));
    EXPECT_EQ("345", content(five.readBinary(0, 3)));
}

TEST_F(PZBinaryTest, GetsAnEmptyPartWhenOutOfRangeOrOfLengthZero) {
    for (PZBinary part :
         {five.getBinary(0, 6), five.getBinary(5, 1), five.getBinary(2, 0), five.getBinary(kMax, 2),
          five.getBinary(2, kMax), empty.getBinary(0, 1), empty.getBinary(0, 0)}) {
        expect_empty(part);
    }
}

TEST_F(PZBinaryTest, ReadsAnEmptyPartWhenOutOfRangeOrOfLengthZero) {
    five.seek(2, 0);
    for (PZBinary part : {five.readBinary(0, 4), five.readBinary(3, 1), five.readBinary(1, 0),
                          five.readBinary(kMax, 1), five.readBinary(0, kMax),
                          five.readBinary(kMax, kMax), empty.readBinary(0, 1)}) {
        expect_empty(part);
    }
}

// ---- the cursor ----

TEST_F(PZBinaryTest, SeeksFromTheStartWithoutALimit) {
    EXPECT_EQ(3U, five.seek(3, 0));
    EXPECT_EQ(5U, five.seek(5, 0));
    EXPECT_EQ(kMax, five.seek(kMax, 0));
    EXPECT_EQ(kMax, cursor_of(five));
    EXPECT_EQ(0U, five.seek(0, 0));
    EXPECT_EQ(7U, empty.seek(7, 0));
}

TEST_F(PZBinaryTest, SeeksForwardToAByteThatExists) {
    EXPECT_EQ(1U, five.seek(1, 1));
    EXPECT_EQ(4U, five.seek(3, 1));
    EXPECT_EQ(4U, five.seek(0, 1));
}

TEST_F(PZBinaryTest, TheCursorStaysWhenItWouldSeekForwardToTheEnd) {
    five.seek(1, 0);
    EXPECT_EQ(1U, five.seek(4, 1));
    EXPECT_EQ(1U, five.seek(100, 1));
    EXPECT_EQ(0U, empty.seek(0, 1));
}

TEST_F(PZBinaryTest, TheCursorStaysWhenTheNewOneDoesNotFit32Bits) {
    five.seek(2, 0);
    EXPECT_EQ(2U, five.seek(kMax, 1));      // 2^32 + 1, not 1
    EXPECT_EQ(2U, five.seek(kMax - 1, 1));  // 2^32, not 0
    five.seek(kMax, 0);
    EXPECT_EQ(kMax, five.seek(1, 1));
    EXPECT_EQ(kMax, five.seek(kMax, 1));
}

TEST_F(PZBinaryTest, SeeksBackwardsFromTheLastByte) {
    EXPECT_EQ(4U, five.seek(0, 2));
    EXPECT_EQ(3U, five.seek(1, 2));
    EXPECT_EQ(0U, five.seek(4, 2));
}

TEST_F(PZBinaryTest, TheCursorStaysWhenItWouldSeekBeforeTheStart) {
    five.seek(2, 0);
    EXPECT_EQ(2U, five.seek(5, 2));
    EXPECT_EQ(2U, five.seek(kMax, 2));
    EXPECT_EQ(0U, empty.seek(0, 2));
}

TEST_F(PZBinaryTest, TheCursorStaysForAnUnknownOrigin) {
    five.seek(2, 0);
    EXPECT_EQ(2U, five.seek(1, 3));
    EXPECT_EQ(2U, five.seek(1, kMax));
    EXPECT_EQ(2U, cursor_of(five));
}

// ---- the dump ----

TEST_F(PZBinaryTest, ADumpPrintsNothingAndChangesNothing) {
    pztest::StdoutCapture output;
    five.seek(2, 0);
    const PZBinary& unchanging = five;
    unchanging.dumpBinary(true);
    unchanging.dumpBinary(false);
    empty.dumpBinary(true);
    EXPECT_EQ("", output.Take());
    EXPECT_EQ("12345", content(five));
    EXPECT_EQ(2U, cursor_of(five));
}

// ---- without memory ----

TEST_F(PZBinaryTest, LeavesTheBytesAndTheCursorWhenThereIsNoMemory) {
    const PZBinary other = binary_of("other");
    const auto* const more = reinterpret_cast<const unsigned char*>("more");
    const std::function<void()> operations[] = {
        [&] { five.add(more, 4); },
        [&] { five.add(other); },
        [&] { five.copy(more, 4); },
        [&] { five = other; },
        [&] { five.getString(0, 40); },
        [&] { five.readString(0, 3); },
        [&] { five.getBinary(0, 5); },
        [&] { five.readBinary(0, 3); },
        [&] { const PZBinary another(five); },
        [] { const PZBinary another(5); },
    };
    five.seek(2, 0);
    int refused = 0;
    for (const std::function<void()>& operation : operations) {
        const pztest::MemoryShortage shortage;
        try {
            operation();
        } catch (const std::bad_alloc&) {
            ++refused;
        }
    }
    EXPECT_EQ(9, refused) << "the string of three characters needs no memory";
    EXPECT_EQ("12345", content(five));
    EXPECT_EQ(2U, cursor_of(five));
}
