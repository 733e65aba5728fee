// String hash: slot placement, probing over tombstones, in-place
// replacement, rebuilds and pool growth, enumeration and writing to a file.
#include "kemo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Owns one table for the length of a test.
struct Hash {
    PKLIBSZHASH p = PshKLIBSzHashAlloc(0);
    ~Hash() { KLIBSzHashFree(p); }
    Hash() = default;
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    int set(const std::string &k, const std::string &v) { return KLIBSzHashSetValue(&p, k.c_str(), v.c_str()); }
    const char *get(const std::string &k) const { return SzKLIBSzHashGetValue(p, k.c_str()); }
};

// Four-byte keys whose big-endian words differ by 31 share their home slot
// in a fresh table: slot 30, so probing wraps around to slot 0.
constexpr const char *kSame30[] = {"abc?", "abc^", "abc}", "abc "};

int liveBytes(PKLIBSZHASH h)
{
    int bytes = 0;
    for (int i = 0; i < h->nSlot; ++i)
        if (h->rgSlot[i].pszKey)
            bytes += static_cast<int>(std::string(h->rgSlot[i].pszKey).size() +
                                      std::string(h->rgSlot[i].pszValue).size() + 2);
    return bytes;
}

TEST(HashPlacement, KeysLandInTheSumOfTheirBigEndianWordsModuloTheSlotCount)
{
    Hash h;
    EXPECT_EQ(h.p->nSlot, 31);
    EXPECT_EQ(h.p->nPoolSize, 512);
    EXPECT_EQ(h.set("", "empty"), 0);
    EXPECT_EQ(h.set("abcd", "1"), static_cast<int>(0x61626364u % 31));
    EXPECT_EQ(h.set("ab", "2"), static_cast<int>(0x61620000u % 31));
    EXPECT_EQ(h.set("ba", "3"), static_cast<int>(0x62610000u % 31));
    EXPECT_EQ(h.set("abcdabcd", "4"), static_cast<int>(0xC2C4C6C8u % 31));
    EXPECT_STREQ(h.get(""), "empty");
    EXPECT_EQ(h.get("abc"), nullptr);
    EXPECT_EQ(KLIBSzHashPairNum(h.p), 5);
}

TEST(HashProbing, RemovedKeysKeepChainsAndOnlyTombstonesPastHomeAreReused)
{
    Hash h;
    EXPECT_EQ(h.set(kSame30[0], "a"), 30);
    EXPECT_EQ(h.set(kSame30[1], "b"), 0);
    EXPECT_EQ(h.set(kSame30[2], "c"), 1);

    EXPECT_STREQ(SzKLIBSzHashRemoveKey(h.p, kSame30[1]), "b");
    EXPECT_EQ(SzKLIBSzHashRemoveKey(h.p, kSame30[1]), nullptr);
    EXPECT_STREQ(h.get(kSame30[2]), "c"); // found past the tombstone in slot 0
    EXPECT_EQ(h.set(kSame30[3], "d"), 0); // which the next colliding key takes

    SzKLIBSzHashRemoveKey(h.p, kSame30[0]);
    EXPECT_EQ(h.set(kSame30[0], "again"), 2); // its home tombstone stays
    EXPECT_STREQ(h.get(kSame30[0]), "again");
    EXPECT_EQ(KLIBSzHashGetLength(h.p), 3);
}

TEST(HashReplace, ShorterValuesReuseTheirBytesLongerOnesTakePool)
{
    Hash h;
    const int slot = h.set("key", "long value");
    const char *value = h.get("key");
    const int free = h.p->nPoolFree;
    EXPECT_EQ(h.set("key", "short"), slot);
    EXPECT_EQ(h.get("key"), value);
    EXPECT_EQ(h.p->nPoolFree, free);
    EXPECT_EQ(h.set("key", "a much longer value"), slot);
    EXPECT_STREQ(h.get("key"), "a much longer value");
    EXPECT_EQ(h.p->nPoolFree, free - 20);
    EXPECT_EQ(KLIBSzHashPairNum(h.p), 1);
}

TEST(HashRebuild, TheTwentyNinthKeyGrowsTheSlotsAndCompactsThePool)
{
    Hash h;
    for (int i = 0; i < 27; ++i)
        ASSERT_GE(h.set("k" + std::to_string(i), "v"), 0);
    h.set("k0", "a longer value"); // leaves dead bytes behind
    h.set("k27", "v");
    EXPECT_EQ(h.p->nSlot, 31); // the 28th key still fit: 4 of 31 slots were free

    const PKLIBSZHASH before = h.p;
    // The value lives in the block that the rebuild replaces.
    EXPECT_GE(KLIBSzHashSetValue(&h.p, "k28", h.get("k0")), 0);
    EXPECT_NE(h.p, before);
    EXPECT_EQ(h.p->nSlot, 119);
    EXPECT_EQ(h.p->nPoolSize, 512);
    EXPECT_EQ(h.p->nPoolFree, 512 - liveBytes(h.p));
    EXPECT_EQ(KLIBSzHashPairNum(h.p), 29);
    for (int i = 1; i < 28; ++i)
        EXPECT_STREQ(h.get("k" + std::to_string(i)), "v") << i;
    EXPECT_STREQ(h.get("k28"), "a longer value");
}

