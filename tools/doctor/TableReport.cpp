#include <algorithm>
#include <cstdio>
#include <string>

#include "Report.h"
#include "common/Words.h"

namespace {

constexpr int kStatusWidth = 8;
constexpr int kNameWidth = 20;
constexpr char kBelow[] = "                            ";  // both widths
static_assert(sizeof kBelow == kStatusWidth + kNameWidth + 1, "kBelow leads to the third column");

// Green, yellow, red, faint.
constexpr Words<Status, Status::Skipped> kColours = {"\033[32m", "\033[33m", "\033[31m", "\033[2m"};

std::string padded(const std::string& text, int width) {
    const auto columns = static_cast<size_t>(width);
    return text + std::string(columns > text.size() ? columns - text.size() : 1, ' ');
}

std::string row(const Result& result, bool asksRoot, bool colours) {
    const Finding& finding = result.finding;
    std::string status = padded(status_name(finding.status), kStatusWidth);
    if (colours) status = kColours[finding.status] + status + "\033[0m";
    std::string text = status + padded(result.name, kNameWidth) + finding.found + "\n";
    if (finding.repair.empty()) return text;
    text += kBelow + std::string("why:    ") + result.why + "\n";
    text += kBelow + std::string("repair: ");
    if (asksRoot && !finding.byThisUser) text += "ask root: ";
    return text + finding.repair + "\n";
}

}  // namespace

unsigned int count(const Report& report, Status status) {
    return static_cast<unsigned int>(
        std::count_if(report.results.begin(), report.results.end(),
                      [status](const Result& r) { return r.finding.status == status; }));
}

int exit_status(const Report& report) {
    constexpr unsigned int kHighest = 125;  // the numbers above are the shell's
    return static_cast<int>(std::min(count(report, Status::Red), kHighest));
}

std::string table_text(const Report& report, bool colours) {
    std::string text = "pz-doctor " + report.version + ", ";
    text += report.root.empty() ? "this machine" : "the files under " + report.root;
    text += "\n\n";
    for (const Result& result : report.results) text += row(result, report.asksRoot, colours);
    char sum[128];
    std::snprintf(sum, sizeof sum, "\n%zu checks: %u green, %u yellow, %u red, %u skipped\n",
                  report.results.size(), count(report, Status::Green),
                  count(report, Status::Yellow), count(report, Status::Red),
                  count(report, Status::Skipped));
    return text + sum;
}
