#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <Framework/Utility/PZString.h>

#include "support/FuzzInput.h"
#include "support/StringModel.h"
#include "support/conversion.h"
#include "support/fuzz_check.h"

// Two PZStrings under random operations, each beside a model of it.
//
// Input: operations of one byte, whose top bit chooses the object, and their arguments: texts are a
// length (its low four bits) and bytes, code pages and numbers one byte.

namespace {

using namespace pzfuzz;  // NOLINT(google-build-using-namespace)

constexpr unsigned int kMaxBytes = 2048;  // operands double quickly

using Units = StringModel::Units;

std::string take_text(FuzzInput& input) {
    const std::string bytes = input.Bytes(input.Byte() & 0x0FU);
    return bytes.substr(0, bytes.find('\0'));
}

/// ASCII, Cyrillic for most of the other bytes, and something beyond 16 bits.
std::wstring take_wide(FuzzInput& input) {
    std::wstring text;
    for (const char c : take_text(input)) {
        const auto byte = static_cast<unsigned char>(c);
        text += byte == 0xFF ? L'\x1F600' : static_cast<wchar_t>(byte < 0x80 ? byte : 0x380 + byte);
    }
    return text;
}

/// Units in the byte order of `page`, halves of surrogate pairs among them.
Units take_units(FuzzInput& input, EN_XCP page) {
    Units text;
    for (const char c : take_text(input)) {
        const auto byte = static_cast<unsigned char>(c);
        const unsigned int unit = byte < 0x80 ? byte : 0xD780U + byte * 2U;
        text.push_back(
            static_cast<unsigned short>(page == XCP_UTF16BE ? unit << 8U | unit >> 8U : unit));
    }
    return text;
}

/// A small number, or one of the largest.
unsigned int take_number(FuzzInput& input) {
    const unsigned int byte = input.Byte();
    return byte < 0xF0 ? byte : byte - 0x100;
}

/// Two units of a text that is not empty.
template <typename T>
T piece_at(const T& text, unsigned int start) {
    return text.empty() ? text : text.substr(start % text.size(), 2);
}

/// One object that holds nothing but a code page, for each page.
const PZString& only_page(EN_XCP page) {
    static const std::vector<PZString> objects = [] {
        std::vector<PZString> made;
        for (int i = 0; i <= XCP_NONE + 1; ++i) {
            made.emplace_back(static_cast<const char*>(nullptr), static_cast<EN_XCP>(i));
        }
        return made;
    }();
    return objects[static_cast<size_t>(page)];
}

void check_units(const PZString& object, const StringModel& model) {
    PZString copy(object);
    const unsigned short* const units = copy.ToWCHAR16(model.page);
    if (units == nullptr) return fuzz_check(false, "the 16-bit form is missing");
    const Units expected = *model.units;
    fuzz_check(Units(units, units + expected.size()) == expected, "other units");
    fuzz_check(units[expected.size()] == 0, "the units have no terminator");
}

void check_state(const PZString& object, const StringModel& model) {
    const char* const narrow = object.RefCHAR();
    const wchar_t* const wide = object.RefWCHAR();
    fuzz_check((narrow != nullptr) == model.narrow.has_value(), "narrow form");
    fuzz_check((wide != nullptr) == model.wide.has_value(), "wide form");
    if (model.narrow) fuzz_check(*model.narrow == narrow, "narrow text");
    if (model.wide) fuzz_check(*model.wide == wide, "wide text");
    if (model.units) check_units(object, model);
    fuzz_check(object == only_page(model.page), "code page");
    fuzz_check(object.Length() == model.Length(), "Length");
    fuzz_check(object.LengthByte() == model.LengthByte(), "LengthByte");
    fuzz_check(narrow == object.RefCHAR() && wide == object.RefWCHAR(), "unstable pointers");
}

/// The pieces of `text`; the one behind the last separator is left out when it is empty and the
/// text is read like lines.
template <typename T>
std::vector<T> pieces_of(T text, const T& separator, bool likeLines) {
    std::vector<T> pieces;
    for (size_t at = 0; !separator.empty() && (at = text.find(separator)) != text.npos;) {
        pieces.push_back(text.substr(0, at));
        text.erase(0, at + separator.size());
    }
    if (!text.empty() || !likeLines) pieces.push_back(text);
    return pieces;
}

template <typename T>
std::vector<StringModel> models_of(const std::vector<T>& pieces) {
    std::vector<StringModel> models;
    for (const T& piece : pieces) {
        if constexpr (std::is_same_v<T, std::string>) {
            models.push_back(StringModel::Narrow(piece, XCP_UTF8));
        } else {
            models.push_back(StringModel::Wide(piece));
        }
    }
    return models;
}

/// One object and its model, and the operations on both.
class Pair {
public:
    void Run(unsigned int operation, FuzzInput& input, const Pair& other) {
        switch (operation % 8) {
            case 0:
                Set(input, other);
                break;
            case 1:
                Construct(input, other);
                break;
            case 2:
                Add(input, other);
                break;
            case 3:
                Convert(input);
                break;
            case 4:
                Compare(input, other);
                break;
            case 5:
                Search(input, other);
                break;
            case 6:
                Cut(input);
                break;
            default:
                Split(input);
                break;
        }
        if (object_.LengthByte() > kMaxBytes) Delete();
        check_state(object_, model_);
    }

private:
    void Delete() {
        object_.DeleteStr();
        model_ = StringModel();
    }

