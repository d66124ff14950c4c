// Texts from UTF-8 into a page of one byte a letter.

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <glib.h>
#include <unicode/ucnv.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "peers/Checked.h"

namespace {

// One sentence in both pages.
constexpr std::string_view kUtf8 = "\xD0\xA0\xD0\xB0\xD0\xB4\xD0\xB8\xD0\xBE. ";
constexpr std::string_view kKoi8 = "\xF2\xC1\xC4\xC9\xCF. ";

struct Text {
    explicit Text(size_t utf8Size) {
        for (; utf8.size() + kUtf8.size() <= utf8Size; utf8 += kUtf8) koi8 += kKoi8;
        const size_t rest = utf8Size - utf8.size();
        utf8.append(rest, '.');
        koi8.append(rest, '.');
    }
    std::string utf8;
    std::string koi8;
};

class Framework {
public:
    std::string_view Convert(const std::string& utf8, std::vector<char>& result) {
        pz_cp_conv(result.data(), static_cast<unsigned int>(result.size()), XCP_KOI8_R, utf8.data(),
                   static_cast<unsigned int>(utf8.size()), XCP_UTF8);
        return result.data();
    }
};

/// With a converter that is kept.
class Icu {
public:
    Icu() {
        UErrorCode error = U_ZERO_ERROR;
        converter_ = ucnv_open("KOI8-R", &error);
        if (U_FAILURE(error)) std::abort();
    }
    ~Icu() { ucnv_close(converter_); }
    Icu(const Icu&) = delete;
    Icu& operator=(const Icu&) = delete;

    std::string_view Convert(const std::string& utf8, std::vector<char>& result) {
        UErrorCode error = U_ZERO_ERROR;
        const int32_t size = ucnv_fromAlgorithmic(converter_, UCNV_UTF8, result.data(),
                                                  static_cast<int32_t>(result.size()), utf8.data(),
                                                  static_cast<int32_t>(utf8.size()), &error);
        return {result.data(), U_FAILURE(error) ? 0 : static_cast<size_t>(size)};
    }

private:
    UConverter* converter_ = nullptr;
};

class Glib {
public:
    ~Glib() { g_free(text_); }

    std::string_view Convert(const std::string& utf8, std::vector<char>&) {
        g_free(text_);
        gsize size = 0;
        text_ = g_convert(utf8.data(), static_cast<gssize>(utf8.size()), "KOI8-R", "UTF-8", nullptr,
                          &size, nullptr);
        return {text_, size};
    }

private:
    char* text_ = nullptr;
};

template <typename Peer>
void convert(benchmark::State& state, size_t size) {
    const Text text(size);
    std::vector<char> result(size + 4);
    Peer peer;
    std::string_view converted;
    for (auto _ : state) {
        converted = peer.Convert(text.utf8, result);
        benchmark::DoNotOptimize(converted);
    }
    pzbench::check(state, converted == text.koi8);
}

template <typename Peer>
void convert_20B(benchmark::State& state) {
    convert<Peer>(state, 20);
}

template <typename Peer>
void convert_4KiB(benchmark::State& state) {
    convert<Peer>(state, 4096);
}

BENCHMARK(convert_20B<Framework>)->Name("convert_20B/pzframework");
BENCHMARK(convert_20B<Icu>)->Name("convert_20B/ICU");
BENCHMARK(convert_20B<Glib>)->Name("convert_20B/GLib");
BENCHMARK(convert_4KiB<Framework>)->Name("convert_4KiB/pzframework");
BENCHMARK(convert_4KiB<Icu>)->Name("convert_4KiB/ICU");
BENCHMARK(convert_4KiB<Glib>)->Name("convert_4KiB/GLib");

}  // namespace
