#include <unistd.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::CommandResult;
using pztest::IconvResult;
using pztest::read_file;
using pztest::run_command;
using pztest::run_iconv;
using pztest::TempDir;
using pztest::write_file;

namespace {

struct DataFile {
    const char* name;
    const char* page;
};

constexpr DataFile kTexts[] = {{"botchan.EUC-JP.txt", "EUC-JP"},
                               {"guxiang.GB18030.txt", "GB18030"},
                               {"karenina.windows-1251.txt", "windows-1251"},
                               {"neko.SJIS.txt", "SJIS"},
                               {"pan-tadeusz.UTF-8.txt", "UTF-8"},
                               {"rashomon.ISO-2022-JP.txt", "ISO-2022-JP"},
                               {"ruslan.KOI8-R.txt", "KOI8-R"},
                               {"seosi.EUC-KR.txt", "EUC-KR"},
                               {"swann.ISO-8859-1.txt", "ISO-8859-1"},
                               {"taohuayuan.Big5.txt", "Big5"}};

/// The radio texts as they read, typed by hand.
struct RadioText {
    const char* name;
    const char* page;
    const char* text;
};

constexpr RadioText kRadioTexts[] = {
    {"radiotext.RDS.bin", "RDS",
     "Jetzt: Schubert, Die schöne Müllerin. Danach: Grüße für Hörer   "},
    {"radiotext.RDS-2017.bin", "RDS-2017",
     "Teraz: Stanisław Moniuszko, Prząśniczka. Śpiewa chór żeński     "}};

std::string data(const std::string& name) {
    return PZ_DATA "/" + name;
}

/// Runs the program; its standard output only.
CommandResult textconv(const std::string& arguments) {
    return run_command(PZ_TEXTCONV " " + arguments + " 2>/dev/null");
}

/// Runs the program; its standard error only.
CommandResult errors_of(const std::string& arguments) {
    return run_command(PZ_TEXTCONV " " + arguments + " 2>&1 >/dev/null");
}

void expect_failure(int status, const std::string& arguments, const std::string& message) {
    const CommandResult errors = errors_of(arguments);
    EXPECT_EQ(status, errors.status) << arguments;
    EXPECT_NE(std::string::npos, errors.output.find(message)) << arguments << errors.output;
    EXPECT_EQ("", textconv(arguments).output) << arguments;
}

}  // namespace

TEST(textconvTest, ConvertsEveryDataFileAsIconvDoes) {
    for (const DataFile& file : kTexts) {
        const std::string bytes = read_file(data(file.name));
        ASSERT_FALSE(bytes.empty()) << file.name;
        for (const char* to : {"UTF-8", "UTF-16", "UTF-16BE", "UTF-16LE", "GB18030"}) {
            const IconvResult expected = run_iconv(file.page, to, bytes);
            ASSERT_EQ(0, expected.status) << file.name << expected.error;
            const CommandResult result =
                textconv(std::string("-f ") + file.page + " -t " + to + " " + data(file.name));
            EXPECT_EQ(0, result.status) << file.name << " " << to;
            EXPECT_EQ(expected.output, result.output) << file.name << " " << to;
        }
    }
}

TEST(textconvTest, BringsEveryDataFileBackFromUtf8) {
    const TempDir dir;
    for (const DataFile& file : kTexts) {
        const std::string utf8 = dir.File(file.name);
        ASSERT_EQ(0,
                  textconv(std::string("-f ") + file.page + " -o " + utf8 + " " + data(file.name))
                      .status);
        EXPECT_EQ(read_file(data(file.name)),
                  textconv(std::string("-f UTF-8 -t ") + file.page + " " + utf8).output)
            << file.name;
    }
}

