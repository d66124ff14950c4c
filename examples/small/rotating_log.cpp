// The rotating log: every Open begins an empty file and keeps the one before as a generation.
//
// Works in the current folder and leaves nothing there. Each step of a shift that finds no file
// prints a message, so the files are there from the beginning.
#include <cstdio>
#include <initializer_list>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Utility/PZLSysFileOut.h>

namespace {

constexpr const char* kNewest = "app_0.txt";
constexpr const char* kOlder = "app_1.txt";

bool log_a_run(int number) {
    // One older generation; no maximum size.
    PZLSysFileOut log(L".", L"app", L"txt", false, 0, 1);
    if (!log.Open()) return false;
    log.FWrite("run %d\n", number);
    log.Close();
    return true;
}

void print_first_line(const char* path) {
    PZStorage file(path, "rb");
    char line[64] = "empty\n";
    if (file.ReadLine(line, sizeof line) == 1) return;
    std::printf("%s: %s", path, line);
}

}  // namespace

int main() {
    for (const char* path : {kNewest, kOlder}) PZStorage(path, "wb").Close();
    for (int number = 1; number <= 3; ++number) {
        if (!log_a_run(number)) return 1;
        print_first_line(kNewest);
        print_first_line(kOlder);
    }
    return PZFileSys::Delete(kNewest, false) && PZFileSys::Delete(kOlder, false) ? 0 : 1;
}
