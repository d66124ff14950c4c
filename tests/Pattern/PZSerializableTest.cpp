#include "Framework/Pattern/PZSerializable.h"

#include <execinfo.h>

#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Assertions.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(backtrace, 2);

namespace {

using PZSerialization::Archive;
using PZSerialization::PZSerializable;

constexpr unsigned int kMax = 0xFFFFFFFF;

// The code pages as they are stored.
const std::string kLatin1 = {0, 0, 0, 22};
const std::string kUtf8 = {0, 0, 0, 32};
const std::string kNone = {0, 0, 0, 52};

/// A text literal with its zeros.
template <size_t N>
std::string bytes(const char (&literal)[N]) {
    return {literal, N - 1};
}

std::string content(const Archive& archive) {
    return {reinterpret_cast<const char*>(archive.getBuff()), archive.getSize()};
}

void put(Archive& archive, const std::string& raw) {
    archive.write(raw.data(), static_cast<unsigned int>(raw.size()));
}

/// Where reading goes on, told by the bytes that are left.
unsigned int position_of(Archive& archive) {
    unsigned int left = 0;
    unsigned char byte = 0;
    while (archive.seek(0, Archive::en_SEEK_CURRENT)) {
        archive.read(byte);
        ++left;
    }
    const unsigned int position = archive.getSize() - left;
    if (left > 0) archive.seek(position, Archive::en_SEEK_START);
    return position;
}

/// A text and a number; counts its calls.
class Note : public PZSerializable {
public:
    Note() = default;
    Note(int aNumber, std::string aText) : number(aNumber), text(std::move(aText)) {}

    void serialize() override {
        ++serialized;
        archive_.clear();
        archive_.write(number);
        archive_.write(text);
    }

    void deserialize(const unsigned char* data, unsigned int size) override {
        ++deserialized;
        lastData = data;
        lastSize = size;
        archive_.clear();
        archive_.write(data, size);
        archive_.read(number);
        archive_.read(text);
    }

    const Archive& OwnArchive() const { return archive_; }

    int number = 0;
    std::string text;
    int serialized = 0;
    int deserialized = 0;
    const unsigned char* lastData = nullptr;
    unsigned int lastSize = 0;
};

/// An object that holds an object.
class Page : public PZSerializable {
public:
    void serialize() override {
        archive_.clear();
        archive_.write(note);
        archive_.write(pageNumber);
    }

    void deserialize(const unsigned char* data, unsigned int size) override {
        archive_.clear();
        archive_.write(data, size);
        archive_.read(note);
        archive_.read(pageNumber);
    }

    Note note;
    unsigned short pageNumber = 0;
};

/// An object that holds an object that holds an object, the inner one by pointer.
class Book : public PZSerializable {
public:
    void serialize() override {
        archive_.clear();
        archive_.write(&page);
    }

    void deserialize(const unsigned char* data, unsigned int size) override {
        archive_.clear();
        archive_.write(data, size);
        archive_.read(&page);
    }

    Page page;
};

/// Has no state, therefore no bytes.
class Nothing : public PZSerializable {
public:
    void serialize() override { archive_.clear(); }
    void deserialize(const unsigned char* data, unsigned int size) override {
        ++deserialized;
        lastData = data;
        lastSize = size;
    }

    int deserialized = 0;
    const unsigned char* lastData = nullptr;
    unsigned int lastSize = 1;
};

/// Looks into the archive that it is read from.
class Peeker : public PZSerializable {
public:
    explicit Peeker(Archive& outer) : outer_(outer) {}
    void serialize() override {}
    void deserialize(const unsigned char* /*data*/, unsigned int /*size*/) override {
        positionSeen = position_of(outer_);
        if (clearsOuter) outer_.clear();
    }

    bool clearsOuter = false;
    unsigned int positionSeen = 0;

private:
    Archive& outer_;
};

class PZSerializableTest : public testing::Test {
protected:
    ~PZSerializableTest() override { backtrace_call.Reset(); }

    /// What `value` is read as.
    template <typename T>
    T RoundTrip(const T& value) {
        archive.clear();
        archive.write(value);
        T result{};
        archive.read(result);
        EXPECT_EQ(archive.getSize(), position_of(archive));
        return result;
    }

    template <typename T>
    std::string Written(const T& value) {
        archive.clear();
        archive.write(value);
        return content(archive);
    }

    /// Reading `target` finds too few bytes: it stays, and the rest of the archive is passed over.
    template <typename T>
    void ExpectUntouched(T& target, const std::string& raw) {
        const T before = target;
        archive.clear();
        put(archive, raw);
        archive.read(target);
        EXPECT_TRUE(before == target) << "of " << raw.size() << " bytes";
        EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_CURRENT)) << "not at the end";
        unsigned char next = 77;
        archive.read(next);
        EXPECT_EQ(77, next);
    }

    Archive archive;
};

using PZArchiveTest = PZSerializableTest;

}  // namespace

// ---- the archive itself ----

TEST_F(PZArchiveTest, IsEmptyWithRoomAtTheBeginning) {
    EXPECT_EQ(0U, archive.getSize());
    EXPECT_NE(nullptr, archive.getBuff());
    EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_START));
}

TEST_F(PZArchiveTest, ReservesRoomFor1024Bytes) {
    const unsigned char* const first = archive.getBuff();
    put(archive, std::string(1024, 'x'));
    EXPECT_EQ(first, archive.getBuff()) << "not moved";
    archive.write(true);
    EXPECT_EQ(std::string(1024, 'x') + '\1', content(archive));
}

