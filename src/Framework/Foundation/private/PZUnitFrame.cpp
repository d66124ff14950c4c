#include "Framework/Foundation/PZUnitFrame.h"

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_numbers.h>
#include <Framework/private/pz_uncancelled.h>

namespace {

constexpr long kNotRegistered = -1;

constexpr char kRule[] = "##########################################";

/// Prints the failure between two rules, in the name of the unit's operation.
void report_failure(const char* operation, int line, const char* failure) {
    PZDbgOutput::DbgPrint(__FILE__, operation, line, PZDbgOutput::en_TAG_ERROR,
                          "\n%s\n[PZUnitFrame] %s - %s\n%s\n", kRule, operation, failure, kRule);
}

}  // namespace

PZUnitFrame::PZUnitFrame(int unitId)
    : SID(kNotRegistered), pIMsgBox_(nullptr), pIDispatcher_(nullptr), unitId_(unitId) {}

PZUnitFrame::~PZUnitFrame() {
    const PZUncancelled uncancelled;  // leaving waits for the box's lock
    UnregistMsgBox();
}

int PZUnitFrame::RegistMsgBox(PZIMsgBox* box, PZIDispatcher* dispatcher) {
    if (box == nullptr) {
        report_failure(__func__, __LINE__, "en_ERROR_NO_MSGBOX");
        return en_ERROR_NO_MSGBOX;
    }
    const long sid =
        SID == kNotRegistered ? static_cast<long>(box->Registory(dispatcher)) : kNotRegistered;
    if (sid == kNotRegistered) {
        report_failure(__func__, __LINE__, "en_ERROR_REGIST");
        return en_ERROR_REGIST;
    }
    SID = sid;
    pIMsgBox_ = box;
    pIDispatcher_ = dispatcher;
    return en_SUCCESS;
}

void PZUnitFrame::UnregistMsgBox() {
    if (pIMsgBox_ == nullptr || SID == kNotRegistered) return;
    pIMsgBox_->Unregistory(static_cast<unsigned long>(SID));
    SID = kNotRegistered;
    pIMsgBox_ = nullptr;
}

int PZUnitFrame::SendMsgSelf(unsigned int msgId, EN_MSG_ID priority, const void* buff,
                             unsigned int size) {
    const int registration = CheckRegistration(__func__);
    if (registration != en_SUCCESS) return registration;

    // The box writes into the record; the report shows the caller's buffer.
    PZIMsgBox::ST_PUSH_MSG_DATA msg = {static_cast<unsigned long>(SID), msgId, priority, buff,
                                       size};
    if (pIMsgBox_->PushMsg(msg) != PZIMsgBox::en_POST_OK) {
        PZ_REPORT_ERROR(
            "\n%s\n[PZUnitFrame] SendMsgSelf - en_ERROR_PUSH_MSG unit id[%d] pIMsgBox_[0x%08lx] "
            "pIDispatcher_[0x%08lx] SID[%ld] Priority[%d] MsgID[%d] Buff[0x%08lx] "
            "BuffSize[%d]\n%s\n",
            kRule, unitId_, pz_address_of(pIMsgBox_), pz_address_of(pIDispatcher_), SID,
            static_cast<int>(priority), static_cast<int>(msgId), pz_address_of(buff),
            static_cast<int>(size), kRule);
        return en_ERROR_PUSH_MSG;
    }
    return en_SUCCESS;
}

int PZUnitFrame::SendEvtSelf(unsigned int bits) {
    const int registration = CheckRegistration(__func__);
    if (registration != en_SUCCESS) return registration;

    if (pIMsgBox_->SetEvent(bits, static_cast<unsigned long>(SID)) != PZIMsgBox::en_POST_OK) {
        report_failure(__func__, __LINE__, "en_ERROR_PUSH_EVT");
        return en_ERROR_PUSH_EVT;
    }
    return en_SUCCESS;
}

/// en_SUCCESS when the unit can send; otherwise why not, reported in the name of `operation`.
int PZUnitFrame::CheckRegistration(const char* operation) const {
    if (SID == kNotRegistered) {
        report_failure(operation, __LINE__, "en_ERROR_REGIST");
        PZ_REPORT_ASSERTION();
        return en_ERROR_REGIST;
    }
    if (pIMsgBox_ == nullptr) {
        report_failure(operation, __LINE__, "en_ERROR_NO_MSGBOX");
        PZ_REPORT_ASSERTION();
        return en_ERROR_NO_MSGBOX;
    }
    return en_SUCCESS;
}