TEST(textconvTest, ReadsRadioTexts) {
    for (const RadioText& radio : kRadioTexts) {
        EXPECT_EQ(64U, read_file(data(radio.name)).size());
        const CommandResult result =
            textconv(std::string("-f ") + radio.page + " " + data(radio.name));
        EXPECT_EQ(0, result.status);
        EXPECT_EQ(radio.text, result.output);
    }
    // The same byte in the third set.
    EXPECT_EQ("ł", run_command("printf '\\044' | " PZ_TEXTCONV " -f RDS-2017 -").output);
    EXPECT_EQ("¤", run_command("printf '\\044' | " PZ_TEXTCONV " -f RBDS-2017 -").output);
}

TEST(textconvTest, RefusesRadioSetsWhereTheyDoNotConvert) {
    expect_failure(2, "-f RDS -t UTF-16 " + data("radiotext.RDS.bin"),
                   "textconv: radio texts convert into UTF-8 only, not into UTF-16\n");
    expect_failure(2, "-f UTF-8 -t RBDS-2017 " + data("pan-tadeusz.UTF-8.txt"),
                   "textconv: nothing converts into RBDS-2017\n");
}

TEST(textconvTest, TakesTheStandardInputAsAFile) {
    EXPECT_EQ(
        "\xC3\xA9t\xC3\xA9\n",
        run_command("printf '\\351t\\351\\n' | " PZ_TEXTCONV " -f ISO-8859-1 -t UTF-8 -").output);
}

TEST(textconvTest, ReadsTheStandardInputWithoutAFile) {
    const std::string command = "printf '\\351t\\351\\n' | " PZ_TEXTCONV " ";
    EXPECT_EQ("\xC3\xA9t\xC3\xA9\n", run_command(command + "-f ISO-8859-1").output);
    EXPECT_EQ("\351t\351\n", run_command(command + "--from=ISO-8859-1 --to ISO-8859-1").output);
}

TEST(textconvTest, WritesIntoAFile) {
    const TempDir dir;
    const std::string arguments =
        "-f ISO-8859-1 -o " + dir.File("out") + " " + data("swann.ISO-8859-1.txt");
    const CommandResult result = textconv(arguments);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_EQ(run_iconv("ISO-8859-1", "UTF-8", read_file(data("swann.ISO-8859-1.txt"))).output,
              read_file(dir.File("out")));
}

TEST(textconvTest, AnEmptyFileStaysEmpty) {
    const CommandResult result = textconv("-f KOI8-R /dev/null");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.output);
}

TEST(textconvTest, TakesNamesWithoutRegardToCaseAndDashes) {
    const std::string expected = textconv("-f Big5 " + data("taohuayuan.Big5.txt")).output;
    ASSERT_FALSE(expected.empty());
    for (const char* name : {"big5", "BIG-5", "big_5"}) {
        EXPECT_EQ(expected,
                  textconv(std::string("-f ") + name + " " + data("taohuayuan.Big5.txt")).output);
    }
}

#ifdef PZ_HAS_ICU
TEST(textconvTest, DetectsEveryDataFile) {
    for (const DataFile& file : kTexts) {
        const CommandResult result = textconv("--detect " + data(file.name));
        EXPECT_EQ(0, result.status) << file.name;
        EXPECT_EQ(std::string(file.page) + "\n", result.output);
    }
}
#else
TEST(textconvTest, DetectsNothingWithoutIcu) {
    expect_failure(1, "--detect " + data(kTexts[0].name),
                   "no ICU in this process : code pages are not detected");
}
#endif

TEST(textconvTest, DoesNotKnowThePageOfAnEmptyFile) {
    expect_failure(1, "--detect /dev/null", "textconv: the code page of /dev/null is unknown\n");
}

