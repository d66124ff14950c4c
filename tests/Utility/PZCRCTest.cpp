#include "Framework/Utility/PZCRC.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Framework/Utility/private/pz_crc32.h"

#include "support/Interposed.h"
#include "support/OpenDescriptors.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "support/WaitsForWriter.h"

PZ_INTERPOSE(fread, 4, 0U);
PZ_INTERPOSE(fclose, 1);

namespace {

pztest::Interposed<FILE*(const char*, const char*)> fopen_call("fopen64", nullptr);

std::string lastMode;

}  // namespace

// The name of fopen where file offsets have 64 bits.
extern "C" FILE* fopen64(const char* path, const char* mode) {
    lastMode = mode;
    return fopen_call(path, mode);
}

namespace {

constexpr unsigned long kAllOnes = 0xFFFFFFFF;
constexpr unsigned long kUntouched = 0x12345678;
constexpr size_t kPiece = 10240;

const PZCRC crc;

unsigned long crc_of(const std::string& data, unsigned long seed = kAllOnes) {
    return crc.getMemCRC32(seed, reinterpret_cast<const unsigned char*>(data.data()),
                           static_cast<unsigned int>(data.size()));
}

/// The definition of the checksum, one bit a step: divides by the polynomial.
unsigned long crc_by_division(const std::string& data, uint32_t reg) {
    for (const char byte : data) {
        for (unsigned int bit = 0; bit < 8; ++bit) {
            const uint32_t in = (static_cast<unsigned char>(byte) >> bit) & 1U;
            const uint32_t out = (reg ^ in) & 1U;
            reg = (reg >> 1U) ^ (out * 0xEDB88320U);
        }
    }
    return static_cast<uint32_t>(~reg);
}

/// Bytes that do not repeat with any piece.
std::string bytes_of(size_t size) {
    std::string data(size, '\0');
    uint32_t state = 1;
    for (char& byte : data) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return data;
}

class PZCRCTest : public testing::Test {
protected:
    ~PZCRCTest() override {
        fread_call.Reset();
        fopen_call.Reset();
        fclose_call.Reset();
    }

    /// The checksum of a file with this content.
    unsigned long OfFile(const std::string& content) {
        pztest::write_file(path, content);
        unsigned long result = kUntouched;
        EXPECT_TRUE(crc.CRC32(path.c_str(), result));
        return result;
    }

    pztest::TempDir folder;
    const std::string path = folder.File("data");
};

}  // namespace

TEST_F(PZCRCTest, HasNoState) {
    EXPECT_TRUE(std::is_empty<PZCRC>::value);
}

// ---- memory ----

TEST_F(PZCRCTest, GivesThePublishedChecksums) {
    EXPECT_EQ(0xCBF43926U, crc_of("123456789"));
    EXPECT_EQ(0x00000000U, crc_of(""));
    EXPECT_EQ(0xE8B7BE43U, crc_of("a"));
    EXPECT_EQ(0x352441C2U, crc_of("abc"));
    EXPECT_EQ(0x414FA339U, crc_of("The quick brown fox jumps over the lazy dog"));
    EXPECT_EQ(0x190A55ADU, crc_of(std::string(32, '\0')));
    EXPECT_EQ(0xFF6CAB0BU, crc_of(std::string(32, '\xFF')));
}

TEST_F(PZCRCTest, DividesEveryByteValueByThePolynomial) {
    for (int value = 0; value < 256; ++value) {
        const std::string byte(1, static_cast<char>(value));
        EXPECT_EQ(crc_by_division(byte, 0xFFFFFFFF), crc_of(byte)) << value;
        EXPECT_EQ(crc_by_division(byte, 0), crc_of(byte, 0)) << value;
    }
}

TEST_F(PZCRCTest, DividesBlocksOfEveryLengthFromEverySeed) {
    const std::string data = bytes_of(80);
    uint32_t seed = 0;
    for (size_t length = 0; length <= data.size(); ++length) {
        const std::string block = data.substr(data.size() - length);
        EXPECT_EQ(crc_by_division(block, seed), crc_of(block, seed)) << length;
        seed += 0x9E3779B9U;
    }
}