    void Set(FuzzInput& input, const Pair& other) {
        const unsigned int kind = input.Byte() % 13;
        const EN_XCP page = take_page(input);
        const std::string text = take_text(input);
        switch (kind) {
            case 0:
                fuzz_check(object_.Copy(text.c_str(), page), "Copy");
                model_ = StringModel::Narrow(text, page);
                break;
            case 1:
                fuzz_check(object_.Copy(text), "Copy");
                model_ = StringModel::Narrow(text, XCP_UTF8);
                break;
            case 2:
                fuzz_check(&(object_ = text.c_str()) == &object_, "operator=");
                model_ = StringModel::Narrow(text, XCP_UTF8);
                break;
            case 3:
                object_ = text;
                model_ = StringModel::Narrow(text, XCP_UTF8);
                break;
            case 4:
            case 5: {
                const std::wstring wide = take_wide(input);
                if (kind == 4) fuzz_check(object_.Copy(wide.c_str()), "Copy");
                if (kind == 5) object_ = wide.c_str();
                model_ = StringModel::Wide(wide);
                break;
            }
            case 6:
                Set16(input, page);
                break;
            case 7: {
                const unsigned short units[] = {'a', 0};
                object_ = units;  // always refused
                break;
            }
            case 8:
                fuzz_check(object_.Copy(other.object_), "Copy");
                model_ = other.model_;
                break;
            case 9:
                object_ = other.object_;
                model_ = other.model_;
                break;
            case 10:
                SetNull();
                break;
            case 11:  // an own text
                if (!model_.narrow || model_.narrow->empty()) break;
                fuzz_check(object_.Copy(object_.RefCHAR() + 1, page), "Copy of an own text");
                model_ = StringModel::Narrow(model_.narrow->substr(1), page);
                break;
            default:
                Delete();
                break;
        }
    }

    void Set16(FuzzInput& input, EN_XCP page) {
        Units units = take_units(input, page);
        const bool allowed = page == XCP_UTF16BE || page == XCP_UTF16LE;
        if (allowed) model_ = StringModel::Of16(units, page);
        units.push_back(0);
        fuzz_check(object_.Copy(units.data(), page) == allowed, "Copy of 16-bit text");
    }

    void SetNull() {
        fuzz_check(!object_.Copy(static_cast<const char*>(nullptr)), "a null text was copied");
        fuzz_check(!object_.Copy(static_cast<const wchar_t*>(nullptr)), "a null text was copied");
        fuzz_check(!object_.Copy(static_cast<const unsigned short*>(nullptr), XCP_UTF16LE),
                   "a null text was copied");
        object_ = static_cast<const char*>(nullptr);
        object_ = static_cast<const wchar_t*>(nullptr);
        object_ = static_cast<const unsigned short*>(nullptr);
    }

    void Construct(FuzzInput& input, const Pair& other) const {
        const EN_XCP page = take_page(input);
        const std::string text = take_text(input);
        const std::wstring wide = take_wide(input);
        check_state(PZString(), StringModel());
        check_state(PZString(text.c_str(), page), StringModel::Narrow(text, page));
        check_state(PZString(text), StringModel::Narrow(text, XCP_UTF8));
        check_state(PZString(wide.c_str()), StringModel::Wide(wide));
        check_state(PZString(wide), StringModel::Wide(wide));
        check_state(PZString(other.object_), other.model_);
        Units units = take_units(input, page);
        StringModel model;
        model.page = page;
        if (page == XCP_UTF16BE || page == XCP_UTF16LE) model.units = units;
        units.push_back(0);
        check_state(PZString(units.data(), page), model);
        model.units.reset();
        check_state(PZString(static_cast<const unsigned short*>(nullptr), page), model);
    }

