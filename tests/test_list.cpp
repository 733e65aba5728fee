// String list: block accounting and growth, gap items, sorted insertion,
// lookups by mode, replacement, and the set operations.
#include "kemo.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int kHeader = offsetof(KLIBSZLIST, pszItem);
constexpr int kItem = sizeof(char *);

using Strings = std::vector<std::string>;

// Owns one list for the length of a test.
struct List {
    PKLIBSZLIST p = PslKLIBSzListAlloc(0);
    explicit List(const Strings &items = {}, int mode = KLIB_SZLIST_UNSORTED)
    {
        KLIBSzListSortItems(p, mode);
        for (const auto &s : items)
            KLIBSzListPush(&p, s.c_str());
    }
    ~List() { KLIBSzListFree(p); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;
};

Strings items(PKLIBSZLIST l) { return Strings(l->pszItem, l->pszItem + l->nItem); }

// nFree of a block that holds the live strings and nothing dead.
int compactFree(PKLIBSZLIST l)
{
    int bytes = 0;
    for (int i = 0; i < l->nItem; ++i)
        if (l->pszItem[i] != l->pszEmpty)
            bytes += static_cast<int>(std::string(l->pszItem[i]).size()) + 1;
    return l->nSize - kHeader - l->nItem * kItem - bytes;
}

// The last call failed with ERR_BAD_PARAMETERS; clears the code.
void expectBadParameters()
{
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    KLIBErrSet(ERR_SUCCESS);
}

TEST(ListBlock, NewAndClearedListsHoldOnlyTheHeader)
{
    List l({"one", "two"}, KLIB_SZLIST_SORTED);
    char *const end = reinterpret_cast<char *>(l.p) + 512;
    EXPECT_EQ(l.p->nSize, 512);
    EXPECT_EQ(l.p->pszEmpty, end - 1);
    EXPECT_EQ(*l.p->pszEmpty, '\0');
    KLIBSzListRemoveAll(l.p);
    EXPECT_EQ(l.p->nItem, 0);
    EXPECT_EQ(l.p->nFree, 512 - kHeader);
    EXPECT_EQ(l.p->EndofFree, end);
    EXPECT_EQ(KLIBSzListSorted(l.p), KLIB_SZLIST_SORTED);
}

TEST(ListGrowth, RemovedBytesStayDeadUntilGrowthDoublesAndCompacts)
{
    List l({std::string(100, 'a'), std::string(100, 'b'), std::string(100, 'c')});
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(SzKLIBSzListShift(l.p), l.p->EndofFree + (2 - i) * 101);
    EXPECT_EQ(l.p->nFree, 512 - kHeader - 3 * 101); // the slots came back, the bytes did not

    Strings pushed;
    while (l.p->nSize == 512) {
        pushed.push_back("item-" + std::to_string(pushed.size()));
        ASSERT_EQ(KLIBSzListPush(&l.p, pushed.back().c_str()), static_cast<int>(pushed.size()) - 1);
    }
    EXPECT_EQ(l.p->nSize, 1024);
    EXPECT_EQ(items(l.p), pushed);
    EXPECT_EQ(l.p->nFree, compactFree(l.p));
}

TEST(ListGrowth, LargeAndSelfReferencingInsertsGrowSafely)
{
    List l({"first"});
    const std::string big(3000, 'b');
    EXPECT_EQ(KLIBSzListPush(&l.p, big.c_str()), 1);
    EXPECT_EQ(l.p->nSize, 4096); // doubled three times in one insertion
    EXPECT_EQ(l.p->nFree, compactFree(l.p));

    // The string to insert lives in the block that the growth replaces.
    EXPECT_EQ(KLIBSzListUnshift(&l.p, SzKLIBSzListGet(l.p, 1)), 0);
    EXPECT_EQ(l.p->nSize, 8192);
    EXPECT_EQ(SzKLIBSzListGet(l.p, 0), big);
}

TEST(ListGaps, InsertPastTheEndFillsTheHoleWithTheSharedEmptyString)
{
    List l;
    const int before = l.p->nFree;
    EXPECT_EQ(KLIBSzListInsert(&l.p, 5, "five"), 5);
    EXPECT_EQ(l.p->nItem, 6);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(l.p->pszItem[i], l.p->pszEmpty) << i;
    EXPECT_EQ(l.p->nFree, before - 5 - 6 * kItem);
    EXPECT_EQ(KLIBSzListFind(l.p, ""), -1); // gaps are not items to look up
    EXPECT_EQ(KLIBSzListInsert(&l.p, 1, "one"), 1);

    const int free = l.p->nFree;
    EXPECT_EQ(KLIBSzListSortItems(l.p, KLIB_SZLIST_SORTED), 0);
    EXPECT_EQ(items(l.p), (Strings{"five", "one"}));
    EXPECT_EQ(l.p->nFree, free + 5 * kItem);
}

TEST(ListGaps, AnEmptyStringIsAnItemNotAGap)
{
    List l({""});
    EXPECT_NE(l.p->pszItem[0], l.p->pszEmpty);
    EXPECT_EQ(l.p->nFree, compactFree(l.p) - 1); // one byte keeps it apart from pszEmpty
    KLIBSzListPush(&l.p, "b");
    EXPECT_EQ(KLIBSzListFind(l.p, ""), 0);
    KLIBSzListSortItems(l.p, KLIB_SZLIST_SORTED);
    EXPECT_EQ(items(l.p), (Strings{"", "b"}));
}

TEST(ListSorted, ByteOrderIgnoresTheIndexAndReturnsTheLandingPosition)
{
    List l({}, KLIB_SZLIST_SORTED);
    EXPECT_EQ(KLIBSzListPush(&l.p, "b"), 0);
    EXPECT_EQ(KLIBSzListPush(&l.p, "a"), 0);
    EXPECT_EQ(KLIBSzListPush(&l.p, "c"), 2);
    EXPECT_EQ(KLIBSzListUnshift(&l.p, "bb"), 2);
    EXPECT_EQ(KLIBSzListInsert(&l.p, 50, "B"), 0); // no gaps in a sorted list
    EXPECT_EQ(items(l.p), (Strings{"B", "a", "b", "bb", "c"}));
    for (int i = 0; i < l.p->nItem; ++i)
        EXPECT_EQ(KLIBSzListFind(l.p, l.p->pszItem[i]), i);
    EXPECT_EQ(KLIBSzListFind(l.p, "ba"), -1);
    EXPECT_EQ(KLIBSzListCaseFind(l.p, "a"), -1);
    expectBadParameters();
}

TEST(ListSorted, CaseOrderComparesUnicodeWithoutRegardToCase)
{
    List l({"b", "straße", "A", "C"}, KLIB_SZLIST_CASESORT);
    EXPECT_EQ(items(l.p), (Strings{"A", "b", "C", "straße"}));
    EXPECT_EQ(KLIBSzListCaseFind(l.p, "STRASSE"), 3);
    EXPECT_EQ(KLIBSzListCaseFind(l.p, "a"), 0);
    EXPECT_EQ(KLIBSzListCaseFind(l.p, "d"), -1);
    EXPECT_EQ(KLIBSzListPush(&l.p, "c"), 2); // equal to "C": lands beside it
    EXPECT_EQ(KLIBSzListFind(l.p, "A"), -1);
    expectBadParameters();

    List unsorted({"x", "Straße"});
    EXPECT_EQ(KLIBSzListCaseFind(unsorted.p, "STRASSE"), 1);
    EXPECT_EQ(KLIBSzListFind(unsorted.p, "straße"), -1);
}

TEST(ListSet, ReplacesInPlaceOrInThePoolAndKeepsSortedListsInOrder)
{
    List l({"alpha", "beta"});
    const char *alpha = l.p->pszItem[0];
    const int free = l.p->nFree;
    EXPECT_EQ(KLIBSzListSet(&l.p, 0, "al"), 0);
    EXPECT_EQ(l.p->pszItem[0], alpha);
    EXPECT_EQ(l.p->nFree, free);
    EXPECT_EQ(KLIBSzListSet(&l.p, 0, "alphabet"), 0);
    EXPECT_EQ(l.p->nFree, free - 9);
    // The block does not grow here: what does not fit is refused.
    EXPECT_EQ(KLIBSzListSet(&l.p, 1, std::string(static_cast<size_t>(l.p->nFree), 'x').c_str()), -1);
    EXPECT_EQ(items(l.p), (Strings{"alphabet", "beta"}));
    EXPECT_EQ(KLIBSzListSet(&l.p, 2, "x"), -1);
    expectBadParameters();

    List sorted({"a", "m", "t"}, KLIB_SZLIST_SORTED);
    EXPECT_EQ(KLIBSzListSet(&sorted.p, 0, "z"), 2);
    EXPECT_EQ(items(sorted.p), (Strings{"m", "t", "z"}));
    List caseSorted({"a", "M", "t"}, KLIB_SZLIST_CASESORT);
    EXPECT_EQ(KLIBSzListSet(&caseSorted.p, 2, "B"), 1);
    EXPECT_EQ(items(caseSorted.p), (Strings{"a", "B", "M"}));
}

TEST(ListRemove, ShiftsLaterItemsAndRefusesBadIndices)
{
    List l({"a", "b", "c"});
    EXPECT_STREQ(SzKLIBSzListRemove(l.p, 1), "b");
    EXPECT_STREQ(SzKLIBSzListPop(l.p), "c");
    EXPECT_STREQ(SzKLIBSzListShift(l.p), "a");
    EXPECT_EQ(SzKLIBSzListPop(l.p), nullptr);
    expectBadParameters();
    EXPECT_EQ(SzKLIBSzListGet(l.p, 0), nullptr);
    EXPECT_EQ(KLIBSzListInsert(&l.p, -1, "x"), -1);
    expectBadParameters();
}

TEST(ListSetOps, UnsortedOperandsKeepTheOrderOfAThenB)
{
    List a({"a", "b", "c", "a"}), b({"c", "d", "b", "d", "e"});
    struct {
        PKLIBSZLIST (*op)(PKLIBSZLIST *, PKLIBSZLIST, int);
        Strings expected;
    } const cases[] = {
        {PslKLIBSzListOr, {"a", "b", "c", "a", "d", "e"}},
        {PslKLIBSzListAnd, {"b", "c"}},
        {PslKLIBSzListSub, {"a", "a"}},
    };
    for (const auto &c : cases) {
        PKLIBSZLIST fresh = c.op(&a.p, b.p, KLIB_SZLIST_NEWLIST);
        EXPECT_EQ(items(fresh), c.expected);
        EXPECT_EQ(items(a.p), (Strings{"a", "b", "c", "a"}));
        KLIBSzListFree(fresh);

        List inPlace(items(a.p));
        const PKLIBSZLIST result = c.op(&inPlace.p, b.p, 0);
        EXPECT_EQ(result, inPlace.p);
        EXPECT_EQ(items(inPlace.p), c.expected);
    }
}

TEST(ListSetOps, InPlaceUnionSkipsGapsAndFollowsTheMovedBlock)
{
    List a;
    KLIBSzListInsert(&a.p, 3, "x");
    Strings many;
    for (int i = 0; i < 100; ++i)
        many.push_back("member-" + std::to_string(i));
    List b(many);
    KLIBSzListInsert(&b.p, 102, "tail");

    const PKLIBSZLIST result = PslKLIBSzListOr(&a.p, b.p, 0);
    EXPECT_EQ(result, a.p);
    many.insert(many.begin(), "x");
    many.push_back("tail");
    EXPECT_EQ(items(a.p), many);
}

TEST(ListSetOps, SortedOperandsMustShareTheirModeWhichDecidesMembership)
{
    List bytes({"b", "d"}, KLIB_SZLIST_SORTED), other({"a", "c", "d"}, KLIB_SZLIST_SORTED);
    PKLIBSZLIST u = PslKLIBSzListOr(&bytes.p, other.p, KLIB_SZLIST_NEWLIST);
    EXPECT_EQ(items(u), (Strings{"a", "b", "c", "d"}));
    EXPECT_EQ(KLIBSzListSorted(u), KLIB_SZLIST_SORTED);
    KLIBSzListFree(u);

    List caseA({"Apple", "fig"}, KLIB_SZLIST_CASESORT), caseB({"APPLE", "pear"}, KLIB_SZLIST_CASESORT);
    PKLIBSZLIST common = PslKLIBSzListAnd(&caseA.p, caseB.p, KLIB_SZLIST_NEWLIST);
    EXPECT_EQ(items(common), Strings{"Apple"});
    KLIBSzListFree(common);

    EXPECT_EQ(PslKLIBSzListSub(&bytes.p, caseB.p, 0), nullptr);
    expectBadParameters();
    EXPECT_EQ(items(bytes.p), (Strings{"b", "d"}));
}

TEST(ListDump, PrintsItemsAndTheHeader)
{
    List l({"x"});
    testing::internal::CaptureStdout();
    KLIBISzListDump(l.p);
    char expected[512];
    std::snprintf(expected, sizeof expected,
                  "%p start address \n%p ,%p pszItem[0]=x\n"
                  "nSize =512 \t nItem =1 \t nFree =%i \t fMode =0 \t EndofFree=%p\n",
                  static_cast<void *>(l.p), static_cast<void *>(l.p->pszItem[0]),
                  static_cast<void *>(&l.p->pszItem[0]), l.p->nFree,
                  static_cast<void *>(l.p->EndofFree));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
}

} // namespace
