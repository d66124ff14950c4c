#include "Framework/Wrapper/pz_cp_conv.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cwchar>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Wrapper/cp_conv_basic_rds.h>
#include <Framework/private/pz_numbers.h>

#include "pz_direct_conv.h"
#include "pz_icu_detector.h"
#include "pz_kept_iconv.h"

namespace {

constexpr unsigned int kMeasure = 0xFFFFFFFF;
constexpr int kWideSize = sizeof(wchar_t);
constexpr int kUnit16Size = sizeof(unsigned short);
static_assert(kWideSize == 4 && kUnit16Size == 2, "the forms of text have fixed unit sizes");

constexpr bool is_utf16(EN_XCP page) {
    return page >= XCP_UTF16 && page <= XCP_UTF16LE;
}

/// `count` units in bytes, as a signed 32-bit number. A size that needs more bits is made negative:
/// it must not pass for a smaller one.
int bytes_of(int64_t count, int unitSize) {
    const int64_t bytes = count * unitSize;
    const auto low = static_cast<int32_t>(static_cast<uint64_t>(bytes));
    return low > 0 && low != bytes ? INT_MIN : low;
}

int64_t length_of(const char* src, unsigned int length) {
    if (length != kMeasure || src == nullptr) return length;
    return static_cast<int64_t>(std::strlen(src));
}

int64_t length_of(const wchar_t* src, int length) {
    if (length != -1 || src == nullptr) return length;
    return static_cast<int64_t>(std::wcslen(src));
}

int64_t length_of(const unsigned short* src, int length) {
    if (length != -1 || src == nullptr) return length;
    int64_t units = 0;
    while (src[units] != 0) ++units;
    return units;
}

/// Writes `size` zero bytes at the start of the destination, as many as it can hold.
void make_empty(char* dst, int dstSize, int size) {
    std::memset(dst, 0, static_cast<size_t>(std::min(dstSize, size)));
}

/// Size of the terminator of a text in `page`.
int terminator_size(EN_XCP page) {
    if (page == XCP_WCHAR) return kWideSize;
    return is_utf16(page) ? kUnit16Size : 1;
}

/// Ends a text of `written` bytes, and answers its units. Stores of a known size: this is a good
/// part of the time that a short text takes.
int end_text(char* dst, int written, int terminator) {
    switch (terminator) {
        case kWideSize:
            std::memset(dst + written, 0, kWideSize);
            return written / kWideSize;
        case kUnit16Size:
            std::memset(dst + written, 0, kUnit16Size);
            return written / kUnit16Size;
        default:
            return written;  // callers of the narrow converters zero-fill their buffers
    }
}

/// The way of every text that has no other one.
__attribute__((noinline)) int convert_by_iconv(char* dst, int dst_size, EN_XCP to, const char* src,
                                               int src_size, EN_XCP from) {
    constexpr const char* kReporter = "conv_character_code";
    const int terminator = terminator_size(to);
    ST_ICONV_RESULT done = {};
    {
        PZKeptIconv converter(to, from);
        if (!converter.IsOpen()) {
            const int error = errno;
            PZ_REPORT_ERROR_OF(
                kReporter,
                "conv_character_code : iconv open error[%d:%s] : not support in this version "
                "dst[%s] src[%s]",
                error, std::strerror(error), pz_iconv_name(to), pz_iconv_name(from));
            make_empty(dst, dst_size, to == XCP_WCHAR ? kWideSize : 1);
            return 0;
        }
        done = converter.Convert(dst, static_cast<size_t>(dst_size), src,
                                 static_cast<size_t>(src_size));
    }
    if (done.result == static_cast<size_t>(-1)) {
        PZ_REPORT_ERROR_OF(
            kReporter,
            "conv_character_code : iconv error [%d] [%d:%s] : dst[%s] sz[%d] : src[%s] sz[%d]\n",
            static_cast<int>(done.result), done.error, std::strerror(done.error), pz_iconv_name(to),
            dst_size, pz_iconv_name(from), src_size);
        make_empty(dst, dst_size, terminator);
        return 0;
    }
    pz_learn_from_iconv(to, from);

    const auto written = static_cast<int>(done.written);
    if (dst_size - written < terminator) {
        make_empty(dst, dst_size, terminator);
        PZ_REPORT_ERROR_OF(kReporter, "buffer size is too few.\n");
        return 0;
    }
    return end_text(dst, written, terminator);
}

int conv_character_code(char* dst, int dst_size, EN_XCP to, const char* src, int src_size,
                        EN_XCP from) {
    if (src == nullptr || dst == nullptr || src_size <= 0 || dst_size <= 0) {
        PZ_REPORT_ERROR("invalied args dst[%p] dst_size[%d] src[%p] src_size[%d]\n",
                        static_cast<void*>(dst), dst_size, static_cast<const void*>(src), src_size);
        PZCallStack::dumpDirectly(kReportedFrames);
        return 0;
    }
    const int terminator = terminator_size(to);
    const int direct = pz_convert_directly(dst, dst_size - terminator, to, src, src_size, from);
    if (direct >= 0) return end_text(dst, direct, terminator);
    return convert_by_iconv(dst, dst_size, to, src, src_size, from);
}

// ICU's names for code pages, searched from the top. XCP_NONE marks a set that is recognised but
// not supported.
struct ST_ICU_NAME {
    char name[13];
    EN_XCP page;
};

// clang-format off
constexpr ST_ICU_NAME kIcuNames[] = {
    { "UTF-8",        XCP_UTF8         },
    { "UTF-16BE",     XCP_UTF16BE      },
    { "UTF-16LE",     XCP_UTF16LE      },
    { "UTF-32BE",     XCP_NONE         },
    { "UTF-32LE",     XCP_NONE         },
    { "ISO-8859-1",   XCP_ISO8859_1    },
    { "ISO-8859-2",   XCP_ISO8859_2    },
    { "ISO-8859-5",   XCP_ISO8859_5    },
    { "ISO-8859-6",   XCP_ISO8859_6    },
    { "ISO-8859-7",   XCP_ISO8859_7    },
    { "ISO-8859-8-I", XCP_ISO8859_8    },
    { "ISO-8859-8",   XCP_ISO8859_8    },
    { "windows-1251", XCP_WINDOWS_1251 },
    { "windows-1256", XCP_WINDOWS_1256 },
    { "KOI8-R",       XCP_KOI8_R       },
    { "ISO-8859-9",   XCP_ISO8859_9    },
    { "Shift_JIS",    XCP_SJIS         },
    { "GB18030",      XCP_GB18030      },
    { "EUC-JP",       XCP_EUC_JP       },
    { "EUC-KR",       XCP_EUC_KR       },
    { "Big5",         XCP_BIG5         },
    { "ISO-2022-JP",  XCP_ISO2022_JP   },
    { "ISO-2022-KR",  XCP_ISO2022_KR   },
    { "ISO-2022-CN",  XCP_ISO2022_CN   },
    { "IBM424_rtl",   XCP_NONE         },
    { "IBM424_ltr",   XCP_NONE         },
    { "IBM420_rtl",   XCP_NONE         },
    { "IBM420_ltr",   XCP_NONE         },
};
// clang-format on

EN_XCP page_of(const char* icuName) {
    for (const ST_ICU_NAME& row : kIcuNames) {
        if (std::strcmp(row.name, icuName) == 0) return row.page;
    }
    return XCP_NONE;
}

/// Null for XCP_NONE and for pages that ICU does not detect.
const char* icu_name_of(EN_XCP page) {
    if (page == XCP_NONE) return nullptr;
    for (const ST_ICU_NAME& row : kIcuNames) {
        if (row.page == page) return row.name;
    }
    return nullptr;
}

constexpr bool failed(IcuError error) {
    return error > 0;
}

/// ICU's name of a match; null when it cannot be read.
const char* get_icu_cp_string(const ST_ICU_DETECTOR& icu, const UCharsetMatch* match) {
    IcuError error = 0;
    const char* const name = icu.getName(match, &error);
    if (failed(error)) {
        PZ_REPORT_ERROR("ucsdet_getName err [%d]\n", error);
        return nullptr;
    }
    // cppcheck-suppress returnDanglingLifetime ; the name is ICU's, not the error's
    return name;
}

/// Confidence of a match, 0 to 100.
int confidence_of(const ST_ICU_DETECTOR& icu, const UCharsetMatch* match) {
    IcuError error = 0;
    return icu.getConfidence(match, &error);
}

/// What ICU found, best match first.
struct ST_MATCHES {
    const UCharsetMatch* const* list;
    int32_t count;
};

EN_XCP choose(const ST_ICU_DETECTOR& icu, const ST_MATCHES& matches, EN_XCP hint, int threshold) {
    const char* const hintName = icu_name_of(hint);
    for (int32_t i = 0; hintName != nullptr && i < matches.count; ++i) {
        const char* const name = get_icu_cp_string(icu, matches.list[i]);
        if (name == nullptr) return XCP_NONE;
        if (confidence_of(icu, matches.list[i]) < threshold && std::strcmp(name, hintName) != 0) {
            continue;
        }
        const EN_XCP page = page_of(name);
        if (page != XCP_NONE) return page;
        break;
    }
    if (matches.count < 1) return XCP_NONE;
    const char* const best = get_icu_cp_string(icu, matches.list[0]);
    return best != nullptr ? page_of(best) : XCP_NONE;
}

/// Owns one detector and closes it.
class DetectorHolder {
public:
    DetectorHolder(const ST_ICU_DETECTOR& icu, UCharsetDetector* detector)
        : icu_(icu), detector_(detector) {}
    ~DetectorHolder() { icu_.close(detector_); }