TEST(HashRebuild, AShortPoolGrowsByTheAveragePairForEveryFreeSlot)
{
    Hash h;
    for (int i = 0; i < 4; ++i)
        h.set("k" + std::to_string(i), std::string(96, 'v')); // 100 pool bytes each
    ASSERT_EQ(h.p->nPoolFree, 112);
    // A pair that needs exactly the free bytes already triggers the rebuild.
    const std::string value(107, 'w');
    EXPECT_GE(h.set("big", value), 0);
    EXPECT_EQ(h.p->nSlot, 31);
    EXPECT_EQ(h.p->nPoolSize, 512 + (31 - 4) * (512 / 4) + 112);
    EXPECT_EQ(h.p->nPoolFree, h.p->nPoolSize - 512);
    EXPECT_EQ(h.get("big"), value);
}

TEST(HashRemoveAll, LeavesTombstonesAndAnEmptyPool)
{
    Hash h;
    EXPECT_EQ(h.set(kSame30[0], "x"), 30);
    h.set("other", "y");
    PslSzHashRemoveAll(h.p);
    EXPECT_EQ(KLIBSzHashPairNum(h.p), 0);
    EXPECT_EQ(h.p->nPoolFree, h.p->nPoolSize);
    EXPECT_EQ(h.p->pPool, reinterpret_cast<char *>(&h.p->rgSlot[h.p->nSlot]));
    EXPECT_EQ(h.get("other"), nullptr);
    EXPECT_EQ(KLIBSzHashEnumKey(h.p, nullptr), 0);
    EXPECT_EQ(h.set(kSame30[0], "x"), 0);
}

TEST(HashEnum, KeysComeInSlotOrder)
{
    Hash h;
    for (const char *k : {"ba", "ab", "abcd", ""})
        h.set(k, "v");
    PKLIBSZLIST keys = PslKLIBSzListAlloc(0);
    EXPECT_EQ(KLIBSzHashEnumKey(h.p, &keys), 4);
    std::vector<std::string> got;
    for (int i = 0; i < keys->nItem; ++i)
        got.emplace_back(keys->pszItem[i]);
    EXPECT_EQ(got, (std::vector<std::string>{"", "abcd", "ab", "ba"}));
    KLIBSzListFree(keys);
    PKLIBSZLIST none = nullptr;
    EXPECT_EQ(KLIBSzHashEnumKey(h.p, &none), -1);
}

// Runs ErrKLIBIFileHash2File on an in-memory stream and returns what it wrote.
std::string written(PKLIBSZHASH h, const char *section, const char *format, int *result)
{
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    *result = ErrKLIBIFileHash2File(f, section, h, format);
    std::fclose(f);
    std::string out(buf, len);
    std::free(buf);
    return out;
}

TEST(HashOutput, WritesPairsInSlotOrderWithTheCallersFormat)
{
    Hash h;
    h.set("ba", "2");
    h.set("ab", "1");
    int rc = -1;
    EXPECT_EQ(written(h.p, nullptr, nullptr, &rc), "ab=1\nba=2\n");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(written(h.p, "global", "%s = \"%s\" ; 100%%\n", &rc),
              "[global]\nab = \"1\" ; 100%\nba = \"2\" ; 100%\n");
    EXPECT_EQ(rc, 0);

    for (const char *bad : {"%s%s\n", "%s=%s", "%s\n=%s", "%s=%d\n", "%s=%s\n%s", "%%s=%s\n", "%s=%s\n%"}) {
        KLIBErrSet(ERR_SUCCESS);
        EXPECT_EQ(written(h.p, "global", bad, &rc), "") << bad;
        EXPECT_EQ(rc, -1) << bad;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << bad;
    }

    FILE *readOnly = std::fopen("/dev/null", "r");
    ASSERT_NE(readOnly, nullptr);
    EXPECT_EQ(ErrKLIBIFileHash2File(readOnly, nullptr, h.p, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_WRITE_FAILED);
    std::fclose(readOnly);

    testing::internal::CaptureStdout();
    KLIBIHashDump(h.p);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "0th item: key=ab,value=1\n1th item: key=ba,value=2\n");
}

} // namespace
