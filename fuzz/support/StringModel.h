#ifndef PZ_FUZZ_SUPPORT_STRINGMODEL_H
#define PZ_FUZZ_SUPPORT_STRINGMODEL_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <Framework/Wrapper/pz_cp_conv.h>

namespace pzfuzz {

/// What a PZString must hold: one form at most, and a code page. Conversions are those of
/// pz_cp_conv.h with the room that a PZString gives them.
struct StringModel {
    static constexpr unsigned int npos = 0xFFFFFFFF;
    using Units = std::vector<unsigned short>;  // without terminator

    EN_XCP page = XCP_NONE;
    std::optional<std::string> narrow;
    std::optional<std::wstring> wide;
    std::optional<Units> units;

    static StringModel Narrow(const std::string& text, EN_XCP page) {
        StringModel model;
        model.page = page;
        model.narrow = text.c_str();  // up to the first zero
        return model;
    }
    static StringModel Wide(const std::wstring& text) {
        StringModel model;
        model.wide = text.c_str();
        return model;
    }
    static StringModel Of16(const Units& text, EN_XCP page) {
        StringModel model;
        model.page = page;
        model.units = text;
        return model;
    }

    bool HasNoText() const { return !narrow && !wide; }
    bool HoldsNothing() const { return HasNoText() && !units; }

    bool ToChar(EN_XCP cp) {
        if (narrow && (page == cp || narrow->empty())) return true;
        if (HoldsNothing() || (!narrow && cp == XCP_NONE)) return false;
        if (units && cp != XCP_UTF8) return false;
        const size_t length = narrow ? narrow->size() : wide ? wide->size() : units->size();
        if (length == 0) {
            *this = Narrow("", page);
            return true;
        }
        std::vector<char> buffer((length + 1) * 6);
        const auto size = static_cast<unsigned int>(buffer.size());
        const auto count = static_cast<int>(length);
        int result = 0;
        if (narrow) {
            result = pz_cp_conv(buffer.data(), size, cp, narrow->c_str(),
                                static_cast<unsigned int>(count), page);
        } else if (wide) {
            result = pz_wctomb(buffer.data(), size, wide->c_str(), count, cp);
        } else {
            result = pz_wc16tomb(buffer.data(), size, cp, units->data(), count, page);
        }
        if (result < 1) return false;
        *this = Narrow(buffer.data(), cp);
        return true;
    }

    bool ToWide() {
        if (!narrow) return wide.has_value();
        if (page == XCP_NONE) return false;
        std::vector<wchar_t> buffer(narrow->size() + 1);
        EN_XCP pageAfter = XCP_NONE;
        if (narrow->empty()) {
            pageAfter = page;
            // NOLINTNEXTLINE(clang-analyzer-cplusplus.InnerPointer): not used after it
        } else if (pz_mbtowc(buffer.data(), static_cast<unsigned int>(buffer.size()),
                             narrow->c_str(), static_cast<unsigned int>(narrow->size()),
                             page) < 1) {
            return false;
        }
        *this = Wide(buffer.data());
        page = pageAfter;
        return true;
    }

    bool To16(EN_XCP cp) {
        if (cp != XCP_UTF16BE && cp != XCP_UTF16LE) return false;
        if (!narrow) return !wide && units && page == cp;
        std::vector<unsigned short> buffer(narrow->size() + 1);
        if (!narrow->empty() &&
            // NOLINTNEXTLINE(clang-analyzer-cplusplus.InnerPointer): not used after it
            pz_mbtowc16(buffer.data(), static_cast<unsigned int>(buffer.size()), cp,
                        narrow->c_str(), static_cast<unsigned int>(narrow->size()), page) < 1) {
            return false;
        }
        size_t length = 0;
        while (buffer[length] != 0) ++length;
        buffer.resize(length);
        *this = Of16(buffer, cp);
        return true;
    }

