#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZCALLSTACK_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZCALLSTACK_H

#include <Framework/PZApi.h>

/// A snapshot of the calling thread's return addresses, with printable symbol lines on request.
///
/// Threads:   an object belongs to one thread; dumpDirectly may be called from any.
/// Limits:    32 frames in a snapshot, 256 in dumpDirectly; symbol lines are cut to 255
///            characters in a snapshot. An object takes 8 KiB.
/// Frames:    innermost first, the capturing operation itself included.
/// Failures:  without memory for the symbol lines a snapshot has empty ones, and dumpDirectly
///            prints nothing. errno keeps its value.
class PZ_API PZCallStack {
public:
    PZCallStack();

    /// Captures up to `depth` frames (-1 and values above 32: up to 32), and their symbol lines
    /// when `withSymbols` is true. Returns the number of frames; 0, with the earlier snapshot
    /// kept, for a depth of 0 or below -1.
    int take(int depth, bool withSymbols);

    /// Makes the snapshot one of these addresses, at most 32, with their symbol lines: of another
    /// thread's stack, say. A null pointer or a count below 1 leaves it empty.
    void assign(void* const* addresses, int count);

    /// Number of captured frames.
    int size() const noexcept;

    /// Return address of frame `index`; null outside 0 .. size() - 1.
    void* getAddress(int index) const noexcept;

    /// Symbol line of slot `index`, owned by the object; null outside 0 .. 31. Not checked against
    /// size(): a slot keeps its line until symbols are taken for it again, and is empty before.
    const char* getSymbol(int index) const noexcept;

    /// Prints the symbol line of each captured frame as a tagged error line.
    void dump() const;

    /// Captures the current stack and prints its innermost `depth` frames, dumpDirectly itself
    /// first; the whole stack (at most 256 frames) when `depth` is below 1 or above their number.
    static void dumpDirectly(int depth);

private:
    PZ_LOCAL void TakeSymbols();

    static constexpr int kMaxFrames = 32;
    static constexpr int kSymbolSize = 256;

    int count_;
    void* addresses_[kMaxFrames];
    char symbols_[kMaxFrames][kSymbolSize];
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZCALLSTACK_H
