#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <iomanip>
#include <locale>
#include <new>
#include <sstream>
#include <string>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Wrapper/pz_cp_conv.h>
#include <Framework/Wrapper/pz_stdlib.h>

namespace {

constexpr int kMaxWidth = 4095;
constexpr int kDefaultPrecision = 6;

enum class Length { en_NONE, en_CHAR, en_SHORT, en_LONG, en_LONG_LONG };

/// What stands between a percent sign and its letter.
struct ST_CONVERSION {
    bool left;
    bool zeros;
    bool sign;
    bool base;
    int width;
    int precision;  // -1: left out
    Length length;
    wchar_t letter;
};

/// The caller's unnamed arguments, taken one by one.
struct ST_ARGS {
    va_list list;
};

/// A number, or '*' for the next argument. Moves `format` past it.
int parse_number(const wchar_t*& format, ST_ARGS& args) {
    if (*format == L'*') {
        ++format;
        return std::clamp(va_arg(args.list, int), -kMaxWidth, kMaxWidth);
    }
    int number = 0;
    for (; *format >= L'0' && *format <= L'9'; ++format) {
        number = std::min(10 * number + static_cast<int>(*format - L'0'), kMaxWidth);
    }
    return number;
}

/// True, and moves `format` past it, when it begins with `character`.
bool accept(const wchar_t*& format, wchar_t character) {
    if (*format != character) return false;
    ++format;
    return true;
}

void parse_flags(const wchar_t*& format, ST_CONVERSION& conversion) {
    for (;;) {
        if (accept(format, L'-')) {
            conversion.left = true;
        } else if (accept(format, L'0')) {
            conversion.zeros = true;
        } else if (accept(format, L'+')) {
            conversion.sign = true;
        } else if (accept(format, L'#')) {
            conversion.base = true;
        } else {
            return;
        }
    }
}

Length parse_length(const wchar_t*& format) {
    static_assert(sizeof(size_t) == sizeof(long) && sizeof(ptrdiff_t) == sizeof(long));
    static_assert(sizeof(intmax_t) == sizeof(long long));
    if (accept(format, L'h')) return accept(format, L'h') ? Length::en_CHAR : Length::en_SHORT;
    if (accept(format, L'l')) return accept(format, L'l') ? Length::en_LONG_LONG : Length::en_LONG;
    if (accept(format, L'z') || accept(format, L't')) return Length::en_LONG;
    if (accept(format, L'j') || accept(format, L'L')) return Length::en_LONG_LONG;
    return Length::en_NONE;
}

/// `format` stands after the percent sign, and is moved past the letter (not past the end).
ST_CONVERSION parse_conversion(const wchar_t*& format, ST_ARGS& args) {
    ST_CONVERSION conversion = {};
    parse_flags(format, conversion);
    conversion.width = parse_number(format, args);
    if (conversion.width < 0) {
        conversion.left = true;
        conversion.width = -conversion.width;
    }
    conversion.precision = -1;
    if (accept(format, L'.')) conversion.precision = std::max(parse_number(format, args), -1);
    conversion.length = parse_length(format);
    conversion.letter = *format;
    if (*format != L'\0') ++format;
    return conversion;
}

long long take_signed(Length length, ST_ARGS& args) {
    switch (length) {
        case Length::en_LONG_LONG:
            return va_arg(args.list, long long);
        case Length::en_LONG:
            return va_arg(args.list, long);
        case Length::en_SHORT:
            return static_cast<short>(va_arg(args.list, int));
        case Length::en_CHAR:
            return static_cast<signed char>(va_arg(args.list, int));
        case Length::en_NONE:
            break;
    }
    return va_arg(args.list, int);
}

/// The same argument with its own number of bits read as unsigned.
unsigned long long take_unsigned(Length length, ST_ARGS& args) {
    const long long value = take_signed(length, args);
    switch (length) {
        case Length::en_LONG_LONG:
            return static_cast<unsigned long long>(value);
        case Length::en_LONG:
            return static_cast<unsigned long>(value);
        case Length::en_SHORT:
            return static_cast<unsigned short>(value);
        case Length::en_CHAR:
            return static_cast<unsigned char>(value);
        case Length::en_NONE:
            break;
    }
    return static_cast<unsigned int>(value);
}

/// The bytes of the first `limit` characters of a UTF-8 text. Reads nothing after them: a text
/// that is cut needs no terminator.
size_t size_of_characters(const char* text, size_t limit) {
    size_t size = 0;
    for (; limit > 0 && text[size] != '\0'; --limit) {
        const auto lead = static_cast<unsigned char>(text[size]);
        size_t rest = 1;
        if (lead >= 0xC0) rest = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        for (; rest > 0 && text[size] != '\0'; --rest) ++size;
    }
    return size;
}

std::wstring decode(const char* text, size_t size) {
    if (size == 0) return {};
    std::wstring wide(size + 1, L'\0');
    const int length = pz_mbtowc(&wide[0], static_cast<unsigned int>(wide.size()), text,
                                 static_cast<unsigned int>(size), XCP_UTF8);
    wide.resize(static_cast<size_t>(length));
    return wide;
}

std::wstring take_text(const ST_CONVERSION& conversion, ST_ARGS& args) {
    const bool wide = conversion.length != Length::en_SHORT;
    const size_t limit =
        conversion.precision < 0 ? SIZE_MAX : static_cast<size_t>(conversion.precision);
    const void* const text = va_arg(args.list, const void*);
    if (text == nullptr) return std::wstring(L"(null)").substr(0, limit);
    if (wide) {
        const auto* const characters = static_cast<const wchar_t*>(text);
        return std::wstring(
            characters, limit == SIZE_MAX ? std::wcslen(characters) : wcsnlen(characters, limit));
    }
    const auto* const bytes = static_cast<const char*>(text);
    return decode(bytes, size_of_characters(bytes, limit));
}

void put_floating(std::wostream& out, const ST_CONVERSION& conversion, ST_ARGS& args) {
    out << std::fixed
        << std::setprecision(conversion.precision < 0 ? kDefaultPrecision : conversion.precision);
    if (conversion.length == Length::en_LONG_LONG) {
        out << va_arg(args.list, long double);
    } else {
        out << va_arg(args.list, double);
    }
}

/// A stream for one conversion.
void prepare(std::wostream& out, const ST_CONVERSION& conversion) {
    out.exceptions(std::ios::badbit);  // a lack of memory must not pass for a shorter text
    out.imbue(std::locale::classic());
    out << std::setw(conversion.width);
    if (conversion.left) {
        out << std::left;
    } else if (conversion.zeros) {
        out << std::internal << std::setfill(L'0');
    }
    if (conversion.sign) out << std::showpos;
    if (conversion.base) out << std::showbase;
}

/// The text of one conversion; false for an unknown letter, which takes no argument.
bool convert(const ST_CONVERSION& conversion, ST_ARGS& args, std::wstring& result) {
    std::wostringstream out;
    prepare(out, conversion);
    switch (conversion.letter) {
        case L'd':
        case L'i':
            out << take_signed(conversion.length, args);
            break;
        case L'u':
            out << take_unsigned(conversion.length, args);
            break;
        case L'o':
            out << std::oct << take_unsigned(conversion.length, args);
            break;
        case L'X':
            out << std::uppercase;
            [[fallthrough]];
        case L'x':
            out << std::hex << take_unsigned(conversion.length, args);
            break;
        case L'p':
            out << reinterpret_cast<uintptr_t>(va_arg(args.list, void*));
            break;
        case L'f':
        case L'F':
            put_floating(out, conversion, args);
            break;
        case L'c':
            out << static_cast<wchar_t>(va_arg(args.list, wint_t));
            break;
        case L's':
        case L'S':
            out << take_text(conversion, args);
            break;
        case L'b':
            out << (va_arg(args.list, int) != 0 ? L"true" : L"false");
            break;
        case L'%':
            out << L'%';
            break;
        default:
            return false;
    }
    result = out.str();
    return true;
}

std::wstring format_text(const wchar_t* format, ST_ARGS& args) {
    std::wstring text;
    while (*format != L'\0') {
        const wchar_t* const start = format;
        if (*format++ != L'%') {
            text += *start;
            continue;
        }
        std::wstring converted;
        if (convert(parse_conversion(format, args), args, converted)) {
            text += converted;
        } else {
            text.append(start, format);
        }
    }
    return text;
}

}  // namespace

int pz_swprintf(wchar_t* dst, unsigned int count, const wchar_t* format, ...) {
    if (dst == nullptr || format == nullptr) return 0;
    std::wstring text;
    ST_ARGS args;
    va_start(args.list, format);
    try {
        text = format_text(format, args);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("failed to allocate memory\n");
    }
    va_end(args.list);
    pz_wcsncpy(dst, count, text.c_str(), count);
    return static_cast<int>(pz_wcsnlen(dst, count));
}
