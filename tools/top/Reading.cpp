#include "Reading.h"

#include <cerrno>
#include <ctime>
#include <sstream>
#include <utility>

#include "ProcessMemory.h"
#include "TableFinder.h"

namespace {

std::uint64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

/// Why nothing of the process can be read, after a failure.
Look failed_look(const ProcFolder& folder, int error) {
    if (folder.StartTime() == 0 || error == ENOENT || error == ESRCH) return Look::Gone;
    return error == EACCES || error == EPERM ? Look::NotAllowed : Look::Unreadable;
}

void add_facts(const ProcFolder& folder, Reading& reading) {
    reading.tasks = folder.Tasks();
    reading.descriptors = folder.Descriptors();
    reading.descriptorLimit = folder.DescriptorLimit();
    reading.privateBytes = folder.PrivateBytes();
    if (!folder.HasOurQueues()) return;
    for (const QueueInfo& queue : reading.inspection.queues) {
        const auto fill = queue.name ? queue_fill(*queue.name) : std::nullopt;
        if (fill) reading.queueFills[*queue.name] = *fill;
    }
}

Look look_of(ReadResult result) {
    switch (result) {
        case ReadResult::Done:
            return Look::Done;
        case ReadResult::OtherVersion:
            return Look::OtherVersion;
        default:
            return Look::Unreadable;
    }
}

/// Reads the table of one program or library of the process; NoLibrary when it has none.
Look look_into(const ProcFolder& folder, std::uint64_t image, Reading& reading) {
    const LiveMemory memory(folder.Living());
    errno = 0;
    unsigned char first = 0;
    if (!memory.Read(image, &first, sizeof first)) return failed_look(folder, errno);
    const auto table = find_symbol(memory, image, "pz_inspection");
    if (!table) return Look::NoLibrary;
    return look_of(read_inspection(memory, *table, reading.inspection, reading.version));
}

std::size_t records_of(const Inspection& seen) {
    return seen.boxes.size() + seen.bands.size() + seen.threads.size() + seen.queues.size();
}

/// Of two libraries in one process, as a plugin may bring one, that one is shown whose table can be
/// read and holds more; of equals the first.
bool is_better(Look look, const Reading& reading, Look known, const Reading& knownReading) {
    if (look != Look::Done || known != Look::Done) {
        return known == Look::NoLibrary || known == Look::TooWide || look == Look::Done;
    }
    return records_of(reading.inspection) > records_of(knownReading.inspection);
}

}  // namespace

Look read_process(pid_t pid, bool isWhole, Reading& reading) {
    const ProcFolder folder(pid);
    reading = {};
    reading.pid = pid;
    reading.startTime = folder.StartTime();
    if (reading.startTime == 0) return Look::Gone;
    reading.name = folder.Name();

    const auto maps = folder.Maps();
    if (!maps) return failed_look(folder, errno);
    std::istringstream lines(*maps);
    const auto candidates = library_candidates(lines, folder.Program());
    Look look = Look::NoLibrary;
    for (const MappedFile& file : candidates) {
        if (file.address > UINTPTR_MAX) {
            if (&file != &candidates.front()) look = Look::TooWide;  // after the program
            continue;
        }
        Reading other;
        const Look found = look_into(folder, file.address, other);
        if (found == Look::Gone || found == Look::NotAllowed) return found;
        if (found == Look::NoLibrary || !is_better(found, other, look, reading)) continue;
        look = found;
        reading.inspection = std::move(other.inspection);
        reading.version = other.version;
    }
    reading.atNs = now_ns();
    if (look != Look::Done) return look;
    if (reading.inspection.name && !reading.inspection.name->empty()) {
        reading.name = *reading.inspection.name;
    }
    if (isWhole) add_facts(folder, reading);
    // What was read while the process ended may be anything.
    return folder.StartTime() == reading.startTime ? Look::Done : Look::Gone;
}

MachineReading read_machine() {
    MachineReading machine;
    for (const pid_t pid : all_processes()) {
        Reading reading;
        switch (read_process(pid, false, reading)) {
            case Look::Done:
                machine.processes.push_back(std::move(reading));
                break;
            case Look::OtherVersion:
                machine.others.push_back(std::move(reading));
                break;
            case Look::NotAllowed:
                machine.notAllowed.push_back(pid);
                break;
            default:
                break;
        }
    }
    return machine;
}
