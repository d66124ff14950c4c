#ifndef TWOPROCESS_STATIONS_H
#define TWOPROCESS_STATIONS_H

#include <Framework/Wrapper/pz_cp_conv.h>

/// A station, as the air brings it.
struct Station {
    unsigned int frequency;  ///< in steps of 10 kHz
    EN_XCP charset;          ///< of its name and its texts: one of the radio sets
    const char* name;        ///< 8 bytes, filled up with spaces
    const char* texts[3];    ///< at most 64 bytes each
};

// Bytes of the radio sets are written as numbers; a literal ends where a letter follows that would
// be taken for a digit.
// clang-format off
constexpr Station kStations[] = {
    { 8930, XCP_RDS, "H\x97rfunk ", {
        "Jetzt: Schubert, Die sch\x97ne M\x99llerin",
        "Danach: Gr\x99\x8D" "e f\x99r H\x97rer",
        "Verkehr: A9 M\x99nchen \xAE N\x99rnberg frei" } },
    { 9410, XCP_RDS_2017, "D\xFDwi\x11k  ", {
        "Teraz: Stanis$aw Moniuszko, Prz\x10\xFCniczka",
        "\xECpiewa ch\x86r \x1E" "e\xB6ski",
        "Bilety od 20 \xA9" } },
    { 10190, XCP_RBDS_2017, "Caf\x82 101", {
        "Hoy: {Coraz\x86n} en vivo",
        "Ma\x9A" "ana: entrada 5 \xAB",
        "\x8E" "Buenas noches, Per\x88!" } },
};
// clang-format on

#endif  // TWOPROCESS_STATIONS_H
