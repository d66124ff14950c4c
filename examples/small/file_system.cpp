// Files and folders: making, searching, copying and removing them.
//
// Works below the current folder and leaves nothing there.
#include <cstdio>
#include <set>
#include <string>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZStorage.h>

namespace {

bool make_file(const char* path) {
    PZStorage file(path, "wb");
    return file.WriteLine("something") == 0;
}

/// A search finds in the order of the file system; the set sorts.
std::set<std::string> found(const char* path, unsigned int filter) {
    std::set<std::string> names;
    PZFileSys search;
    PZFileSys::ST_FIND_DATA entry = {};
    bool isFound = search.FindFirstWithFilter(path, entry, filter, true);
    for (; isFound; isFound = search.FindNextWithFilter(entry, filter, true)) {
        names.insert(entry.name);
    }
    return names;
}

void print_found(const char* path, unsigned int filter) {
    std::printf("%s:", path);
    for (const std::string& name : found(path, filter)) std::printf(" %s", name.c_str());
    std::printf("\n");
}

}  // namespace

int main() {
    if (!PZFileSys::CreateDirectory("music/rock", true)) return 1;
    for (const char* path : {"music/one.mp3", "music/two.mp3", "music/cover.jpg", "music/rock/a"}) {
        if (!make_file(path)) return 1;
    }
    print_found("music", PZFileSys::en_ATTR_FILE);
    print_found("music/*.mp3", PZFileSys::en_ATTR_FILE);
    print_found("music", PZFileSys::en_ATTR_DIRECTORY);

    // Refuses a destination that exists; makes missing folders.
    if (!PZFileSys::Copy("music", "backup/music", true, true)) return 1;
    print_found("backup/music/rock", PZFileSys::en_ATTR_FILE);
    std::printf("bytes: %lld\n", PZStorage::GetSize("backup/music/rock/a"));

    if (!PZFileSys::Delete("music/one.mp3", false)) return 1;
    std::printf("deleted file: %s\n", PZFileSys::IsExist("music/one.mp3") ? "there" : "gone");
    for (const char* path : {"music", "backup"}) PZFileSys::RemoveDirectory(path, true);
    std::printf("removed folder: %s\n", PZFileSys::IsExist("music") ? "there" : "gone");
}
