#ifndef PZ_FRAMEWORK_UTILITY_PZSTRING_H
#define PZ_FRAMEWORK_UTILITY_PZSTRING_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <Framework/PZApi.h>
#include <Framework/Utility/PZPList.h>
#include <Framework/Wrapper/pz_cp_conv.h>

namespace PZSerialization {
class Archive;
}

// Operator+ changes its object on purpose; the warning would have a copy.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Weffc++"

/// Text in any code page, which is converted into the form that a caller asks for.
///
/// Holds exactly one form at a time, or none at all, which is not the same as an empty text:
/// - narrow: bytes in a code page; UTF-8 where none is named
/// - wide:   characters of the platform
/// - 16-bit: units in the byte order XCP_UTF16BE or XCP_UTF16LE
/// ToCHAR, ToWCHAR and ToWCHAR16 convert in place: the new form replaces the old one. There is no
/// way between the wide and the 16-bit form, and none between the two byte orders.
///
/// Code page: that of the narrow or the 16-bit form; XCP_NONE when nothing or the wide form is
///            held, except where an operation says otherwise. It is handed to the converters as it
///            is, unchecked.
/// Threads:   one object is used by one thread at a time. Even reading may convert.
/// Ownership: texts are copied in. Returned pointers are the object's and stay valid until it is
///            next changed or converted; do not keep them. The object's own text is a valid
///            argument.
/// Units:     positions and lengths are in bytes, wide characters or 16-bit units of the form that
///            is held, where nothing else is said.
/// Failures:  reported and answered with a result. A failed conversion leaves the form as it was.
///            SubStr alone can throw.
/// Memory:    an operation that runs out of memory reports it and answers as for a bad argument. A
///            constructor makes an object that holds nothing. Copy and Append answer false and
///            change nothing. Reading answers null and keeps the form. IndexOf answers npos, and
///            Split false with the list as it was. Comparing, measuring, SubStr and
///            DeleteSplitString need none.
class PZ_API PZString {
public:
    using EN_CP = EN_XCP;  ///< a code page

    /// What Split fills. The elements are the user's: free them with DeleteSplitString.
    using SplitList = PZPList<PZString, PZAllocator<PZString*>>;

    /// As a result: not found. As an argument: to the end.
    static constexpr unsigned int npos = 0xFFFFFFFF;

    /// Holds nothing.
    PZString();

    /// Holds a copy. Texts convert silently. A null text, or a refused code page of 16-bit text, is
    /// reported: the object holds nothing then. With a code page argument it still has that code
    /// page.
    /// @{
    // NOLINTBEGIN(google-explicit-constructor)
    PZString(const char* s, EN_CP cp = XCP_UTF8);
    PZString(const std::string& s);
    PZString(const wchar_t* s);
    PZString(const std::wstring& s);
    // NOLINTEND(google-explicit-constructor)
    PZString(const unsigned short* s, EN_CP cp);
    PZString(const PZString& o);
    /// @}
    ~PZString();

    /// Frees the text; afterwards the object is as default-constructed.
    void DeleteStr();

    /// Sets the text, which ends at its first zero. False, and nothing changed, for a null text.
    /// @{
    bool Copy(const char* s, EN_CP cp = XCP_UTF8);
    bool Copy(const std::string& s);
    bool Copy(const wchar_t* s);
    bool Copy(const std::wstring& s);
    /// Refuses, reported, every code page but XCP_UTF16BE and XCP_UTF16LE.
    bool Copy(const unsigned short* s, EN_CP cp);
    bool Copy(const PZString& o);
    /// @}

    /// Sets the text as Copy does.
    /// @{
    PZString& operator=(const char* s);
    PZString& operator=(const std::string& s);
    PZString& operator=(const wchar_t* s);
    /// Always refuses, reported, and changes nothing: the byte order is missing. Use Copy.
    PZString& operator=(const unsigned short* s);
    PZString& operator=(const PZString& o);
    /// @}

    /// Adds at the end. Bytes that join a narrow text are taken to be in its code page already;
    /// everything else is converted into the form that is held. Where neither a narrow nor a wide
    /// text is held, the object becomes the argument, and a 16-bit text is lost.
    /// False for a null text and for one that cannot be converted.
    ///
    /// A wide text takes `s` in the object's code page; if that is XCP_NONE, it becomes and stays
    /// XCP_UTF8.
    /// The 16-bit form of a PZString is not added: false.
    /// @{
    PZ_API bool Append(const char* s);
    bool Append(const std::string& s);
    bool Append(const wchar_t* w);
    bool Append(const PZString& o);
    /// @}

