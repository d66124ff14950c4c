#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_IDENTITY_RECORD_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_IDENTITY_RECORD_H

/// Stores the process name (cut to 63 characters; null counts as "") and id. Called by
/// pz_FwInitialize only, before any framework thread exists.
void pz_SetIdentity(const char* name, int id);

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_IDENTITY_RECORD_H