TEST_F(PZCRCTest, DividesBlocksOfEveryLengthAtEveryAlignment) {
    constexpr size_t kLongest = 1100;  // several steps of the widest way, and every rest
    constexpr size_t kAlignments = 32;
    const std::string data = bytes_of(kLongest + kAlignments);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data.data());
    uint32_t seed = kAllOnes;
    for (size_t start = 0; start < kAlignments; ++start, seed = seed * 1664525U + 1013904223U) {
        uint32_t reg = seed;
        for (size_t length = 0; length <= kLongest; ++length) {
            ASSERT_EQ(static_cast<uint32_t>(~reg),
                      crc.getMemCRC32(seed, bytes + start, static_cast<unsigned int>(length)))
                << "length " << length << " start " << start << " seed " << seed;
            reg = static_cast<uint32_t>(~crc_by_division(data.substr(start + length, 1), reg));
        }
    }
}

#if defined(PZ_CRC32_BY_CARRYLESS_MULTIPLICATION)
TEST_F(PZCRCTest, FindsTheMultiplyInstructionsOfTheProcessor) {
    EXPECT_EQ(__builtin_cpu_supports("pclmul") != 0, pz_crc32::multipliers.hasNarrow);
    EXPECT_EQ(__builtin_cpu_supports("vpclmulqdq") != 0 && __builtin_cpu_supports("avx2") != 0,
              pz_crc32::multipliers.hasWide);
}
#endif

TEST_F(PZCRCTest, GivesTheSameByEveryWayThatThisProcessorHas) {
    using Way = uint32_t (*)(uint32_t, const unsigned char*, size_t);
    struct ST_WAY {
        const char* name;
        Way feed;
        size_t shortest;
    };
    std::vector<ST_WAY> ways = {{"tables", &pz_crc32::feed_by_tables, 0}};
#if defined(PZ_CRC32_BY_CARRYLESS_MULTIPLICATION)
    if (pz_crc32::multipliers.hasNarrow) {
        ways.push_back({"multiplication", &pz_crc32::feed_by_multiplication, 16});
    }
    if (pz_crc32::multipliers.hasWide) {
        ways.push_back({"wide multiplication", &pz_crc32::feed_by_wide_multiplication, 128});
    }
#elif defined(PZ_CRC32_BY_INSTRUCTION)
    if (pz_crc32::hasInstruction) {
        ways.push_back({"instruction", &pz_crc32::feed_by_instruction, 0});
    }
#endif
    const std::string data = bytes_of(1100);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data.data());
    for (const ST_WAY& way : ways) {
        uint32_t reg = 0x12345678;
        for (size_t length = 0; length < data.size(); ++length) {
            if (length >= way.shortest) {
                ASSERT_EQ(reg, way.feed(0x12345678, bytes, length)) << way.name << ' ' << length;
            }
            reg = static_cast<uint32_t>(~crc_by_division(data.substr(length, 1), reg));
        }
    }
}

TEST_F(PZCRCTest, ComplementsTheSeedForNoBytes) {
    const unsigned char byte = 0x55;
    EXPECT_EQ(0x00000000U, crc.getMemCRC32(kAllOnes, &byte, 0));
    EXPECT_EQ(0xFFFFFFFFU, crc.getMemCRC32(0, &byte, 0));
    EXPECT_EQ(0xEDCBA987U, crc.getMemCRC32(0x12345678, &byte, 0));
}

TEST_F(PZCRCTest, TakesNullForNoBytes) {
    EXPECT_EQ(0xEDCBA987U, crc.getMemCRC32(0x12345678, nullptr, 0));
    EXPECT_EQ(0xEDCBA987U, crc.getMemCRC32(0x12345678, nullptr, 9));
}

TEST_F(PZCRCTest, TheComplementOfAResultIsTheSeedForTheRest) {
    const unsigned long first = crc_of("1234");
    EXPECT_EQ(0xCBF43926U, crc_of("56789", ~first & kAllOnes));
    EXPECT_NE(0xCBF43926U, crc_of("56789", first));
}

TEST_F(PZCRCTest, StaysA32BitValueWhereLongIsWider) {
    const unsigned long highBits = ULONG_MAX - kAllOnes;  // none where long has 32 bits
    EXPECT_EQ(0xCBF43926U, crc_of("123456789", highBits | kAllOnes));
    EXPECT_EQ(crc_of("123456789", 0), crc_of("123456789", highBits));
    EXPECT_EQ(0xFFFFFFFFU, crc_of("", highBits));
    EXPECT_EQ(0x00000000U, crc_of("", ULONG_MAX));
}

