#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "support/FuzzInput.h"
#include "support/fuzz_check.h"
#include "top/InspectionReader.h"
#include "top/Json.h"
#include "top/ProcessMemory.h"
#include "top/Table.h"
#include "top/TableFinder.h"
#include "top/Text.h"
#include "top/View.h"

// The reader of pz-top, on the memory of a process that may hold anything.
//
// Input: options (1: the memory repeats itself for ever, 2: it changes while it is read), memory.

namespace {

using namespace pzfuzz;  // NOLINT(google-build-using-namespace)

constexpr std::uint64_t kBase = 0x10000;
constexpr int kMostReads = 100000;

class FuzzMemory : public ProcessMemory {
public:
    FuzzMemory(bool repeats, bool changes, std::string bytes)
        : repeats_(repeats), changes_(changes), bytes_(std::move(bytes)) {}

    bool Read(std::uint64_t address, void* to, std::size_t size) const override {
        fuzz_check(++reads_ < kMostReads, "does not come to an end");
        const std::uint64_t start = address - kBase;
        if (bytes_.empty() || address < kBase) return false;
        if (!repeats_ && (start > bytes_.size() || bytes_.size() - start < size)) return false;
        for (std::size_t i = 0; i < size; ++i) {
            static_cast<char*>(to)[i] =
                bytes_[static_cast<std::size_t>((start + i) % bytes_.size())];
        }
        if (changes_) ++bytes_[static_cast<std::size_t>(reads_) * 7 % bytes_.size()];
        return true;
    }

private:
    const bool repeats_;
    const bool changes_;
    mutable std::string bytes_;
    mutable int reads_ = 0;
};

void check_text(const std::vector<Line>& lines) {
    for (const Line& line : lines) {
        fuzz_check(printable(line.text) == line.text, "a terminal would obey this");
    }
}

void check_shown(const Inspection& seen, std::uint32_t version) {
    Reading reading;
    reading.inspection = seen;
    reading.version = version;
    reading.name = seen.name.value_or("?");
    reading.tasks = {{1, 1, "task", 'S', 0, 0}};
    ProcessView view = view_of(&reading, reading);
    sort_threads(view, SortKey::Pending);
    check_text(table_of(view));
    json_of(view);

    MachineReading machine;
    machine.processes.push_back(reading);
    const auto rows = rows_of(&machine, machine);
    check_text(table_of(rows, 0));
    json_of(rows, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const uint8_t options = input.Byte();
    const std::string bytes = input.Rest();

    const FuzzMemory image((options & 1) != 0, (options & 2) != 0, bytes);
    find_symbol(image, kBase, "pz_inspection");

    const FuzzMemory memory((options & 1) != 0, (options & 2) != 0, bytes);
    Inspection seen;
    std::uint32_t version = 0;
    if (read_inspection(memory, kBase, seen, version) == ReadResult::Done) {
        check_shown(seen, version);
    }

    std::istringstream maps(bytes);
    library_candidates(maps, "/program");
    fuzz_check(printable(printable(bytes)) == printable(bytes), "prints what it should not");
    return 0;
}
