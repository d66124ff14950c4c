#include "common/CodePageNames.h"

#include <iterator>
#include <string>

namespace {

// clang-format off
constexpr CodePageName kPages[] = {
    { XCP_ASCII,        "ASCII"        },
    { XCP_BIG5,         "Big5"         },
    { XCP_CP850,        "CP850"        },
    { XCP_CP874,        "CP874"        },
    { XCP_CP932,        "CP932"        },
    { XCP_CP936,        "CP936"        },
    { XCP_CP949,        "CP949"        },
    { XCP_CP950,        "CP950"        },
    { XCP_CP1252,       "CP1252"       },
    { XCP_CP1253,       "CP1253"       },
    { XCP_CP1254,       "CP1254"       },
    { XCP_EUC_JP,       "EUC-JP"       },
    { XCP_EUC_KR,       "EUC-KR"       },
    { XCP_GB18030,      "GB18030"      },
    { XCP_ISO2022_CN,   "ISO-2022-CN"  },
    { XCP_ISO2022_JP,   "ISO-2022-JP"  },
    { XCP_ISO2022_KR,   "ISO-2022-KR"  },
    { XCP_ISO8859_1,    "ISO-8859-1"   },
    { XCP_ISO8859_2,    "ISO-8859-2"   },
    { XCP_ISO8859_4,    "ISO-8859-4"   },
    { XCP_ISO8859_5,    "ISO-8859-5"   },
    { XCP_ISO8859_6,    "ISO-8859-6"   },
    { XCP_ISO8859_7,    "ISO-8859-7"   },
    { XCP_ISO8859_8,    "ISO-8859-8"   },
    { XCP_ISO8859_9,    "ISO-8859-9"   },
    { XCP_ISO8859_10,   "ISO-8859-10"  },
    { XCP_ISO8859_16,   "ISO-8859-16"  },
    { XCP_KOI8_R,       "KOI8-R"       },
    { XCP_KOI8_U,       "KOI8-U"       },
    { XCP_RBDS_2017,    "RBDS-2017"    },
    { XCP_RDS,          "RDS"          },
    { XCP_RDS_2017,     "RDS-2017"     },
    { XCP_SJIS,         "SJIS"         },
    { XCP_UTF16,        "UTF-16"       },
    { XCP_UTF16BE,      "UTF-16BE"     },
    { XCP_UTF16LE,      "UTF-16LE"     },
    { XCP_UTF8,         "UTF-8"        },
    { XCP_WINDOWS_1250, "windows-1250" },
    { XCP_WINDOWS_1251, "windows-1251" },
    { XCP_WINDOWS_1256, "windows-1256" },
};
// clang-format on

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// The name in the form in which names are compared.
std::string plain_name(const char* name) {
    std::string plain;
    for (const char* c = name; *c != '\0'; ++c) {
        if (*c != '-' && *c != '_') plain += lower(*c);
    }
    return plain;
}

}  // namespace

const std::vector<CodePageName>& code_page_names() {
    static const std::vector<CodePageName> names(std::begin(kPages), std::end(kPages));
    return names;
}

const char* code_page_name(EN_XCP page) {
    for (const CodePageName& row : kPages) {
        if (row.page == page) return row.name;
    }
    return nullptr;
}

EN_XCP code_page_of(const char* name) {
    const std::string wanted = plain_name(name);
    for (const CodePageName& row : kPages) {
        if (plain_name(row.name) == wanted) return row.page;
    }
    return XCP_NONE;
}
