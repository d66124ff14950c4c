// Code-page conversion, radio text and strings, beside what they stand on.

#include <iconv.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/cp_conv_basic_rds.h>
#include <Framework/Wrapper/pz_cp_conv.h>

namespace {

/// `size` bytes of Cyrillic letters, blanks and full stops: two bytes and one byte in UTF-8, one
/// byte in every Cyrillic page.
std::string utf8_text(size_t size) {
    constexpr char kSentence[] = "\xD0\xA0\xD0\xB0\xD0\xB4\xD0\xB8\xD0\xBE. ";
    std::string text;
    while (text.size() + sizeof(kSentence) - 1 <= size) text += kSentence;
    text.append(size - text.size(), '.');
    return text;
}

/// One conversion: the numbers for the framework, the names for iconv.
struct ST_PAIR {
    EN_XCP to;
    EN_XCP from;
    const char* toName;
    const char* fromName;
};

constexpr ST_PAIR kUtf8ToCyrillic = {XCP_KOI8_R, XCP_UTF8, "KOI8-R", "UTF-8"};
constexpr ST_PAIR kCyrillicToUtf8 = {XCP_UTF8, XCP_KOI8_R, "UTF-8", "KOI8-R"};
constexpr ST_PAIR kUtf8ToGb18030 = {XCP_GB18030, XCP_UTF8, "GB18030", "UTF-8"};
constexpr ST_PAIR kUtf8ToUtf16 = {XCP_UTF16LE, XCP_UTF8, "UTF-16LE", "UTF-8"};

/// Opens, converts once and closes, as a program does that keeps nothing; the number of bytes
/// written.
size_t convert_raw(const char* to, const char* from, char* dst, size_t dstSize, const char* src,
                   size_t srcSize) {
    iconv_t converter = iconv_open(to, from);
    if (converter == reinterpret_cast<iconv_t>(-1)) std::abort();
    char* in = const_cast<char*>(src);  // iconv only reads it
    size_t left = dstSize;
    if (iconv(converter, &in, &srcSize, &dst, &left) == static_cast<size_t>(-1)) std::abort();
    iconv_close(converter);
    return dstSize - left;
}

/// The text of `size` bytes in the source page of `pair`.
std::string source_text(const ST_PAIR& pair, size_t size) {
    if (pair.from == XCP_UTF8) return utf8_text(size);
    const std::string utf8 = utf8_text(2 * size);
    std::string text(utf8.size(), '\0');
    text.resize(
        convert_raw(pair.fromName, "UTF-8", text.data(), text.size(), utf8.data(), utf8.size()));
    text.resize(size, '.');
    return text;
}

void convert(benchmark::State& state, const ST_PAIR& pair) {
    const std::string src = source_text(pair, static_cast<size_t>(state.range(0)));
    std::vector<char> dst(6 * src.size() + 4);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pz_cp_conv(dst.data(), static_cast<unsigned int>(dst.size()),
                                            pair.to, src.data(),
                                            static_cast<unsigned int>(src.size()), pair.from));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void convert_by_iconv(benchmark::State& state, const ST_PAIR& pair) {
    const std::string src = source_text(pair, static_cast<size_t>(state.range(0)));
    std::vector<char> dst(6 * src.size() + 4);
    for (auto _ : state) {
        benchmark::DoNotOptimize(convert_raw(pair.toName, pair.fromName, dst.data(), dst.size(),
                                             src.data(), src.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void to_wide(benchmark::State& state) {
    const std::string src = utf8_text(static_cast<size_t>(state.range(0)));
    std::vector<wchar_t> dst(src.size() + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pz_mbtowc(dst.data(), static_cast<unsigned int>(dst.size()),
                                           src.data(), static_cast<unsigned int>(src.size()),
                                           XCP_UTF8));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void to_wide_by_iconv(benchmark::State& state) {
    const std::string src = utf8_text(static_cast<size_t>(state.range(0)));
    std::vector<wchar_t> dst(src.size() + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(convert_raw("WCHAR_T", "UTF-8",
                                             reinterpret_cast<char*>(dst.data()),
                                             dst.size() * sizeof(wchar_t), src.data(), src.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void convert_radio_text(benchmark::State& state) {
    std::string src(64, '\0');
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<char>(0x20 + 3 * i);
    std::vector<char> dst(6 * (src.size() + 1));
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            cp_conv_basic_rds_to_utf8(dst.data(), static_cast<unsigned int>(dst.size()), src.data(),
                                      static_cast<unsigned int>(src.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(src.size()));
}

void read_held_form(benchmark::State& state) {
    PZString text("Radio");
    for (auto _ : state) benchmark::DoNotOptimize(text.ToCHAR(XCP_UTF8));
}

/// A pointer that is returned by a call and nothing else.
__attribute__((noinline)) const char* pointer_of(const std::string& text) {
    return text.c_str();
}

void read_held_form_raw(benchmark::State& state) {
    std::string text("Radio");
    for (auto _ : state) benchmark::DoNotOptimize(pointer_of(text));
}

constexpr int kPieces = 16;
constexpr char kPiece[] = "station, ";

void append_pieces(benchmark::State& state) {
    for (auto _ : state) {
        PZString text("");
        for (int i = 0; i < kPieces; ++i) text.Append(kPiece);
        benchmark::DoNotOptimize(text.RefCHAR());
    }
}

void append_pieces_raw(benchmark::State& state) {
    for (auto _ : state) {
        std::string text;
        for (int i = 0; i < kPieces; ++i) text.append(kPiece);
        benchmark::DoNotOptimize(text.c_str());
    }
}

/// 1 KiB with something at its end that it has almost everywhere.
std::string haystack() {
    std::string text;
    while (text.size() < 1000) text += "needy nested noodles ";
    return text + "needle";
}

void find(benchmark::State& state) {
    const PZString text(haystack());
    for (auto _ : state) benchmark::DoNotOptimize(text.IndexOf("needle"));
}

void find_raw(benchmark::State& state) {
    const std::string text = haystack();
    for (auto _ : state) benchmark::DoNotOptimize(text.find("needle"));
}

/// A line of 1 KiB, cut into 64 fields.
std::string line_of_fields() {
    std::string line;
    for (int i = 0; i < 64; ++i) line += "field-contents-,";
    line.pop_back();
    return line;
}

void split(benchmark::State& state) {
    const PZString line(line_of_fields());
    for (auto _ : state) {
        PZString::SplitList list;
        line.Split(list, ",");
        benchmark::DoNotOptimize(list.GetCount());
        line.DeleteSplitString(list);
    }
}

void split_by_hand(benchmark::State& state) {
    const std::string line = line_of_fields();
    for (auto _ : state) {
        PZString::SplitList list;
        size_t begin = 0;
        for (size_t end = 0; end != std::string::npos; begin = end + 1) {
            end = line.find(',', begin);
            list.AddTail(std::make_unique<PZString>(line.substr(begin, end - begin)).release());
        }
        benchmark::DoNotOptimize(list.GetCount());
        for (PZString* piece : list) delete piece;
    }
}

BENCHMARK_CAPTURE(convert, utf8_to_koi8r, kUtf8ToCyrillic)
    ->Name("convert/utf8_to_koi8r")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert_by_iconv, utf8_to_koi8r, kUtf8ToCyrillic)
    ->Name("convert/utf8_to_koi8r:raw")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert, koi8r_to_utf8, kCyrillicToUtf8)
    ->Name("convert/koi8r_to_utf8")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert_by_iconv, koi8r_to_utf8, kCyrillicToUtf8)
    ->Name("convert/koi8r_to_utf8:raw")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert, utf8_to_gb18030, kUtf8ToGb18030)
    ->Name("convert/utf8_to_gb18030")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert_by_iconv, utf8_to_gb18030, kUtf8ToGb18030)
    ->Name("convert/utf8_to_gb18030:raw")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert, utf8_to_utf16, kUtf8ToUtf16)
    ->Name("convert/utf8_to_utf16")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK_CAPTURE(convert_by_iconv, utf8_to_utf16, kUtf8ToUtf16)
    ->Name("convert/utf8_to_utf16:raw")
    ->Arg(20)
    ->Arg(4096);
BENCHMARK(to_wide)->Name("convert/utf8_to_wide")->Arg(20)->Arg(4096);
// How the cost grows with the text: by own loops, by tables and by iconv.
BENCHMARK(to_wide)->Name("convert/growth_utf8_to_wide")->RangeMultiplier(16)->Range(1, 1 << 20);
BENCHMARK_CAPTURE(convert, koi8r_to_utf8_growth, kCyrillicToUtf8)
    ->Name("convert/growth_koi8r_to_utf8")
    ->RangeMultiplier(16)
    ->Range(1, 1 << 20);
BENCHMARK_CAPTURE(convert, utf8_to_gb18030_growth, kUtf8ToGb18030)
    ->Name("convert/growth_utf8_to_gb18030")
    ->RangeMultiplier(16)
    ->Range(1, 1 << 20);
BENCHMARK(to_wide_by_iconv)->Name("convert/utf8_to_wide:raw")->Arg(20)->Arg(4096);
BENCHMARK(convert_radio_text)->Name("convert/radio_64_bytes");
BENCHMARK(read_held_form)->Name("string/ToCHAR_held");
BENCHMARK(read_held_form_raw)->Name("string/ToCHAR_held:raw");
BENCHMARK(append_pieces)->Name("string/append_16");
BENCHMARK(append_pieces_raw)->Name("string/append_16:raw");
BENCHMARK(find)->Name("string/find_1KiB");
BENCHMARK(find_raw)->Name("string/find_1KiB:raw");
BENCHMARK(split)->Name("string/split_1KiB");
BENCHMARK(split_by_hand)->Name("string/split_1KiB:raw");

}  // namespace
