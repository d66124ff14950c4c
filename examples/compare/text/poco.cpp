// Converts Japanese text to UTF-8, and tells what cannot be converted.
#include <cstdio>

#include <Poco/TextConverter.h>
#include <Poco/UTF8Encoding.h>
#include <Poco/Windows932Encoding.h>

int main() {
    Poco::Windows932Encoding sjis;
    Poco::UTF8Encoding utf8;
    Poco::TextConverter converter(sjis, utf8);
    std::string text;
    converter.convert("\x83\x89\x83\x57\x83\x49", text);
    std::printf("%s\n", text.c_str());
    if (converter.convert("\x83 ", text) != 0) std::printf("not valid\n");
}