    /// The same at the beginning. The text must not be null. A wide text takes bytes as UTF-8, and
    /// the object keeps its code page.
    /// @{
    bool AppendToHead(const char* s);
    bool AppendToHead(const std::string& s);
    bool AppendToHead(const wchar_t* w);
    bool AppendToHead(const PZString& o);
    /// @}

    /// Append, on this object: `a + b` changes `a`, exactly like `a += b`. A failure is reported.
    /// @{
    PZString& operator+(const char* s);
    PZString& operator+(const std::string& s);
    PZString& operator+(const wchar_t* w);
    PZString& operator+(const PZString& o);
    PZString& operator+=(const char* s);
    PZString& operator+=(const std::string& s);
    PZString& operator+=(const wchar_t* w);
    PZString& operator+=(const PZString& o);
    /// @}

    // Reading, with conversion in place. Null when nothing is held, or when it cannot be converted
    // (reported). An empty text changes its form but keeps its code page, except for ToWCHAR16.

    /// The narrow text in `cp`. Wide text converts to every code page, 16-bit text to XCP_UTF8
    /// only. An empty narrow text is returned in whatever code page it has.
    const char* ToCHAR(EN_CP cp = XCP_UTF8);
    /// The narrow text in UTF-8.
    const char* ToTCHAR();
    /// The wide text.
    const wchar_t* ToWCHAR();
    /// The units in the byte order `cp`: XCP_UTF16BE or XCP_UTF16LE.
    const unsigned short* ToWCHAR16(EN_CP cp);

    /// Reading without conversion: null when another form is held.
    /// @{
    const char* RefCHAR() const;
    const wchar_t* RefWCHAR() const;
    /// @}

    /// Order: by unit (bytes are unsigned), then by length. False where the forms differ or the
    /// text is null.
    /// @{
    bool operator<(const PZString& o) const;
    bool operator<(const char* s) const;
    bool operator<(const std::string& s) const;
    bool operator<(const wchar_t* w) const;
    /// @}

    /// Not less: equal texts count as greater, and so do texts that cannot be compared.
    /// @{
    bool operator>(const PZString& o) const { return !(*this < o); }
    bool operator>(const char* s) const { return !(*this < s); }
    bool operator>(const std::string& s) const { return !(*this < s); }
    bool operator>(const wchar_t* w) const { return !(*this < w); }
    /// @}

    /// False when both hold the same form, narrow or wide, with different texts. Otherwise the code
    /// pages alone decide; 16-bit texts are not compared.
    bool operator==(const PZString& o) const;
    /// True when that form is held and equal; never for null.
    /// @{
    bool operator==(const char* s) const;
    bool operator==(const std::string& s) const;
    bool operator==(const wchar_t* w) const;
    /// @}

    /// The opposite of operator==.
    /// @{
    bool operator!=(const PZString& o) const { return !(*this == o); }
    bool operator!=(const char* s) const { return !(*this == s); }
    bool operator!=(const std::string& s) const { return !(*this == s); }
    bool operator!=(const wchar_t* w) const { return !(*this == w); }
    /// @}

    /// As operator==, but an object that holds nothing equals null.
    /// @{
    bool IsEqual(const char* s) const;
    bool IsEqual(const std::string& s) const;
    bool IsEqual(const wchar_t* w) const;
    /// @}
    /// Two narrow texts: equal bytes and code pages. Two wide texts: equal characters. Any other
    /// pair: true when `o` holds neither a narrow nor a wide text, whatever this object holds.
    bool IsEqual(const PZString& o) const;

    /// Characters of a UTF-8 text, wide characters, or 16-bit units; 0 when nothing is held. Other
    /// narrow texts are not counted: reported, 0.
    unsigned int Length() const;

    /// Bytes of the text in the form that is held, terminator not counted.
    unsigned int LengthByte() const;

    /// Bytes that the first `maxChars` characters of the `size` bytes of UTF-8 at `s` take.
    static unsigned int LengthByte(const char* s, unsigned int size, unsigned int maxChars);

    // Position of the first occurrence at or after `start`. npos when there is none, for null and
    // empty texts, and on an object that holds no narrow or wide text.

