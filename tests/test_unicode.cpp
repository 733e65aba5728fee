// Unicode: code-page conversion for every converter index, buffer size
// conventions, upper-casing and case-insensitive comparison, cutting by
// characters, the locale, and the code-page settings.
#include "kemo.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

namespace {

using Convert = int (*)(int, const char *, char *, int);

// The last call failed with code; clears it.
void expectCode(int code)
{
    EXPECT_EQ(KLIBErrGet(), code);
    KLIBErrSet(ERR_SUCCESS);
}

// Measures with size 0, then converts into a buffer of exactly length + 1.
std::string converted(Convert convert, int index, const std::string &src)
{
    const int length = convert(index, src.c_str(), nullptr, 0);
    if (length < 0)
        return "<failed>";
    std::string out(static_cast<std::size_t>(length) + 1, '\x7f');
    EXPECT_EQ(convert(index, src.c_str(), out.data(), length + 1), length);
    return out.c_str();
}

// UTF-16 text with a byte order mark, in this machine's byte order.
std::string nativeUtf16(std::u16string text)
{
    text.insert(text.begin(), u'\xFEFF');
    return std::string(reinterpret_cast<const char *>(text.data()), text.size() * 2);
}

// One typical text per converter index.  Several hold characters only the
// intended code page has (the UHC-only syllable of 949, the circled digit
// of Windows 932, half-width kana through SS2 in EUC-JP, the Mac euro).
TEST(UnicodeConvert, EveryIndexRoundTripsATypicalText)
{
    const struct {
        std::string bytes;
        const char *utf8;
    } samples[KLIB_CONVERTER_COUNT] = {
        {"Gr\xC3\xBC\xC3\x9F" "e \xE6\x97\xA5", "Grüße 日"},
        {"Gr\x81\xE1" "e \xAB", "Grüße ½"},
        {"\x89\x98\xA2\x9E\xA3\xE2\xA8\x98", "Καλημέρα"},
        {"Fa\x87" "ade \x9Dre", "Façade Øre"},
        {"Za\xBE\xA2\x88\x86 g\xA9\x98l\xA5", "Zażółć gęślą"},
        {"\x8D\xA2r\x8Cur", "Þórður"},
        {"\x8F\xE0\xA8\xA2\xA5\xE2", "Привет"},
        {"\x93\xFA\x96\x7B\x8C\xEA\xB6\xC5\x87\x40", "日本語ｶﾅ①"},
        {"\xBC\xF2\xCC\xE5\xD6\xD0\xCE\xC4", "简体中文"},
        {"\xC7\xD1\xB1\xB9\xBE\xEE\x8C\x63", "한국어똠"},
        {"\xC1\x63\xC5\xE9\xA4\xA4\xA4\xE5", "繁體中文"},
        {"Za\xBF\xF3\xB3\xE6 g\xEA\x9Cl\xB9", "Zażółć gęślą"},
        {"\xCF\xF0\xE8\xE2\xE5\xF2", "Привет"},
        {"Caf\xE9 \x80" "5", "Café €5"},
        {"\xCA\xE1\xEB\xE7\xEC\xDD\xF1\xE1", "Καλημέρα"},
        {"Caf\x8E \xDB" "5", "Café €5"},
        {"\xBA\xE1\xEC\xE8\xED\xDB\xF2\xE1", "Καλημέρα"},
        {"\xAF" "re na\x95ve", "Øre naïve"},
        {"Stra\xA7" "e \xDB", "Straße €"},
        {"\xEElafur", "Ólafur"},
        {"\x8F\xF0\xE8\xE2\xE5\xF2", "Привет"},
        {"\x93\xFA\x96\x7B\x8C\xEA\xB6\xC5", "日本語ｶﾅ"},
        {"\xBC\xF2\xCC\xE5\xD6\xD0\xCE\xC4", "简体中文"},
        {"\xC7\xD1\xB1\xB9\xBE\xEE", "한국어"},
        {"\xC1\x63\xC5\xE9\xA4\xA4\xA4\xE5", "繁體中文"},
        {"Gr\x9F\xA7" "e", "Grüße"},
        {"\x8F\xF0\xE8\xE2\xE5\xF2", "Привет"},
        {"Caf\x8E \xDB", "Café €"},
        {"\xBA\xE1\xEC\xE8\xED\xDB\xF2\xE1", "Καλημέρα"},
        {"\xC6\xFC\xCB\xDC\xB8\xEC\x8E\xB6\x8E\xC5", "日本語ｶﾅ"},
        {"\xBC\xF2\xCC\xE5\xD6\xD0\xCE\xC4", "简体中文"},
        {"\xC7\xD1\xB1\xB9\xBE\xEE", "한국어"},
        {"\xF4\xED\xFC\xD5\xC4\xE3\xC5\xC6", "繁體中文"},
        {nativeUtf16(u"日本語"), "日本語"}, // no zero byte: passes as a C string
    };
    for (int i = 0; i < KLIB_CONVERTER_COUNT; ++i) {
        SCOPED_TRACE("index " + std::to_string(i));
        const std::string utf8 = converted(KLIBUnicodeStrCPToUTF8, i, samples[i].bytes);
        EXPECT_EQ(utf8, samples[i].utf8);
        EXPECT_EQ(converted(KLIBUnicodeStrUTF8ToCP, i, utf8), samples[i].bytes);
    }
    // UTF-16 of either byte order is read by its byte order mark.
    EXPECT_EQ(converted(KLIBUnicodeStrCPToUTF8, 33, "\xFE\xFF\x04\x1F\x04\x40"), "Пр");
    EXPECT_EQ(converted(KLIBUnicodeStrCPToUTF8, 33, "\xFF\xFE\x1F\x04\x40\x04"), "Пр");

    // Converters stay cached per index, also across the no-op close.
    UConverter *japanese = PuconvKLIBUnicodeIOpenConvertor(7);
    EXPECT_EQ(KLIBUnicodeCloseConvertor(), 1);
    EXPECT_EQ(PuconvKLIBUnicodeIOpenConvertor(7), japanese);
    EXPECT_NE(PuconvKLIBUnicodeIOpenConvertor(21), japanese);
    EXPECT_EQ(PuconvKLIBUnicodeIOpenConvertor(KLIB_CONVERTER_COUNT), nullptr);
    expectCode(ERR_BAD_PARAMETERS);
}

// The shared result convention: length returned, text copied only when
// length < size, else dst becomes "", size 0 only measures.
TEST(UnicodeConvert, SizeConventionsHoldForEveryDirection)
{
    const Convert upper = [](int, const char *s, char *d, int n) { return KLIBUnicodeUTF8StrUpper(s, d, n); };
    const struct {
        Convert convert;
        int index;
        const char *src, *result;
    } cases[] = {
        {KLIBUnicodeStrCPToUTF8, 0, "añb", "añb"},
        {KLIBUnicodeStrCPToUTF8, 13, "a\xF1" "b", "añb"},
        {KLIBUnicodeStrUTF8ToCP, 13, "añb", "a\xF1" "b"},
        {KLIBUnicodeStrUTF8ToCP, 0, "añb", "añb"},
        {upper, 0, "straße", "STRASSE"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.result);
        const int length = static_cast<int>(std::strlen(c.result));
        char buf[32] = "untouched";
        EXPECT_EQ(c.convert(c.index, c.src, buf, 0), length);
        EXPECT_STREQ(buf, "untouched");
        EXPECT_EQ(c.convert(c.index, c.src, buf, length), length);
        EXPECT_STREQ(buf, "");
        EXPECT_EQ(c.convert(c.index, c.src, buf, length + 1), length);
        EXPECT_STREQ(buf, c.result);
        EXPECT_EQ(c.convert(c.index, "", buf, sizeof buf), 0);
        EXPECT_STREQ(buf, "");
        for (auto [src, dst, size] : {std::tuple{(const char *)nullptr, buf, 4}, std::tuple{c.src, buf, -1},
                                      std::tuple{c.src, (char *)nullptr, 4}}) {
            EXPECT_EQ(c.convert(c.index, src, dst, size), -1);
            expectCode(ERR_BAD_PARAMETERS);
        }
    }
    char out[16];
    EXPECT_EQ(KLIBUnicodeStrCPToUTF8(-1, "x", out, sizeof out), -1);
    expectCode(ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBUnicodeStrUTF8ToCP(13, "a\xC3", out, sizeof out), -1);
    expectCode(ERR_UNKNOWN);
    EXPECT_EQ(KLIBUnicodeUTF8StrUpper("\xED\xA0\x80", out, sizeof out), -1); // encoded surrogate
    expectCode(ERR_UNKNOWN);

    const char16_t text[] = u"Grüße 😀", lone[] = {u'a', 0xD800, 0};
    EXPECT_EQ(KLIBUnicodeStrUTF16ToUTF8(reinterpret_cast<const uint16_t *>(text), nullptr, 0), 12);
    EXPECT_EQ(KLIBUnicodeStrUTF16ToUTF8(reinterpret_cast<const uint16_t *>(text), out, sizeof out), 12);
    EXPECT_STREQ(out, "Grüße 😀");
    EXPECT_EQ(KLIBUnicodeStrUTF16ToUTF8(reinterpret_cast<const uint16_t *>(lone), out, sizeof out), -1);
    expectCode(ERR_UNKNOWN);
}

TEST(UnicodeCase, ComparisonUpperCasesFullyAndCollates)
{
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("straße", "STRASSE"), 0);
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("ÉCOLE", "école"), 0);
    // Collation order, not byte order: É sorts with E, before Z.
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("émile", "Zoe"), -1);
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("Ölfass", "olfass"), 1);
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp(nullptr, "a"), -2);
    expectCode(ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("a", "\xC0\xAF"), -2);
    expectCode(ERR_UNKNOWN);

    EXPECT_EQ(KLIBUnicodeUTF8StrCountChar("añ日😀"), 4);
    EXPECT_EQ(KLIBUnicodeUTF8StrCountChar("ab\xFF"), -1);
    expectCode(ERR_UNKNOWN);
    // Greek iota with dialytika and tonos upper-cases to three code points.
    EXPECT_EQ(KLIBUnicodeUTF8StrUpper("ΐ", nullptr, 0), 6);

    // The UTF-16 form grows its first buffer (input size) once.
    const auto *sharp = reinterpret_cast<const uint16_t *>(u"aßß");
    uint16_t *up = nullptr;
    ASSERT_EQ(KLIBUnicodeIUTF16StrUpper(sharp, -1, &up), 5);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(up)), u"ASSSS");
    std::free(up);
    ASSERT_EQ(KLIBUnicodeIUTF16StrUpper(sharp, 2, &up), 3);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(up)), u"ASS");
    std::free(up);
    EXPECT_EQ(KLIBUnicodeIUTF16StrUpper(nullptr, 1, &up), -1);
    EXPECT_EQ(up, nullptr);
    expectCode(ERR_BAD_PARAMETERS);
}

