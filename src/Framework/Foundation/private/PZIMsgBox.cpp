#include "Framework/Foundation/PZIMsgBox.h"

#include <cstddef>

#if __SIZEOF_POINTER__ == 4
static_assert(offsetof(PZIMsgBox::ST_PUSH_MSG_DATA, SID) == 0, "record layout");
static_assert(offsetof(PZIMsgBox::ST_PUSH_MSG_DATA, MsgID) == 4, "record layout");
static_assert(offsetof(PZIMsgBox::ST_PUSH_MSG_DATA, Priority) == 8, "record layout");
static_assert(offsetof(PZIMsgBox::ST_PUSH_MSG_DATA, Buff) == 12, "record layout");
static_assert(offsetof(PZIMsgBox::ST_PUSH_MSG_DATA, BuffSize) == 16, "record layout");
static_assert(sizeof(PZIMsgBox::ST_PUSH_MSG_DATA) == 20, "record layout");
#endif

PZIMsgBox::~PZIMsgBox() = default;
