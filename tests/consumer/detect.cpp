// Its exit status is the number of the code page that the standard input is likely written in.

#include <cstdio>

#include <Framework/Wrapper/pz_cp_conv.h>

int main() {
    char text[4096];
    const size_t size = std::fread(text, 1, sizeof text, stdin);
    return pz_cp_detect(text, static_cast<unsigned int>(size), XCP_NONE, 0);
}
