// Converts Japanese text to UTF-8, and tells what cannot be converted.
#include <cstdio>

#include <Framework/Easy.h>

int main() {
    std::printf("%s\n", pz::to_utf8("\x83\x89\x83\x57\x83\x49", XCP_SJIS)->c_str());
    if (!pz::to_utf8("\x83 ", XCP_SJIS)) std::printf("not valid\n");
}