TEST(UnicodeCase, SettingTheLocaleReopensTheCollator)
{
    const char *name = nullptr;
    EXPECT_EQ(KLIBUnicodeIGetLocale(0, &name), 1);
    EXPECT_STREQ(name, "");
    // Root collation takes Ñ for N with a mark; Spanish as a letter after N.
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("ñu", "nz"), -1);
    EXPECT_EQ(KLIBUnicodeSetLocale("es_ES"), 1);
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("ñu", "nz"), 1);
    EXPECT_EQ(KLIBUnicodeReInitLocale(), 1);
    EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("ñu", "nz"), 1);

    EXPECT_EQ(KLIBUnicodeSetLocale("es"), -1);
    expectCode(ERR_KEY_NOT_FOUND);
    EXPECT_EQ(KLIBUnicodeIGetLocale(1, &name), 1);
    EXPECT_STREQ(name, "es_ES");
    for (const char *accepted : {"zh__PINYIN", "zh_TW_STROKE", "ja_JP", ""}) {
        EXPECT_EQ(KLIBUnicodeSetLocale(accepted), 1) << accepted;
        EXPECT_EQ(KLIBUnicodeUTF8StrCaseCmp("straße", "STRASSE"), 0) << accepted;
    }
}

TEST(UnicodeCase, CaseSortedListsOrderAndFindNonAsciiNames)
{
    PKLIBSZLIST list = PslKLIBSzListAlloc(0);
    for (const char *name : {"zoë", "Émile", "ärger", "Bob", "straße"})
        KLIBSzListPush(&list, name);
    ASSERT_EQ(KLIBSzListSortItems(list, KLIB_SZLIST_CASESORT), 0);
    EXPECT_EQ(std::vector<std::string>(list->pszItem, list->pszItem + list->nItem),
              (std::vector<std::string>{"ärger", "Bob", "Émile", "straße", "zoë"}));
    EXPECT_EQ(KLIBSzListCaseFind(list, "ÉMILE"), 2);
    EXPECT_EQ(KLIBSzListCaseFind(list, "STRASSE"), 3);
    EXPECT_EQ(KLIBSzListCaseFind(list, "ZOE"), -1);
    KLIBSzListPush(&list, "Çelik");
    EXPECT_STREQ(SzKLIBSzListGet(list, 2), "Çelik");
    KLIBSzListFree(list);
}

