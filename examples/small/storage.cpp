// Buffered files whose data reach the medium in Flush and Close.
//
// Makes and removes a file in the current folder.
#include <cstdio>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZStorage.h>

namespace {

constexpr char kFile[] = "storage.txt";

}  // namespace

int main() {
    PZStorage file(kFile, "wb+");
    if (!file.IsOpen()) return 1;
    if (file.WriteLine("volume=5") != 0 || file.WriteLine("station=98500\n") != 0) return 1;
    if (file.Flush() != 0) return 1;  // from here on a loss of power does no harm
    std::printf("size %lld, position %lld\n", file.GetSize(), file.GetCurPos());

    // Between writing and reading the position has to be set.
    if (file.Seek(0, PZStorage::en_POS_BEGIN) != 0) return 1;
    char line[64];
    while (file.ReadLine(line, sizeof line) == 0) std::printf("%s", line);
    std::printf("end of file: %s\n", file.IsEndOfFile() ? "yes" : "no");

    char word[8] = {};
    if (file.Seek(-6, PZStorage::en_POS_END) != 0) return 1;
    std::printf("read %lld bytes: %s\n", file.Read(word, 5), word);
    file.Close();
    std::printf("closed: %lld bytes read\n", file.Read(word, 5));
    return PZFileSys::Delete(kFile, false) ? 0 : 1;
}
