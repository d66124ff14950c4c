// Starts the library under a name, and ends it with the scope.
#include <cstdio>

#include <Framework/Easy.h>

int main() {
    pz::Framework fw("radio", 1);
    if (!fw) return 1;
    std::printf("%s runs\n", fw.name());
}