TEST_F(PZArchiveTest, ReservesTheRoomItIsGiven) {
    Archive large(5000);
    EXPECT_EQ(0U, large.getSize());
    const unsigned char* const first = large.getBuff();
    ASSERT_NE(nullptr, first);
    put(large, std::string(5000, 'x'));
    EXPECT_EQ(first, large.getBuff());
}

TEST_F(PZArchiveTest, HasNoBufferWhenNothingWasEverReserved) {
    Archive none(0);
    EXPECT_EQ(nullptr, none.getBuff());
    EXPECT_EQ(0U, none.getSize());
    none.write(true);
    EXPECT_NE(nullptr, none.getBuff());
    EXPECT_EQ("\1", content(none));
}

TEST_F(PZArchiveTest, ReservesRoomFor1024BytesAgainWhenCleared) {
    Archive none(0);
    none.clear();
    const unsigned char* const first = none.getBuff();
    ASSERT_NE(nullptr, first);
    put(none, std::string(1024, 'x'));
    EXPECT_EQ(first, none.getBuff());
}

TEST_F(PZArchiveTest, ReadsFromTheStartAfterClear) {
    archive.write(1);
    int value = 0;
    archive.read(value);
    archive.clear();
    EXPECT_EQ(0U, archive.getSize());
    archive.write(2);
    archive.read(value);
    EXPECT_EQ(2, value);
}

TEST_F(PZArchiveTest, KeepsItsBytesWhileItGrows) {
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        archive.write(static_cast<unsigned char>(i % 251));
        expected += static_cast<char>(i % 251);
    }
    EXPECT_EQ(expected, content(archive));
    EXPECT_EQ(3000U, archive.getSize());
}

TEST_F(PZArchiveTest, AppendsWhereverTheReadPositionIs) {
    put(archive, "abcd");
    ASSERT_TRUE(archive.seek(1, Archive::en_SEEK_START));
    put(archive, "ef");
    EXPECT_EQ("abcdef", content(archive));
    EXPECT_EQ(1U, position_of(archive)) << "writing does not move it";
}

TEST_F(PZArchiveTest, CannotBeCopiedAndHasAVirtualDestructor) {
    EXPECT_FALSE(std::is_copy_constructible<Archive>::value);
    EXPECT_FALSE(std::is_copy_assignable<Archive>::value);
    EXPECT_TRUE(std::has_virtual_destructor<Archive>::value);
    EXPECT_FALSE(std::is_copy_constructible<Note>::value);
}

TEST_F(PZArchiveTest, HoldsItsFieldsInTheSettledOrder) {
    struct Fields {
        void* virtualTable;
        std::vector<unsigned char> buffer;
        unsigned int readPosition;
    };
    static_assert(sizeof(Archive) == sizeof(Fields), "no further fields");
    put(archive, "abcdefgh");
    archive.seek(5, Archive::en_SEEK_START);
    const auto* const raw = reinterpret_cast<const char*>(&archive);
    const unsigned char* first = nullptr;
    std::memcpy(&first, raw + sizeof(void*), sizeof first);
    EXPECT_EQ(archive.getBuff(), first);
    unsigned int position = 0;
    std::memcpy(&position, raw + sizeof(void*) + sizeof(Fields::buffer), sizeof position);
    EXPECT_EQ(5U, position);
}

TEST_F(PZArchiveTest, StandsFirstInASerializableObject) {
    Note note;
    EXPECT_EQ(reinterpret_cast<const char*>(static_cast<PZSerializable*>(&note)) + sizeof(void*),
              reinterpret_cast<const char*>(&note.OwnArchive()));
}

TEST_F(PZSerializableTest, KeepsTheOrderOfItsVirtualOperations) {
    // A pointer to a virtual member holds the byte offset in the table, by the machine's rule with
    // or without its lowest bit set.
    const auto slot_of = [](auto operation) {
        size_t offset = 0;
        std::memcpy(&offset, &operation, sizeof offset);
        return offset / sizeof(void*);
    };
    EXPECT_EQ(2U, slot_of(&PZSerializable::serialize)) << "behind the destructor, which takes two";
    EXPECT_EQ(3U, slot_of(&PZSerializable::deserialize));
}

// ---- the bytes of every type ----

TEST_F(PZArchiveTest, WritesABoolAsOneByte) {
    EXPECT_EQ(bytes("\1"), Written(true));
    EXPECT_EQ(bytes("\0"), Written(false));
}

TEST_F(PZArchiveTest, WritesAByteAsItIs) {
    EXPECT_EQ("\xFE", Written(static_cast<signed char>(-2)));
    EXPECT_EQ("\xFE", Written(static_cast<unsigned char>(254)));
}

TEST_F(PZArchiveTest, WritesIntegersMostSignificantByteFirst) {
    EXPECT_EQ(bytes("\xFF\xFE"), Written(static_cast<short>(-2)));
    EXPECT_EQ(bytes("\x12\x34"), Written(static_cast<short>(0x1234)));
    EXPECT_EQ(bytes("\xFE\xDC"), Written(static_cast<unsigned short>(0xFEDC)));
    EXPECT_EQ(bytes("\x01\x02\x03\x04"), Written(0x01020304));
    EXPECT_EQ(bytes("\xFF\xFF\xFF\xFE"), Written(-2));
    EXPECT_EQ(bytes("\xFE\xDC\xBA\x98"), Written(0xFEDCBA98U));
    EXPECT_EQ(bytes("\0\0\0\0\0\0\0\1"), Written(1LL));
    EXPECT_EQ(bytes("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"), Written(-2LL));
    EXPECT_EQ(bytes("\x01\x02\x03\x04\x05\x06\x07\x08"), Written(0x0102030405060708LL));
    EXPECT_EQ(bytes("\xFE\xDC\xBA\x98\x76\x54\x32\x10"), Written(0xFEDCBA9876543210ULL));
}