// ---- files ----

TEST_F(PZCRCTest, GivesAllOnesForAnEmptyFile) {
    EXPECT_EQ(0xFFFFFFFFU, OfFile(""));
}

TEST_F(PZCRCTest, GivesTheChecksumOfAFile) {
    EXPECT_EQ(0xCBF43926U, OfFile("123456789"));
    EXPECT_EQ("rbe", lastMode);
}

TEST_F(PZCRCTest, GivesTheChecksumOfAFileOfOnePiece) {
    const std::string data = bytes_of(kPiece);
    EXPECT_EQ(crc_by_division(data, 0xFFFFFFFF), OfFile(data));
    const std::string shorter = bytes_of(kPiece - 1);
    EXPECT_EQ(crc_by_division(shorter, 0xFFFFFFFF), OfFile(shorter));
}

TEST_F(PZCRCTest, SeedsTheSecondPieceWithTheResultOfTheFirst) {
    const std::string data = bytes_of(kPiece + 1);
    const unsigned long first = crc_by_division(data.substr(0, kPiece), 0xFFFFFFFF);
    const unsigned long both = crc_by_division(data.substr(kPiece), static_cast<uint32_t>(first));
    const unsigned long result = OfFile(data);
    EXPECT_EQ(both, result);
    EXPECT_EQ(crc_of(data.substr(kPiece), crc_of(data.substr(0, kPiece))), result);
    EXPECT_NE(crc_by_division(data, 0xFFFFFFFF), result) << "not the checksum of the whole file";
}

TEST_F(PZCRCTest, SeedsEveryFurtherPieceWithTheResultBefore) {
    for (const size_t size : {2 * kPiece, 3 * kPiece - 1, 3 * kPiece, 3 * kPiece + 777}) {
        const std::string data = bytes_of(size);
        unsigned long expected = kAllOnes;
        for (size_t at = 0; at < size; at += kPiece) {
            expected = crc_by_division(data.substr(at, kPiece), static_cast<uint32_t>(expected));
        }
        EXPECT_EQ(expected, OfFile(data)) << size;
    }
}

TEST_F(PZCRCTest, GivesA32BitResultWhereLongIsWider) {
    EXPECT_LE(OfFile(""), kAllOnes);
    EXPECT_LE(OfFile("a"), kAllOnes);
}

TEST_F(PZCRCTest, RefusesANullOrEmptyPathAndLeavesTheResult) {
    unsigned long result = kUntouched;
    EXPECT_FALSE(crc.CRC32(nullptr, result));
    EXPECT_FALSE(crc.CRC32("", result));
    EXPECT_EQ(kUntouched, result);
    EXPECT_EQ(0, fopen_call.Calls());
}

TEST_F(PZCRCTest, FailsForAMissingFileAndLeavesTheResult) {
    unsigned long result = kUntouched;
    EXPECT_FALSE(crc.CRC32(path.c_str(), result));
    EXPECT_EQ(kUntouched, result);
}

TEST_F(PZCRCTest, FailsWhenTheFileCannotBeOpenedAndLeavesTheResult) {
    pztest::write_file(path, "123456789");
    unsigned long result = kUntouched;
    fopen_call.FailNext(EMFILE);
    EXPECT_FALSE(crc.CRC32(path.c_str(), result));
    EXPECT_EQ(kUntouched, result);
}

TEST_F(PZCRCTest, ReadsPiecesUntilOneIsEmptyAndClosesTheFile) {
    pztest::write_file(path, bytes_of(kPiece + 1));
    fread_call.Reset();
    fclose_call.Reset();
    unsigned long result = 0;
    EXPECT_TRUE(crc.CRC32(path.c_str(), result));
    EXPECT_EQ(3, fread_call.Calls());
    EXPECT_EQ(1, fclose_call.Calls());
}

TEST_F(PZCRCTest, KeepsItsFileFromProgramsThatTheProcessStartsFromTheBeginning) {
    static int flags;
    flags = -1;
    fopen_call.Replace([](const char* name, const char* mode) {
        FILE* const file = fopen_call.Real(name, mode);
        flags = ::fcntl(::fileno(file), F_GETFD);
        return file;
    });
    EXPECT_EQ(0xCBF43926U, OfFile("123456789"));
    EXPECT_EQ(FD_CLOEXEC, flags);
}

