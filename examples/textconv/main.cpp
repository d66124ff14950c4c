// Converts a text file from one code page into another, radio texts included, and names the code
// page that a file is likely written in.
//
// Conversion and detection need no started framework: the program only links the library.

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "common/CodePageNames.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// A file is converted in one piece, into a buffer of several times its size.
constexpr size_t kMaxFileSize = 64U << 20;

constexpr char kUsage[] =
    "usage: textconv -f PAGE [-t PAGE] [-o OUT] [FILE]\n"
    "       textconv --detect [FILE]\n"
    "       textconv --list\n"
    "\n"
    "Converts a text file between code pages. Without FILE, or with -, it reads the standard\n"
    "input.\n"
    "\n"
    "  -f, --from PAGE    the code page of FILE\n"
    "  -t, --to PAGE      the code page of the result (UTF-8 when left out)\n"
    "  -o, --output OUT   write into OUT instead of the standard output\n"
    "  -d, --detect       print the code page that FILE is likely written in\n"
    "  -l, --list         print the names of all code pages\n"
    "  -h, --help         show this help\n"
    "\n"
    "Upper and lower case, '-' and '_' make no difference in a PAGE. The radio sets convert\n"
    "into UTF-8 only. A file may have at most 64 MiB.\n"
    "\n"
    "Exit status: 0; 1 when a file cannot be read, converted, detected or written; 2 for bad\n"
    "usage. A file that cannot be converted leaves OUT as it was.\n";

struct Options {
    EN_XCP from = XCP_NONE;
    EN_XCP to = XCP_UTF8;
    std::string out = "-";
    std::string file = "-";  // the standard input
    bool detect = false;
    bool list = false;
    bool help = false;
};

bool is_radio(EN_XCP page) {
    return page == XCP_RDS || page == XCP_RDS_2017 || page == XCP_RBDS_2017;
}

/// Bytes of one unit that pz_cp_conv counts for a target.
size_t unit_size(EN_XCP page) {
    return page == XCP_UTF16 || page == XCP_UTF16BE || page == XCP_UTF16LE ? 2 : 1;
}

bool usage_error(const char* problem, const char* what) {
    std::fprintf(stderr, "textconv: %s%s\nTry textconv --help.\n", problem, what);
    return false;
}

bool parse_page(const char* name, EN_XCP& page) {
    page = code_page_of(name);
    return page != XCP_NONE || usage_error("unknown code page ", name);
}

/// Checks what belongs together; false after a message.
bool check(const Options& options) {
    if (options.help || options.list) return true;
    if (options.detect) return true;
    if (options.from == XCP_NONE) return usage_error("no code page of the file: use -f", "");
    if (is_radio(options.to))
        return usage_error("nothing converts into ", code_page_name(options.to));
    if (is_radio(options.from) && options.to != XCP_UTF8) {
        return usage_error("radio texts convert into UTF-8 only, not into ",
                           code_page_name(options.to));
    }
    return true;
}

constexpr char kShortOptions[] =
    ":f:t:o:dlh";  // the first: a missing value is an answer of its own