TEST_F(PZArchiveTest, WritesFloatingPointValuesAsTheyLieInMemory) {
    EXPECT_EQ(bytes("\x00\x00\x80\x3F"), Written(1.0F));
    EXPECT_EQ(bytes("\x00\x00\x00\xC0"), Written(-2.0F));
    EXPECT_EQ(bytes("\x00\x00\x00\x00\x00\x00\xF0\x3F"), Written(1.0));
    EXPECT_EQ(bytes("\x18\x2D\x44\x54\xFB\x21\x09\x40"), Written(3.141592653589793));
}

TEST_F(PZArchiveTest, WritesARawBlockWithoutItsLength) {
    archive.write("a\0b", 3U);
    EXPECT_EQ(bytes("a\0b"), content(archive));
}

TEST_F(PZArchiveTest, WritesNoBlockForNullAndForSizesBelowOne) {
    archive.write(static_cast<const void*>(nullptr), 3U);
    const char* const text = "abc";
    archive.write(static_cast<const void*>(text), 0U);
    archive.write(static_cast<const void*>(text), 0x80000000U);  // negative as a signed number
    archive.write(static_cast<const void*>(text), kMax);
    EXPECT_EQ(0U, archive.getSize());
}

TEST_F(PZArchiveTest, MayBeGivenItsOwnBytesToWrite) {
    Archive small(3);
    put(small, "abc");
    small.write(small.getBuff(), 3);      // has to grow
    small.write(small.getBuff() + 1, 4);  // has to grow
    EXPECT_EQ("abcabcbcab", content(small));
    put(archive, "abc");
    archive.write(archive.getBuff(), 3);  // has room
    EXPECT_EQ("abcabc", content(archive));
}

TEST_F(PZArchiveTest, WritesAStringWithItsNumberOfBytes) {
    EXPECT_EQ(bytes("\0\0\0\3abc"), Written(std::string("abc")));
    EXPECT_EQ(bytes("\0\0\0\0"), Written(std::string()));
    EXPECT_EQ(bytes("\0\0\0\3a\0b"), Written(bytes("a\0b")));
    EXPECT_EQ(bytes("\0\0\1\2") + std::string(258, 'x'), Written(std::string(258, 'x')));
}

TEST_F(PZArchiveTest, WritesTheFirstCharactersOfAString) {
    const std::string hello = "h\xC3\xA9llo";
    const auto written = [&](int maxChars) {
        archive.clear();
        archive.write(hello, maxChars);
        return content(archive);
    };
    EXPECT_EQ(bytes("\0\0\0\3h\xC3\xA9"), written(2));
    EXPECT_EQ(bytes("\0\0\0\0"), written(0));
    EXPECT_EQ(bytes("\0\0\0\1h"), written(1));
    EXPECT_EQ(bytes("\0\0\0\4h\xC3\xA9l"), written(3));
    EXPECT_EQ(bytes("\0\0\0\6h\xC3\xA9llo"), written(5));
    EXPECT_EQ(bytes("\0\0\0\6h\xC3\xA9llo"), written(6));
    EXPECT_EQ(bytes("\0\0\0\6h\xC3\xA9llo"), written(std::numeric_limits<int>::max()));
    EXPECT_EQ(bytes("\0\0\0\6h\xC3\xA9llo"), written(-1));
    EXPECT_EQ(bytes("\0\0\0\6h\xC3\xA9llo"), written(std::numeric_limits<int>::min()));

    // Every byte but 0x80 to 0xBF begins a character.
    archive.clear();
    archive.write(std::string("\x7F\xC0\xBF\x80\xFF"
                              "z"),
                  3);
    EXPECT_EQ(bytes("\0\0\0\5\x7F\xC0\xBF\x80\xFF"), content(archive));
}

TEST_F(PZArchiveTest, WritesAWideStringWithItsNumberOfCharacters) {
    EXPECT_EQ(bytes("\0\0\0\2a\0\0\0\xAC\x20\0\0"), Written(std::wstring(L"a\u20AC")));
    EXPECT_EQ(bytes("\0\0\0\1\x00\xF6\x01\0"), Written(std::wstring(L"\U0001F600")));
    EXPECT_EQ(bytes("\0\0\0\0"), Written(std::wstring()));
    EXPECT_EQ(bytes("\0\0\0\2\0\0\0\0b\0\0\0"), Written(std::wstring(L"\0b", 2)));
}

TEST_F(PZArchiveTest, WritesANarrowTextWithItsCodePageAndTag) {
    EXPECT_EQ(kUtf8 + bytes("\0\0\0\0\0\0\0\2\xC3\xA9"), Written(PZString("\xC3\xA9")));
    EXPECT_EQ(kLatin1 + bytes("\0\0\0\0\0\0\0\1\xE9"), Written(PZString("\xE9", XCP_ISO8859_1)));
    EXPECT_EQ(kUtf8 + bytes("\0\0\0\0\0\0\0\0"), Written(PZString("")));
}

