#include "TextUnit.h"

#include "FirstLine.h"
#include "common/CodePageNames.h"

TextUnit::TextUnit(Catalogue& catalogue, BlockPool& pool, ChecksumUnit& checksum, ScanLog& log)
    : BlockUnit(pool), catalogue_(catalogue), checksum_(checksum), log_(log) {}

void TextUnit::OnBlock(const Block& block, unsigned int number) {
    if (block.isFirst) Describe(block);
    checksum_.Take(number);
}

void TextUnit::OnEnd() {
    checksum_.TakeEnd();
}

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
