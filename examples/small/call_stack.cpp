// The call stack: return addresses of the calling thread, with symbol lines on request.
#include <cstdio>

#include <Framework/Diagnostics/PZCallStack.h>

int main() {
    PZCallStack stack;
    std::printf("one frame asked for: %d\n", stack.take(1, false));
    std::printf("its address: %s\n", stack.getAddress(0) != nullptr ? "known" : "none");
    std::printf("a second one: %s\n", stack.getAddress(1) != nullptr ? "known" : "none");
    std::printf("its symbol line: %s\n", stack.getSymbol(0)[0] != '\0' ? "there" : "not asked for");

    const int frames = stack.take(-1, true);  // as many as there are, 32 at most
    std::printf("all of them: %s\n", frames > 1 && frames == stack.size() ? "several" : "too few");
    std::printf("symbol line of the first: %s\n",
                stack.getSymbol(0)[0] != '\0' ? "there" : "empty");
    // dump() prints the lines as errors; dumpDirectly(-1) does so without an object.
}