    bool Add(const std::string& text, bool atHead) {
        if (narrow) return Insert(*narrow, text, atHead);
        if (!wide) {
            *this = Narrow(text, XCP_UTF8);
            return true;
        }
        if (!atHead && page == XCP_NONE) page = XCP_UTF8;
        StringModel more = Narrow(text, atHead ? XCP_UTF8 : page);
        return more.ToWide() && Insert(*wide, *more.wide, atHead);
    }

    bool Add(const std::wstring& text, bool atHead) {
        if (wide) return Insert(*wide, text, atHead);
        StringModel more = Wide(text);
        if (!narrow) {
            *this = more;
            return true;
        }
        return more.ToChar(page) && Insert(*narrow, *more.narrow, atHead);
    }

    bool Add(StringModel more, bool atHead) {
        if (wide) return more.ToWide() && Insert(*wide, *more.wide, atHead);
        if (more.HasNoText()) return false;
        if (narrow) return more.ToChar(page) && Insert(*narrow, *more.narrow, atHead);
        *this = more.narrow ? Narrow(*more.narrow, more.page) : Wide(*more.wide);
        return true;
    }

    bool Less(const StringModel& o) const {
        if (wide && o.wide) return *wide < *o.wide;
        return narrow && o.narrow && *narrow < *o.narrow;
    }

    bool Equals(const StringModel& o) const {
        if (wide && o.wide && *wide != *o.wide) return false;
        if (narrow && o.narrow && *narrow != *o.narrow) return false;
        return page == o.page;
    }

    bool IsEqual(const StringModel& o) const {
        if (narrow && o.narrow) return *narrow == *o.narrow && page == o.page;
        if (wide && o.wide) return *wide == *o.wide;
        return !o.narrow && !o.wide;
    }

    unsigned int Length() const {
        if (wide) return static_cast<unsigned int>(wide->size());
        if (units) return static_cast<unsigned int>(units->size());
        if (!narrow || page != XCP_UTF8) return 0;
        unsigned int count = 0;
        for (const char byte : *narrow) count += (byte & 0xC0) != 0x80 ? 1 : 0;
        return count;
    }

    unsigned int LengthByte() const {
        if (narrow) return static_cast<unsigned int>(narrow->size());
        return Length() * (wide ? 4 : 2);
    }

    unsigned int IndexOf(const std::string& text, unsigned int start) const {
        if (text.empty() || HasNoText()) return npos;
        if (narrow) return static_cast<unsigned int>(narrow->find(text, start));
        StringModel more = Narrow(text, XCP_UTF8);
        return more.ToWide() ? IndexOf(*more.wide, start) : npos;
    }

    unsigned int IndexOf(const std::wstring& text, unsigned int start) const {
        if (text.empty() || HasNoText()) return npos;
        if (wide) return static_cast<unsigned int>(wide->find(text, start));
        StringModel more = Wide(text);
        return more.ToChar(page) ? IndexOf(*more.narrow, 0) : npos;
    }

    unsigned int IndexOf(const StringModel& o, unsigned int start) const {
        if (narrow && o.narrow) return IndexOf(*o.narrow, start);
        if (wide && o.wide) return IndexOf(*o.wide, start);
        return npos;
    }

    unsigned int LastIndexOf(const std::string& text, unsigned int from) const {
        if (text.empty() || !narrow) return npos;
        if (from == npos) from = Length();
        return from > Length() ? npos : static_cast<unsigned int>(narrow->rfind(text, from));
    }

    /// False when the operation must throw.
    bool SubStr(unsigned int start, unsigned int end) {
        const unsigned int length = LengthByte();
        if (end == npos) end = length - 1;
        const unsigned int count = end - start + 1;
        if (length <= end || length <= start || static_cast<int>(count) < 0) return true;
        if (wide && start > wide->size()) return false;
        if (narrow) narrow = narrow->substr(start, count);
        if (wide) wide = wide->substr(start, count);
        return true;
    }

private:
    template <typename T>
    static bool Insert(T& text, const T& more, bool atHead) {
        text.insert(atHead ? 0 : text.size(), more);
        return true;
    }
};

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_STRINGMODEL_H
