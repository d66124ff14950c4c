#include <Framework/Wrapper/pz_cp_conv.h>
#include <gtest/gtest.h>
#include <unicode/ucsdet.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

// Detection with the machine's own ICU, which is asked directly, too.

namespace {

const char kEnglish[] =
    "The receiver looks for a station in the background and keeps a list of all it can hear. When "
    "the driver turns the knob, the list is already there, and the tuner jumps to the next entry.";
const char kFrench[] =
    "Le récepteur cherche une station en arrière-plan et garde la liste de tout ce qu'il entend. "
    "Quand le conducteur tourne le bouton, la liste est déjà prête, même à l'étranger.";
const char kPolish[] =
    "Odbiornik szuka stacji w tle i przechowuje listę wszystkiego, co słyszy. Gdy kierowca kręci "
    "gałką, lista jest już gotowa i źródło przełącza się natychmiast na następną pozycję.";
const char kRussian[] =
    "Приёмник ищет станции в фоновом режиме и хранит список всего, что слышит. Когда водитель "
    "поворачивает ручку, список уже готов, и тюнер переходит к следующей записи.";
const char kGreek[] =
    "Ο δέκτης ψάχνει για σταθμούς στο παρασκήνιο και κρατά μια λίστα με όλα όσα ακούει. Όταν ο "
    "οδηγός γυρίζει το κουμπί, η λίστα είναι ήδη έτοιμη και ο δέκτης πηγαίνει στον επόμενο.";
const char kTurkish[] =
    "Alıcı arka planda istasyon arar ve duyduğu her şeyin listesini tutar. Sürücü düğmeyi "
    "çevirdiğinde liste hazırdır ve radyo bir sonraki kayda geçer; böylece beklemek gerekmez.";
const char kArabic[] =
    "يبحث جهاز الاستقبال عن المحطات في الخلفية ويحتفظ بقائمة بكل ما يسمعه وعندما يدير السائق "
    "المقبض "
    "تكون القائمة جاهزة وينتقل الجهاز الى المحطة التالية في الحال";
const char kHebrew[] =
    "המקלט מחפש תחנות ברקע ושומר רשימה של כל מה שהוא שומע. כאשר הנהג מסובב את הכפתור הרשימה כבר "
    "מוכנה והמקלט עובר מיד לתחנה הבאה ברשימה שלו.";
const char kJapanese[] =
    "受信機は背後で放送局を探し、聞こえるすべての局の一覧を持っています。運転者がつまみを回すと、一"
    "覧は"
    "すでに用意されていて、受信機は次の局に移ります。カタカナも表示できます。";
const char kKorean[] =
    "수신기는 배경에서 방송국을 찾고 들리는 모든 방송국의 목록을 보관합니다. 운전자가 손잡이를 "
    "돌리면 "
    "목록이 이미 준비되어 있으며 수신기는 다음 방송국으로 넘어갑니다.";
const char kSimplified[] =
    "接收机在后台搜索电台，并保存所有能收到的电台列表。当驾驶员转动旋钮时，列表已经准备好，接收机立"
    "即跳到"
    "下一个电台。这样就不需要等待，也不会错过节目。";
const char kTraditional[] =
    "接收機在背景搜尋電台，並保存所有能收到的電台清單。當駕駛轉動旋鈕時，清單已經準備好，接收機立即"
    "跳到"
    "下一個電台。這樣就不需要等待，也不會錯過節目。";

/// A paragraph, and the code page it is written in.
struct Paragraph {
    const char* text;
    EN_XCP page;
};

// What ICU tells apart reliably. "windows-1252" and the like have no code page of their own here.
constexpr Paragraph kParagraphs[] = {
    {kRussian, XCP_UTF8},         {kJapanese, XCP_UTF8},         {kEnglish, XCP_UTF16BE},
    {kRussian, XCP_UTF16LE},      {kRussian, XCP_KOI8_R},        {kRussian, XCP_ISO8859_5},
    {kRussian, XCP_WINDOWS_1251}, {kPolish, XCP_ISO8859_2},      {kTurkish, XCP_ISO8859_9},
    {kGreek, XCP_ISO8859_7},      {kArabic, XCP_ISO8859_6},      {kArabic, XCP_WINDOWS_1256},
    {kHebrew, XCP_ISO8859_8},     {kJapanese, XCP_SJIS},         {kJapanese, XCP_EUC_JP},
    {kJapanese, XCP_ISO2022_JP},  {kKorean, XCP_EUC_KR},         {kKorean, XCP_ISO2022_KR},
    {kSimplified, XCP_GB18030},   {kSimplified, XCP_ISO2022_CN}, {kTraditional, XCP_BIG5},
    {kEnglish, XCP_ISO8859_1},    {kFrench, XCP_ISO8859_1}};

/// The bytes of a paragraph. The 16-bit forms begin with the mark that ICU recognises them by.
std::string encode(const Paragraph& paragraph) {
    char bytes[2048] = "";
    const bool wide = paragraph.page == XCP_UTF16BE || paragraph.page == XCP_UTF16LE;
    const std::string text = wide ? std::string("\xEF\xBB\xBF") + paragraph.text : paragraph.text;
    const int units = pz_cp_conv(bytes, sizeof bytes, paragraph.page, text.data(),
                                 static_cast<unsigned int>(text.size()), XCP_UTF8);
    EXPECT_GT(units, 0);
    return std::string(bytes, static_cast<size_t>(wide ? 2 * units : units));
}

EN_XCP detect(const std::string& bytes, EN_XCP hint = XCP_NONE, int threshold = 0) {
    return pz_cp_detect(bytes.data(), static_cast<unsigned int>(bytes.size()), hint, threshold);
}

/// ICU's own answer: its candidates' names, best first.
std::vector<std::string> ask_icu(const std::string& bytes, std::vector<int>* confidences) {
    UErrorCode error = U_ZERO_ERROR;
    UCharsetDetector* const detector = ucsdet_open(&error);
    ucsdet_setText(detector, bytes.data(), static_cast<int32_t>(bytes.size()), &error);
    int32_t count = 0;
    const UCharsetMatch** const matches = ucsdet_detectAll(detector, &count, &error);
    std::vector<std::string> names;
    for (int32_t i = 0; i < count; ++i) {
        names.emplace_back(ucsdet_getName(matches[i], &error));
        confidences->push_back(ucsdet_getConfidence(matches[i], &error));
    }
    ucsdet_close(detector);
    EXPECT_EQ(U_ZERO_ERROR, error);
    return names;
}

/// ICU's name of a code page, for those of the paragraphs.
const char* icu_name(EN_XCP page) {
    switch (page) {
        case XCP_UTF8:
            return "UTF-8";
        case XCP_UTF16BE:
            return "UTF-16BE";
        case XCP_UTF16LE:
            return "UTF-16LE";
        case XCP_KOI8_R:
            return "KOI8-R";
        case XCP_ISO8859_1:
            return "ISO-8859-1";
        case XCP_ISO8859_2:
            return "ISO-8859-2";
        case XCP_ISO8859_5:
            return "ISO-8859-5";
        case XCP_ISO8859_6:
            return "ISO-8859-6";
        case XCP_ISO8859_7:
            return "ISO-8859-7";
        case XCP_ISO8859_8:
            return "ISO-8859-8-I";
        case XCP_ISO8859_9:
            return "ISO-8859-9";
        case XCP_WINDOWS_1251:
            return "windows-1251";
        case XCP_WINDOWS_1256:
            return "windows-1256";
        case XCP_SJIS:
            return "Shift_JIS";
        case XCP_EUC_JP:
            return "EUC-JP";
        case XCP_EUC_KR:
            return "EUC-KR";
        case XCP_GB18030:
            return "GB18030";
        case XCP_BIG5:
            return "Big5";
        case XCP_ISO2022_JP:
            return "ISO-2022-JP";
        case XCP_ISO2022_KR:
            return "ISO-2022-KR";
        case XCP_ISO2022_CN:
            return "ISO-2022-CN";
        default:
            return "";
    }
}

}  // namespace

