#include "support/Golden.h"

#include <cstdio>
#include <cstdlib>

#include "support/TempDir.h"

namespace pztest {

std::string golden(const std::string& name, const GoldenValues& values) {
    std::string text = read_file(PZ_DATA "/" + name);
    if (text.empty()) {
        std::fprintf(stderr, "there is no text in %s/%s\n", PZ_DATA, name.c_str());
        std::abort();
    }
    for (const auto& [key, value] : values) {
        const std::string place = "{" + key + "}";
        for (size_t at = text.find(place); at != std::string::npos;
             at = text.find(place, at + value.size())) {
            text.replace(at, place.size(), value);
        }
    }
    return text;
}

}  // namespace pztest
