#ifndef TWOPROCESS_TELEGRAM_H
#define TWOPROCESS_TELEGRAM_H

#include <string>

#include <Framework/Pattern/PZSerializable.h>
#include <Framework/Wrapper/pz_cp_conv.h>

/// One message from the tuner to the display.
///
/// On the queue it is a frame: two bytes that tell it from messages of other programs, the number
/// of the bytes that follow (32 bits), and these. What comes behind them does not count: a queue
/// appends a few bytes of its own.
class Telegram : public PZSerialization::PZSerializable {
public:
    enum EN_KIND : unsigned char {
        en_KIND_NONE = 0,
        en_KIND_STATION = 1,  ///< another station is on; the text is its name
        en_KIND_TEXT = 2      ///< a radio text of the station
    };

    static constexpr unsigned int kMaxFrame = 256;  ///< what a message box takes

    EN_KIND kind = en_KIND_NONE;
    unsigned int displayRun = 0;  ///< the start of the display for which it is meant
    unsigned int frequency = 0;   ///< of the station, in steps of 10 kHz
    EN_XCP charset = XCP_NONE;    ///< of the text: one of the radio sets
    std::string text;             ///< its bytes as the air brings them, at most 64

    /// The text in UTF-8, without the spaces at its end.
    std::string Utf8() const;

    /// Appends the frame to an empty archive.
    void WriteFrame(PZSerialization::Archive& archive);

    /// False, with the fields in any state, for bytes that are no frame of a telegram.
    bool ReadFrame(const void* data, unsigned int size);

private:
    void serialize() override;
    void deserialize(const unsigned char* data, unsigned int size) override;
    bool IsValid() const;
};

#endif  // TWOPROCESS_TELEGRAM_H
