#include <iconv.h>
#include <pthread.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(iconv_open, 2, reinterpret_cast<iconv_t>(-1));
PZ_INTERPOSE(iconv, 5);
PZ_INTERPOSE(iconv_close, 1);

// The descriptors of iconv that a thread keeps between conversions. All pages here are converted by
// iconv alone.

namespace {

/// "x" to a page; the number of bytes.
int convert(EN_XCP to, EN_XCP from) {
    char dst[16] = "";
    return pz_cp_conv(dst, sizeof dst, to, "x", 1, from);
}

/// Conversion descriptors that are open, since the test began.
int open_converters() {
    return iconv_open_call.Calls() - iconv_close_call.Calls();
}

std::atomic<int> resets{0};
std::atomic<iconv_t> lastReset{nullptr};

size_t record_resets(iconv_t converter, char** in, size_t* inLeft, char** out, size_t* outLeft) {
    if (in == nullptr) {
        ++resets;
        lastReset = converter;
    } else {
        EXPECT_EQ(converter, lastReset.exchange(nullptr));
    }
    return iconv_call.Real(converter, in, inLeft, out, outLeft);
}

size_t be_cancelled(iconv_t converter, char** in, size_t* inLeft, char** out, size_t* outLeft) {
    pthread_cancel(pthread_self());
    pthread_testcancel();
    return iconv_call.Real(converter, in, inLeft, out, outLeft);
}

int close_and_be_cancelled(iconv_t converter) {
    const int result = iconv_close_call.Real(converter);
    pthread_cancel(pthread_self());
    pthread_testcancel();
    return result;
}

/// Runs it on a thread of its own; true when that was cancelled.
bool is_cancelled(void* (*function)(void*)) {
    pthread_t thread{};
    void* result = nullptr;
    EXPECT_EQ(0, pthread_create(&thread, nullptr, function, nullptr));
    EXPECT_EQ(0, pthread_join(thread, &result));
    return result == PTHREAD_CANCELED;
}

void fill_slots() {
    convert(XCP_CP936, XCP_EUC_JP);
    convert(XCP_CP949, XCP_EUC_JP);
    convert(XCP_CP950, XCP_EUC_JP);
}

class pz_kept_iconvTest : public testing::Test {
protected:
    void TearDown() override {
        iconv_open_call.Reset();
        iconv_call.Reset();
        iconv_close_call.Reset();
    }

    /// On a thread of its own, which has kept nothing yet.
    template <typename Function>
    static void on_new_thread(const Function& function) {
        std::thread(function).join();
    }
};

}  // namespace

TEST_F(pz_kept_iconvTest, OpensOneDescriptorForManyTexts) {
    on_new_thread([] {
        for (int i = 0; i < 100; ++i) EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP));
        EXPECT_EQ(1, iconv_open_call.Calls());
        EXPECT_EQ(0, iconv_close_call.Calls());
    });
    EXPECT_EQ(1, iconv_close_call.Calls());
}

TEST_F(pz_kept_iconvTest, ResetsADescriptorBeforeEachFurtherText) {
    on_new_thread([] {
        EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP));
        resets = 0;
        iconv_call.Replace(record_resets);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP));
        EXPECT_EQ(3, resets);
    });
}

TEST_F(pz_kept_iconvTest, KeepsThreeOfEachThreadAndClosesTheOneThatWasNotUsedForTheLongestTime) {
    on_new_thread([] {
        fill_slots();
        EXPECT_EQ(3, iconv_open_call.Calls());
        fill_slots();
        EXPECT_EQ(3, iconv_open_call.Calls());
        convert(XCP_CP936, XCP_EUC_JP);  // CP949 is the oldest now
        convert(XCP_GB18030, XCP_EUC_JP);
        EXPECT_EQ(4, iconv_open_call.Calls());
        EXPECT_EQ(1, iconv_close_call.Calls());
        convert(XCP_CP936, XCP_EUC_JP);
        convert(XCP_CP950, XCP_EUC_JP);
        EXPECT_EQ(4, iconv_open_call.Calls());
        convert(XCP_CP949, XCP_EUC_JP);
        EXPECT_EQ(5, iconv_open_call.Calls());
        EXPECT_EQ(3, open_converters());
    });
    EXPECT_EQ(0, open_converters());
}

TEST_F(pz_kept_iconvTest, KeepsNoDescriptorThatRefusedAText) {
    on_new_thread([] {
        pztest::StdoutCapture output;
        char dst[16];
        for (int i = 1; i <= 3; ++i) {
            EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP));
            EXPECT_EQ(0, pz_cp_conv(dst, sizeof dst, XCP_GB18030, "\xFF", 1, XCP_EUC_JP));
            EXPECT_EQ(i, iconv_open_call.Calls());
            EXPECT_EQ(0, open_converters());
        }
    });
}