TEST(textconvTest, ListsNamesThatItTakesAndIconvKnows) {
    const TempDir dir;
    const CommandResult list = textconv("--list");
    EXPECT_EQ(0, list.status);
    EXPECT_EQ(40, std::count(list.output.begin(), list.output.end(), '\n'));
    for (size_t start = 0; start < list.output.size();) {
        const size_t end = list.output.find('\n', start);
        const std::string name = list.output.substr(start, end - start);
        start = end + 1;
        const bool radio =
            name.find("RDS") != std::string::npos || name.find("RBDS") != std::string::npos;
        const bool wide = name.compare(0, 6, "UTF-16") == 0;
        write_file(dir.File("text"),
                   radio || !wide ? "ab\n" : run_iconv("ASCII", name, "ab\n").output);
        const CommandResult result = textconv("-f " + name + " " + dir.File("text"));
        EXPECT_EQ(0, result.status) << name;
        EXPECT_EQ(radio ? "ab " : "ab\n", result.output) << name;
        if (!radio) {
            EXPECT_EQ(0, run_iconv(name, "UTF-8", "").status) << name;
        }
    }
}

TEST(textconvTest, RefusesBytesThatAreNotOfThePageAndKeepsTheOutputFile) {
    const TempDir dir;
    write_file(dir.File("out"), "before");
    expect_failure(1, "-f UTF-8 -t SJIS -o " + dir.File("out") + " " + data("ruslan.KOI8-R.txt"),
                   "textconv: cannot convert " + data("ruslan.KOI8-R.txt") +
                       ": it is not UTF-8, or SJIS lacks a character\n");
    EXPECT_EQ("before", read_file(dir.File("out")));
    EXPECT_NE(0, run_iconv("UTF-8", "SJIS", read_file(data("ruslan.KOI8-R.txt"))).status);
}

TEST(textconvTest, RefusesCharactersThatTheTargetLacks) {
    expect_failure(1, "-f SJIS -t KOI8-R " + data("neko.SJIS.txt"),
                   "or KOI8-R lacks a character\n");
}

TEST(textconvTest, RefusesAFileThatCannotBeReadOrWritten) {
    const TempDir dir;
    expect_failure(
        1, "-f UTF-8 " + dir.File("missing"),
        "textconv: cannot read " + dir.File("missing") + ": No such file or directory\n");
    expect_failure(1, "--detect " + dir.Path(),
                   "textconv: cannot read " + dir.Path() + ": Is a directory\n");
    const std::string out = dir.Path() + "/no/out";
    expect_failure(1, "-f UTF-8 -o " + out + " " + data("pan-tadeusz.UTF-8.txt"),
                   "textconv: cannot write " + out + ": No such file or directory\n");
    EXPECT_EQ(1, run_command(PZ_TEXTCONV " -f UTF-8 " + data("pan-tadeusz.UTF-8.txt") +
                             " >/dev/full 2>/dev/null")
                     .status);
}

TEST(textconvTest, RefusesAFileThatIsTooLarge) {
    const TempDir dir;
    constexpr off_t kLimit = 64 << 20;
    write_file(dir.File("large"), "");
    ASSERT_EQ(0, truncate(dir.File("large").c_str(), kLimit + 1));
    expect_failure(1, "-f ASCII " + dir.File("large"), "it has more than 64 MiB\n");
}

TEST(textconvTest, TellsItsUsageAndRefusesBadArguments) {
    const CommandResult help = textconv("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos,
              help.output.find("usage: textconv -f PAGE [-t PAGE] [-o OUT] [FILE]\n"));
    EXPECT_EQ(help.output, textconv("-h").output);
    expect_failure(2, "", "textconv: no code page of the file: use -f\n");
    expect_failure(2, "some.txt", "textconv: no code page of the file: use -f\n");
    expect_failure(2, "-f", "textconv: a value is missing after -f\n");
    expect_failure(2, "x --from", "textconv: a value is missing after --from\n");
    expect_failure(2, "-f EBCDIC x", "textconv: unknown code page EBCDIC\n");
    expect_failure(2, "-f UTF-8 -t latin x", "textconv: unknown code page latin\n");
    expect_failure(2, "--nonsense", "textconv: unknown option --nonsense\n");
    expect_failure(2, "-lx", "textconv: unknown option -x\n");
    expect_failure(2, "-f UTF-8 a b", "textconv: more than one file: b\n");
}
