#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Utility/PZString.h>

#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

// PZString in a process that runs out of memory: every operation, at each of its allocations.

namespace {

// Longer than what a string object holds in itself.
const char kLong[] = "a text that needs memory of its own \xC3\xA9";
const wchar_t kLongWide[] = L"a text that needs memory of its own \u00E9";
const unsigned short kUnits[] = {0x0061, 0x00E9, 0};

/// All that a caller can read of an object, and its list.
struct State {
    std::string narrow;
    std::wstring wide;
    unsigned int bytes;
    unsigned int pieces;

    bool operator==(const State& o) const {
        return narrow == o.narrow && wide == o.wide && bytes == o.bytes && pieces == o.pieces;
    }
};

State state_of(const PZString& text, const PZString::SplitList& list) {
    const char* const narrow = text.RefCHAR();
    const wchar_t* const wide = text.RefWCHAR();
    return {narrow != nullptr ? narrow : "(none)", wide != nullptr ? wide : L"(none)",
            text.LengthByte(), list.GetCount()};
}

/// True: it did what it is for.
using Operation = std::function<bool(PZString& text, PZString::SplitList& list)>;

struct Row {
    const char* name;
    PZString (*make)();
    Operation operation;
};

PZString narrow() {
    return PZString(kLong);
}
PZString wide() {
    return PZString(kLongWide);
}
PZString units() {
    return PZString(kUnits, XCP_UTF16LE);
}
PZString nothing() {
    return PZString();
}

const std::vector<Row>& rows() {
    using List = PZString::SplitList;
    static const std::string text(kLong);
    static const std::wstring wideText(kLongWide);
    static const PZString object(kLong);
    static const PZString wideObject(kLongWide);
    static const PZString unitsObject(kUnits, XCP_UTF16LE);
    static const std::vector<Row> list = {
        {"Copy narrow", wide, [](PZString& s, List&) { return s.Copy(kLong); }},
        {"Copy string", wide, [](PZString& s, List&) { return s.Copy(text); }},
        {"Copy wide", narrow, [](PZString& s, List&) { return s.Copy(kLongWide); }},
        {"Copy wstring", narrow, [](PZString& s, List&) { return s.Copy(wideText); }},
        {"Copy units", narrow, [](PZString& s, List&) { return s.Copy(kUnits, XCP_UTF16BE); }},
        {"Copy object", wide, [](PZString& s, List&) { return s.Copy(object); }},
        {"Copy wide object", narrow, [](PZString& s, List&) { return s.Copy(wideObject); }},
        {"Copy object of units", narrow, [](PZString& s, List&) { return s.Copy(unitsObject); }},
        {"Append", narrow, [](PZString& s, List&) { return s.Append(kLong); }},
        {"Append to wide", wide, [](PZString& s, List&) { return s.Append(kLong); }},
        {"Append to nothing", nothing, [](PZString& s, List&) { return s.Append(kLong); }},
        {"Append wide", wide, [](PZString& s, List&) { return s.Append(kLongWide); }},
        {"Append wide to narrow", narrow, [](PZString& s, List&) { return s.Append(kLongWide); }},
        {"Append object", narrow, [](PZString& s, List&) { return s.Append(object); }},
        {"Append object to wide", wide, [](PZString& s, List&) { return s.Append(object); }},
        {"Append wide object", narrow, [](PZString& s, List&) { return s.Append(wideObject); }},
        {"AppendToHead", narrow, [](PZString& s, List&) { return s.AppendToHead(kLong); }},
        {"AppendToHead of wide", wide, [](PZString& s, List&) { return s.AppendToHead(kLong); }},
        {"AppendToHead wide", wide, [](PZString& s, List&) { return s.AppendToHead(kLongWide); }},
        {"AppendToHead object", wide, [](PZString& s, List&) { return s.AppendToHead(object); }},
        {"ToCHAR", narrow, [](PZString& s, List&) { return s.ToCHAR(XCP_GB18030) != nullptr; }},
        {"ToCHAR of wide", wide, [](PZString& s, List&) { return s.ToCHAR() != nullptr; }},
        {"ToCHAR of units", units, [](PZString& s, List&) { return s.ToCHAR() != nullptr; }},
        {"ToCHAR of empty wide", [] { return PZString(L""); },
         [](PZString& s, List&) { return s.ToCHAR() != nullptr; }},
        {"ToWCHAR", narrow, [](PZString& s, List&) { return s.ToWCHAR() != nullptr; }},
        {"ToWCHAR of empty", [] { return PZString(""); },
         [](PZString& s, List&) { return s.ToWCHAR() != nullptr; }},
        {"ToWCHAR16", narrow,
         [](PZString& s, List&) { return s.ToWCHAR16(XCP_UTF16LE) != nullptr; }},
        {"ToWCHAR16 of empty", [] { return PZString(""); },
         [](PZString& s, List&) { return s.ToWCHAR16(XCP_UTF16LE) != nullptr; }},
        {"IndexOf in wide", wide, [](PZString& s, List&) { return s.IndexOf(kLong) == 0; }},
        {"IndexOf wide", narrow, [](PZString& s, List&) { return s.IndexOf(kLongWide) == 0; }},
        {"Split", narrow, [](PZString& s, List& out) { return s.Split(out, " "); }},
        {"Split at character", narrow, [](PZString& s, List& out) { return s.Split(out, ' '); }},
        {"Split wide", wide, [](PZString& s, List& out) { return s.Split(out, L" "); }},
        {"Split wide at narrow", wide, [](PZString& s, List& out) { return s.Split(out, ' '); }},
        {"Split at wide", narrow, [](PZString& s, List& out) { return s.Split(out, L' '); }},
    };
    return list;
}

/// Refuses every allocation of the row once. Answers how many there are.
int sweep(const Row& row) {
    for (int skip = 0;; ++skip) {
        PZString text = row.make();
        PZString::SplitList list;
        PZString("one").Split(list, ",");  // what was there before stays
        const State before = state_of(text, list);
        pztest::StdoutCapture output;
        bool done = false;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            done = row.operation(text, list);
            refused = shortage.Refused();
        }
        const bool isSame = before == state_of(text, list);
        PZString().DeleteSplitString(list);
        const std::string report = output.Take();
        if (refused == 0) {
            EXPECT_TRUE(done) << row.name;
            EXPECT_EQ("", report) << row.name;
            return skip;
        }
        if (done) continue;  // that allocation makes later texts faster, and no more
        EXPECT_TRUE(isSame) << row.name << " at allocation " << skip;
        EXPECT_EQ(1U, pztest::count_of(report, "failed to allocate memory\n")) << row.name << skip;
    }
}

}  // namespace

