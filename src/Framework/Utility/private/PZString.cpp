#include "Framework/Utility/PZString.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_numbers.h>

#include "pz_find_bytes.h"

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZString) == 16, "a code page and three pointers");
static_assert(sizeof(PZString::SplitList::Node) == 12, "three pointers");
#endif

namespace {

/// The header holds its code; this puts a copy into the library for callers that have none.
[[gnu::used]] constexpr bool (PZString::*kCopy)(const char*) = &PZString::Append;

/// Room for a character of any code page, per unit of the source.
constexpr size_t kMaxBytesPerUnit = 6;

/// Whether a text of that code page is held in 16-bit units; reports as `function` when it is not.
bool names_units(EN_XCP cp, const char* function) {
    if (cp == XCP_UTF16) {
        PZ_REPORT_ERROR_OF(function, "not support for now.\n");
        return false;
    }
    if (cp != XCP_UTF16BE && cp != XCP_UTF16LE) {
        PZ_REPORT_ERROR_OF(function, "invalid param.\n");
        return false;
    }
    return true;
}

/// What `operation` answers; `refusal` when it runs out of memory, which is reported as a failure
/// of `function`.
template <typename Result, typename Operation>
Result with_memory(const char* function, Result refusal, const Operation& operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR_OF(function, "failed to allocate memory\n");
        return refusal;
    }
}

/// A zero-filled buffer to convert into; its memory is null when there is none.
template <typename T>
struct ST_BUFFER {
    explicit ST_BUFFER(size_t units)
        : memory(new (std::nothrow) T[units]()), size(static_cast<unsigned int>(units)) {}

    const std::unique_ptr<T[]> memory;
    const unsigned int size;
};

/// For narrow text made from `length` units.
ST_BUFFER<char> narrow_buffer(size_t length) {
    return ST_BUFFER<char>((length + 1) * kMaxBytesPerUnit);
}

/// A standard position as a 32-bit one: "not found" keeps its all-ones value.
unsigned int position(size_t found) {
    return static_cast<unsigned int>(found);
}

/// A deep copy; null stays null.
template <typename T>
std::unique_ptr<T> clone(const std::unique_ptr<T>& form) {
    return form != nullptr ? std::make_unique<T>(*form) : nullptr;
}

template <typename T>
bool equal(const std::unique_ptr<std::basic_string<T>>& form, const T* s) {
    return form != nullptr && s != nullptr && *form == s;
}

template <typename T>
bool is_null_or_empty(const T* s) {
    return s == nullptr || *s == 0;
}

constexpr bool starts_utf8_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
}

/// As the standard search, only faster.
size_t find(std::string_view text, size_t start, std::string_view sought) {
    if (start > text.size()) return text.npos;
    text.remove_prefix(start);
    const size_t found = pz_find_bytes(text, sought);
    return found != text.npos ? start + found : text.npos;
}

size_t find(std::wstring_view text, size_t start, std::wstring_view sought) {
    return text.find(sought, start);
}

// The file is built for size; flatten makes single functions of what texts are made, split and
// freed by.
[[gnu::flatten]] void destroy_elements(PZString::SplitList& list) {
    while (list.GetHead() != nullptr) {
        delete list.GetHead()->element;
        list.Erase(list.GetHead());
    }
}

/// The pieces of a text, until all of them are made.
class Pieces {
public:
    Pieces() = default;
    ~Pieces() { destroy_elements(list_); }

    Pieces(const Pieces&) = delete;
    Pieces& operator=(const Pieces&) = delete;

    [[gnu::flatten]] void Add(std::unique_ptr<PZString> piece) {
        list_.AddTail(piece.get());
        static_cast<void>(piece.release());  // the list's
    }
    void MoveTo(PZString::SplitList& list) { list.Take(list_); }

private:
    PZString::SplitList list_;
};

/// `more` may lie in `text`.
void append_bytes(std::string& text, const char* more) {
    constexpr size_t kFirstGrowth = 63;  // spares texts that are put together the smallest steps
    const size_t size = std::strlen(more);
    if (text.capacity() < kFirstGrowth && text.capacity() - text.size() < size) {
        const std::less<const char*> isBefore;
        const bool isOwn =
            !isBefore(more, text.data()) && isBefore(more, text.data() + text.size());
        if (!isOwn) text.reserve(kFirstGrowth);
    }
    text.append(more, size);
}

