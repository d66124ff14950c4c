#include <cstring>
#include <string>
#include <utility>

#include <Framework/Pattern/PZSerializable.h>

#include "support/FuzzInput.h"
#include "support/fuzz_check.h"

// Every read of the archive over bytes that nobody wrote, beside a plain reader of the same bytes.
//
// Input: number of operations, one byte for each (some take further ones), the archive's bytes.

namespace {

using namespace pzfuzz;  // NOLINT(google-build-using-namespace)
using PZSerialization::Archive;
using PZSerialization::PZSerializable;

/// What an archive has to do: the same bytes, read one after the other.
class Model {
public:
    explicit Model(std::string bytes) : bytes_(std::move(bytes)) {}

    size_t Size() const { return bytes_.size(); }
    size_t Position() const { return position_; }
    void MoveTo(size_t position) { position_ = position; }
    std::string Rest() const { return bytes_.substr(position_); }

    /// The next `size` bytes. False, and at the end, when fewer are left.
    bool Take(unsigned long long size, std::string& taken) {
        if (size > bytes_.size() - position_) {
            position_ = bytes_.size();
            return false;
        }
        taken = bytes_.substr(position_, static_cast<size_t>(size));
        position_ += taken.size();
        return true;
    }

    /// The next bytes as a number, most significant byte first.
    bool TakeNumber(size_t size, unsigned long long& number) {
        std::string taken;
        if (!Take(size, taken)) return false;
        number = 0;
        for (const char byte : taken) number = number * 256 + static_cast<unsigned char>(byte);
        return true;
    }

    /// The next 32-bit number of units, and these.
    bool TakeUnits(size_t unitSize, std::string& units) {
        unsigned long long count = 0;
        return TakeNumber(4, count) && Take(count * unitSize, units);
    }

private:
    const std::string bytes_;
    size_t position_ = 0;
};

/// Reads its block as an archive of its own, and in it further objects.
class Nested : public PZSerializable {
public:
    explicit Nested(unsigned int depth = 0) : depth_(depth) {}

    void serialize() override {}

    void deserialize(const unsigned char* data, unsigned int size) override {
        ++calls;
        block.assign(reinterpret_cast<const char*>(data), size);
        archive_.clear();
        archive_.write(data, size);
        std::string text;
        int number = 0;
        archive_.read(text);
        archive_.read(number);
        if (depth_ >= kMaxDepth) return;
        Nested inner(depth_ + 1);
        archive_.read(&inner);
        fuzz_check(inner.block.size() <= size, "an object larger than the one around it");
    }

    unsigned int calls = 0;
    std::string block;

private:
    static constexpr unsigned int kMaxDepth = 5;
    const unsigned int depth_;
};

class Reader {
public:
    Reader(const std::string& bytes, FuzzInput& choices) : model_(bytes), choices_(choices) {
        archive_.write(bytes.data(), static_cast<unsigned int>(bytes.size()));
    }

    void Run(unsigned int operation) {
        switch (operation % 18) {
            // clang-format off
            case 0:  Bool(); break;
            case 1:  Integer<signed char>(); break;
            case 2:  Integer<unsigned char>(); break;
            case 3:  Integer<short>(); break;
            case 4:  Integer<unsigned short>(); break;
            case 5:  Integer<int>(); break;
            case 6:  Integer<unsigned int>(); break;
            case 7:  Integer<long long>(); break;
            case 8:  Integer<unsigned long long>(); break;
            case 9:  FloatingPoint<float>(); break;
            case 10: FloatingPoint<double>(); break;
            case 11: Block(); break;
            case 12: NarrowText(); break;
            case 13: WideText(); break;
            case 14: StringObject(); break;
            case 15: Object(false); break;
            case 16: Object(true); break;
            default: Seek(); break;
                // clang-format on
        }
        const bool atEnd = model_.Position() == model_.Size();
        fuzz_check(archive_.seek(0, Archive::en_SEEK_CURRENT) != atEnd, "at the wrong place");
    }

    /// The bytes that are left show where reading stopped.
    void CheckRest() {
        const std::string expected = model_.Rest();
        std::string rest(expected.size(), '\0');
        archive_.read(&rest[0], static_cast<unsigned int>(rest.size()));
        fuzz_check(rest == expected, "reading stopped at another byte");
    }

private:
    void Bool() {
        unsigned long long byte = 0;
        const bool before = (model_.Size() & 1U) != 0;
        bool value = before;
        const bool found = model_.TakeNumber(1, byte);
        archive_.read(value);
        fuzz_check(value == (found && byte <= 1 ? byte == 1 : before), "a wrong bool");
    }

