#include "Telegram.h"

#include <vector>

#include <Framework/Utility/PZBinary.h>

namespace {

constexpr unsigned short kMark = 0x5254;  // "RT"
constexpr size_t kMaxText = 64;

// Offsets in a frame.
constexpr unsigned int kSizeAt = 2;
constexpr unsigned int kBodyAt = 6;

}  // namespace

std::string Telegram::Utf8() const {
    constexpr size_t kPerByte = 6;  // asked for by the converter, which needs zeros, too
    std::vector<char> buffer(kPerByte * (text.size() + 1));
    const int length = pz_cp_conv(buffer.data(), static_cast<unsigned int>(buffer.size()), XCP_UTF8,
                                  text.data(), static_cast<unsigned int>(text.size()), charset);
    std::string utf8(buffer.data(), length > 0 ? static_cast<size_t>(length) : 0);
    utf8.erase(utf8.find_last_not_of(' ') + 1);
    return utf8;
}

void Telegram::WriteFrame(PZSerialization::Archive& archive) {
    archive.write(kMark);
    archive.write(*this);  // its size and its bytes
}

bool Telegram::ReadFrame(const void* data, unsigned int size) {
    if (size < kBodyAt || size > kMaxFrame) return false;
    const PZBinary frame(static_cast<const unsigned char*>(data), size);
    if (frame.getUInt16(0, /*swap=*/true) != kMark) return false;
    const PZBinary body = frame.getBinary(kBodyAt, frame.getUInt32(kSizeAt, /*swap=*/true));
    deserialize(body.getBuffer(), body.getSize());
    return IsValid();
}

void Telegram::serialize() {
    archive_.clear();
    archive_.write(static_cast<unsigned char>(kind));
    archive_.write(displayRun);
    archive_.write(frequency);
    archive_.write(static_cast<int>(charset));
    archive_.write(text);
}

void Telegram::deserialize(const unsigned char* data, unsigned int size) {
    archive_.clear();
    archive_.write(data, size);
    // What the bytes do not tell, stays at these.
    unsigned char kindByte = en_KIND_NONE;
    int page = XCP_NONE;
    text.clear();
    archive_.read(kindByte);
    archive_.read(displayRun);
    archive_.read(frequency);
    archive_.read(page);
    archive_.read(text);
    const bool isKnown = kindByte == en_KIND_STATION || kindByte == en_KIND_TEXT;
    kind = isKnown ? static_cast<EN_KIND>(kindByte) : en_KIND_NONE;
    const bool isRadioSet = page >= XCP_RDS && page <= XCP_RBDS_2017;
    charset = isRadioSet ? static_cast<EN_XCP>(page) : XCP_NONE;
}

bool Telegram::IsValid() const {
    return kind != en_KIND_NONE && charset != XCP_NONE && !text.empty() && text.size() <= kMaxText;
}