TEST_F(PZArchiveTest, WritesAWideTextWithItsCodePageAndTag) {
    EXPECT_EQ(kNone + bytes("\0\0\0\1\0\0\0\1\xE9\0\0\0"), Written(PZString(L"\u00E9")));
    EXPECT_EQ(kNone + bytes("\0\0\0\1\0\0\0\0"), Written(PZString(L"")));
}

TEST_F(PZArchiveTest, WritesOnlyTheCodePageWithoutNarrowOrWideText) {
    EXPECT_EQ(kNone, Written(PZString()));
    const unsigned short units[] = {'a', 0};
    EXPECT_EQ(bytes("\0\0\0\x23"), Written(PZString(units, XCP_UTF16BE)));
    EXPECT_EQ(bytes("\0\0\0\x24"), Written(PZString(units, XCP_UTF16LE)));
}

TEST_F(PZArchiveTest, ConvertsNoTextThatIsWritten) {
    const PZString wide(L"a");
    archive.write(wide);
    EXPECT_STREQ(L"a", wide.RefWCHAR());
    EXPECT_EQ(nullptr, wide.RefCHAR());
}

TEST_F(PZArchiveTest, WritesARecordWithoutPadding) {
    archive.write(true);
    archive.write(static_cast<short>(2));
    archive.write(static_cast<unsigned char>(3));
    archive.write(4LL);
    archive.write(std::string("5"));
    archive.write(6);
    EXPECT_EQ(bytes("\1\0\2\3\0\0\0\0\0\0\0\4\0\0\0\1"
                    "5\0\0\0\6"),
              content(archive));
}

// ---- reading back ----

TEST_F(PZArchiveTest, ReadsBackTheNumbersItWrote) {
    EXPECT_TRUE(RoundTrip(true));
    EXPECT_EQ(-128, RoundTrip<signed char>(-128));
    EXPECT_EQ(255, RoundTrip<unsigned char>(255));
    EXPECT_EQ(std::numeric_limits<short>::min(), RoundTrip(std::numeric_limits<short>::min()));
    EXPECT_EQ(65535, RoundTrip<unsigned short>(65535));
    EXPECT_EQ(std::numeric_limits<int>::min(), RoundTrip(std::numeric_limits<int>::min()));
    EXPECT_EQ(kMax, RoundTrip(kMax));
    EXPECT_EQ(std::numeric_limits<long long>::min(),
              RoundTrip(std::numeric_limits<long long>::min()));
    EXPECT_EQ(std::numeric_limits<unsigned long long>::max(),
              RoundTrip(std::numeric_limits<unsigned long long>::max()));
    EXPECT_EQ(1.25F, RoundTrip(1.25F));
    EXPECT_EQ(-1e300, RoundTrip(-1e300));
}

TEST_F(PZArchiveTest, ReadsIntegersMostSignificantByteFirst) {
    put(archive, "\x81\x82\x83\x84\x85\x86\x87\x88");
    const auto read_as = [&](auto value) {
        archive.seek(0, Archive::en_SEEK_START);
        archive.read(value);
        return value;
    };
    EXPECT_EQ(-127, read_as(static_cast<signed char>(0)));
    EXPECT_EQ(0x81, read_as(static_cast<unsigned char>(0)));
    EXPECT_EQ(0x8182 - 0x10000, read_as(static_cast<short>(0)));
    EXPECT_EQ(0x8182, read_as(static_cast<unsigned short>(0)));
    EXPECT_EQ(static_cast<int>(0x81828384U), read_as(0));
    EXPECT_EQ(0x81828384U, read_as(0U));
    EXPECT_EQ(static_cast<long long>(0x8182838485868788ULL), read_as(0LL));
    EXPECT_EQ(0x8182838485868788ULL, read_as(0ULL));
}

TEST_F(PZArchiveTest, ReadsFalseOverTrue) {
    put(archive, bytes("\0"));
    bool value = true;
    archive.read(value);
    EXPECT_FALSE(value);
}

TEST_F(PZArchiveTest, ReportsABoolThatIsNeitherZeroNorOne) {
    for (const char byte : {'\x02', '\xFF'}) {
        for (const bool before : {false, true}) {
            archive.clear();
            put(archive, {byte, 7});
            bool value = before;
            backtrace_call.Reset();
            pztest::StdoutCapture output;
            archive.read(value);
            const std::string text = output.Take();
            EXPECT_EQ(0U, text.find("\033[49m#########"));
            EXPECT_EQ(1U, pztest::assertions_of(text, "Pattern/private/PZSerializable.cpp"));
            EXPECT_EQ(1, backtrace_call.Calls());
            EXPECT_EQ(before, value);

            unsigned char next = 0;
            archive.read(next);
            EXPECT_EQ(7, next) << "passed over the malformed byte alone";
        }
    }
}

TEST_F(PZArchiveTest, ReadsARawBlock) {
    put(archive, "abcdef");
    char block[4] = {};
    archive.read(block, 3);
    EXPECT_STREQ("abc", block);
    archive.read(block, 3);
    EXPECT_STREQ("def", block);
}