    template <typename T>
    void Integer() {
        unsigned long long expected = 77;
        model_.TakeNumber(sizeof(T), expected);
        T value = 77;
        archive_.read(value);
        fuzz_check(value == static_cast<T>(expected), "a wrong integer");
    }

    template <typename T>
    void FloatingPoint() {
        T value = 77;
        const auto bytes = [&value] {
            return std::string(reinterpret_cast<const char*>(&value), sizeof value);
        };
        std::string expected = bytes();
        model_.Take(sizeof value, expected);
        archive_.read(value);
        fuzz_check(bytes() == expected, "a wrong value");
    }

    void Block() {
        std::string block(choices_.Byte(), 'x');
        std::string expected = block;
        model_.Take(block.size(), expected);
        archive_.read(&block[0], static_cast<unsigned int>(block.size()));
        fuzz_check(block == expected, "a wrong block");
    }

    template <typename Text>
    static Text CutAtZero(const Text& text) {
        return text.substr(0, text.find(typename Text::value_type{0}));
    }

    void NarrowText() {
        std::string expected = "old";
        model_.TakeUnits(1, expected);
        std::string text = "old";
        archive_.read(text);
        fuzz_check(text == CutAtZero(expected), "a wrong text");
    }

    static std::wstring WideOf(const std::string& units) {
        std::wstring text(units.size() / sizeof(wchar_t), L'\0');
        if (!text.empty()) std::memcpy(&text[0], units.data(), units.size());
        return CutAtZero(text);
    }

    void WideText() {
        std::string units;
        const bool found = model_.TakeUnits(sizeof(wchar_t), units);
        std::wstring text = L"old";
        archive_.read(text);
        fuzz_check(text == (found ? WideOf(units) : L"old"), "a wrong wide text");
    }

    void StringObject() {
        PZString text("old");
        archive_.read(text);

        unsigned long long codePage = 0;
        unsigned long long form = 2;
        std::string units;
        const bool tagged = model_.TakeNumber(4, codePage) && model_.TakeNumber(4, form);
        if (tagged && form == 0 && model_.TakeUnits(1, units)) {
            fuzz_check(text.RefCHAR() != nullptr && CutAtZero(units) == text.RefCHAR(),
                       "a wrong narrow text");
        } else if (tagged && form == 1 && model_.TakeUnits(sizeof(wchar_t), units)) {
            fuzz_check(text.RefWCHAR() != nullptr && WideOf(units) == text.RefWCHAR(),
                       "a wrong wide text");
        } else {
            fuzz_check(text.RefCHAR() != nullptr && std::string("old") == text.RefCHAR(),
                       "a text out of nothing");
        }
    }

    void Object(bool byPointer) {
        std::string block;
        const bool found = model_.TakeUnits(1, block);
        Nested object;
        if (byPointer) {
            archive_.read(&object);
        } else {
            archive_.read(object);
        }
        fuzz_check(object.calls == (found ? 1U : 0U), "an object without its bytes");
        fuzz_check(object.block == block, "an object with other bytes");
    }

    void Seek() {
        const unsigned int from = choices_.Byte() % 4;
        unsigned int offset = choices_.Byte();
        if (offset >= 0xF0) offset |= 0xFFFFFF00U;  // close to 2^32
        const size_t size = model_.Size();
        const unsigned long long forward = model_.Position() + 0ULL + offset;

        bool expected = false;
        if (from == 0 && offset < size) {
            expected = true;
            model_.MoveTo(offset);
        } else if (from == 1 && forward < size) {
            expected = true;
            model_.MoveTo(static_cast<size_t>(forward));
        } else if (from == 2 && offset < size) {
            expected = true;
            model_.MoveTo(size - offset);
        }
        fuzz_check(archive_.seek(offset, static_cast<Archive::SEEK_OPT>(from)) == expected,
                   "a wrong answer of seek");
    }

    Archive archive_;
    Model model_;
    FuzzInput& choices_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxOperations = 64;
    FuzzInput input(data, size);
    const std::string operations = input.Bytes(input.Byte() % kMaxOperations);
    FuzzInput choices(reinterpret_cast<const uint8_t*>(operations.data()), operations.size());
    Reader reader(input.Rest(), choices);
    while (!choices.IsEmpty()) reader.Run(choices.Byte());
    reader.CheckRest();
    return 0;
}
