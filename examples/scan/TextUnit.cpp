#include "TextUnit.h"

#include <cstring>

#include "FirstLine.h"
#include "common/CodePageNames.h"

TextUnit::TextUnit(Catalogue& catalogue, BlockPool& pool, ChecksumUnit& checksum, ScanLog& log)
    : catalogue_(catalogue), pool_(pool), checksum_(checksum), log_(log) {}

// At most as many messages are on their way as there are blocks: the box never runs full.
void TextUnit::Take(unsigned int block) {
    SendMsgSelf(en_MSG_BLOCK, en_MSG_NORMAL, &block, sizeof block);
}

void TextUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int) {
    if (MsgID == en_MSG_END) {
        checksum_.TakeEnd();
        return;
    }
    unsigned int number = 0;
    std::memcpy(&number, Buff, sizeof number);
    const Block& block = pool_.At(number);
    if (block.isFirst) Describe(block);
    checksum_.Take(number);
}

void TextUnit::OnReceiveEvent(unsigned int) {}

void TextUnit::Describe(const Block& block) {
    FileRecord& record = catalogue_.At(block.file);
    if (block.size == 0) {
        record.remark = "empty";
    } else {
        const std::string head(reinterpret_cast<const char*>(block.data.data()), block.size);
        record.page = detect_page(record.path, head);
        if (record.page == XCP_NONE) {
            record.remark = "no text";
        } else if (!first_line(head, record.page, record.title)) {
            record.remark = std::string("not valid ") + code_page_name(record.page);
        }
    }
    if (!block.isWhole) record.remark = "huge: only the beginning was read";
    const char* const page = code_page_name(record.page);
    log_.Write("text " + record.path + ": " + (page != nullptr ? page : "no code page") + " " +
               record.title + (record.remark.empty() ? "" : " (" + record.remark + ")"));
}
