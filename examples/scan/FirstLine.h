#ifndef SCAN_FIRSTLINE_H
#define SCAN_FIRSTLINE_H

#include <string>

#include <Framework/Wrapper/pz_cp_conv.h>

/// The code page of a text that begins with `head`; XCP_NONE when that is no text, or not one that
/// is recognised. Radio text is known by the set in the file's name, "capture.RDS-2017.bin".
EN_XCP detect_page(const std::string& path, const std::string& head);

/// The first line of `head` that is not blank, in UTF-8, shortened to 60 characters, control
/// characters left out; "" when there is none. False when a line is no text of that page.
bool first_line(const std::string& head, EN_XCP page, std::string& title);

/// Bytes for a terminal: a name in UTF-8 as it is, in another one every byte that is not ASCII as
/// "\xE4".
std::string printable(const std::string& bytes);

#endif  // SCAN_FIRSTLINE_H
