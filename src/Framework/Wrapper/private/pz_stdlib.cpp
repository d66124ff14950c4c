#include "Framework/Wrapper/pz_stdlib.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <cwctype>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_child.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_time.h>

namespace {

/// The result of a copy helper: 0 when the C function answered the destination.
template <typename Char>
int copy_result(const Char* result, const Char* dst) {
    return result == dst ? 0 : errno;
}

template <typename Char>
int number_to_text(int value, Char* buf, unsigned int radix) {
    constexpr unsigned int kMinRadix = 2;
    constexpr unsigned int kMaxRadix = 36;
    constexpr unsigned int kMaxDigits = 32;
    constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    if (buf == nullptr || radix < kMinRadix || radix > kMaxRadix) return -1;

    const bool negative = value < 0 && radix == 10;
    unsigned int rest = static_cast<unsigned int>(value);
    if (negative) rest = 0U - rest;

    Char digits[kMaxDigits];
    unsigned int count = 0;
    do {
        digits[count++] = static_cast<Char>(kDigits[rest % radix]);
        rest /= radix;
    } while (rest != 0);

    if (negative) *buf++ = static_cast<Char>('-');
    while (count > 0) *buf++ = digits[--count];
    *buf = 0;
    return 0;
}

/// The address of the arguments that follow the last named one. Where a va_list is a record that
/// leads to them (most 64-bit machines), the address of the record.
template <typename VaList>
const char* address_of(const VaList& args) {
    const void* address = &args;
    if (sizeof args == sizeof address) std::memcpy(&address, &args, sizeof address);
    return static_cast<const char*>(address);
}

/// Holds a child back until its parent has printed what belongs before the program's own output.
/// Without descriptors for it, or when the parent has died, the child goes on at once.
class ChildGate {
public:
    explicit ChildGate(bool isClosed) {
        int fds[2];
        if (!isClosed || ::pipe2(fds, O_CLOEXEC) != 0) return;
        out_ = PZDescriptor(fds[0]);
        in_ = PZDescriptor(fds[1]);
    }

    ChildGate(const ChildGate&) = delete;
    ChildGate& operator=(const ChildGate&) = delete;

    /// In the child.
    void Await() {
        in_.Close();
        char byte = 0;
        while (::read(out_.Get(), &byte, sizeof byte) == -1 && errno == EINTR) {
        }
    }

    /// In the parent. A byte, because children of other threads may have the pipe open, too: it
    /// has no end before theirs.
    void Open() {
        constexpr char kByte = 0;
        while (::write(in_.Get(), &kByte, sizeof kByte) == -1 && errno == EINTR) {
        }
    }

private:
    PZDescriptor out_;
    PZDescriptor in_;
};

}  // namespace

int pz_strcpy(char* dst, unsigned int, const char* src) {
    errno = 0;
    // No bound on purpose: that is pz_strncpy.
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.strcpy)
    return copy_result(std::strcpy(dst, src), dst);
}

int pz_strncpy(char* dst, unsigned int dstSize, const char* src, unsigned int count) {
    errno = 0;
    std::memset(dst, 0, dstSize);
    return copy_result(std::strncpy(dst, src, count), dst);
}

int pz_wcscpy(wchar_t* dst, unsigned int count, const wchar_t* src) {
    errno = 0;
    return copy_result(std::wcsncpy(dst, src, count), dst);
}

int pz_wcsncpy(wchar_t* dst, unsigned int dstCount, const wchar_t* src, unsigned int count) {
    errno = 0;
    std::wmemset(dst, L'\0', dstCount);
    return copy_result(std::wcsncpy(dst, src, count), dst);
}

int pz_strcat(char* dst, unsigned int count, const char* src) {
    errno = 0;
    return copy_result(std::strncat(dst, src, count), dst);
}

int pz_wcscat(wchar_t* dst, unsigned int count, const wchar_t* src) {
    errno = 0;
    return copy_result(std::wcsncat(dst, src, count), dst);
}

unsigned int pz_wcsnlen(const wchar_t* s, unsigned int max) {
    if (s == nullptr) return 0;
    return static_cast<unsigned int>(wcsnlen(s, max));
}

int pz_wcsnicmp(const wchar_t* a, const wchar_t* b, unsigned int n) {
    if (a == nullptr || b == nullptr || n == 0) return INT_MAX;
    // The end of `a` ends the comparison: a longer `b` counts as equal.
    unsigned int i = 0;
    do {
        const wint_t left = std::towlower(static_cast<wint_t>(a[i]));
        const wint_t right = std::towlower(static_cast<wint_t>(b[i]));
        if (left != right) return static_cast<int>(left - right);
    } while (a[i] != L'\0' && ++i < n && a[i] != L'\0');
    return 0;
}

bool pz_iswascii(unsigned int c) {
    return c < 128;
}

int pz__itoa(int value, char* buf, unsigned int, unsigned int radix) {
    return number_to_text(value, buf, radix);
}

int pz__itow(int value, wchar_t* buf, unsigned int, unsigned int radix) {
    return number_to_text(value, buf, radix);
}

long pz__wtoi(const wchar_t* s) {
    return std::wcstol(s, nullptr, 10);
}

long pz__wtol(const wchar_t* s) {
    return pz__wtoi(s);
}

int pz_msleep(unsigned int ms) {
    const timespec time = {static_cast<time_t>(ms / kMsPerSecond),
                           static_cast<long>(ms % kMsPerSecond * kNsPerMs)};
    return nanosleep(&time, nullptr);
}

int pz_sleep(unsigned int s) {
    return pz_msleep(1000U * s);
}

void pz_sync() {
    sync();
}

pid_t pz_get_current_process_id() {
    return getpid();
}

pid_t pz_get_current_thread_id() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool pz_create_process(const char* program, pid_t* pidOut, const char* arg, ...) {
    constexpr size_t kMaxNameLength = 15;  // of a process in the kernel
    if (program == nullptr || pidOut == nullptr) return false;

    const bool isTooLong = std::strlen(program) > kMaxNameLength;
    ChildGate gate(isTooLong);
    const pid_t pid = pz_fork_for_program();
    if (pid == -1) {
        PZ_REPORT_ERROR_ON(PATH, program, "error : fork\n");
        return false;
    }
    if (pid == 0) {
        gate.Await();
        va_list args;
        va_start(args, arg);
        // Unlike its relatives in other C libraries this call takes no lock and no memory.
        execlp(program, program, address_of(args), static_cast<char*>(nullptr));
        pz_end_child_without_program(program);
        // cppcheck-suppress va_end_missing ; never reached
    }
    *pidOut = pid;
    if (isTooLong) {
        const PZReportObject named(PZReportObject::en_PATH, program);
        PZ_REPORT_ERROR("program file name is too long! [%s]\n", program);
        PZ_REPORT_ASSERTION();
    }
    gate.Open();
    return true;
}
