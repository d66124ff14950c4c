// One function, with a frame of another size in each module that is built of it.

namespace {

struct Frame {
    volatile char bytes[PZ_FRAME_SIZE];
};

}  // namespace

extern "C" [[gnu::visibility("default")]] void call_from_module(void (*body)()) {
    Frame frame;
    frame.bytes[0] = 1;
    body();
    frame.bytes[PZ_FRAME_SIZE - 1] = frame.bytes[0];
}
