#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/ElfFile.h"
#include "support/RunCommand.h"

namespace {

bool begins_with(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

/// The list of public names: what must be exported, and what may be.
struct PublicNames {
    std::set<std::string> required;
    std::set<std::string> allowed;
};

PublicNames public_names() {
    const std::string kInline = "inline ";
    std::ifstream list(PZ_PUBLIC_SYMBOLS);
    PublicNames names;
    for (std::string line; std::getline(list, line);) {
        if (line.empty() || line[0] == '#') continue;
        const bool isInline = begins_with(line, kInline);
        const std::string name = isInline ? line.substr(kInline.size()) : line;
        names.allowed.insert(name);
        if (!isInline) names.required.insert(name);
    }
    return names;
}

/// What the dynamic symbol table defines. Tables of a class (vtable, type information) count as
/// the class; functions lose their parameters.
void read_symbols(std::set<std::string>& members, std::set<std::string>& classes) {
    std::istringstream lines(pztest::run_command("nm -DC --defined-only " PZ_LIBRARY).output);
    for (std::string line; std::getline(lines, line);) {
        const size_t kind = line.find(' ');
        std::string name = line.substr(kind + 3);
        for (const char* table :
             {"vtable for ", "typeinfo for ", "typeinfo name for ", "VTT for "}) {
            if (begins_with(name, table)) {
                classes.insert(name.substr(std::string(table).size()));
                name.clear();
            }
        }
        for (const char* prefix : {"guard variable for ", "non-virtual thunk to "}) {
            if (begins_with(name, prefix)) name = name.substr(std::string(prefix).size());
        }
        if (!name.empty()) members.insert(name.substr(0, name.find('(')));
    }
}

}  // namespace

TEST(exportedSymbolsTest, EveryExportedNameIsPublic) {
    const std::set<std::string> known = public_names().allowed;
    std::set<std::string> members;
    std::set<std::string> classes;
    read_symbols(members, classes);
    ASSERT_FALSE(members.empty());
    for (const std::string& member : members) {
        EXPECT_EQ(1U, known.count(member)) << member << " is exported and not public";
    }
    for (const std::string& name : classes) {
        const auto first = known.lower_bound(name + "::");
        EXPECT_TRUE(first != known.end() && begins_with(*first, name + "::"))
            << "the class " << name << " is exported and not public";
    }
}

TEST(exportedSymbolsTest, EveryPublicNameIsExported) {
    std::set<std::string> members;
    std::set<std::string> classes;
    read_symbols(members, classes);
    for (const std::string& name : public_names().required) {
        EXPECT_EQ(1U, members.count(name)) << name << " is not exported";
    }
}

// The loader keeps those of a process in a table; beyond 23 of them it takes 8 KiB and more.
TEST(exportedSymbolsTest, NoNameIsUniqueInTheWholeProcess) {
    std::istringstream lines(pztest::run_command("nm -D --defined-only " PZ_LIBRARY).output);
    int functions = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::string kind = line.substr(line.find(' ') + 1, 1);
        EXPECT_NE("u", kind) << line;
        if (kind == "T") ++functions;
    }
    EXPECT_NE(0, functions);
}

#ifdef PZ_NEEDED_SYMBOLS
namespace {

/// The names that `names` has and `others` has not, each with a blank before it.
std::string only_in(const std::set<std::string>& names, const std::set<std::string>& others) {
    std::string only;
    for (const std::string& name : names) {
        if (others.count(name) == 0) only += ' ' + name;
    }
    return only;
}

}  // namespace

TEST(exportedSymbolsTest, WhatItTakesFromTheCLibraryIsListed) {
    std::istringstream lines(
        pztest::run_command("nm -D --undefined-only --without-symbol-versions " PZ_LIBRARY).output);
    std::set<std::string> taken;
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(line.find_last_of(' ') + 1);
        if (name[0] != '_') taken.insert(name);
    }
    ASSERT_FALSE(taken.empty());
    std::set<std::string> listed = pztest::read_list(PZ_NEEDED_SYMBOLS);
#ifndef __x86_64__
    listed.erase("dl_iterate_phdr");  // for the call stacks of the accounted heap, there only
#endif
#ifdef __arm__
    listed.insert("getauxval");  // for the processor's CRC-32 instruction
    listed.insert("wmemcpy");    // a call of its own, there only
#endif
    EXPECT_EQ("", only_in(taken, listed)) << "abi/undefined.txt does not list it";
    EXPECT_EQ("", only_in(listed, taken))
        << "abi/undefined.txt lists it; the library does not take it";
}
#endif