    void Add(FuzzInput& input, const Pair& other) {
        const unsigned int kind = input.Byte();
        const bool atHead = (kind & 0x80U) != 0;
        switch (kind % 5) {
            case 0: {
                const std::string text = take_text(input);
                AddText(text.c_str(), model_.Add(text, atHead), kind);
                break;
            }
            case 1: {
                const std::wstring text = take_wide(input);
                AddText(text.c_str(), model_.Add(text, atHead), kind);
                break;
            }
            case 2:
                AddText(other.object_, model_.Add(other.model_, atHead), kind);
                break;
            case 3:
                AddText(object_, model_.Add(StringModel(model_), atHead), kind);
                break;
            default:
                AddOwnText(atHead);
                break;
        }
    }

    /// By one of the operations that add; those that answer the object do so whatever happened.
    template <typename T>
    void AddText(const T& text, bool expected, unsigned int kind) {
        if ((kind & 0x80U) != 0) {
            fuzz_check(object_.AppendToHead(text) == expected, "AppendToHead");
        } else if ((kind & 0x40U) == 0) {
            fuzz_check(object_.Append(text) == expected, "Append");
        } else if ((kind & 0x20U) == 0) {
            fuzz_check(&(object_ += text) == &object_, "operator+=");
        } else {
            fuzz_check(&(object_ + text) == &object_, "operator+");
        }
    }

    void AddOwnText(bool atHead) {
        if (model_.narrow && !model_.narrow->empty()) {
            const std::string own = model_.narrow->substr(1);
            const bool expected = model_.Add(own, atHead);
            AddText(object_.RefCHAR() + 1, expected, atHead ? 0x80 : 0);
        } else if (model_.wide && !model_.wide->empty()) {
            const std::wstring own = model_.wide->substr(1);
            const bool expected = model_.Add(own, atHead);
            AddText(object_.RefWCHAR() + 1, expected, atHead ? 0x80 : 0);
        } else {
            fuzz_check(!object_.Append(static_cast<const char*>(nullptr)), "null was appended");
            fuzz_check(!object_.Append(static_cast<const wchar_t*>(nullptr)), "null was appended");
        }
    }

    void Convert(FuzzInput& input) {
        const unsigned int kind = input.Byte() % 4;
        const EN_XCP page = kind == 1 ? XCP_UTF8 : take_page(input);
        if (kind <= 1) {
            const bool expected = model_.ToChar(page);
            const char* const text = kind == 0 ? object_.ToCHAR(page) : object_.ToTCHAR();
            fuzz_check((text != nullptr) == expected, "ToCHAR");
            if (expected) fuzz_check(text == object_.ToCHAR(model_.page), "converted again");
        } else if (kind == 2) {
            const bool expected = model_.ToWide();
            const wchar_t* const text = object_.ToWCHAR();
            fuzz_check((text != nullptr) == expected, "ToWCHAR");
            if (expected) fuzz_check(text == object_.ToWCHAR(), "converted again");
        } else {
            const bool expected = model_.To16(page);
            const unsigned short* const text = object_.ToWCHAR16(page);
            fuzz_check((text != nullptr) == expected, "ToWCHAR16");
            if (expected) fuzz_check(text == object_.ToWCHAR16(page), "converted again");
        }
    }

    void Compare(FuzzInput& input, const Pair& other) const {
        const std::string text = take_text(input);
        const std::wstring wide = take_wide(input);
        const StringModel& o = other.model_;
        const bool less = model_.narrow && *model_.narrow < text;
        const bool same = model_.narrow && *model_.narrow == text;
        const bool lessWide = model_.wide && *model_.wide < wide;
        const bool sameWide = model_.wide && *model_.wide == wide;
        fuzz_check((object_ < other.object_) == model_.Less(o), "<");
        fuzz_check((object_ > other.object_) == !model_.Less(o), ">");
        fuzz_check((object_ == other.object_) == model_.Equals(o), "==");
        fuzz_check((object_ != other.object_) == !model_.Equals(o), "!=");
        fuzz_check(object_.IsEqual(other.object_) == model_.IsEqual(o), "IsEqual");
        fuzz_check((object_ < text.c_str()) == less && (object_ < text) == less, "< narrow");
        fuzz_check((object_ > text.c_str()) == !less && (object_ > text) == !less, "> narrow");
        fuzz_check((object_ == text.c_str()) == same && (object_ == text) == same, "== narrow");
        fuzz_check((object_ != text.c_str()) == !same && (object_ != text) == !same, "!= narrow");
        fuzz_check(object_.IsEqual(text) == same, "IsEqual narrow");
        fuzz_check((object_ < wide.c_str()) == lessWide, "< wide");
        fuzz_check((object_ > wide.c_str()) == !lessWide, "> wide");
        fuzz_check((object_ == wide.c_str()) == sameWide, "== wide");
        fuzz_check((object_ != wide.c_str()) == !sameWide, "!= wide");
        fuzz_check(object_.IsEqual(wide.c_str()) == sameWide, "IsEqual wide");
        fuzz_check(object_.IsEqual(static_cast<const char*>(nullptr)) == model_.HoldsNothing(),
                   "IsEqual null");
    }

