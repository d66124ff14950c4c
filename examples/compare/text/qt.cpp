// Converts Japanese text to UTF-8, and tells what cannot be converted.
#include <cstdio>

#include <QTextCodec>

int main() {
    const QTextCodec* sjis = QTextCodec::codecForName("Shift_JIS");
    std::printf("%s\n", qUtf8Printable(sjis->toUnicode("\x83\x89\x83\x57\x83\x49")));
    const bool valid = !sjis->toUnicode("\x83 ").contains(QChar::ReplacementCharacter);
    if (!valid) std::printf("not valid\n");
}
