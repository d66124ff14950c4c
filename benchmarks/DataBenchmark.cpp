// Byte buffers, checksums and archives, beside what a program would otherwise do by hand or with
// a serialization library.

#include <array>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <Framework/Pattern/PZSerializable.h>
#include <Framework/Utility/PZBinary.h>
#include <Framework/Utility/PZCRC.h>

#if __has_include(<cereal/archives/portable_binary.hpp>)
#include <cereal/archives/portable_binary.hpp>
#include <cereal/types/string.hpp>
#define PZ_HAS_CEREAL
#endif

namespace {

// ---- one big-endian number out of a buffer ----

constexpr unsigned int kBufferSize = 4096;

std::vector<unsigned char> some_bytes(unsigned int size) {
    std::vector<unsigned char> bytes(size);
    unsigned int state = 1;
    for (unsigned char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(state >> 24U);
    }
    return bytes;
}

/// Every offset in turn, also those that are not aligned.
template <typename Read>
void read_numbers(benchmark::State& state, Read read) {
    for (auto _ : state) {
        unsigned int sum = 0;
        for (unsigned int offset = 0; offset < kBufferSize; ++offset) sum += read(offset);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kBufferSize);
}

void get_uint32(benchmark::State& state) {
    const std::vector<unsigned char> bytes = some_bytes(kBufferSize);
    PZBinary binary(bytes.data(), kBufferSize);
    benchmark::DoNotOptimize(&binary);
    read_numbers(state, [&](unsigned int offset) {
        benchmark::ClobberMemory();
        return binary.getUInt32(offset, true);
    });
}

struct RawBuffer {
    const unsigned char* data;
    unsigned int size;
};

void get_uint32_raw(benchmark::State& state) {
    const std::vector<unsigned char> bytes = some_bytes(kBufferSize);
    RawBuffer buffer{bytes.data(), kBufferSize};
    benchmark::DoNotOptimize(&buffer);
    read_numbers(state, [&](unsigned int offset) {
        benchmark::ClobberMemory();
        if (size_t{offset} + 4 > buffer.size) return 0U;
        uint32_t value = 0;
        std::memcpy(&value, buffer.data + offset, sizeof value);
        return __builtin_bswap32(value);
    });
}

BENCHMARK(get_uint32)->Name("binary/getUInt32");
BENCHMARK(get_uint32_raw)->Name("binary/getUInt32:raw");

// ---- the checksum of a block ----

void mem_crc(benchmark::State& state) {
    const std::vector<unsigned char> bytes = some_bytes(static_cast<unsigned int>(state.range(0)));
    const PZCRC crc;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            crc.getMemCRC32(0xFFFFFFFF, bytes.data(), static_cast<unsigned int>(bytes.size())));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

std::array<uint32_t, 256> crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        table[byte] = byte;
        for (int bit = 0; bit < 8; ++bit) {
            table[byte] = (table[byte] >> 1U) ^ ((table[byte] & 1U) * 0xEDB88320U);
        }
    }
    return table;
}

/// A loop over a table, as it stands in every textbook.
void mem_crc_raw(benchmark::State& state) {
    const std::vector<unsigned char> bytes = some_bytes(static_cast<unsigned int>(state.range(0)));
    const std::array<uint32_t, 256> table = crc_table();
    for (auto _ : state) {
        uint32_t crc = 0xFFFFFFFF;
        for (const unsigned char byte : bytes) crc = table[(crc ^ byte) & 0xFFU] ^ (crc >> 8U);
        benchmark::DoNotOptimize(~crc);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(mem_crc)->Name("crc/memory")->Arg(64)->Arg(10240);
BENCHMARK(mem_crc_raw)->Name("crc/memory:raw")->Arg(64)->Arg(10240);

// ---- a record of ten fields: written, and read back ----

struct Record {
    bool isActive = true;
    unsigned char channel = 7;
    short level = -200;
    int number = 123456;
    unsigned int flags = 0x80000001;
    long long stamp = 1700000000000LL;
    float ratio = 0.25F;
    double frequency = 98.5e6;
    std::string station = "A station";
    std::string text = "What the station sends beside its programme, a line of text";
};

template <typename Archive, typename Function>
void for_each_field(Archive& archive, Record& record, Function function) {
    function(archive, record.isActive);
    function(archive, record.channel);
    function(archive, record.level);
    function(archive, record.number);
    function(archive, record.flags);
    function(archive, record.stamp);
    function(archive, record.ratio);
    function(archive, record.frequency);
    function(archive, record.station);
    function(archive, record.text);
}

void archive_record(benchmark::State& state) {
    Record record;
    Record result;
    for (auto _ : state) {
        PZSerialization::Archive archive;
        for_each_field(archive, record, [](auto& to, const auto& field) { to.write(field); });
        for_each_field(archive, result, [](auto& from, auto& field) { from.read(field); });
        benchmark::DoNotOptimize(&result);
    }
}

BENCHMARK(archive_record)->Name("archive/record_of_10_fields");

#ifdef PZ_HAS_CEREAL
/// Big-endian, as the framework's archive.
void cereal_record(benchmark::State& state) {
    using Output = cereal::PortableBinaryOutputArchive;
    using Input = cereal::PortableBinaryInputArchive;
    Record record;
    Record result;
    for (auto _ : state) {
        std::stringstream bytes;
        Output output(bytes, Output::Options::BigEndian());
        for_each_field(output, record, [](auto& to, const auto& field) { to(field); });
        Input input(bytes);  // the first byte tells it the order
        for_each_field(input, result, [](auto& from, auto& field) { from(field); });
        benchmark::DoNotOptimize(&result);
    }
}

BENCHMARK(cereal_record)->Name("archive/record_of_10_fields:raw");
#endif

}  // namespace
