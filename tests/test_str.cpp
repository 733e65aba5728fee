// String utilities, validators of names and addresses, and the two forms of
// code page 932.  Pure functions: no sandbox needed.
#include "kemo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

// Owns one list for the length of a test.
struct List {
    PKLIBSZLIST p = PslKLIBSzListAlloc(0);
    ~List() { KLIBSzListFree(p); }
    Strings items() const { return Strings(p->pszItem, p->pszItem + p->nItem); }
};

// A writable copy of text in a buffer of at least size bytes.
std::vector<char> buffer(const std::string &text, size_t size = 0)
{
    std::vector<char> b(std::max(size, text.size() + 1), '#');
    std::copy(text.c_str(), text.c_str() + text.size() + 1, b.begin());
    return b;
}

// Runs a validator that rewrites its argument: {result, text afterwards}.
std::pair<int, std::string> check(int (*is)(char *), const std::string &text)
{
    auto b = buffer(text);
    const int ok = is(b.data());
    return {ok, b.data()};
}

std::pair<int, std::string> ok(const std::string &text) { return {1, text}; }

std::string repeat(const std::string &s, int n)
{
    std::string out;
    while (n-- > 0)
        out += s;
    return out;
}

} // namespace

// Expects call to return failure and to leave exactly the error code code.
#define EXPECT_FAILS(call, failure, code)                                                         \
    do {                                                                                          \
        KLIBErrSet(0);                                                                            \
        EXPECT_EQ((call), (failure)) << #call;                                                    \
        EXPECT_EQ(KLIBErrGet(), (code)) << #call;                                                 \
    } while (0)

TEST(StrSplit, TrimRemovesBlanksThenOneQuotePair)
{
    char text[] = "  \"a b\"\r\n", out[8];
    EXPECT_EQ(KLIBStrTrimSpace(text, nullptr), 3);
    EXPECT_STREQ(text, "a b");
    char lone[] = " \" ", twice[] = "\"\"x\"\"", blank[] = " \t\r\n";
    EXPECT_EQ(KLIBStrTrimSpace(lone, out), 1);
    EXPECT_STREQ(out, "\"");
    KLIBStrTrimSpace(twice, nullptr);
    EXPECT_STREQ(twice, "\"x\"");
    EXPECT_EQ(KLIBStrTrimSpace(blank, nullptr), 0);
    EXPECT_FAILS(KLIBStrTrimSpace(nullptr, nullptr), -1, ERR_BAD_PARAMETERS);
}

TEST(StrSplit, TokSkipsEmptyTokensSepKeepsThem)
{
    char text[] = "::a::b:";
    char *cursor = text;
    EXPECT_STREQ(KLIBIStrTok(&cursor, ":"), "a");
    EXPECT_STREQ(KLIBIStrTok(&cursor, ":"), "b");
    EXPECT_EQ(KLIBIStrTok(&cursor, ":"), nullptr);

    List tok, sep;
    EXPECT_EQ(KLIBStrTok(",a,;b,", ",;", &tok.p), 2);
    EXPECT_EQ(tok.items(), (Strings{"a", "b"}));
    EXPECT_EQ(KLIBStrSep(",a,;b,", ",;", &sep.p), 5);
    EXPECT_EQ(sep.items(), (Strings{"", "a", "", "b", ""}));
}

TEST(StrSplit, PairSplitsAtFirstEqualsAndTrims)
{
    List a, b, c, d;
    EXPECT_EQ(KLIBStrSepPair(" key = \"v=1\" ", &a.p), 0);
    EXPECT_EQ(a.items(), (Strings{"key", "v=1"}));
    EXPECT_EQ(KLIBStrSepPair("k=", &b.p), 0);
    EXPECT_EQ(b.items(), (Strings{"k", ""}));
    EXPECT_FAILS(KLIBStrSepPair(" lone ", &c.p), -1, ERR_BAD_PARAMETERS);
    EXPECT_EQ(c.items(), (Strings{"lone"}));
    EXPECT_FAILS(KLIBStrSepPair(" \"\" = v", &d.p), -1, ERR_BAD_PARAMETERS);
    EXPECT_TRUE(d.items().empty());
}

