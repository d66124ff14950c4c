// The archive: values to bytes and back, also those of objects inside it.
#include <cstdio>
#include <string>

#include <Framework/Pattern/PZSerializable.h>

namespace {

class Lamp : public PZSerialization::PZSerializable {
public:
    Lamp(unsigned char level, const char* name) : level_(level), name_(name) {}

    void serialize() override {
        archive_.clear();
        archive_.write(level_);
        archive_.write(name_);
    }
    void deserialize(const unsigned char* data, unsigned int size) override {
        archive_.clear();
        archive_.write(data, size);
        archive_.read(level_);
        archive_.read(name_);
    }

    void Print() const { std::printf("the lamp on the %s: level %d\n", name_.c_str(), level_); }

private:
    unsigned char level_;
    std::string name_;
};

}  // namespace

int main() {
    Lamp lamp(3, "desk");
    PZSerialization::Archive archive;
    archive.write(7);
    archive.write(true);
    archive.write(lamp);

    for (unsigned int i = 0; i < archive.getSize(); ++i) {
        std::printf("%02x%s", archive.getBuff()[i], i + 1 < archive.getSize() ? " " : "\n");
    }

    int number = 0;
    bool isOn = false;
    Lamp copy(0, "");
    archive.read(number);  // in the order in which they were written
    archive.read(isOn);
    archive.read(copy);
    std::printf("%d, %s\n", number, isOn ? "on" : "off");
    copy.Print();
}