    /// On a wide text `s` is taken as UTF-8.
    unsigned int IndexOf(const char* s, unsigned int start = 0) const;
    /// On a narrow text `w` is converted into its code page, and the search begins at 0 whatever
    /// `start` says.
    unsigned int IndexOf(const wchar_t* w, unsigned int start = 0) const;
    /// Begins at 0 whatever `start` says.
    unsigned int IndexOf(const std::string& s, unsigned int start = 0) const;
    /// Only between texts of the same form; their code pages are not compared.
    unsigned int IndexOf(const PZString& o, unsigned int start = 0) const;

    /// Byte position of the last occurrence that begins at or before `from`, in a narrow text only
    /// (otherwise reported, npos). The limit of `from`, and its value when it is npos, is Length(),
    /// characters, although it is used as a byte position.
    unsigned int LastIndexOf(const char* s, unsigned int from = npos) const;

    /// Cuts the text down to the units `start` to `end`, both included. Nothing happens when one of
    /// them is not below LengthByte(), or when `end` lies before `start` - 1. npos stands for
    /// LengthByte() - 1. A 16-bit text is not cut: reported.
    ///
    /// Throws std::out_of_range when `start` passes that test and still lies after the end of a
    /// wide text, which has fewer characters than bytes.
    PZString& SubStr(unsigned int start, unsigned int end = npos);

    // Splitting. Appends the pieces to `list`, which is not cleared first, as new objects: narrow
    // ones with XCP_UTF8 whatever the code page of the text, wide ones with XCP_NONE. False for a
    // null separator, when it cannot be converted, and (reported) when neither a narrow nor a wide
    // text is held.

    /// Cuts at every occurrence of `sep` and keeps every piece: an empty one follows a separator at
    /// the end, and an empty text is one empty piece. An empty `sep` does not cut.
    ///
    /// The text must not be wide: the call would never return.
    bool Split(SplitList& list, const char* sep) const;
    /// The same for a wide text. The text must not be narrow: the call would never return.
    bool Split(SplitList& list, const wchar_t* sep) const;

    /// Cuts at every `sep` as lines are read: no piece follows a separator at the end, and an empty
    /// text has none. A wide text is split by the string of `sep`, taken as UTF-8, instead.
    bool Split(SplitList& list, char sep) const;
    /// The same for a wide text. A narrow text is split by the string of `sep`, in its code page.
    bool Split(SplitList& list, wchar_t sep) const;

    /// Destroys the elements that Split made, and empties the list.
    void DeleteSplitString(SplitList& list) const;

private:
    friend class PZSerialization::Archive;  // stores the code page and the form that is held

    enum class End : int { HEAD, TAIL };
    enum class LastPiece : int { ALWAYS, UNLESS_EMPTY };

    /// Append, where the text is not narrow or has no room for `s`.
    bool AppendToAny(const char* s);
    PZ_LOCAL bool Insert(const char* s, EN_CP cpForWide, End end);
    PZ_LOCAL bool Insert(const wchar_t* w, End end);
    PZ_LOCAL bool Insert(const PZString& o, End end);
    /// False for a null text. `more` may lie in `text`.
    template <typename T>
    PZ_LOCAL static bool InsertText(std::basic_string<T>& text, const T* more, End end);
    PZ_LOCAL static std::unique_ptr<PZString> PieceOf(std::string_view text);
    PZ_LOCAL static std::unique_ptr<PZString> PieceOf(std::wstring_view text);
    template <typename T>
    PZ_LOCAL static bool AppendPieces(SplitList& list, std::basic_string_view<T> text,
                                      std::basic_string_view<T> separator, LastPiece lastPiece);
    PZ_LOCAL bool IsWide() const;
    PZ_LOCAL bool HasNoText() const;
    PZ_LOCAL bool ConvertNarrow(EN_CP cp);
    PZ_LOCAL bool MakeNarrow(EN_CP cp);

    EN_CP codePage_;
    std::unique_ptr<std::wstring> wide_;
    std::unique_ptr<std::string> narrow_;
    std::unique_ptr<std::vector<unsigned short>> units_;  // the 16-bit form with its terminator
};

// What fits into the room of a narrow text joins it in the caller's own code: texts are put
// together from many short pieces, and a call costs as much as such a piece.

inline bool PZString::Append(const char* s) {
    if (s == nullptr || narrow_ == nullptr) return AppendToAny(s);
    const std::size_t size = std::char_traits<char>::length(s);
    if (narrow_->capacity() - narrow_->size() < size) return AppendToAny(s);
    narrow_->append(s, size);
    return true;
}

#pragma GCC diagnostic pop

#endif  // PZ_FRAMEWORK_UTILITY_PZSTRING_H
