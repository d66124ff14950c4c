#include "support/StdoutCapture.h"

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace pztest {
namespace {

constexpr char kReset[] = "\033[0m";
constexpr char kErrorColour[] = "\033[31m";
constexpr size_t kNone = std::string::npos;
constexpr char kFailedCheck[] = ": Failure\n";  // stands in GoogleTest's message

void write_all(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written <= 0) return;
        done += static_cast<size_t>(written);
    }
}

}  // namespace

StdoutCapture::StdoutCapture() : savedFd_(-1), fileFd_(-1) {
    std::fflush(stdout);
    char path[] = "/tmp/pz_stdout_XXXXXX";
    fileFd_ = mkstemp(path);
    if (fileFd_ == -1) std::abort();
    unlink(path);
    savedFd_ = dup(STDOUT_FILENO);
    if (dup2(fileFd_, STDOUT_FILENO) == -1) std::abort();
}

StdoutCapture::~StdoutCapture() {
    Take();
    dup2(savedFd_, STDOUT_FILENO);
    close(savedFd_);
    close(fileFd_);
}

std::string StdoutCapture::Take() {
    std::fflush(stdout);
    std::string text;
    char buffer[4096];
    ssize_t got = 0;
    // The file is left as it is: what another thread writes meanwhile is for the next call.
    while ((got = pread(fileFd_, buffer, sizeof buffer, taken_)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
        taken_ += got;
    }
    if (text.find(kFailedCheck) != kNone) write_all(savedFd_, text);
    return text;
}

std::string padded_line(const std::string& colour, const std::string& line) {
    constexpr size_t kColumns = 80;
    const size_t blanks = line.size() < kColumns ? kColumns - line.size() : 0;
    return colour + std::string(blanks, ' ') + line + kReset;
}

std::vector<std::string> error_messages(const std::string& output) {
    std::vector<std::string> messages;
    size_t pos = 0;
    while ((pos = output.find(kErrorColour, pos)) != kNone) {
        const size_t end = output.find(kReset, pos);
        if (end == kNone) break;
        const std::string line = output.substr(pos, end - pos);
        const size_t start = line.find("} : ");
        if (start != kNone) {
            std::string message = line.substr(start + 4);
            if (!message.empty() && message.back() == '\n') message.pop_back();
            messages.push_back(message);
        }
        pos = end;
    }
    return messages;
}

bool has_report(const std::string& output, const std::string& function, const std::string& base,
                const std::string& message) {
    return has_unended_report(output, function, base, message + "\n");
}

bool has_unended_report(const std::string& output, const std::string& function,
                        const std::string& base, const std::string& message) {
    const std::string head = "[error] " + function + "()@" + base + "(";
    size_t pos = 0;
    while ((pos = output.find(head, pos)) != kNone) {
        const size_t end = output.find(kReset, pos);
        const std::string line = output.substr(pos, end - pos);
        const size_t start = line.find("} : ");
        if (start != kNone && line.substr(start + 4) == message) return true;
        pos += head.size();
    }
    return false;
}

unsigned int count_of(const std::string& output, const std::string& text) {
    unsigned int count = 0;
    for (size_t pos = output.find(text); pos != kNone; pos = output.find(text, pos + text.size())) {
        ++count;
    }
    return count;
}

}  // namespace pztest