TEST(pz_cp_detect_icuTest, DetectsThePageOfEveryParagraphAsIcuDoes) {
    for (const Paragraph& paragraph : kParagraphs) {
        const std::string bytes = encode(paragraph);
        std::vector<int> confidences;
        const std::vector<std::string> names = ask_icu(bytes, &confidences);
        ASSERT_FALSE(names.empty());
        EXPECT_EQ(icu_name(paragraph.page), names[0]);
        EXPECT_EQ(paragraph.page, detect(bytes)) << names[0];
    }
}

TEST(pz_cp_detect_icuTest, LetsTheHintWinWhereIcuHasItAmongItsCandidates) {
    const std::string bytes = encode({kRussian, XCP_KOI8_R});
    std::vector<int> confidences;
    const std::vector<std::string> names = ask_icu(bytes, &confidences);
    ASSERT_EQ("KOI8-R", names[0]);
    bool found = false;
    for (size_t i = 1; i < names.size(); ++i) {
        if (names[i] != icu_name(XCP_WINDOWS_1251)) continue;
        found = true;
        EXPECT_EQ(XCP_WINDOWS_1251, detect(bytes, XCP_WINDOWS_1251, confidences[0] + 1));
        EXPECT_EQ(XCP_KOI8_R, detect(bytes, XCP_WINDOWS_1251, confidences[0]));
    }
    EXPECT_TRUE(found);
}

TEST(pz_cp_detect_icuTest, AnswersNoneForUtf32) {
    const std::string bytes = std::string("\0\0\xFE\xFF", 4) + std::string("\0\0\0a\0\0\0b", 8);
    std::vector<int> confidences;
    ASSERT_EQ("UTF-32BE", ask_icu(bytes, &confidences)[0]);
    EXPECT_EQ(XCP_NONE, detect(bytes));
}

TEST(pz_cp_detect_icuTest, DetectsInSeveralThreadsAtOnce) {
    std::vector<std::string> texts;
    for (const Paragraph& paragraph : kParagraphs) texts.push_back(encode(paragraph));
    std::vector<int> wrong(8, 0);
    std::vector<std::thread> threads;
    threads.reserve(wrong.size());
    for (int& count : wrong) {
        threads.emplace_back([&] {
            for (size_t i = 0; i < texts.size(); ++i) {
                if (detect(texts[i]) != kParagraphs[i].page) ++count;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(8, 0), wrong);
}
