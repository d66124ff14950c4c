#include <iconv.h>

#include <string>
#include <vector>

#include <Framework/Wrapper/private/pz_iconv_names.h>

#include "Checks.h"
#include "IcuLibrary.h"

namespace {

bool can_convert(const char* to, const char* from) {
    iconv_t converter = iconv_open(to, from);
    if (converter == reinterpret_cast<iconv_t>(-1)) return false;
    iconv_close(converter);
    return true;
}

}  // namespace

Finding check_code_pages(const Machine& machine) {
    // The C library loads its modules into the running process only.
    if (!machine.IsLive()) return skipped("needs the running machine");

    const char* const utf8 = kIconvNames[XCP_UTF8];
    std::vector<std::string> missing;
    unsigned int pages = 0;
    for (int page = 0; page < XCP_RDS; ++page) {  // the radio sets need no module
        const char* const name = kIconvNames[page];
        ++pages;
        if (!can_convert(utf8, name) || !can_convert(name, utf8)) missing.emplace_back(name);
    }
    const std::string of = " of " + std::to_string(pages) + " code pages";
    if (missing.empty()) return green("conversions to and from UTF-8" + of);
    return red(
        "no conversion for " + std::to_string(missing.size()) + of + ": " + first_of(missing),
        "apt-get install -y --reinstall libc6 && iconvconfig");
}

Finding check_icu(const Machine& machine) {
    const IcuLibrary icu = find_icu(machine);
    if (icu.version == 0) {
        return red("no libicui18n.so of version 40 to 99", "apt-get install -y '^libicu[0-9]+$'");
    }
    return green("ICU " + std::to_string(icu.version) + ", " + icu.name);
}
