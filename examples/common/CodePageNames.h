#ifndef EXAMPLES_CODEPAGENAMES_H
#define EXAMPLES_CODEPAGENAMES_H

#include <vector>

#include <Framework/Wrapper/pz_cp_conv.h>

/// A code page and the name that people write.
struct CodePageName {
    EN_XCP page;
    const char* name;
};

/// Every code page once, by name.
const std::vector<CodePageName>& code_page_names();

/// Null for a page that is not in the list.
const char* code_page_name(EN_XCP page);

/// Upper and lower case, '-' and '_' make no difference. XCP_NONE for a name that is not in the
/// list.
EN_XCP code_page_of(const char* name);

#endif  // EXAMPLES_CODEPAGENAMES_H