/// Leaves `count` units from `start` on, or as many as there are. Needs no memory.
template <typename T>
void cut(std::basic_string<T>& text, size_t start, size_t count) {
    text.erase(0, start);
    if (count < text.size()) text.resize(count);
}

/// A narrow text and a wide separator, or the other way round, never come to an end. Waiting keeps
/// the processor free for the other threads.
[[noreturn]] void wait_forever() {
    for (;;) ::pause();
}

}  // namespace

// ---- construction ----

PZString::PZString() : codePage_(XCP_NONE) {}

PZString::PZString(const char* s, EN_CP cp) : codePage_(cp) {
    if (!Copy(s, cp)) PZ_REPORT_ERROR("error\n");
}

PZString::PZString(const std::string& s) : codePage_(XCP_NONE) {
    Copy(s);
}

PZString::PZString(const wchar_t* s) : codePage_(XCP_NONE) {
    if (!Copy(s)) PZ_REPORT_ERROR("error\n");
}

PZString::PZString(const std::wstring& s) : PZString(s.c_str()) {}

PZString::PZString(const unsigned short* s, EN_CP cp) : codePage_(cp) {
    if (!Copy(s, cp)) PZ_REPORT_ERROR("error\n");
}

PZString::PZString(const PZString& o) : codePage_(XCP_NONE) {
    Copy(o);
}

[[gnu::flatten]] PZString::~PZString() = default;

void PZString::DeleteStr() {
    wide_.reset();
    units_.reset();
    narrow_.reset();
    codePage_ = XCP_NONE;
}

// ---- setting: the new form is complete before the old one goes, which it may be made from ----

[[gnu::flatten]] bool PZString::Copy(const char* s, EN_CP cp) {
    if (s == nullptr) return false;
    return with_memory(__func__, false, [&] {
        auto text = std::make_unique<std::string>(s);
        DeleteStr();
        narrow_ = std::move(text);
        codePage_ = cp;
        return true;
    });
}

bool PZString::Copy(const std::string& s) {
    return Copy(s.c_str(), XCP_UTF8);
}

bool PZString::Copy(const wchar_t* s) {
    if (s == nullptr) return false;
    return with_memory(__func__, false, [&] {
        auto text = std::make_unique<std::wstring>(s);
        DeleteStr();
        wide_ = std::move(text);
        return true;
    });
}

bool PZString::Copy(const std::wstring& s) {
    return Copy(s.c_str());
}

bool PZString::Copy(const unsigned short* s, EN_CP cp) {
    if (!names_units(cp, "Copy")) return false;
    if (s == nullptr) return false;
    const unsigned short* end = s;
    while (*end != 0) ++end;
    return with_memory(__func__, false, [&] {
        auto text = std::make_unique<std::vector<unsigned short>>(s, end + 1);
        DeleteStr();
        units_ = std::move(text);
        codePage_ = cp;
        return true;
    });
}

bool PZString::Copy(const PZString& o) {
    if (this == &o) return true;
    return with_memory(__func__, false, [&] {
        PZString copy;
        copy.wide_ = clone(o.wide_);
        copy.narrow_ = clone(o.narrow_);
        copy.units_ = clone(o.units_);
        wide_.swap(copy.wide_);
        narrow_.swap(copy.narrow_);
        units_.swap(copy.units_);
        codePage_ = o.codePage_;
        return true;
    });
}

