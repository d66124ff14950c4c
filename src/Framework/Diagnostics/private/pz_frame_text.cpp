#include "pz_frame_text.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kMaxName = 160;  // the rest of a line of templates helps nobody

std::string_view between(const char* begin, const char* end) {
    return std::string_view(begin, static_cast<size_t>(end - begin));
}

void add_name(PZReportLine& text, std::string_view mangled) {
    PZReportLine name;  // with its terminator
    name.Add(mangled);
    char* const demangled = abi::__cxa_demangle(name.Text(), nullptr, nullptr, nullptr);
    const std::string_view shown = demangled != nullptr ? demangled : name.Text();
    text.Add(std::string_view(shown.data(), std::min(shown.size(), kMaxName)));
    if (shown.size() > kMaxName) text.Add("...");
    std::free(demangled);
}

}  // namespace

void pz_add_frame(PZReportLine& text, int index, const char* symbol) {
    text.Add("#").Add(index).Add(" ");
    const char* const open = std::strrchr(symbol, '(');
    const char* const plus = open != nullptr ? std::strchr(open, '+') : nullptr;
    const char* const close = plus != nullptr ? std::strchr(plus, ')') : nullptr;
    if (close == nullptr) {
        text.Add(symbol);
        return;
    }
    const char* file = open;
    while (file > symbol && file[-1] != '/') --file;
    const std::string_view fileName = between(file, open);
    if (plus == open + 1) {
        text.Add(fileName).Add(between(plus, close));
        return;
    }
    add_name(text, between(open + 1, plus));
    text.Add(between(plus, close)).Add(" ").Add(fileName);
}