TEST_F(PZArchiveTest, ReadsNoBlockIntoNullOrOfSizeZero) {
    put(archive, "abc");
    archive.read(static_cast<void*>(nullptr), 2);
    EXPECT_EQ(0U, position_of(archive));
    char byte = 'x';
    archive.read(&byte, 0);
    EXPECT_EQ(0U, position_of(archive));
    EXPECT_EQ('x', byte);
}

TEST_F(PZArchiveTest, ReadsBackTexts) {
    EXPECT_EQ("abc", RoundTrip(std::string("abc")));
    EXPECT_EQ("", RoundTrip(std::string()));
    EXPECT_EQ(std::string(5000, 'x'), RoundTrip(std::string(5000, 'x')));
    EXPECT_EQ(L"a\u20AC", RoundTrip(std::wstring(L"a\u20AC")));
    EXPECT_EQ(L"", RoundTrip(std::wstring()));
}

TEST_F(PZArchiveTest, ReplacesTheTextThatItReadsInto) {
    archive.write(std::string());
    archive.write(std::wstring(L"b"));
    std::string narrow = "old";
    std::wstring wide = L"older";
    archive.read(narrow);
    archive.read(wide);
    EXPECT_EQ("", narrow);
    EXPECT_EQ(L"b", wide);
}

TEST_F(PZArchiveTest, EndsATextThatIsReadAtItsFirstZero) {
    archive.write(bytes("ab\0cd"));
    archive.write(std::wstring(L"ef\0gh", 5));
    archive.write(bytes("\0x"));
    archive.write(9);
    std::string narrow;
    std::wstring wide;
    std::string none = "old";
    int next = 0;
    archive.read(narrow);
    archive.read(wide);
    archive.read(none);
    archive.read(next);
    EXPECT_EQ("ab", narrow);
    EXPECT_EQ(2U, narrow.size());
    EXPECT_EQ(L"ef", wide);
    EXPECT_EQ(2U, wide.size());
    EXPECT_EQ("", none);
    EXPECT_EQ(9, next) << "the whole text is passed over";
}

TEST_F(PZArchiveTest, ReadsAWideTextAtAnyAlignment) {
    for (unsigned int gap = 0; gap < 4; ++gap) {
        archive.clear();
        put(archive, std::string(gap, 'x'));
        archive.write(std::wstring(L"\U0001F600z"));
        archive.seek(gap, Archive::en_SEEK_START);
        std::wstring wide;
        archive.read(wide);
        EXPECT_EQ(L"\U0001F600z", wide);
    }
}

TEST_F(PZArchiveTest, ReadsANarrowTextWithTheCodePageUtf8WhateverWasStored) {
    PZString result;
    archive.write(PZString("\xE9", XCP_ISO8859_1));
    archive.read(result);
    EXPECT_STREQ("\xE9", result.RefCHAR());
    EXPECT_EQ(kUtf8 + bytes("\0\0\0\0\0\0\0\1\xE9"), Written(result));
}

TEST_F(PZArchiveTest, ReadsAWideTextWithoutCodePageWhateverWasStored) {
    PZString result("narrow");
    put(archive, kLatin1 + bytes("\0\0\0\1\0\0\0\2\xE9\0\0\0b\0\0\0"));
    archive.read(result);
    EXPECT_STREQ(L"\u00E9b", result.RefWCHAR());
    EXPECT_EQ(nullptr, result.RefCHAR());
    EXPECT_EQ(kNone + bytes("\0\0\0\1\0\0\0\2\xE9\0\0\0b\0\0\0"), Written(result));
}

TEST_F(PZArchiveTest, ReadsEmptyTextsAsTextsNotAsNothing) {
    PZString result;
    archive.write(PZString(""));
    archive.write(PZString(L""));
    archive.read(result);
    EXPECT_STREQ("", result.RefCHAR());
    archive.read(result);
    EXPECT_STREQ(L"", result.RefWCHAR());
}

TEST_F(PZArchiveTest, EndsATextOfAStringObjectAtItsFirstZero) {
    PZString result;
    put(archive, kUtf8 + bytes("\0\0\0\0\0\0\0\3a\0b") + "next");
    archive.read(result);
    EXPECT_STREQ("a", result.RefCHAR());
    EXPECT_EQ(1U, result.LengthByte());
    EXPECT_EQ(15U, position_of(archive)) << "the whole text is passed over";
}

TEST_F(PZArchiveTest, ChangesTheCodePageAloneForAnUnknownTag) {
    PZString result("text");
    put(archive, kLatin1 + bytes("\0\0\0\2\0\0\0\1z"));
    archive.read(result);
    EXPECT_STREQ("text", result.RefCHAR());
    EXPECT_EQ(8U, position_of(archive)) << "nothing more is read";
    EXPECT_EQ(kLatin1 + bytes("\0\0\0\0\0\0\0\4text"), Written(result));
}

TEST_F(PZArchiveTest, ChangesTheCodePageAloneWhenTheTextIsMissing) {
    for (const std::string& rest :
         {std::string(), bytes("\0\0"), bytes("\0\0\0\0\0\0\0\2z"), bytes("\0\0\0\1\0\0\0\1z")}) {
        archive.clear();
        PZString result("text");
        put(archive, kLatin1 + rest);
        archive.read(result);
        EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_CURRENT));
        EXPECT_STREQ("text", result.RefCHAR());
        EXPECT_EQ(kLatin1 + bytes("\0\0\0\0\0\0\0\4text"), Written(result));
    }
}

// ---- reading more than was written ----

