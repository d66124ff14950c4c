#ifndef PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_KEPT_ICONV_H
#define PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_KEPT_ICONV_H

#include <iconv.h>

#include <cstddef>

#include <Framework/Wrapper/pz_cp_conv.h>

/// What one call of iconv did.
struct ST_ICONV_RESULT {
    size_t result;   // of iconv; -1 is a failure
    int error;       // errno after it
    size_t written;  // bytes
};

struct ST_KEPT_ICONV;

/// A descriptor of iconv for one text.
///
/// Each thread keeps the descriptors that it used last, because opening one costs many times what a
/// short text does. Only one that refused nothing is kept, only for pages without shifts and byte
/// order marks, and it is reset before it serves again: a text never sees what the one before it
/// left. They are closed when the thread ends.
///
/// While a descriptor is in use it is nobody else's: a thread that is cancelled meanwhile closes
/// it.
class PZKeptIconv {
public:
    /// Takes the calling thread's, or opens one. See IsOpen.
    PZKeptIconv(EN_XCP to, EN_XCP from);
    /// Keeps or closes it; closing may be a cancellation point.
    ~PZKeptIconv() noexcept(false);

    PZKeptIconv(const PZKeptIconv&) = delete;
    PZKeptIconv& operator=(const PZKeptIconv&) = delete;

    /// False, with the error of iconv_open in errno, when there is none.
    bool IsOpen() const { return converter_ != reinterpret_cast<iconv_t>(-1); }

    /// One call of iconv over the whole text.
    ST_ICONV_RESULT Convert(char* dst, size_t dstSize, const char* src, size_t srcSize);

    /// Forgets the text before: for a second call of Convert.
    void Reset();

    /// Closes it now; it is not kept.
    void Close();

private:
    const EN_XCP to_;
    const EN_XCP from_;
    ST_KEPT_ICONV* const slot_;  // of the thread, where it was kept; null: it was opened
    iconv_t converter_;
    bool hasFailed_ = false;  // it refused a text
};

/// The page's name for iconv_open; any other number has that of XCP_NONE.
const char* pz_iconv_name(EN_XCP page);

#endif  // PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_KEPT_ICONV_H
