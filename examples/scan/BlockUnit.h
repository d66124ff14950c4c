#ifndef SCAN_BLOCKUNIT_H
#define SCAN_BLOCKUNIT_H

#include <Framework/Foundation/PZUnitFrame.h>

#include "BlockPool.h"

/// A unit that blocks come to, by their numbers in the pool, one after the other.
///
/// Its handlers run on its worker; what is public may be called from any thread.
class BlockUnit : public PZUnitFrame, protected PZIDispatcher {
public:
    explicit BlockUnit(BlockPool& pool) : pool_(pool) {}

    /// At most as many messages are on their way as there are blocks: the box never runs full.
    void Take(unsigned int number);

    /// There are no more blocks.
    void TakeEnd();

private:
    enum EN_MSG : unsigned int { en_MSG_BLOCK, en_MSG_END };

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int /*bits*/) override {}

    virtual void OnBlock(const Block& block, unsigned int number) = 0;
    virtual void OnEnd() = 0;

    BlockPool& pool_;
};

#endif  // SCAN_BLOCKUNIT_H