TEST(UnicodeShorten, CutsByCharactersAndAppendsTheSuffix)
{
    const char *s = "añ日😀x";
    EXPECT_EQ(SzKLIBUnicodeUTF8ForwardNChar(s, 2), s + 3);
    EXPECT_EQ(SzKLIBUnicodeUTF8ForwardNChar(s, 4), s + 10);
    EXPECT_EQ(SzKLIBUnicodeUTF8ForwardNChar(s, 9), s + 11);
    // Only the characters walked over must be valid.
    const char *broken = "ab\xE6\x97";
    EXPECT_EQ(SzKLIBUnicodeUTF8ForwardNChar(broken, 2), broken + 2);
    EXPECT_EQ(SzKLIBUnicodeUTF8ForwardNChar(broken, 3), nullptr);
    expectCode(ERR_UNKNOWN);
    EXPECT_EQ(SzKLIBUnicodeUTF8ForwardNChar(s, -1), nullptr);
    expectCode(ERR_BAD_PARAMETERS);

    char dst[6 * 8 + 1 + 1];
    EXPECT_EQ(KLIBUnicodeUTF8ShortenStr("ÄÖÜäöüßabc", 8, "~", dst, sizeof dst), 1);
    EXPECT_STREQ(dst, "ÄÖÜäöüßa~");
    EXPECT_EQ(KLIBUnicodeUTF8ShortenStr("日本語のフォルダ", 3, "...", dst, sizeof dst), 1);
    EXPECT_STREQ(dst, "日本語...");
    std::strcpy(dst, "untouched");
    EXPECT_EQ(KLIBUnicodeUTF8ShortenStr("ÄÖÜäöüßa", 8, "~", dst, sizeof dst), 0);
    EXPECT_EQ(KLIBUnicodeUTF8ShortenStr("bad\xFF name", 2, "~", dst, sizeof dst), -1);
    EXPECT_EQ(KLIBUnicodeUTF8ShortenStr("abc", 8, nullptr, dst, sizeof dst), -1);
    EXPECT_STREQ(dst, "untouched");
}