TEST_F(PZArchiveTest, LeavesANumberThatIsNotCompletelyThere) {
    bool flag = true;
    ExpectUntouched(flag, "");
    signed char byte = -5;
    ExpectUntouched(byte, "");
    unsigned char unsignedByte = 5;
    ExpectUntouched(unsignedByte, "");
    short word = -6;
    ExpectUntouched(word, "x");
    unsigned short unsignedWord = 6;
    ExpectUntouched(unsignedWord, "x");
    int number = -7;
    ExpectUntouched(number, "xxx");
    unsigned int unsignedNumber = 7;
    ExpectUntouched(unsignedNumber, "xxx");
    long long wide = -8;
    ExpectUntouched(wide, "xxxxxxx");
    unsigned long long unsignedWide = 8;
    ExpectUntouched(unsignedWide, "xxxxxxx");
    float single = 9.5F;
    ExpectUntouched(single, "xxx");
    double real = 9.5;
    ExpectUntouched(real, "xxxxxxx");
}

TEST_F(PZArchiveTest, LeavesATextThatIsNotCompletelyThere) {
    std::string narrow = "old";
    ExpectUntouched(narrow, "");
    ExpectUntouched(narrow, bytes("\0\0\0"));
    ExpectUntouched(narrow, bytes("\0\0\0\3ab"));
    ExpectUntouched(narrow, bytes("\xFF\xFF\xFF\xFF"
                                  "ab"));
    ExpectUntouched(narrow, bytes("\x7F\xFF\xFF\xFF"
                                  "ab"));
    std::wstring wide = L"old";
    ExpectUntouched(wide, "");
    ExpectUntouched(wide, bytes("\0\0\0"));
    ExpectUntouched(wide, bytes("\0\0\0\2a\0\0\0b\0\0"));
    // As 32-bit numbers of bytes these lengths would be 0 and 4.
    ExpectUntouched(wide, bytes("\x40\0\0\0abcd"));
    ExpectUntouched(wide, bytes("\x40\0\0\1abcd"));
    ExpectUntouched(wide, bytes("\xFF\xFF\xFF\xFF"
                                "ab"));
}

TEST_F(PZArchiveTest, LeavesABlockThatIsNotCompletelyThere) {
    put(archive, "abc");
    char block[] = "xxxxx";
    archive.read(block, 4);
    EXPECT_STREQ("xxxxx", block);
    archive.seek(1, Archive::en_SEEK_START);
    archive.read(block, kMax);
    EXPECT_STREQ("xxxxx", block);
    EXPECT_EQ(3U, position_of(archive));
}

TEST_F(PZArchiveTest, ReadsToTheLastByteAndThenNothing) {
    archive.write(0x01020304);
    int value = 0;
    archive.read(value);
    EXPECT_EQ(0x01020304, value);
    value = 5;
    archive.read(value);
    EXPECT_EQ(5, value);
}

TEST_F(PZArchiveTest, ReadsOnWhenMoreIsWrittenAfterwards) {
    int value = 5;
    archive.read(value);
    archive.write(6);
    archive.read(value);
    EXPECT_EQ(6, value);
}

// ---- objects ----

TEST_F(PZSerializableTest, WritesAnObjectWithTheSizeOfItsArchive) {
    Note note(5, "ab");
    EXPECT_EQ(0, note.serialized);
    archive.write(note);
    EXPECT_EQ(1, note.serialized);
    EXPECT_EQ(bytes("\0\0\0\x0A\0\0\0\5\0\0\0\2ab"), content(archive));
}

TEST_F(PZSerializableTest, RebuildsTheObjectsArchiveForEveryWrite) {
    Note note(5, "ab");
    archive.write(note);
    note.number = 6;
    note.text = "";
    archive.write(&note);
    EXPECT_EQ(bytes("\0\0\0\x0A\0\0\0\5\0\0\0\2ab"
                    "\0\0\0\x08\0\0\0\6\0\0\0\0"),
              content(archive));
    EXPECT_EQ(2, note.serialized);
}

TEST_F(PZSerializableTest, HandsAnObjectItsBytesWhereTheyLie) {
    archive.write(true);
    Note note(5, "ab");
    archive.write(note);
    archive.write(7);
    archive.seek(1, Archive::en_SEEK_START);

    Note result;
    archive.read(result);
    EXPECT_EQ(1, result.deserialized);
    EXPECT_EQ(archive.getBuff() + 5, result.lastData);
    EXPECT_EQ(10U, result.lastSize);
    EXPECT_EQ(5, result.number);
    EXPECT_EQ("ab", result.text);
    int next = 0;
    archive.read(next);
    EXPECT_EQ(7, next) << "goes on behind the object";
}

TEST_F(PZSerializableTest, GoesOnAfterTheObjectHoweverMuchOfItIsRead) {
    put(archive, bytes("\0\0\0\x0C\0\0\0\5\0\0\0\2ab!!") + "next");
    Note result;
    archive.read(&result);
    EXPECT_EQ("ab", result.text);
    EXPECT_EQ(16U, position_of(archive));
}

TEST_F(PZSerializableTest, ReadsThroughAPointer) {
    Note note(5, "ab");
    archive.write(&note);
    Note result;
    archive.read(&result);
    EXPECT_EQ(5, result.number);
    EXPECT_EQ("ab", result.text);
}

TEST_F(PZSerializableTest, WritesAndReadsNothingForANullObject) {
    PZSerializable* const none = nullptr;
    archive.write(none);
    EXPECT_EQ(0U, archive.getSize());
    archive.write(1);
    archive.read(none);
    EXPECT_EQ(0U, position_of(archive));
}

