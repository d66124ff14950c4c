// The guard: locks anything that can be locked, for a scope.
//
// The door says what happens to it. A scope that is left early gives it back as well.
#include <cstdio>

#include <Framework/Foundation/PZSyncGuard.h>

namespace {

class Door : public PZSyncObjectBase {
public:
    void lock() const override { std::printf("door locked\n"); }
    void unlock() const override { std::printf("door unlocked\n"); }
};

void pass(const Door& door, bool isInvited) {
    const PZSyncGuard guard(door);
    if (!isInvited) return;
    std::printf("a guest is inside\n");
}

}  // namespace

int main() {
    const Door door;
    pass(door, true);
    pass(door, false);
}
