#ifndef TOOLS_TOP_TEXT_H
#define TOOLS_TOP_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

/// The text with every byte that a terminal might obey, or that is no UTF-8, as '?'.
std::string printable(const std::string& text);

/// Characters of a printable text.
std::size_t columns_of(const std::string& text);

/// Filled up with blanks to so many columns.
std::string padded(const std::string& text, std::size_t columns, bool toTheRight);

/// "12.5".
std::string fixed(double value, int digits);

/// "0x7f00".
std::string hex(std::uint64_t value);

/// "950 ms", "1.5 s", "3 min", "2 h".
std::string duration(std::uint32_t ms);

/// "512 B", "3.1 KiB", "2.0 MiB".
std::string bytes(std::uint64_t count);

/// The text as a JSON string; it must be UTF-8.
std::string json_string(const std::string& text);

#endif  // TOOLS_TOP_TEXT_H