TEST_F(pz_kept_iconvTest, KeepsNoDescriptorOfPagesWithShiftsOrAByteOrderMark) {
    for (const EN_XCP page : {XCP_UTF16, XCP_ISO2022_JP, XCP_ISO2022_KR, XCP_ISO2022_CN}) {
        on_new_thread([page] {
            EXPECT_GE(convert(page, XCP_EUC_JP), 1);
            EXPECT_EQ(0, open_converters());
            char dst[16] = "";
            EXPECT_EQ(1, pz_cp_conv(dst, sizeof dst, XCP_GB18030, "x\0", page == XCP_UTF16 ? 2 : 1,
                                    page));
            EXPECT_EQ(0, open_converters());
        });
    }
}

TEST_F(pz_kept_iconvTest, ReadsTheByteOrderMarkOfEachText) {
    // A descriptor that saw a big-endian mark would go on to swap the bytes.
    for (int i = 0; i < 3; ++i) {
        char dst[16] = "";
        EXPECT_EQ(1, pz_cp_conv(dst, sizeof dst, XCP_UTF8, "\xFE\xFF\0A", 4, XCP_UTF16));
        EXPECT_STREQ("A", dst);
        EXPECT_EQ(1, pz_cp_conv(dst, sizeof dst, XCP_UTF8,
                                "\xFF\xFE"
                                "B\0",
                                4, XCP_UTF16));
        EXPECT_STREQ("B", dst);
        EXPECT_EQ(1, pz_cp_conv(dst, sizeof dst, XCP_UTF8, "C\0", 2, XCP_UTF16));
        EXPECT_STREQ("C", dst);
    }
}

TEST_F(pz_kept_iconvTest, ServesDestructorsOfThreadLocalObjects) {
    struct Converting {
        ~Converting() { EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP)); }
    };
    on_new_thread([] {
        thread_local Converting converting;
        EXPECT_NE(nullptr, &converting);
        convert(XCP_CP936, XCP_EUC_JP);
    });
    EXPECT_EQ(0, open_converters());
}

TEST_F(pz_kept_iconvTest, ServesThreadsWhoseDescriptorsAreClosedAlready) {
    // Destructors of keys run round by round; in the second one the thread's own are gone.
    static pthread_key_t key;
    static int rounds;
    rounds = 0;
    ASSERT_EQ(0, pthread_key_create(&key, [](void*) {
                  EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP));
                  if (++rounds < 3) pthread_setspecific(key, &rounds);
              }));
    on_new_thread([] {
        convert(XCP_CP936, XCP_EUC_JP);
        pthread_setspecific(key, &rounds);
    });
    EXPECT_EQ(3, rounds);
    EXPECT_EQ(0, open_converters());
    pthread_key_delete(key);
}

TEST_F(pz_kept_iconvTest, ClosesTheDescriptorOfAThreadThatIsCancelledInAConversion) {
    iconv_call.Replace(be_cancelled);
    EXPECT_TRUE(is_cancelled([](void*) -> void* {
        convert(XCP_GB18030, XCP_EUC_JP);
        return nullptr;
    }));
    EXPECT_EQ(1, iconv_open_call.Calls());
    EXPECT_EQ(0, open_converters());
}

TEST_F(pz_kept_iconvTest, ClosesAllDescriptorsOfAThreadThatIsCancelledWhileItClosesOne) {
    EXPECT_TRUE(is_cancelled([](void*) -> void* {
        fill_slots();
        iconv_close_call.Replace(close_and_be_cancelled);
        convert(XCP_GB18030, XCP_EUC_JP);  // the oldest one goes
        return nullptr;
    }));
    EXPECT_EQ(4, iconv_open_call.Calls());
    EXPECT_EQ(0, open_converters());
}

TEST_F(pz_kept_iconvTest, IsNotCancelledWhileItsThreadEnds) {
    EXPECT_FALSE(is_cancelled([](void*) -> void* {
        fill_slots();
        iconv_close_call.Replace(close_and_be_cancelled);
        return nullptr;
    }));
    EXPECT_EQ(0, open_converters());
}

TEST_F(pz_kept_iconvTest, GoesOnInAForkedChild) {
    convert(XCP_GB18030, XCP_EUC_JP);
    const pztest::ChildResult child = pztest::run_in_child([]() -> int {
        const int before = iconv_open_call.Calls();
        const bool isRight =
            convert(XCP_GB18030, XCP_EUC_JP) == 1 && convert(XCP_CP936, XCP_EUC_JP) == 1;
        return isRight && iconv_open_call.Calls() <= before + 1 ? 0 : 1;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(1, convert(XCP_GB18030, XCP_EUC_JP));
}
