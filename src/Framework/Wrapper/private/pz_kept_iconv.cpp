#include "pz_kept_iconv.h"

#include <pthread.h>

#include <cerrno>
#include <utility>

#include <Framework/private/pz_uncancelled.h>

#include "pz_iconv_names.h"

/// A place where a thread keeps a descriptor.
struct ST_KEPT_ICONV {
    iconv_t converter;  // null: the slot is free
    EN_XCP to;
    EN_XCP from;
    unsigned int lastUse;
};

namespace {

/// Enough for a program that turns texts of one page into another and back, with one more on the
/// way. A descriptor can take 40 KiB once it has seen a long text.
constexpr size_t kKept = 3;

/// What iconv_open answers when it fails.
iconv_t no_converter() {
    return reinterpret_cast<iconv_t>(-1);
}

/// The calling thread's descriptors. Plain memory: it can be used as long as the thread runs, by
/// destructors of other thread-local objects, too.
struct ST_STORE {
    ST_KEPT_ICONV slots[kKept];
    unsigned int uses;
    bool isClosedAtExit;  // the thread's end closes the slots
    bool isOver;          // and has done so: nothing is kept any more
};
thread_local ST_STORE store;

/// Pages whose text means the same wherever it stands. A descriptor remembers the byte order that
/// it met in XCP_UTF16, even after a reset.
constexpr bool is_stateless(EN_XCP page) {
    return page != XCP_UTF16 && page != XCP_ISO2022_JP && page != XCP_ISO2022_KR &&
           page != XCP_ISO2022_CN;
}

/// The slot is free before its descriptor is closed, which may not come back.
void close_slot(ST_KEPT_ICONV& slot) {
    iconv_t converter = std::exchange(slot.converter, nullptr);
    if (converter != nullptr) iconv_close(converter);
}

/// Runs when the thread ends, after the destructors of its thread-local objects.
void close_all(void* ofThread) noexcept {
    const PZUncancelled whole;
    auto* const ended = static_cast<ST_STORE*>(ofThread);
    ended->isOver = true;
    for (ST_KEPT_ICONV& slot : ended->slots) close_slot(slot);
}

pthread_once_t exit_key_once = PTHREAD_ONCE_INIT;
pthread_key_t exit_key;
bool has_exit_key = false;

/// Whether the calling thread may keep descriptors: what it keeps must be closed at its end.
bool can_keep() {
    if (store.isOver) return false;
    if (store.isClosedAtExit) return true;
    pthread_once(&exit_key_once,
                 [] { has_exit_key = pthread_key_create(&exit_key, close_all) == 0; });
    store.isClosedAtExit = has_exit_key && pthread_setspecific(exit_key, &store) == 0;
    return store.isClosedAtExit;
}

bool is_older(const ST_KEPT_ICONV& a, const ST_KEPT_ICONV& b) {
    if ((a.converter == nullptr) != (b.converter == nullptr)) return a.converter == nullptr;
    return store.uses - a.lastUse > store.uses - b.lastUse;
}

/// A free slot, or the one that was not used for the longest time.
ST_KEPT_ICONV& oldest_slot() {
    ST_KEPT_ICONV* oldest = &store.slots[0];
    for (ST_KEPT_ICONV& slot : store.slots) {
        if (is_older(slot, *oldest)) oldest = &slot;
    }
    return *oldest;
}

/// The slot with the thread's descriptor; null when it has none.
ST_KEPT_ICONV* find_kept(EN_XCP to, EN_XCP from) {
    for (ST_KEPT_ICONV& slot : store.slots) {
        if (slot.converter != nullptr && slot.to == to && slot.from == from) return &slot;
    }
    return nullptr;
}

}  // namespace

const char* pz_iconv_name(EN_XCP page) {
    if (page < 0 || page > XCP_NONE) page = XCP_NONE;
    return kIconvNames[page];
}

PZKeptIconv::PZKeptIconv(EN_XCP to, EN_XCP from)
    : to_(to), from_(from), slot_(find_kept(to, from)), converter_(nullptr) {
    if (slot_ != nullptr) {
        converter_ = std::exchange(slot_->converter, nullptr);
        Reset();
    } else {
        converter_ = iconv_open(pz_iconv_name(to), pz_iconv_name(from));
    }
}

PZKeptIconv::~PZKeptIconv() noexcept(false) {
    if (!IsOpen()) return;
    const bool isKept = !hasFailed_ && is_stateless(to_) && is_stateless(from_) && can_keep();
    if (!isKept) {
        Close();
        return;
    }
    // Where it was taken from, unless another text has filled the slot meanwhile.
    ST_KEPT_ICONV& slot = slot_ != nullptr && slot_->converter == nullptr ? *slot_ : oldest_slot();
    ST_KEPT_ICONV replaced =
        std::exchange(slot, {std::exchange(converter_, no_converter()), to_, from_, ++store.uses});
    close_slot(replaced);
}

ST_ICONV_RESULT PZKeptIconv::Convert(char* dst, size_t dstSize, const char* src, size_t srcSize) {
    char* in = const_cast<char*>(src);  // iconv only reads it
    size_t left = dstSize;
    const size_t result = iconv(converter_, &in, &srcSize, &dst, &left);
    const int error = errno;
    if (result == static_cast<size_t>(-1)) hasFailed_ = true;
    return {result, error, dstSize - left};
}

void PZKeptIconv::Reset() {
    iconv(converter_, nullptr, nullptr, nullptr, nullptr);
}

void PZKeptIconv::Close() {
    iconv_close(std::exchange(converter_, no_converter()));
}
