// The checksum of a block, and a record that becomes bytes and a record again.

#include <zlib.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <QByteArray>
#include <QDataStream>
#include <QString>
#include <benchmark/benchmark.h>
#include <cereal/archives/portable_binary.hpp>
#include <cereal/types/string.hpp>
#include <libdeflate.h>

#include <Framework/Pattern/PZSerializable.h>
#include <Framework/Utility/PZCRC.h>

#include "peers/Checked.h"

namespace {

constexpr size_t kBlock = 4096;

// The checksum that everybody gives for this text.
constexpr std::string_view kCheckText = "123456789";
constexpr std::uint32_t kCheckSum = 0xCBF43926;

const unsigned char* bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::uint32_t framework_crc(std::string_view bytes) {
    return static_cast<std::uint32_t>(
        PZCRC().getMemCRC32(0xFFFFFFFF, bytes_of(bytes), static_cast<unsigned int>(bytes.size())));
}

std::uint32_t libdeflate_crc(std::string_view bytes) {
    return libdeflate_crc32(0, bytes.data(), bytes.size());
}

std::uint32_t zlib_crc(std::string_view bytes) {
    return static_cast<std::uint32_t>(
        crc32(0, bytes_of(bytes), static_cast<unsigned int>(bytes.size())));
}

void crc_4KiB(benchmark::State& state, std::uint32_t (*crc)(std::string_view)) {
    const std::string bytes(kBlock, 'x');
    std::string_view block = bytes;
    pzbench::check(state, crc(kCheckText) == kCheckSum);
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        benchmark::DoNotOptimize(crc(block));
    }
}

struct Station {
    bool isStereo = true;
    unsigned char preset = 7;
    short level = -200;
    unsigned int frequencyKhz = 98500;
    long long heardAt = 1700000000000LL;
    double quality = 0.75;
    std::string name = "A station";
    std::string text = "What the station sends beside its programme, a line of text";

    bool operator==(const Station& other) const {
        return isStereo == other.isStereo && preset == other.preset && level == other.level &&
               frequencyKhz == other.frequencyKhz && heardAt == other.heardAt &&
               quality == other.quality && name == other.name && text == other.text;
    }
};

template <typename AnyStation, typename Function>
void for_each_field(AnyStation& station, Function function) {
    function(station.isStereo);
    function(station.preset);
    function(station.level);
    function(station.frequencyKhz);
    function(station.heardAt);
    function(station.quality);
    function(station.name);
    function(station.text);
}

/// The record without its contents.
Station empty_station() {
    return {false, 0, 0, 0, 0, 0, "", ""};
}

void framework_round(const Station& station, Station& result) {
    PZSerialization::Archive archive;
    for_each_field(station, [&](const auto& field) { archive.write(field); });
    for_each_field(result, [&](auto& field) { archive.read(field); });
}

/// Big-endian, as the framework's archive.
void cereal_round(const Station& station, Station& result) {
    std::stringstream bytes;
    cereal::PortableBinaryOutputArchive output(
        bytes, cereal::PortableBinaryOutputArchive::Options::BigEndian());
    for_each_field(station, [&](const auto& field) { output(field); });
    cereal::PortableBinaryInputArchive input(bytes);  // the first byte tells it the order
    for_each_field(result, [&](auto& field) { input(field); });
}

void write(QDataStream& stream, const std::string& text) {
    stream << QByteArray::fromRawData(text.data(), static_cast<int>(text.size()));
}
void write(QDataStream& stream, long long value) {
    stream << static_cast<qint64>(value);
}
template <typename T>
void write(QDataStream& stream, const T& value) {
    stream << value;
}

void read(QDataStream& stream, std::string& text) {
    QByteArray bytes;
    stream >> bytes;
    text.assign(bytes.constData(), static_cast<size_t>(bytes.size()));
}
template <typename T>
void read(QDataStream& stream, T& value) {
    stream >> value;
}

/// Big-endian by itself.
void qt_round(const Station& station, Station& result) {
    QByteArray bytes;
    QDataStream output(&bytes, QIODevice::WriteOnly);
    for_each_field(station, [&](const auto& field) { write(output, field); });
    QDataStream input(bytes);
    for_each_field(result, [&](auto& field) { read(input, field); });
}

void archive(benchmark::State& state, void (*round)(const Station&, Station&)) {
    const Station station;
    Station result = empty_station();
    round(station, result);
    pzbench::check(state, result == station);
    for (auto _ : state) {
        round(station, result);
        benchmark::DoNotOptimize(&result);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(crc_4KiB, framework, framework_crc)->Name("crc_4KiB/pzframework");
BENCHMARK_CAPTURE(crc_4KiB, libdeflate, libdeflate_crc)->Name("crc_4KiB/libdeflate");
BENCHMARK_CAPTURE(crc_4KiB, zlib, zlib_crc)->Name("crc_4KiB/zlib");
BENCHMARK_CAPTURE(archive, framework, framework_round)->Name("archive/pzframework");
BENCHMARK_CAPTURE(archive, cereal, cereal_round)->Name("archive/cereal");
BENCHMARK_CAPTURE(archive, qt, qt_round)->Name("archive/Qt");

}  // namespace