class UnicodeShortenLog : public SandboxTest {};

TEST_F(UnicodeShortenLog, TooSmallBufferIsRefusedAndLogged)
{
    SyslogCapture log;
    char dst[6 * 8 + 1] = "untouched";
    EXPECT_EQ(KLIBUnicodeUTF8ShortenStr("ÄÖÜäöüßabc", 8, "~", dst, sizeof dst), -1);
    EXPECT_STREQ(dst, "untouched");
    const auto texts = log.texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_TRUE(texts[0].starts_with("lib/kemounicode.cpp(")) << texts[0];
    EXPECT_TRUE(texts[0].ends_with("): buffer size 49 is smaller than max_utf8_size 50")) << texts[0];
}

constexpr const char *kSettings = "/etc/kemoinfo.conf";

class UnicodeCodePage : public SandboxTest {};

TEST_F(UnicodeCodePage, ValuesAreLookedUpInTheSettingsTable)
{
    int index = -1;
    EXPECT_EQ(KLIBUnicodeGetCodePage(KLIB_CP_KIND_SMB, &index), 1);
    EXPECT_EQ(index, 0);
    write_file(kSettings, "codepage=1252\ncodepage_apple=\"1437\"\ncodepage_mediaservice=\"2950\"\n");
    for (auto [kind, expected] : {std::pair{KLIB_CP_KIND_SMB, 13}, std::pair{KLIB_CP_KIND_APPLE, 15},
                                  std::pair{KLIB_CP_KIND_MEDIASERVICE, 32}}) {
        EXPECT_EQ(KLIBUnicodeGetCodePage(kind, &index), 1);
        EXPECT_EQ(index, expected) << kind;
    }

    index = -1;
    write_file(kSettings, "codepage=\"1234\"\ncodepage_apple=\"" + std::string(40, '9') + "\"\n");
    for (int kind : {KLIB_CP_KIND_SMB, KLIB_CP_KIND_APPLE, KLIB_CP_KIND_MEDIASERVICE /* missing */}) {
        EXPECT_EQ(KLIBUnicodeGetCodePage(kind, &index), -1);
        expectCode(ERR_KEY_NOT_FOUND);
    }
    ASSERT_EQ(::unlink(kSettings), 0);
    EXPECT_EQ(KLIBUnicodeGetCodePage(KLIB_CP_KIND_SMB, &index), -1);
    expectCode(ERR_OPEN_FAILED);
    EXPECT_EQ(KLIBUnicodeGetCodePage(2, &index), -1);
    expectCode(ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBUnicodeGetCodePage(KLIB_CP_KIND_SMB, nullptr), -1);
    expectCode(ERR_BAD_PARAMETERS);
    EXPECT_EQ(index, -1);
}