const option kLongOptions[] = {
    {"from", required_argument, nullptr, 'f'},
    {"to", required_argument, nullptr, 't'},
    {"output", required_argument, nullptr, 'o'},
    {"detect", no_argument, nullptr, 'd'},
    {"list", no_argument, nullptr, 'l'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool turn_on(bool& option) {
    option = true;
    return true;
}

/// Takes one answer of getopt_long; false after a message.
bool take_option(int answer, char** argv, Options& options) {
    const char letter[] = {'-', static_cast<char>(optopt), '\0'};
    switch (answer) {
        case 'f':
            return parse_page(optarg, options.from);
        case 't':
            return parse_page(optarg, options.to);
        case 'o':
            options.out = optarg;
            return true;
        case 'd':
            return turn_on(options.detect);
        case 'l':
            return turn_on(options.list);
        case 'h':
            return turn_on(options.help);
        case ':':
            return usage_error("a value is missing after ", argv[optind - 1]);
        default:
            return usage_error("unknown option ", optopt != 0 ? letter : argv[optind - 1]);
    }
}

/// False after a message.
bool parse(int argc, char** argv, Options& options) {
    opterr = 0;  // the messages are ours
    for (;;) {
        const int answer = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
        if (answer == -1) break;
        if (!take_option(answer, argv, options)) return false;
    }
    if (optind < argc) options.file = argv[optind++];
    if (optind < argc) return usage_error("more than one file: ", argv[optind]);
    return check(options);
}

bool file_error(const char* action, const std::string& path, const char* reason) {
    std::fprintf(stderr, "textconv: cannot %s %s: %s\n", action, path.c_str(), reason);
    return false;
}

/// Closes a file at the end of the scope; leaves the standard streams open.
class File {
public:
    File(const std::string& path, const char* mode, std::FILE* standard)
        : file_(path == "-" ? standard : std::fopen(path.c_str(), mode)), standard_(standard) {}
    ~File() { Close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    std::FILE* Get() const { return file_; }

    /// False when what was written has not all arrived.
    bool Close() {
        std::FILE* const file = file_;
        file_ = nullptr;
        if (file == nullptr) return true;
        return (file == standard_ ? std::fflush(file) : std::fclose(file)) == 0;
    }

private:
    std::FILE* file_;
    std::FILE* const standard_;
};

/// Keeps the standard output for the result alone: what the library reports there goes to the
/// standard error from now on. Null after a message.
std::FILE* take_standard_output() {
    const int fd = ::dup(STDOUT_FILENO);
    std::FILE* const result = fd == -1 ? nullptr : ::fdopen(fd, "wb");
    if (result == nullptr || ::dup2(STDERR_FILENO, STDOUT_FILENO) == -1) {
        file_error("write", "-", std::strerror(errno));
        return nullptr;
    }
    return result;
}

/// False after a message.
bool read_all(const std::string& path, std::string& text) {
    const File file(path, "rb", stdin);
    if (file.Get() == nullptr) return file_error("read", path, std::strerror(errno));
    char buffer[64U << 10];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, file.Get())) > 0) {
        if (text.size() + got > kMaxFileSize) {
            return file_error("convert", path, "it has more than 64 MiB");
        }
        text.append(buffer, got);
    }
    if (std::ferror(file.Get()) != 0) return file_error("read", path, std::strerror(errno));
    return true;
}

/// False after a message.
bool write_all(const std::string& path, std::FILE* standard, const char* bytes, size_t size) {
    File file(path, "wb", standard);
    if (file.Get() == nullptr) return file_error("write", path, std::strerror(errno));
    const bool written = std::fwrite(bytes, 1, size, file.Get()) == size;
    if (!file.Close() || !written) return file_error("write", path, std::strerror(errno));
    return true;
}

bool convert(const Options& options, std::FILE* output) {
    std::string text;
    if (!read_all(options.file, text)) return false;
    if (text.empty())
        return write_all(options.out, output, "", 0);  // the library refuses an empty text

    // At most eight bytes for one of the source: a shift into a two-byte set, the character and the
    // shift back. What the whole text begins with comes on top. Zero-filled, as the library asks.
    std::vector<char> result(8 * text.size() + 16);
    const int units =
        pz_cp_conv(result.data(), static_cast<unsigned int>(result.size()), options.to, text.data(),
                   static_cast<unsigned int>(text.size()), options.from);
    if (units < 1) {
        std::fprintf(stderr, "textconv: cannot convert %s: it is not %s, or %s lacks a character\n",
                     options.file.c_str(), code_page_name(options.from),
                     code_page_name(options.to));
        return false;
    }
    return write_all(options.out, output, result.data(),
                     static_cast<size_t>(units) * unit_size(options.to));
}

bool detect(const Options& options, std::FILE* output) {
    std::string text;
    if (!read_all(options.file, text)) return false;
    constexpr int kNoThreshold = 0;
    const EN_XCP page = text.empty()
                            ? XCP_NONE
                            : pz_cp_detect(text.data(), static_cast<unsigned int>(text.size()),
                                           XCP_NONE, kNoThreshold);
    const char* const name = code_page_name(page);
    if (name == nullptr) {
        std::fprintf(stderr, "textconv: the code page of %s is unknown\n", options.file.c_str());
        return false;
    }
    const std::string line = std::string(name) + "\n";
    return write_all("-", output, line.data(), line.size());
}

void list() {
    for (const CodePageName& row : code_page_names()) std::printf("%s\n", row.name);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) return kExitUsage;
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (options.list) {
        list();
        return 0;
    }
    std::FILE* const output = take_standard_output();
    if (output == nullptr) return kExitFailed;
    const bool done = options.detect ? detect(options, output) : convert(options, output);
    return done ? 0 : kExitFailed;
}