TEST(PZStringMemoryTest, AnswersWithAFailureReportedOnceAndChangesNothingWheneverMemoryRunsOut) {
    for (const Row& row : rows()) EXPECT_GE(sweep(row), 1) << row.name;
}

TEST(PZStringMemoryTest, HoldsNothingWhenItWasMadeWithoutMemory) {
    const PZString narrowText(kLong);
    const std::vector<std::function<PZString()>> constructors = {
        [] { return PZString(kLong); }, [] { return PZString(std::string()); },
        [] { return PZString(kLongWide); }, [] { return PZString(kUnits, XCP_UTF16LE); },
        [&narrowText] { return PZString(narrowText); }};
    for (const auto& make : constructors) {
        for (int skip = 0;; ++skip) {
            pztest::StdoutCapture output;
            int refused = 0;
            bool isEmpty = false;
            {
                const pztest::MemoryShortage shortage(skip);
                const PZString text = make();
                refused = shortage.Refused();
                isEmpty = text.RefCHAR() == nullptr && text.RefWCHAR() == nullptr &&
                          text.LengthByte() == 0;
            }
            const std::string report = output.Take();
            if (refused == 0) break;
            EXPECT_TRUE(isEmpty);
            EXPECT_EQ(1U, pztest::count_of(report, "failed to allocate memory\n"));
        }
    }
}

TEST(PZStringMemoryTest, HasNoCodePageWhenItWasMadeOfAStdStringWithoutMemory) {
    const std::string text(kLong);
    const PZString fresh;
    pztest::StdoutCapture output;
    bool isAsFresh = false;
    {
        const pztest::MemoryShortage shortage;
        const PZString made(text);
        isAsFresh = made == fresh;
    }
    EXPECT_TRUE(isAsFresh);
    EXPECT_EQ(1U, pztest::count_of(output.Take(), "[error]"));
}

TEST(PZStringMemoryTest, KeepsItsTextWhenAnAssignmentFindsNoMemory) {
    PZString text("before");
    const PZString other(kLong);
    pztest::StdoutCapture output;
    {
        const pztest::MemoryShortage shortage;
        text = kLong;
        text = kLongWide;
        text = other;
        text += kLong;
    }
    EXPECT_STREQ("before", text.RefCHAR());
    const std::string report = output.Take();
    EXPECT_EQ(4U, pztest::count_of(report, "failed to allocate memory\n"));
    EXPECT_EQ(4U, pztest::count_of(report, " : error\n"));
}

TEST(PZStringMemoryTest, ComparesMeasuresCutsAndDeletesWithoutMemory) {
    PZString text(kLong);
    const PZString same(kLong);
    PZString wideText(kLongWide);
    PZString::SplitList list;
    ASSERT_TRUE(text.Split(list, " "));
    int refused = -1;
    bool isEqual = false;
    unsigned int found = 0;
    unsigned int foundLast = 0;
    {
        const pztest::MemoryShortage shortage;
        isEqual = text == same && text == kLong && !(text < same) && text.IsEqual(kLong);
        found = text.IndexOf("memory");
        foundLast = text.LastIndexOf("own");
        text.SubStr(2, 30);
        wideText.SubStr(2, 30);
        text.DeleteSplitString(list);
        refused = shortage.Refused();
    }
    EXPECT_EQ(0, refused);
    EXPECT_TRUE(isEqual);
    EXPECT_EQ(18U, found);
    EXPECT_EQ(32U, foundLast);
    EXPECT_STREQ("text that needs memory of its", text.RefCHAR());
    EXPECT_STREQ(L"text that needs memory of its", wideText.RefWCHAR());
    EXPECT_EQ(0U, list.GetCount());
}

TEST(PZPListMemoryTest, ThrowsAndStaysAsItWasWhenThereIsNoMemoryForANode) {
    PZPList<int> list;
    int element = 0;
    int thrown = 0;
    for (int i = 0; i < 100; ++i) {
        const unsigned int before = list.GetCount();
        bool hasThrown = false;
        {
            const pztest::MemoryShortage shortage;
            try {
                list.AddTail(&element);
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
        }
        EXPECT_EQ(before + (hasThrown ? 0U : 1U), list.GetCount());
        if (!hasThrown) continue;
        ++thrown;
        list.AddTail(&element);
    }
    EXPECT_GE(thrown, 1);
    EXPECT_EQ(100U, list.GetCount());
}
