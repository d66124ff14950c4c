#include "Framework/Diagnostics/PZCallStack.h"

#include <execinfo.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <Framework/Diagnostics/PZReport.h>

#include "PZErrnoKeeper.h"
#include "pz_frame_text.h"

namespace {

constexpr int kMaxDumpedFrames = 256;

struct FreeDeleter {
    void operator()(char** lines) const { std::free(lines); }
};

/// One text line per address, in a single block. Null when the memory is exhausted.
using SymbolLines = std::unique_ptr<char*, FreeDeleter>;

SymbolLines translate(void* const* addresses, int count) {
    return SymbolLines(backtrace_symbols(addresses, count));
}

/// What is printed for a frame: `symbol`, or `text` with something shorter when that is asked for.
const char* text_of_frame(int index, const char* symbol, PZReportLine& text) {
    if ((pz_settle_report_way() & PZDbgOutput::en_STYLE_DEMANGLED) == 0) return symbol;
    pz_add_frame(text, index, symbol);
    return text.Text();
}

}  // namespace

// The addresses are read up to the count only, and a whole symbol store would cost more to clear
// than a capture.
// cppcheck-suppress uninitMemberVar
PZCallStack::PZCallStack() : count_(0) {
#if __SIZEOF_POINTER__ == 4
    static_assert(offsetof(PZCallStack, count_) == 0);
    static_assert(offsetof(PZCallStack, addresses_) == 4);
    static_assert(offsetof(PZCallStack, symbols_) == 132);
    static_assert(sizeof(PZCallStack) == 8324);
#endif
    for (auto& symbol : symbols_) symbol[0] = '\0';
}

int PZCallStack::take(int depth, bool withSymbols) {
    if (depth < 1 && depth != -1) return 0;
    const PZErrnoKeeper keeper;
    const int limit = depth == -1 ? kMaxFrames : std::min(depth, kMaxFrames);
    count_ = std::min(backtrace(addresses_, limit), limit);
    if (withSymbols) TakeSymbols();
    return count_;
}

void PZCallStack::assign(void* const* addresses, int count) {
    const PZErrnoKeeper keeper;
    count_ = 0;
    while (addresses != nullptr && count_ < count && count_ < kMaxFrames) {
        addresses_[count_] = addresses[count_];
        ++count_;
    }
    TakeSymbols();
}

void PZCallStack::TakeSymbols() {
    const SymbolLines lines = translate(addresses_, count_);
    for (int i = 0; i < count_; ++i) {
        // Without a translation the slots become empty: they must not describe older frames.
        std::snprintf(symbols_[i], sizeof symbols_[i], "%s", lines ? lines.get()[i] : "");
    }
}

int PZCallStack::size() const noexcept {
    return count_;
}

void* PZCallStack::getAddress(int index) const noexcept {
    if (index < 0 || index >= count_) return nullptr;
    return addresses_[index];
}

const char* PZCallStack::getSymbol(int index) const noexcept {
    if (index < 0 || index >= kMaxFrames) return nullptr;
    return symbols_[index];
}

void PZCallStack::dump() const {
    for (int i = 0; i < count_; ++i) {
        PZReportLine text;
        PZ_REPORT_ERROR("%s\n", text_of_frame(i, symbols_[i], text));
    }
}

void PZCallStack::dumpDirectly(int depth) {
    const PZErrnoKeeper keeper;
    void* addresses[kMaxDumpedFrames];
    const int count = backtrace(addresses, kMaxDumpedFrames);
    const SymbolLines lines = translate(addresses, count);
    if (!lines) return;
    const int printed = depth < 1 || depth > count ? count : depth;
    for (int i = 0; i < printed; ++i) {
        PZReportLine text;
        PZ_REPORT_ERROR("%s\n", text_of_frame(i, lines.get()[i], text));
    }
}
