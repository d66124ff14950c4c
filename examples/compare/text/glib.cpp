// Converts Japanese text to UTF-8, and tells what cannot be converted.
#include <cstdio>

#include <glib.h>

gchar* to_utf8(const gchar* bytes) {
    return g_convert(bytes, -1, "UTF-8", "SHIFT_JIS", nullptr, nullptr, nullptr);
}

int main() {
    g_autofree gchar* text = to_utf8("\x83\x89\x83\x57\x83\x49");
    std::printf("%s\n", text);
    g_autofree gchar* wrong = to_utf8("\x83 ");
    if (wrong == nullptr) std::printf("not valid\n");
}