TEST_F(PZCRCTest, AsksForAWholePieceWithEveryRead) {
    static std::vector<size_t> asked;
    asked.clear();
    fread_call.Replace([](void* buffer, size_t size, size_t count, FILE* file) {
        asked.push_back(size * count);
        return fread_call.Real(buffer, size, count, file);
    });
    OfFile(bytes_of(kPiece + 1));
    EXPECT_EQ((std::vector<size_t>{kPiece, kPiece, kPiece}), asked);
}

TEST_F(PZCRCTest, TakesAFileThatCannotBeReadOnAsEndedThere) {
    const std::string data = bytes_of(2 * kPiece);
    pztest::write_file(path, data);
    fclose_call.Reset();
    fread_call.FailNext(EIO, 1, 1);
    unsigned long result = kUntouched;
    EXPECT_TRUE(crc.CRC32(path.c_str(), result));
    EXPECT_EQ(crc_by_division(data.substr(0, kPiece), 0xFFFFFFFF), result);
    EXPECT_EQ(1, fclose_call.Calls());
}

TEST_F(PZCRCTest, TreatsAFolderAsAnEmptyFile) {
    unsigned long result = kUntouched;
    EXPECT_TRUE(crc.CRC32(folder.Path().c_str(), result));
    EXPECT_EQ(0xFFFFFFFFU, result);
}

TEST_F(PZCRCTest, WaitsForAFifoWithoutAPeerAndEndsWhenOneHasCome) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    const int descriptorsBefore = pztest::open_descriptors();
    unsigned long result = kUntouched;
    bool isDone = false;
    EXPECT_TRUE(pztest::waits_for_writer(path, "123456789",
                                         [&] { isDone = crc.CRC32(path.c_str(), result); }));
    EXPECT_TRUE(isDone);
    EXPECT_EQ(0xCBF43926U, result);
    EXPECT_EQ(descriptorsBefore, pztest::open_descriptors());
}

TEST_F(PZCRCTest, LetsItsThreadBeCancelledWhileItReads) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    const int peer = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(-1, peer);
    const int descriptorsBefore = pztest::open_descriptors();
    fread_call.Reset();
    pthread_t reader{};
    ASSERT_EQ(0, ::pthread_create(
                     &reader, nullptr,
                     [](void* name) -> void* {
                         unsigned long result = 0;
                         return crc.CRC32(static_cast<const char*>(name), result) ? name : nullptr;
                     },
                     const_cast<char*>(path.c_str())));
    EXPECT_TRUE(pztest::wait_until([] { return fread_call.Calls() == 1; }));
    EXPECT_EQ(0, ::pthread_cancel(reader));
    void* end = nullptr;
    EXPECT_EQ(0, ::pthread_join(reader, &end));
    EXPECT_EQ(PTHREAD_CANCELED, end);
    EXPECT_EQ(descriptorsBefore, pztest::open_descriptors());
    ::close(peer);
}

// The sanitizers keep the allocator to themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

PZ_INTERPOSE(malloc, 1);

TEST_F(PZCRCTest, FailsWithoutMemoryForItsStreamAndLeavesTheResult) {
    pztest::write_file(path, "123456789");
    unsigned long result = kUntouched;
    malloc_call.FailNext(ENOMEM, INT_MAX);
    const bool isDone = crc.CRC32(path.c_str(), result);
    malloc_call.Reset();
    EXPECT_FALSE(isDone);
    EXPECT_EQ(kUntouched, result);
}

TEST_F(PZCRCTest, ReadsWithoutABufferWhereThereIsNoMemoryForIt) {
    pztest::write_file(path, "123456789");
    unsigned long result = kUntouched;
    malloc_call.Reset();
    malloc_call.FailNext(ENOMEM, INT_MAX, /*skip=*/1);
    const bool isDone = crc.CRC32(path.c_str(), result);
    const int asked = malloc_call.Calls();
    malloc_call.Reset();
    EXPECT_LT(1, asked) << "nothing was refused";
    EXPECT_TRUE(isDone);
    EXPECT_EQ(0xCBF43926U, result);
}

#endif