PZString& PZString::operator=(const char* s) {
    if (!Copy(s, XCP_UTF8)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator=(const std::string& s) {
    return *this = s.c_str();
}

PZString& PZString::operator=(const wchar_t* s) {
    if (!Copy(s)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator=(const unsigned short* s) {
    // Refused on purpose: the units say nothing about their byte order.
    if (!Copy(s, XCP_UTF16)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator=(const PZString& o) {
    if (!Copy(o)) PZ_REPORT_ERROR("error\n");
    return *this;
}

// ---- appending ----

template <typename T>
bool PZString::InsertText(std::basic_string<T>& text, const T* more, End end) {
    if (more == nullptr) return false;
    return with_memory(end == End::HEAD ? "AppendToHead" : "Append", false, [&] {
        if (end == End::HEAD) {
            text.insert(0, more);
        } else {
            text.append(more);
        }
        return true;
    });
}

bool PZString::IsWide() const {
    return narrow_ == nullptr && wide_ != nullptr;
}

bool PZString::HasNoText() const {
    return narrow_ == nullptr && wide_ == nullptr;
}

bool PZString::Insert(const char* s, EN_CP cpForWide, End end) {
    if (HasNoText()) return Copy(s, XCP_UTF8);
    if (IsWide()) {
        PZString more(s, cpForWide);
        return InsertText(*wide_, more.ToWCHAR(), end);
    }
    return InsertText(*narrow_, s, end);
}

bool PZString::Insert(const wchar_t* w, End end) {
    if (HasNoText()) return Copy(w);
    if (IsWide()) return InsertText(*wide_, w, end);
    PZString more(w);
    return InsertText(*narrow_, more.ToCHAR(codePage_), end);
}

bool PZString::Insert(const PZString& o, End end) {
    if (HasNoText()) {
        return o.narrow_ != nullptr ? Copy(o.narrow_->c_str(), o.codePage_)
                                    : Copy(o.wide_->c_str());
    }
    if (IsWide()) {
        if (o.wide_ != nullptr) return Insert(o.wide_->c_str(), end);
        PZString more(o);
        return InsertText(*wide_, more.ToWCHAR(), end);
    }
    if (o.narrow_ != nullptr && o.codePage_ == codePage_) {
        return Insert(o.narrow_->c_str(), codePage_, end);
    }
    PZString more(o);
    return InsertText(*narrow_, more.ToCHAR(codePage_), end);
}

bool PZString::AppendToAny(const char* s) {
    if (s == nullptr) return false;
    if (narrow_ != nullptr) {
        return with_memory("Append", false, [&] {
            append_bytes(*narrow_, s);
            return true;
        });
    }
    if (IsWide() && codePage_ == XCP_NONE) codePage_ = XCP_UTF8;
    return Insert(s, codePage_, End::TAIL);
}

bool PZString::Append(const std::string& s) {
    return Append(s.c_str());
}

bool PZString::Append(const wchar_t* w) {
    return w != nullptr && Insert(w, End::TAIL);
}

bool PZString::Append(const PZString& o) {
    if (!IsWide() && o.HasNoText()) {
        PZ_REPORT_ERROR("no string in param\n");
        return false;
    }
    return Insert(o, End::TAIL);
}

bool PZString::AppendToHead(const char* s) {
    return Insert(s, XCP_UTF8, End::HEAD);
}

bool PZString::AppendToHead(const std::string& s) {
    return AppendToHead(s.c_str());
}

bool PZString::AppendToHead(const wchar_t* w) {
    return Insert(w, End::HEAD);
}

bool PZString::AppendToHead(const PZString& o) {
    if (!IsWide() && o.HasNoText()) {
        PZ_REPORT_ERROR("no string in param\n");
        return false;
    }
    return Insert(o, End::HEAD);
}

PZString& PZString::operator+(const char* s) {
    if (!Append(s)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator+(const std::string& s) {
    return operator+(s.c_str());
}

PZString& PZString::operator+(const wchar_t* w) {
    if (!Append(w)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator+(const PZString& o) {
    if (!Append(o)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator+=(const char* s) {
    if (!Append(s)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator+=(const std::string& s) {
    return *this += s.c_str();
}

PZString& PZString::operator+=(const wchar_t* w) {
    if (!Append(w)) PZ_REPORT_ERROR("error\n");
    return *this;
}

PZString& PZString::operator+=(const PZString& o) {
    if (!Append(o)) PZ_REPORT_ERROR("error\n");
    return *this;
}

// ---- reading and converting ----

const char* PZString::ToCHAR(EN_CP cp) {
    if (narrow_ != nullptr) {
        const bool isDone = codePage_ == cp || narrow_->empty() || ConvertNarrow(cp);
        return isDone ? narrow_->c_str() : nullptr;
    }
    if (wide_ == nullptr && units_ == nullptr) return nullptr;
    if (cp == XCP_NONE) {
        PZ_REPORT_ERROR("invalid code page\n");
        return nullptr;
    }
    if (wide_ == nullptr && cp != XCP_UTF8) {
        PZ_REPORT_ERROR("not support for now.\n");
        return nullptr;
    }
    return MakeNarrow(cp) ? narrow_->c_str() : nullptr;
}

/// Into another code page, for ToCHAR.
bool PZString::ConvertNarrow(EN_CP cp) {
    const ST_BUFFER<char> buffer = narrow_buffer(narrow_->size());
    if (buffer.memory == nullptr) {
        PZ_REPORT_ERROR_OF("ToCHAR", "failed to allocate memory\n");
        return false;
    }
    const int result = pz_cp_conv(buffer.memory.get(), buffer.size, cp, narrow_->c_str(),
                                  pz_size32(*narrow_), codePage_);
    if (result < 1) {
        PZ_REPORT_ERROR_OF("ToCHAR", "faild to convert ret[%d]\n", result);
        return false;
    }
    return Copy(buffer.memory.get(), cp);
}

/// From the wide or the 16-bit form, for ToCHAR.
bool PZString::MakeNarrow(EN_CP cp) {
    const size_t length = wide_ != nullptr ? wide_->size() : units_->size() - 1;
    if (length == 0) return Copy("", codePage_);
    const ST_BUFFER<char> buffer = narrow_buffer(length);
    if (buffer.memory == nullptr) {
        PZ_REPORT_ERROR_OF("ToCHAR", "failed to allocate memory\n");
        return false;
    }
    const int result = wide_ != nullptr
                           ? pz_wctomb(buffer.memory.get(), buffer.size, wide_->c_str(),
                                       static_cast<int>(length), cp)
                           : pz_wc16tomb(buffer.memory.get(), buffer.size, XCP_UTF8, units_->data(),
                                         static_cast<int>(length), codePage_);
    if (result < 1) {
        PZ_REPORT_ERROR_OF("ToCHAR", "faild to convert\n");
        return false;
    }
    return Copy(buffer.memory.get(), cp);
}

const char* PZString::ToTCHAR() {
    return ToCHAR(XCP_UTF8);
}

const wchar_t* PZString::ToWCHAR() {
    if (narrow_ == nullptr) {
        if (wide_ != nullptr) return wide_->c_str();
        if (units_ != nullptr) PZ_REPORT_ERROR("not support for now.\n");
        return nullptr;
    }
    if (codePage_ == XCP_NONE) {
        PZ_REPORT_ERROR("unknown code page\n");
        return nullptr;
    }
    if (narrow_->empty()) {
        const EN_CP kept = codePage_;
        if (!Copy(L"")) return nullptr;
        codePage_ = kept;
        return wide_->c_str();
    }
    const ST_BUFFER<wchar_t> buffer(narrow_->size() + 1);
    if (buffer.memory == nullptr) {
        PZ_REPORT_ERROR("failed to allocate memory\n");
        return nullptr;
    }
    if (pz_mbtowc(buffer.memory.get(), buffer.size, narrow_->c_str(), pz_size32(*narrow_),
                  codePage_) < 1) {
        PZ_REPORT_ERROR("faild to convert\n");
        return nullptr;
    }
    return Copy(buffer.memory.get()) ? wide_->c_str() : nullptr;
}

const unsigned short* PZString::ToWCHAR16(EN_CP cp) {
    if (!names_units(cp, "ToWCHAR16")) return nullptr;
    if (narrow_ != nullptr) {
        const ST_BUFFER<unsigned short> buffer(narrow_->size() + 1);
        if (buffer.memory == nullptr) {
            PZ_REPORT_ERROR("failed to allocate memory\n");
            return nullptr;
        }
        if (!narrow_->empty() && pz_mbtowc16(buffer.memory.get(), buffer.size, cp, narrow_->c_str(),
                                             pz_size32(*narrow_), codePage_) < 1) {
            PZ_REPORT_ERROR("faild to convert\n");
            return nullptr;
        }
        return Copy(buffer.memory.get(), cp) ? units_->data() : nullptr;
    }
    if (wide_ != nullptr) {
        PZ_REPORT_ERROR("not support for now.\n");
        return nullptr;
    }
    if (units_ == nullptr) return nullptr;
    if (codePage_ != cp) {
        PZ_REPORT_ERROR("not support for now. this cp[%d] param cp[%d]\n", codePage_, cp);
        return nullptr;
    }
    return units_->data();
}

const char* PZString::RefCHAR() const {
    return narrow_ != nullptr ? narrow_->c_str() : nullptr;
}

const wchar_t* PZString::RefWCHAR() const {
    return wide_ != nullptr ? wide_->c_str() : nullptr;
}

// ---- comparing ----

bool PZString::operator<(const PZString& o) const {
    if (wide_ != nullptr && o.wide_ != nullptr) return *wide_ < *o.wide_;
    if (narrow_ != nullptr && o.narrow_ != nullptr) return *narrow_ < *o.narrow_;
    return false;
}

bool PZString::operator<(const char* s) const {
    return narrow_ != nullptr && s != nullptr && *narrow_ < s;
}

bool PZString::operator<(const std::string& s) const {
    return narrow_ != nullptr && *narrow_ < s;
}

bool PZString::operator<(const wchar_t* w) const {
    return wide_ != nullptr && w != nullptr && *wide_ < w;
}

bool PZString::operator==(const PZString& o) const {
    if (wide_ != nullptr && o.wide_ != nullptr && *wide_ != *o.wide_) return false;
    if (narrow_ != nullptr && o.narrow_ != nullptr && *narrow_ != *o.narrow_) return false;
    return codePage_ == o.codePage_;
}

bool PZString::operator==(const char* s) const {
    return equal(narrow_, s);
}

bool PZString::operator==(const std::string& s) const {
    return narrow_ != nullptr && *narrow_ == s;
}

bool PZString::operator==(const wchar_t* w) const {
    return equal(wide_, w);
}

bool PZString::IsEqual(const char* s) const {
    if (HasNoText() && units_ == nullptr) return s == nullptr;
    return equal(narrow_, s);
}

bool PZString::IsEqual(const std::string& s) const {
    return IsEqual(s.c_str());
}

bool PZString::IsEqual(const wchar_t* w) const {
    if (HasNoText() && units_ == nullptr) return w == nullptr;
    return equal(wide_, w);
}

bool PZString::IsEqual(const PZString& o) const {
    if (narrow_ != nullptr && o.narrow_ != nullptr) {
        return *narrow_ == *o.narrow_ && codePage_ == o.codePage_;
    }
    if (wide_ != nullptr && o.wide_ != nullptr) return *wide_ == *o.wide_;
    return o.HasNoText();
}

// ---- measuring ----

unsigned int PZString::Length() const {
    if (narrow_ != nullptr) {
        if (codePage_ != XCP_UTF8) {
            PZ_REPORT_ERROR("sorry, now under construction...\n");
            return 0;
        }
        return static_cast<unsigned int>(
            std::count_if(narrow_->begin(), narrow_->end(), starts_utf8_character));
    }
    if (wide_ != nullptr) return pz_size32(*wide_);
    return units_ != nullptr ? pz_size32(*units_) - 1 : 0;
}

unsigned int PZString::LengthByte() const {
    if (narrow_ != nullptr) return pz_size32(*narrow_);
    if (wide_ != nullptr) return pz_size32(*wide_) * static_cast<unsigned int>(sizeof(wchar_t));
    return Length() * static_cast<unsigned int>(sizeof(unsigned short));
}

unsigned int PZString::LengthByte(const char* s, unsigned int size, unsigned int maxChars) {
    unsigned int chars = 0;
    for (unsigned int i = 0; i < size; ++i) {
        if (!starts_utf8_character(s[i])) continue;
        if (chars == maxChars) return i;
        ++chars;
    }
    return size;
}

// ---- searching ----

unsigned int PZString::IndexOf(const char* s, unsigned int start) const {
    if (is_null_or_empty(s) || HasNoText()) return npos;
    if (IsWide()) {
        PZString wide(s, XCP_UTF8);
        return IndexOf(wide.ToWCHAR(), start);
    }
    return position(find(*narrow_, start, s));
}

unsigned int PZString::IndexOf(const wchar_t* w, unsigned int start) const {
    if (is_null_or_empty(w) || HasNoText()) return npos;
    if (IsWide()) return position(wide_->find(w, start));
    PZString narrow(w);
    return IndexOf(narrow.ToCHAR(codePage_), 0);  // not from `start`, on purpose
}

unsigned int PZString::IndexOf(const std::string& s, unsigned int /*start*/) const {
    return IndexOf(s.c_str(), 0);  // not from `start`, on purpose
}

unsigned int PZString::IndexOf(const PZString& o, unsigned int start) const {
    if (narrow_ != nullptr && o.narrow_ != nullptr) return IndexOf(o.narrow_->c_str(), start);
    if (IsWide() && o.wide_ != nullptr) return IndexOf(o.wide_->c_str(), start);
    return npos;
}

unsigned int PZString::LastIndexOf(const char* s, unsigned int from) const {
    if (is_null_or_empty(s)) return npos;
    if (narrow_ == nullptr) {
        PZ_REPORT_ERROR("not support for now.\n");
        return npos;
    }
    const unsigned int length = Length();  // characters, although positions are bytes
    if (from == npos) from = length;
    if (from > length) return npos;
    return position(narrow_->rfind(s, from));
}

// ---- cutting and splitting ----

PZString& PZString::SubStr(unsigned int start, unsigned int end) {
    const unsigned int length = LengthByte();
    if (end == npos) end = length - 1;
    const unsigned int count = end - start + 1;
    if (length <= end || length <= start || static_cast<int>(count) < 0) return *this;
    if (narrow_ != nullptr) {
        cut(*narrow_, start, count);
    } else if (wide_ != nullptr) {
        static_cast<void>(wide_->substr(start, 0));  // throws past the end
        cut(*wide_, start, count);
    } else {
        PZ_REPORT_ERROR("not support for now.\n");
    }
    return *this;
}

[[gnu::flatten]] std::unique_ptr<PZString> PZString::PieceOf(std::string_view text) {
    auto piece = std::make_unique<PZString>();
    piece->narrow_ = std::make_unique<std::string>(text);
    piece->codePage_ = XCP_UTF8;
    return piece;
}

std::unique_ptr<PZString> PZString::PieceOf(std::wstring_view text) {
    auto piece = std::make_unique<PZString>();
    piece->wide_ = std::make_unique<std::wstring>(text);
    return piece;
}

/// Appends what lies between the separators, all of it or nothing.
template <typename T>
bool PZString::AppendPieces(SplitList& list, std::basic_string_view<T> text,
                            std::basic_string_view<T> separator, LastPiece lastPiece) {
    return with_memory("Split", false, [&] {
        Pieces pieces;
        size_t begin = 0;
        while (!separator.empty()) {
            const size_t end = find(text, begin, separator);
            if (end == text.npos) break;
            pieces.Add(PieceOf(text.substr(begin, end - begin)));
            begin = end + separator.size();
        }
        if (begin < text.size() || lastPiece == LastPiece::ALWAYS) {
            pieces.Add(PieceOf(text.substr(begin)));
        }
        pieces.MoveTo(list);
        return true;
    });
}

bool PZString::Split(SplitList& list, const char* sep) const {
    if (sep == nullptr) return false;
    if (IsWide()) wait_forever();
    if (narrow_ == nullptr) {
        PZ_REPORT_ERROR("no string\n");
        return false;
    }
    return AppendPieces<char>(list, *narrow_, sep, LastPiece::ALWAYS);
}

bool PZString::Split(SplitList& list, const wchar_t* sep) const {
    if (sep == nullptr) return false;
    if (wide_ == nullptr) {
        if (narrow_ != nullptr) wait_forever();
        PZ_REPORT_ERROR("no string\n");
        return false;
    }
    return AppendPieces<wchar_t>(list, *wide_, sep, LastPiece::ALWAYS);
}

bool PZString::Split(SplitList& list, char sep) const {
    if (HasNoText()) {
        PZ_REPORT_ERROR("no string\n");
        return false;
    }
    if (IsWide()) {
        const char text[] = {sep, '\0'};
        PZString wide(text);
        return Split(list, wide.ToWCHAR());
    }
    return AppendPieces<char>(list, *narrow_, {&sep, 1}, LastPiece::UNLESS_EMPTY);
}

bool PZString::Split(SplitList& list, wchar_t sep) const {
    if (HasNoText()) {
        PZ_REPORT_ERROR("no string\n");
        return false;
    }
    if (wide_ == nullptr) {
        const wchar_t text[] = {sep, L'\0'};
        PZString narrow(text);
        return Split(list, narrow.ToCHAR(codePage_));
    }
    return AppendPieces<wchar_t>(list, *wide_, {&sep, 1}, LastPiece::UNLESS_EMPTY);
}

void PZString::DeleteSplitString(SplitList& list) const {
    destroy_elements(list);
}