TEST_F(UnicodeCodePage, SetWritesTheQuotedValueInPlace)
{
    std::string expected = read_file(kSettings);
    const auto replace = [&](const std::string &from, const std::string &to) {
        const auto at = expected.find("\n" + from + "\n");
        ASSERT_NE(at, std::string::npos) << from;
        expected.replace(at + 1, from.size(), to);
    };
    ASSERT_EQ(KLIBUnicodeSetCodePage(KLIB_CP_KIND_SMB, 13), 1);
    replace("codepage=\"8\"", "codepage=\"1252\"");
    EXPECT_EQ(read_file(kSettings), expected);
    ASSERT_EQ(KLIBUnicodeSetCodePage(KLIB_CP_KIND_APPLE, 29), 1);
    replace("codepage_apple=\"8\"", "codepage_apple=\"2932\"");
    EXPECT_EQ(read_file(kSettings), expected);
    int index = -1;
    EXPECT_EQ(KLIBUnicodeGetCodePage(KLIB_CP_KIND_APPLE, &index), 1);
    EXPECT_EQ(index, 29);

    // The media service's code page is read only; indexes stop at 32.
    for (auto [kind, idx] : {std::pair{KLIB_CP_KIND_MEDIASERVICE, 1}, std::pair{KLIB_CP_KIND_SMB, 33},
                             std::pair{KLIB_CP_KIND_SMB, -1}, std::pair{2, 1}}) {
        EXPECT_EQ(KLIBUnicodeSetCodePage(kind, idx), -1) << kind << " " << idx;
        expectCode(ERR_BAD_PARAMETERS);
    }
    EXPECT_EQ(read_file(kSettings), expected);
}

class UnicodeDoubleByte : public SandboxTest {};

TEST_F(UnicodeDoubleByte, FollowsTheClientCodePageOfTheSharingSettings)
{
    constexpr const char *smb = "/usr/kemo/etc/smb.conf";
    EXPECT_EQ(BlKLIBIsDByte(), 0); // the factory file has no client code page
    for (auto [cp, dbyte] : {std::pair{"932", 1}, std::pair{"936", 1}, std::pair{"949", 1}, std::pair{"950", 1},
                             std::pair{"850", 0}, std::pair{"9320", 0}}) {
        write_file(smb, std::string("[global]\n\tworkgroup=WORKGROUP\n\tclient code page = ") + cp +
                            "\n[public]\n\tpath=/volume1/public\n");
        EXPECT_EQ(BlKLIBIsDByte(), dbyte) << cp;
    }
    ASSERT_EQ(::unlink(smb), 0);
    EXPECT_EQ(BlKLIBIsDByte(), 0);
}

} // namespace