    void Search(FuzzInput& input, const Pair& other) const {
        const unsigned int start = take_number(input);
        std::string text = take_text(input);
        std::wstring wide = take_wide(input);
        // What is held is seldom guessed: without a text, a piece of it is looked for.
        if (text.empty() && model_.narrow) text = piece_at(*model_.narrow, start);
        if (wide.empty() && model_.wide) wide = piece_at(*model_.wide, start);
        fuzz_check(object_.IndexOf(text.c_str(), start) == model_.IndexOf(text, start), "IndexOf");
        fuzz_check(object_.IndexOf(text, start) == model_.IndexOf(text, 0), "IndexOf string");
        fuzz_check(object_.IndexOf(wide.c_str(), start) == model_.IndexOf(wide, start),
                   "IndexOf wide");
        fuzz_check(object_.IndexOf(other.object_, start) == model_.IndexOf(other.model_, start),
                   "IndexOf object");
        fuzz_check(object_.LastIndexOf(text.c_str(), start) == model_.LastIndexOf(text, start),
                   "LastIndexOf");
        fuzz_check(object_.LastIndexOf(text.c_str()) == model_.LastIndexOf(text, StringModel::npos),
                   "LastIndexOf from the end");
    }

    void Cut(FuzzInput& input) {
        const unsigned int start = take_number(input);
        const unsigned int end = take_number(input);
        const bool expected = model_.SubStr(start, end);
        bool thrown = false;
        try {
            fuzz_check(&object_.SubStr(start, end) == &object_, "SubStr");
        } catch (const std::out_of_range&) {
            thrown = true;
        }
        fuzz_check(thrown != expected, "SubStr throws");
    }

    void Split(FuzzInput& input) const {
        switch (input.Byte() % 4) {
            case 0: {
                const std::string separator = take_text(input);
                if (model_.wide) break;  // never returns
                CheckSplit(separator.c_str(), model_.narrow.has_value(), separator, L"", false);
                break;
            }
            case 1: {
                const std::wstring separator = take_wide(input);
                if (model_.narrow) break;  // never returns
                CheckSplit(separator.c_str(), model_.wide.has_value(), "", separator, false);
                break;
            }
            case 2: {
                const auto separator = static_cast<char>(input.Byte());
                StringModel more = StringModel::Narrow(std::string(1, separator), XCP_UTF8);
                const bool expected = model_.narrow || (model_.wide && more.ToWide());
                CheckSplit(separator, expected, std::string(1, separator), more.wide.value_or(L""),
                           model_.narrow.has_value());
                break;
            }
            default: {
                const auto separator = static_cast<wchar_t>(input.Byte());
                StringModel more = StringModel::Wide(std::wstring(1, separator));
                const bool expected = model_.wide || (model_.narrow && more.ToChar(model_.page));
                CheckSplit(separator, expected, more.narrow.value_or(""),
                           std::wstring(1, separator), model_.wide.has_value());
                break;
            }
        }
    }

    template <typename T>
    void CheckSplit(const T& separator, bool expected, const std::string& narrow,
                    const std::wstring& wide, bool likeLines) const {
        PZString::SplitList list;
        fuzz_check(object_.Split(list, separator) == expected, "Split");
        std::vector<StringModel> pieces;
        if (expected && model_.narrow) {
            pieces = models_of(pieces_of(*model_.narrow, narrow, likeLines));
        } else if (expected) {
            pieces = models_of(pieces_of(*model_.wide, wide, likeLines));
        }
        fuzz_check(list.GetCount() == pieces.size(), "number of pieces");
        size_t i = 0;
        for (const PZString* piece : list) check_state(*piece, pieces[i++]);
        object_.DeleteSplitString(list);
        fuzz_check(list.GetCount() == 0, "DeleteSplitString");
    }

    PZString object_;
    StringModel model_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    std::array<Pair, 2> pairs;
    while (!input.IsEmpty()) {
        const unsigned int operation = input.Byte();
        const size_t which = operation >> 7U;
        pairs[which].Run(operation & 0x7FU, input, pairs[1 - which]);
    }
    return 0;
}