TEST_F(PZSerializableTest, NestsObjectsInObjects) {
    Book book;
    book.page.note.number = 5;
    book.page.note.text = "ab";
    book.page.pageNumber = 0x0102;
    archive.write(book);
    EXPECT_EQ(bytes("\0\0\0\x14"  // the book
                    "\0\0\0\x10"  // its page
                    "\0\0\0\x0A"  // the note on it
                    "\0\0\0\5\0\0\0\2ab"
                    "\1\2"),
              content(archive));

    Book result;
    archive.read(result);
    EXPECT_EQ(5, result.page.note.number);
    EXPECT_EQ("ab", result.page.note.text);
    EXPECT_EQ(0x0102, result.page.pageNumber);
    EXPECT_EQ(24U, position_of(archive));
}

TEST_F(PZSerializableTest, HandsOverAnObjectWithoutBytes) {
    Nothing nothing;
    archive.write(nothing);
    EXPECT_EQ(bytes("\0\0\0\0"), content(archive));
    archive.read(nothing);
    EXPECT_EQ(1, nothing.deserialized);
    EXPECT_EQ(archive.getBuff() + 4, nothing.lastData);
    EXPECT_EQ(0U, nothing.lastSize);
}

TEST_F(PZSerializableTest, HandsOverNoObjectThatIsNotCompletelyThere) {
    for (const std::string& raw : {std::string(), bytes("\0\0\0"), bytes("\0\0\0\5abcd"),
                                   bytes("\xFF\xFF\xFF\xFF"
                                         "abcd")}) {
        archive.clear();
        put(archive, raw);
        Note result;
        archive.read(result);
        EXPECT_EQ(0, result.deserialized) << raw.size();
        EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_CURRENT));
    }
}

TEST_F(PZSerializableTest, FindsItselfAtItsBytesInTheArchiveItIsReadFrom) {
    put(archive, bytes("\0\0\0\3abc") + "next");
    Peeker peeker(archive);
    archive.read(peeker);
    EXPECT_EQ(4U, peeker.positionSeen);
    EXPECT_EQ(7U, position_of(archive));
}

TEST_F(PZSerializableTest, ReadsNothingFromAnArchiveThatAnObjectHasCleared) {
    put(archive, bytes("\0\0\0\3abc") + "next");
    Peeker peeker(archive);
    peeker.clearsOuter = true;
    archive.read(peeker);
    unsigned char byte = 5;
    archive.read(byte);
    EXPECT_EQ(5, byte);
}

// ---- seek ----

TEST_F(PZArchiveTest, SeeksFromTheStartToAByteThatExists) {
    put(archive, "0123456789");
    EXPECT_TRUE(archive.seek(9, Archive::en_SEEK_START));
    EXPECT_EQ(9U, position_of(archive));
    EXPECT_TRUE(archive.seek(0, Archive::en_SEEK_START));
    EXPECT_EQ(0U, position_of(archive));
    ASSERT_TRUE(archive.seek(4, Archive::en_SEEK_START));
    EXPECT_FALSE(archive.seek(10, Archive::en_SEEK_START));
    EXPECT_FALSE(archive.seek(kMax, Archive::en_SEEK_START));
    EXPECT_EQ(4U, position_of(archive));
}

TEST_F(PZArchiveTest, SeeksForwardToAByteThatExists) {
    put(archive, "0123456789");
    EXPECT_TRUE(archive.seek(4, Archive::en_SEEK_CURRENT));
    EXPECT_EQ(4U, position_of(archive));
    EXPECT_TRUE(archive.seek(5, Archive::en_SEEK_CURRENT));
    EXPECT_EQ(9U, position_of(archive));
    EXPECT_TRUE(archive.seek(0, Archive::en_SEEK_CURRENT));
    EXPECT_FALSE(archive.seek(1, Archive::en_SEEK_CURRENT));
    EXPECT_EQ(9U, position_of(archive));
    EXPECT_FALSE(archive.seek(kMax, Archive::en_SEEK_CURRENT)) << "not back to 8";
    EXPECT_FALSE(archive.seek(kMax - 8, Archive::en_SEEK_CURRENT)) << "not back to 0";
    EXPECT_EQ(9U, position_of(archive));
}

TEST_F(PZArchiveTest, SeeksBackwardsFromTheEnd) {
    put(archive, "0123456789");
    EXPECT_TRUE(archive.seek(3, Archive::en_SEEK_END));
    EXPECT_EQ(7U, position_of(archive));
    EXPECT_TRUE(archive.seek(9, Archive::en_SEEK_END));
    EXPECT_EQ(1U, position_of(archive));
    EXPECT_FALSE(archive.seek(10, Archive::en_SEEK_END)) << "the first byte is out of its reach";
    EXPECT_FALSE(archive.seek(kMax, Archive::en_SEEK_END));
    EXPECT_EQ(1U, position_of(archive));
    EXPECT_TRUE(archive.seek(0, Archive::en_SEEK_END));
    EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_CURRENT)) << "at the end";
    EXPECT_EQ(10U, position_of(archive));
}