TEST(StrCodec, ColonEncodingRoundTripsAndHonoursSize)
{
    char enc[16], dec[16], small[8] = "keep";
    EXPECT_EQ(KLIBStrEncodeColon("a:b;c", enc, 7), 7);
    EXPECT_STREQ(enc, "a;,b;;c");
    EXPECT_EQ(KLIBStrDecodeColon(enc, dec, 5), 5);
    EXPECT_STREQ(dec, "a:b;c");
    KLIBStrEncodeColon(";:;;,:", enc, 15);
    KLIBStrDecodeColon(enc, dec, 15);
    EXPECT_STREQ(dec, ";:;;,:");

    EXPECT_FAILS(KLIBStrEncodeColon("a:b;c", small, 6), -1, ERR_NOT_ENOUGH_MEMORY);
    EXPECT_STREQ(small, "keep");
    EXPECT_FAILS(KLIBStrEncodeColon(small, small, 7), -1, ERR_BAD_PARAMETERS);
    // A semicolon the encoder did not write stays.
    EXPECT_EQ(KLIBStrDecodeColon("a;b;", dec, 15), 4);
    EXPECT_STREQ(dec, "a;b;");
}

TEST(StrCodec, HexCodeRoundTripsAndRefusesBadInput)
{
    char hex[16], text[8];
    EXPECT_EQ(KLIBStringToHexCode("\x01\xAB z", hex, 9), 8);
    EXPECT_STREQ(hex, "01AB207A");
    EXPECT_FAILS(KLIBStringToHexCode("\x01\xAB z", hex, 8), -1, ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(KLIBStrHexCodeToString("01ab207A", text, 5), 4);
    EXPECT_STREQ(text, "\x01\xAB z");
    for (const char *bad : {"0", "ABC", "0G", "x1"})
        EXPECT_FAILS(KLIBStrHexCodeToString(bad, text, 8), -1, ERR_BAD_PARAMETERS);
}

TEST(StrEdit, ReplaceEveryOccurrenceWithoutRescanning)
{
    auto b = buffer("aXbXc", 16);
    EXPECT_EQ(KLIBStrReplace(b.data(), 16, "X", "--"), 7);
    EXPECT_EQ(KLIBStrReplace(b.data(), 16, "-", "-x-"), 15);
    EXPECT_STREQ(b.data(), "a-x--x-b-x--x-c");
    EXPECT_EQ(KLIBStrReplace(b.data(), 16, "q", ""), 15);
    EXPECT_EQ(KLIBStrReplace(b.data(), 16, "-x-", ""), 3);
    EXPECT_STREQ(b.data(), "abc");

    EXPECT_EQ(KLIBStrReplace(b.data(), 4, "b", ""), 2);
    EXPECT_FAILS(KLIBStrReplace(b.data(), 4, "c", "xyz"), -1, ERR_NOT_ENOUGH_MEMORY);
    EXPECT_STREQ(b.data(), "ac");
    EXPECT_FAILS(KLIBStrReplace(b.data(), 4, "", "x"), -1, ERR_BAD_PARAMETERS);
    EXPECT_FAILS(KLIBStrReplace(b.data(), 2, "a", "x"), -1, ERR_BAD_PARAMETERS); // no NUL in size
}

TEST(StrEdit, InsertAndDeleteAtOffsetsAndAnchors)
{
    auto b = buffer("bd", 6);
    EXPECT_EQ(KLIBStrInsert(b.data(), 6, 0, "a"), 3);
    EXPECT_EQ(KLIBStrInsert(b.data(), 6, 3, "e"), 4);
    EXPECT_EQ(KLIBStrInsert(b.data(), 6, 2, "c"), 5);
    EXPECT_STREQ(b.data(), "abcde");
    EXPECT_FAILS(KLIBStrInsert(b.data(), 6, 1, "x"), -1, ERR_NOT_ENOUGH_MEMORY);
    EXPECT_FAILS(KLIBStrInsert(b.data(), 6, 6, ""), -1, ERR_BAD_PARAMETERS);
    EXPECT_STREQ(b.data(), "abcde");

    auto e = buffer("a=b=c", 16);
    EXPECT_EQ(KLIBStrInsertBefore(e.data(), 16, "=", "<"), 6);
    EXPECT_EQ(KLIBStrInsertAfter(e.data(), 16, "=", ">"), 7);
    EXPECT_STREQ(e.data(), "a<=>b=c");
    EXPECT_FAILS(KLIBStrInsertAfter(e.data(), 16, "?", "x"), -1, ERR_KEY_NOT_FOUND);

    EXPECT_EQ(KLIBStrDelete(e.data(), 1, 3), 4);
    EXPECT_STREQ(e.data(), "ab=c");
    EXPECT_EQ(KLIBStrDelete(e.data(), 2, 100), 2);
    EXPECT_STREQ(e.data(), "ab");
    EXPECT_FAILS(KLIBStrDelete(e.data(), 3, 0), -1, ERR_BAD_PARAMETERS);

    char mixed[] = "AbZ-\xC3\x84@[";
    EXPECT_STREQ(SzKLIBStrCaseLower(mixed), "abz-\xC3\x84@[");
}

TEST(ValidName, AtomsDomainsAndMailboxes)
{
    EXPECT_EQ(BlKLIBIsAtom("a@b"), 1);
    EXPECT_EQ(BlKLIBIsAtom("\x7F\xC3\xA9~"), 1);
    EXPECT_EQ(BlKLIBIsAtom(""), 0);
    for (const char c : std::string("\"(),.:;<>[\\] \t\x01"))
        EXPECT_EQ(BlKLIBIsAtom(("a" + std::string(1, c)).c_str()), 0) << int(c);

    EXPECT_EQ(BlKLIBIsDomain("mail.example.org"), 1);
    for (const char *bad : {"a..b", "a.", ".a", "", "a b.c"})
        EXPECT_EQ(BlKLIBIsDomain(bad), 0) << bad;
    // Only the first 512 bytes count.
    EXPECT_EQ(BlKLIBIsDomain((std::string(512, 'a') + "..").c_str()), 1);
    EXPECT_EQ(BlKLIBIsDomain((std::string(511, 'a') + ".b").c_str()), 0);

    EXPECT_EQ(BlKLIBIsMailbox("first.last@example.org"), 1);
    EXPECT_EQ(BlKLIBIsMailbox("a@b@c"), 1);
    for (const char *bad : {"nobody", "@host", "user@", "a.@b", "a@b..c"})
        EXPECT_EQ(BlKLIBIsMailbox(bad), 0) << bad;
}

TEST(ValidName, HostNames)
{
    for (const char *good : {"nas-01", "_x", "A", "abcdefghijklmno"})
        EXPECT_EQ(BlKLIBIsHostname(good), 1) << good;
    for (const char *bad : {"", "1nas", "-a", "abcdefghijklmnop", "a.b", "a b", "n\xC3\xA4s"})
        EXPECT_EQ(BlKLIBIsHostname(bad), 0) << bad;
}

TEST(ValidName, UserGroupShareShareOneRuleWithOwnLimits)
{
    const struct { int (*is)(const char *); int limit; } kinds[] = {
        {BlKLIBIsUserName, 64}, {BlKLIBIsGroupName, 15}, {BlKLIBIsShareName, 32}};
    for (const auto &k : kinds) {
        for (const char *good : {"bob", "bob smith", "a.b-c_d", "J\xC3\xBCrgen", "9"})
            EXPECT_EQ(k.is(good), 1) << good;
        for (const char *bad : {"", "-bob", " bob", "bob ", "a/b", "a:b", "a\tb", "a\xC3"})
            EXPECT_EQ(k.is(bad), 0) << bad;
        // Limits count characters: "é" is two bytes, one character.
        EXPECT_EQ(k.is(std::string(k.limit, 'x').c_str()), 1) << k.limit;
        EXPECT_EQ(k.is(std::string(k.limit + 1, 'x').c_str()), 0) << k.limit;
        EXPECT_EQ(k.is(repeat("\xC3\xA9", k.limit).c_str()), 1) << k.limit;
        EXPECT_EQ(k.is(repeat("\xC3\xA9", k.limit + 1).c_str()), 0) << k.limit;
    }
}

TEST(ValidName, WorkGroups)
{
    for (const char *good : {"WORKGROUP", "my group", "a-b.c!", "\xC3\xA9quipe", "x(1)&'~"})
        EXPECT_EQ(BlKLIBIsWorkGroupName(good), 1) << good;
    for (const char *bad : {"", " a", "a "})
        EXPECT_EQ(BlKLIBIsWorkGroupName(bad), 0) << bad;
    for (const char c : std::string("\"*+,/:;<=>?[\\]|\x7F\x1F"))
        EXPECT_EQ(BlKLIBIsWorkGroupName(("a" + std::string(1, c) + "b").c_str()), 0) << int(c);
}

TEST(ValidNet, AddressesAreParsedInCNotationAndRewritten)
{
    EXPECT_EQ(check(BlKLIBIsIpAddr, "010.1.1.1"), ok("8.1.1.1"));
    EXPECT_EQ(check(BlKLIBIsIpAddr, "0x0A.0X0.00.01"), ok("10.0.0.1"));
    EXPECT_EQ(check(BlKLIBIsIpAddr, "223.255.255.300"), ok("223.255.255.300"));
    EXPECT_EQ(check(BlKLIBIsIpAddr, "1.0.0.0x7fffffff"), ok("1.0.0.2147483647"));
    for (const char *bad : {"127.0.0.1", "0.1.2.3", "224.0.0.1", "1.256.0.1", "1.0.256.1",
                            "10.0.0.0", "10.0.0", "10.0.0.1.", "10.0.0.1x", "10.0.08.1", "0x.1.1.1",
                            "+1.1.1.1", " 1.1.1.1", "1..1.1", "1.0.0.2147483648", ""}) {
        const std::pair<int, std::string> refused(0, bad); // left as it was
        EXPECT_FAILS(check(BlKLIBIsIpAddr, bad), refused, ERR_INVALID_NETNAME);
    }
}

TEST(ValidNet, MasksAreContiguousAndNonZero)
{
    EXPECT_EQ(check(BlKLIBIsIpMask, "0xff.0377.0x80.0"), ok("255.255.128.0"));
    EXPECT_EQ(check(BlKLIBIsIpMask, "255.255.255.255"), ok("255.255.255.255"));
    for (const char *bad : {"255.0.255.0", "127.0.0.0", "256.0.0.0", "255.255.255"})
        EXPECT_FAILS(check(BlKLIBIsIpMask, bad).first, 0, ERR_INVALID_NETNAME);
    EXPECT_FAILS(check(BlKLIBIsIpMask, "0.0.0.0").first, 0, 0);
}

TEST(ValidNet, MaskAndPrefixFormsConvertBothWays)
{
    char out[32], src[32] = "192.168.1.77/255.255.255.0";
    EXPECT_EQ(ErrKLIBIpMaskToSubnet(src, out), 0);
    EXPECT_STREQ(out, "192.168.1.0/24");
    EXPECT_EQ(ErrKLIBIpMaskToSubnet(src, nullptr), 0);
    EXPECT_STREQ(src, "192.168.1.0/24");
    EXPECT_EQ(ErrKLIBSubnetToIpMask(src, nullptr), 0);
    EXPECT_STREQ(src, "192.168.1.0/255.255.255.0");
    char host[] = "10.1.2.3/8";
    EXPECT_EQ(ErrKLIBSubnetToIpMask(host, out), 0);
    EXPECT_STREQ(out, "10.0.0.0/255.0.0.0");

    // Every prefix length survives the trip through the mask form.
    for (int prefix = 1; prefix <= 32; ++prefix) {
        std::snprintf(src, sizeof src, "1.2.3.4/%d", prefix);
        ASSERT_EQ(ErrKLIBSubnetToIpMask(src, out), 0) << src;
        ASSERT_EQ(ErrKLIBIpMaskToSubnet(out, nullptr), 0) << out;
        const std::string net(out);
        EXPECT_EQ(net.substr(net.find('/')), "/" + std::to_string(prefix));
    }

    char no_slash[] = "10.0.0.1";
    EXPECT_FAILS(ErrKLIBIpMaskToSubnet(no_slash, out), -1, ERR_BAD_PARAMETERS);
    for (const char *bad : {"10.0.0.255/255.0.0.0", "10.0.0.1/255.0.255.0", "10.0.0.1/0.0.0.0"})
        EXPECT_FAILS(ErrKLIBIpMaskToSubnet(buffer(bad).data(), out), -1, ERR_INVALID_NETNAME);
    for (const char *bad : {"10.0.0.0/0", "10.0.0.0/33", "10.0.0.0/", "10.0.0/8"})
        EXPECT_FAILS(ErrKLIBSubnetToIpMask(buffer(bad).data(), out), -1, ERR_INVALID_NETNAME);
}

TEST(ValidNet, SubnetsHaveNoHostBits)
{
    EXPECT_EQ(check(BlKLIBIsSubNet, "010.0.0.0/010"), ok("8.0.0.0/8"));
    EXPECT_EQ(check(BlKLIBIsSubNet, "192.168.1.128/25"), ok("192.168.1.128/25"));
    EXPECT_EQ(check(BlKLIBIsSubNet, "10.1.2.3/32"), ok("10.1.2.3/32"));
    for (const char *bad : {"10.0.0.1/8", "10.0.0.0/0", "10.0.0.0/33", "10.0.0.0", "10.0.256.0/16"})
        EXPECT_FAILS(check(BlKLIBIsSubNet, bad).first, 0, ERR_INVALID_NETNAME);
}

TEST(Code932, TablePairsAreUniqueAndMapBothWays)
{
    std::set<uint32_t> dos, mac;
    for (const auto &pair : rg932DosMac) {
        if (pair[0] == 0 && pair[1] == 0)
            continue;
        EXPECT_TRUE(dos.insert(pair[0]).second) << std::hex << pair[0];
        EXPECT_TRUE(mac.insert(pair[1]).second) << std::hex << pair[1];
        EXPECT_EQ(KLIBDcharDos2Mac(pair[0]), pair[1]) << std::hex << pair[0];
        EXPECT_EQ(KLIBDcharMac2Dos(pair[1]), pair[0]) << std::hex << pair[1];
    }
    EXPECT_EQ(dos.size(), 313u);
}

TEST(Code932, SingleCodes)
{
    EXPECT_EQ(KLIBDcharDos2Mac(0x8740), 0x8540u); // circled digit one
    EXPECT_EQ(KLIBDcharDos2Mac(0xFA40), 0x85B3u); // small roman numeral one
    EXPECT_EQ(KLIBDcharDos2Mac(0x8799), 0x8842u); // right triangle
    // A Mac-only character goes to the user-defined area and comes back.
    const uint32_t vu = KLIBDcharMac2Dos(0x8868);
    EXPECT_TRUE(vu >= 0xF040 && vu <= 0xF174) << std::hex << vu;
    EXPECT_EQ(KLIBDcharDos2Mac(vu), 0x8868u);
    // The JIS X 0208 grid and codes outside the looked-up ranges stay.
    for (const uint32_t same : {0x815Cu, 0x8160u, 0x82A0u, 0x8394u, 0x889Fu, 0x41u, 0xF175u}) {
        EXPECT_EQ(KLIBDcharDos2Mac(same), same) << std::hex << same;
        EXPECT_EQ(KLIBDcharMac2Dos(same), same) << std::hex << same;
    }
}

TEST(Code932, StringsMapDoubleByteCodesOnly)
{
    // 'A', a half-width katakana (single byte), circled one, JIS dash,
    // hiragana, then a lead byte 0x81 whose trail 0x85 must not start a code.
    const std::string mac = "A\xB1\x85\x40\x81\x5C\x82\xA0\x81\x85\x40z";
    const std::string dos = "A\xB1\x87\x40\x81\x5C\x82\xA0\x81\x85\x40z";
    char out[16];
    EXPECT_EQ(SzKLIBStrMacIE2Unix(mac.c_str(), out, sizeof out), out);
    EXPECT_EQ(std::string(out), dos);
    EXPECT_EQ(SzKLIBStrUnix2MacIE(dos.c_str(), out, 13), out);
    EXPECT_EQ(std::string(out), mac);

    char inplace[] = "\xFA\x40\x87";
    EXPECT_STREQ(SzKLIBStrUnix2MacIE(inplace, inplace, sizeof inplace), "\x85\xB3\x87");
    EXPECT_FAILS(SzKLIBStrMacIE2Unix("abc", out, 3), nullptr, ERR_NOT_ENOUGH_MEMORY);
    EXPECT_FAILS(SzKLIBStrMacIE2Unix(nullptr, out, 3), nullptr, ERR_BAD_PARAMETERS);
}