    DetectorHolder(const DetectorHolder&) = delete;
    DetectorHolder& operator=(const DetectorHolder&) = delete;

private:
    const ST_ICU_DETECTOR& icu_;
    UCharsetDetector* const detector_;
};

}  // namespace

int pz_cp_conv(char* dst, unsigned int dst_size, EN_XCP to, const char* src, unsigned int src_len,
               EN_XCP from) {
    if (from == XCP_RDS || from == XCP_RDS_2017 || from == XCP_RBDS_2017) {
        if (to != XCP_UTF8) {
            PZ_REPORT_ERROR("not support.\n");
            return -1;
        }
        // These stop at the terminator by themselves.
        if (from == XCP_RDS) return cp_conv_basic_rds_to_utf8(dst, dst_size, src, src_len);
        if (from == XCP_RDS_2017) {
            return cp_conv_basic_rds_2017_to_utf8(dst, dst_size, src, src_len);
        }
        return cp_conv_basic_rbds_2017_to_utf8(dst, dst_size, src, src_len);
    }
    return conv_character_code(dst, bytes_of(dst_size, 1), to, src,
                               bytes_of(length_of(src, src_len), 1), from);
}

int pz_mbtowc(wchar_t* dst, unsigned int dst_count, const char* src, unsigned int src_len,
              EN_XCP from) {
    return conv_character_code(reinterpret_cast<char*>(dst), bytes_of(dst_count, kWideSize),
                               XCP_WCHAR, src, bytes_of(length_of(src, src_len), 1), from);
}

