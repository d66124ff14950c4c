#include "TableFinder.h"

#include <elf.h>

#include <cstring>
#include <sstream>

namespace {

constexpr unsigned int kMostHeaders = 64;
constexpr unsigned int kMostDynamic = 256;
constexpr unsigned int kMostInChain = 4096;  // symbols of one hash value

/// The hash of a name in the symbol hash table.
std::uint32_t hash_of(const char* name) {
    std::uint32_t hash = 5381;
    for (; *name != '\0'; ++name) hash = hash * 33 + static_cast<unsigned char>(*name);
    return hash;
}

/// One program or library in the memory of a process. Its records are as wide as its addresses.
template <typename Header, typename Segment, typename Dynamic, typename Symbol, typename Word>
class Image {
public:
    Image(const ProcessMemory& memory, std::uint64_t start) : memory_(memory), start_(start) {}

    std::optional<std::uint64_t> Find(const char* name) {
        if (!FindTables()) return {};
        const auto header = read_as<HashHeader>(memory_, hash_);
        if (!header || header->buckets == 0) return {};
        const std::uint64_t buckets =
            hash_ + sizeof *header + std::uint64_t{header->words} * sizeof(Word);
        const std::uint64_t chains = buckets + std::uint64_t{header->buckets} * 4;
        const std::uint32_t hash = hash_of(name);
        auto index = read_as<std::uint32_t>(memory_, buckets + hash % header->buckets * 4ULL);
        if (!index || *index < header->firstSymbol) return {};
        for (unsigned int step = 0; step < kMostInChain; ++step, ++*index) {
            const auto entry = read_as<std::uint32_t>(
                memory_, chains + (std::uint64_t{*index} - header->firstSymbol) * 4);
            if (!entry) return {};
            if ((*entry | 1) == (hash | 1)) {
                if (const auto address = AddressOf(*index, name)) return address;
            }
            if ((*entry & 1) != 0) return {};
        }
        return {};
    }

private:
    struct HashHeader {
        std::uint32_t buckets;
        std::uint32_t firstSymbol;
        std::uint32_t words;  // of the filter in front of the buckets
        std::uint32_t shift;
    };

    /// Where the image is moved to, and its dynamic section.
    bool FindTables() {
        const auto header = read_as<Header>(memory_, start_);
        if (!header || header->e_phentsize != sizeof(Segment)) return false;
        std::uint64_t dynamic = 0;
        bool hasStart = false;
        for (unsigned int i = 0; i < header->e_phnum && i < kMostHeaders; ++i) {
            const auto segment =
                read_as<Segment>(memory_, start_ + header->e_phoff + i * sizeof(Segment));
            if (!segment) return false;
            if (segment->p_type == PT_LOAD && segment->p_offset == 0) {
                moved_ = start_ - segment->p_vaddr;
                hasStart = true;
            }
            if (segment->p_type == PT_DYNAMIC) dynamic = segment->p_vaddr;
        }
        return hasStart && dynamic != 0 && ReadDynamic(dynamic + moved_);
    }

    bool ReadDynamic(std::uint64_t address) {
        for (unsigned int i = 0; i < kMostDynamic; ++i) {
            const auto entry = read_as<Dynamic>(memory_, address + i * sizeof(Dynamic));
            if (!entry || entry->d_tag == DT_NULL) break;
            if (entry->d_tag == DT_SYMTAB) symbols_ = Placed(entry->d_un.d_ptr);
            if (entry->d_tag == DT_STRTAB) names_ = Placed(entry->d_un.d_ptr);
            if (entry->d_tag == DT_GNU_HASH) hash_ = Placed(entry->d_un.d_ptr);
        }
        return symbols_ != 0 && names_ != 0 && hash_ != 0;
    }

    /// Some loaders store the addresses as they are in the process, some leave those of the file.
    std::uint64_t Placed(std::uint64_t address) const {
        return address < start_ ? address + moved_ : address;
    }

    /// Nothing when the symbol has another name, or is not defined here.
    std::optional<std::uint64_t> AddressOf(std::uint64_t index, const char* name) const {
        const auto symbol = read_as<Symbol>(memory_, symbols_ + index * sizeof(Symbol));
        if (!symbol || symbol->st_shndx == SHN_UNDEF) return {};
        std::string found(std::strlen(name) + 1, '\0');
        if (!memory_.Read(names_ + symbol->st_name, found.data(), found.size())) return {};
        if (std::strcmp(found.c_str(), name) != 0 || found.back() != '\0') return {};
        return moved_ + symbol->st_value;
    }

    const ProcessMemory& memory_;
    const std::uint64_t start_;
    std::uint64_t moved_ = 0;  // from the addresses of the file to those of the process
    std::uint64_t symbols_ = 0;
    std::uint64_t names_ = 0;
    std::uint64_t hash_ = 0;
};

using Image32 = Image<Elf32_Ehdr, Elf32_Phdr, Elf32_Dyn, Elf32_Sym, std::uint32_t>;
using Image64 = Image<Elf64_Ehdr, Elf64_Phdr, Elf64_Dyn, Elf64_Sym, std::uint64_t>;

std::string base_name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool begins_with(const std::string& text, const char* start) {
    return text.compare(0, std::strlen(start), start) == 0;
}

}  // namespace

std::vector<MappedFile> mapped_files(std::istream& maps) {
    std::vector<MappedFile> files;
    for (std::string line; std::getline(maps, line);) {
        // 7f12345000-7f12346000 r--p 00000000 08:01 1234   /usr/lib/x.so
        std::istringstream words(line);
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        std::uint64_t offset = 0;
        char dash = 0;
        std::string rights;
        std::string device;
        std::string inode;
        words >> std::hex >> start >> dash >> end >> rights >> offset >> device >> inode;
        std::string path;
        std::getline(words >> std::ws, path);
        if (offset == 0 && begins_with(path, "/")) files.push_back({start, path});
    }
    return files;
}

std::vector<MappedFile> library_candidates(std::istream& maps, const std::string& program) {
    std::vector<MappedFile> candidates;
    for (MappedFile& file : mapped_files(maps)) {
        if (file.path == program) {
            candidates.insert(candidates.begin(), std::move(file));
        } else if (begins_with(base_name(file.path), "libpzframework")) {
            candidates.push_back(std::move(file));
        }
    }
    return candidates;
}

std::optional<std::uint64_t> find_symbol(const ProcessMemory& memory, std::uint64_t image,
                                         const char* name) {
    struct Identification {
        unsigned char bytes[EI_NIDENT];
    };
    const auto identification = read_as<Identification>(memory, image);
    if (!identification || std::memcmp(identification->bytes, ELFMAG, SELFMAG) != 0) return {};
    switch (identification->bytes[EI_CLASS]) {
        case ELFCLASS32:
            return Image32(memory, image).Find(name);
        case ELFCLASS64:
            return Image64(memory, image).Find(name);
        default:
            return {};
    }
}
