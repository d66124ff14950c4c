// The string: holds one form of a text at a time and turns into the one that is asked for.
#include <cstdio>

#include <Framework/Utility/PZString.h>

int main() {
    PZString text(
        "Gr\xC3\xBC\xC3\x9F"
        "e");  // UTF-8
    std::printf("%s: %u characters, %u bytes\n", text.RefCHAR(), text.Length(), text.LengthByte());
    text += ", Welt";
    std::printf("%s: \"Welt\" at byte %u\n", text.RefCHAR(), text.IndexOf("Welt"));

    const wchar_t* const wide = text.ToWCHAR();  // the narrow form is gone now
    if (wide == nullptr || text.RefCHAR() != nullptr) return 1;
    std::printf("wide: %u characters, \"Welt\" at %u\n", text.Length(), text.IndexOf(L"Welt"));
    text.SubStr(7, 10);  // both included
    std::printf("cut: %s\n", text.ToTCHAR());

    // Another code page: one byte for each character.
    PZString latin(
        "\xFC"
        "ber",
        XCP_ISO8859_1);
    std::printf("%u bytes of ISO 8859-1, ", latin.LengthByte());
    std::printf("%s, ", latin.ToTCHAR());
    std::printf("%u bytes of UTF-8\n", latin.LengthByte());

    PZString::SplitList pieces;
    const PZString row("98500;;rock");
    if (!row.Split(pieces, ";")) return 1;
    for (PZString* piece : pieces) std::printf("[%s]", piece->ToTCHAR());
    std::printf("\n");
    row.DeleteSplitString(pieces);
}