TEST_F(PZArchiveTest, RefusesAnUnknownSeekOption) {
    put(archive, "0123456789");
    ASSERT_TRUE(archive.seek(4, Archive::en_SEEK_START));
    EXPECT_FALSE(archive.seek(0, static_cast<Archive::SEEK_OPT>(3)));
    EXPECT_FALSE(archive.seek(0, static_cast<Archive::SEEK_OPT>(-1)));
    EXPECT_EQ(4U, position_of(archive));
}

TEST_F(PZArchiveTest, RefusesEverySeekWhileEmpty) {
    EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_START));
    EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_CURRENT));
    EXPECT_FALSE(archive.seek(0, Archive::en_SEEK_END));
}

TEST_F(PZArchiveTest, NumbersTheSeekOptions) {
    EXPECT_EQ(0, Archive::en_SEEK_START);
    EXPECT_EQ(1, Archive::en_SEEK_CURRENT);
    EXPECT_EQ(2, Archive::en_SEEK_END);
}

// ---- without memory ----

namespace {

/// Runs `operation` with every one of its allocations refused, one after the other, and `check`
/// after each that threw std::bad_alloc. Answers how many did.
template <typename Operation, typename Check>
int refuse_each_allocation(Operation operation, Check check) {
    for (int skip = 0;; ++skip) {
        bool hasThrown = false;
        {
            const pztest::MemoryShortage shortage(skip);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
            if (shortage.Refused() == 0) return skip;
        }
        EXPECT_TRUE(hasThrown) << "allocation " << skip;
        check();
    }
}

const std::string kLongText(200, 'n');
const std::wstring kLongWideText(200, L'w');

}  // namespace

TEST_F(PZArchiveTest, IsLeftAsItWasByAWriteThatFindsNoMemory) {
    const PZString narrow(kLongText.c_str(), XCP_UTF8);
    const PZString wide(kLongWideText.c_str());
    Note note;
    const auto each = [&](const char* name, auto write) {
        SCOPED_TRACE(name);
        Archive small(3);
        put(small, "abc");
        const int refused = refuse_each_allocation([&] { write(small); },
                                                   [&] { EXPECT_EQ("abc", content(small)); });
        EXPECT_LE(1, refused);
        EXPECT_LT(3U, small.getSize()) << "written when there was memory";
        EXPECT_EQ("abc", content(small).substr(0, 3));
    };
    each("bool", [](Archive& a) { a.write(true); });
    each("number", [](Archive& a) { a.write(1LL); });
    each("double", [](Archive& a) { a.write(1.5); });
    each("block", [](Archive& a) { a.write(kLongText.data(), 200U); });
    each("own block", [](Archive& a) { a.write(a.getBuff(), 3U); });
    each("text", [](Archive& a) { a.write(kLongText); });
    each("wide text", [](Archive& a) { a.write(kLongWideText); });
    each("narrow string", [&](Archive& a) { a.write(narrow); });
    each("wide string", [&](Archive& a) { a.write(wide); });
    each("object", [&](Archive& a) { a.write(note); });
}

TEST_F(PZArchiveTest, IsClearedWithoutMemoryAndKeepsItsRoom) {
    Archive large(5000);
    put(large, "abc");
    const unsigned char* const first = large.getBuff();
    {
        const pztest::MemoryShortage shortage;
        large.clear();
    }
    EXPECT_EQ(0U, large.getSize());
    EXPECT_EQ(first, large.getBuff());
    put(large, "de");
    EXPECT_EQ("de", content(large));
}

TEST_F(PZArchiveTest, LeavesTheTextAndThePositionWhenAReadFindsNoMemory) {
    put(archive, "x");
    archive.write(kLongText);
    const auto each = [&](const char* name, auto read, auto isUntouched) {
        SCOPED_TRACE(name);
        const int refused = refuse_each_allocation(
            [&] {
                archive.seek(1, Archive::en_SEEK_START);
                read();
            },
            [&] {
                EXPECT_TRUE(isUntouched());
                EXPECT_EQ(1U, position_of(archive));
            });
        EXPECT_LE(1, refused);
    };
    std::string text = "old";
    each(
        "text", [&] { archive.read(text); }, [&] { return text == "old"; });
    EXPECT_EQ(kLongText, text);

    archive.clear();
    put(archive, "x");
    archive.write(kLongWideText);
    std::wstring wide = L"old";
    each(
        "wide text", [&] { archive.read(wide); }, [&] { return wide == L"old"; });
    EXPECT_EQ(kLongWideText, wide);
}

TEST_F(PZArchiveTest, LeavesAStringObjectAsItWasWhenTheStoredTextFindsNoMemory) {
    const auto each = [&](const PZString& stored) {
        archive.clear();
        archive.write(stored);
        PZString target(L"old");
        pztest::StdoutCapture output;
        const int refused = refuse_each_allocation(
            [&] {
                archive.seek(0, Archive::en_SEEK_START);
                archive.read(target);
            },
            [&] {
                EXPECT_STREQ(L"old", target.RefWCHAR());
                EXPECT_EQ(0U, position_of(archive));
                Archive copy;
                copy.write(target);
                EXPECT_EQ(kNone, content(copy).substr(0, 4)) << "its code page";
            });
        EXPECT_EQ("", output.Take());
        EXPECT_LE(2, refused) << "the text, and the object that holds it";
        EXPECT_TRUE(target.IsEqual(stored));
    };
    {
        SCOPED_TRACE("narrow");
        each(PZString(kLongText.c_str(), XCP_UTF8));
    }
    {
        SCOPED_TRACE("wide");
        each(PZString(kLongWideText.c_str()));
    }
}
