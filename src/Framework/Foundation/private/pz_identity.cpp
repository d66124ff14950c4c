#include "Framework/Foundation/pz_identity.h"

#include <cstring>

#include "../../Diagnostics/private/PZInspection.h"
#include "pz_identity_record.h"

namespace {

struct ST_IDENTITY {
    char name[64];
    int id;
};

ST_IDENTITY identity;  // zero until the process starts the framework

}  // namespace

const char* pz_GetName() {
    return identity.name;
}

unsigned int pz_GetNameLen() {
    return static_cast<unsigned int>(std::strlen(identity.name));
}

int pz_GetId() {
    return identity.id;
}

void pz_SetIdentity(const char* name, int id) {
    const size_t length = name != nullptr ? strnlen(name, sizeof identity.name - 1) : 0;
    // The caller's name may be the stored one: a process that starts again as itself.
    if (length != 0) std::memmove(identity.name, name, length);
    identity.name[length] = '\0';
    identity.id = id;
    pz_inspect_set(pz_inspection.name, identity.name);
    pz_inspect_set(pz_inspection.id, id);
}