int pz_mbtowc16(unsigned short* dst, unsigned int dst_count, EN_XCP to, const char* src,
                unsigned int src_len, EN_XCP from) {
    if (!is_utf16(to)) return -1;
    return conv_character_code(reinterpret_cast<char*>(dst), bytes_of(dst_count, kUnit16Size), to,
                               src, bytes_of(length_of(src, src_len), 1), from);
}

int pz_wctomb(char* dst, unsigned int dst_size, const wchar_t* src, int src_len, EN_XCP to) {
    return conv_character_code(dst, bytes_of(dst_size, 1), to, reinterpret_cast<const char*>(src),
                               bytes_of(length_of(src, src_len), kWideSize), XCP_WCHAR);
}

int pz_wc16tomb(char* dst, unsigned int dst_size, EN_XCP to, const unsigned short* src, int src_len,
                EN_XCP from) {
    return conv_character_code(dst, bytes_of(dst_size, 1), to, reinterpret_cast<const char*>(src),
                               bytes_of(length_of(src, src_len), kUnit16Size), from);
}

EN_XCP pz_cp_detect(const char* text, unsigned int size, EN_XCP hint, int threshold) {
    if (text == nullptr || size == 0) {
        PZ_REPORT_ERROR("invalid args : str[%p] sz[%d]\n", static_cast<const void*>(text),
                        static_cast<int>(size));
        return XCP_NONE;
    }
    ST_ICU_DETECTOR icu = {};
    if (!pz_find_icu_detector(icu)) {
        PZ_REPORT_ERROR("no ICU in this process : code pages are not detected\n");
        return XCP_NONE;
    }

    IcuError error = 0;
    UCharsetDetector* const detector = icu.open(&error);
    if (failed(error) || detector == nullptr) {
        PZ_REPORT_ERROR("ucsdet_open err [%d]\n", error);
        return XCP_NONE;
    }
    const DetectorHolder holder(icu, detector);

    icu.setText(detector, text, static_cast<int32_t>(size), &error);
    if (failed(error)) {
        PZ_REPORT_ERROR("ucsdet_setText err [%d]\n", error);
        return XCP_NONE;
    }
    const UCharsetMatch* const best = icu.detect(detector, &error);
    if (failed(error)) {
        // The same words as for the next step.
        PZ_REPORT_ERROR("ucsdet_detectAll err [%d]\n", error);
        return XCP_NONE;
    }
    if (best == nullptr) return XCP_NONE;
    ST_MATCHES matches = {nullptr, 0};
    matches.list = icu.detectAll(detector, &matches.count, &error);
    if (failed(error)) {
        PZ_REPORT_ERROR("ucsdet_detectAll err [%d]\n", error);
        return XCP_NONE;
    }
    if (matches.list == nullptr) return XCP_NONE;
    return choose(icu, matches, hint, threshold);
}
