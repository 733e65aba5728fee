// kemolist.cpp - the string list.
//
// A list is one heap block:
//
//   [header][pszItem[0..nItem-1]][ free room ][ string pool ][NUL]
//                                ^            ^             ^
//                     &pszItem[nItem]     EndofFree     pszEmpty (last byte)
//
// Item pointers grow upward, strings are stored downward from the end of the
// block.  The last byte is always a NUL: it is the terminator of the first
// string stored in the pool, and gap items (created by inserting past the
// end) all point at it.  nFree is always the distance between the end of the
// item array and EndofFree, so
//     nFree = nSize - header - nItem * sizeof(char *) - pool bytes in use,
// where the pool bytes in use include dead strings left behind by Remove and
// by Set; growth drops them.
//
// The header and item sizes come from the real types, so the same source is
// exact for 32-bit (24-byte header, 4-byte items) and 64-bit builds.

#include "kemo_internal.hpp"
#include "kemounicode.hpp"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr long long kHeader = offsetof(KLIBSZLIST, pszItem);
constexpr long long kItem = sizeof(char *);
constexpr int kMinSize = 512;

bool byteSorted(const KLIBSZLIST *l) { return l->fMode == KLIB_SZLIST_SORTED; }
bool caseSorted(const KLIBSZLIST *l) { return l->fMode == KLIB_SZLIST_CASESORT; }
bool isSorted(const KLIBSZLIST *l) { return byteSorted(l) || caseSorted(l); }
bool isGap(const KLIBSZLIST *l, const char *item) { return item == l->pszEmpty; }

char *blockEnd(KLIBSZLIST *l) { return reinterpret_cast<char *>(l) + l->nSize; }

void refreshFree(KLIBSZLIST *l)
{
    l->nFree = static_cast<int>(l->EndofFree - reinterpret_cast<char *>(l->pszItem + l->nItem));
}

PKLIBSZLIST initBlock(void *mem, int size)
{
    auto *l = static_cast<PKLIBSZLIST>(mem);
    l->nSize = size;
    l->nItem = 0;
    l->fMode = KLIB_SZLIST_UNSORTED;
    l->EndofFree = blockEnd(l);
    l->pszEmpty = l->EndofFree - 1;
    *l->pszEmpty = '\0';
    refreshFree(l);
    return l;
}

// Pool bytes needed to store a string of len bytes.  An empty string stored
// first in an empty pool would land exactly on pszEmpty and then be taken for
// a gap item (dropped by sorting, skipped by Find), so it gets one byte of
// padding and keeps an address of its own.
long long poolCost(const KLIBSZLIST *l, size_t len)
{
    const bool padded = len == 0 && l->EndofFree == l->pszEmpty + 1;
    return static_cast<long long>(len) + 1 + (padded ? 1 : 0);
}

// Copies str (len bytes and its NUL) below EndofFree; the caller has
// checked the room.  Returns the stored copy.
char *storeString(KLIBSZLIST *l, const char *str, size_t len)
{
    char *dst = l->EndofFree - poolCost(l, len);
    std::memcpy(dst, str, len + 1);
    l->EndofFree = dst;
    return dst;
}

// Pool bytes taken by the live strings (gap items take none).
long long liveBytes(const KLIBSZLIST *l)
{
    long long bytes = 0;
    for (int i = 0; i < l->nItem; ++i)
        if (!isGap(l, l->pszItem[i]))
            bytes += static_cast<long long>(std::strlen(l->pszItem[i])) + 1;
    return bytes + 1; // a possible padding byte
}

// Builds a compacted copy of l in a block of 2 * nSize bytes (doubled again
// until at least extra bytes are free).  The old block is left alone: the
// caller frees it once it no longer needs strings that live in it.
PKLIBSZLIST grownCopy(KLIBSZLIST *l, long long extra)
{
    long long size = 2LL * l->nSize;
    // Compaction never needs more than the bytes in use now, so only when
    // that bound does not fit is the exact live size worth computing.
    if (static_cast<long long>(l->nSize) - l->nFree + 1 + extra > size) {
        const long long need = kHeader + kItem * l->nItem + liveBytes(l) + extra;
        while (size < need && size <= INT_MAX)
            size *= 2;
    }
    if (size > INT_MAX)
        return kemo::fail<PKLIBSZLIST>(nullptr, ERR_OUT_OF_MEMORY);
    void *mem = std::malloc(static_cast<size_t>(size));
    if (!mem)
        return kemo::fail<PKLIBSZLIST>(nullptr, ERR_OUT_OF_MEMORY);

    PKLIBSZLIST g = initBlock(mem, static_cast<int>(size));
    g->fMode = l->fMode;
    g->nItem = l->nItem;
    for (int i = 0; i < l->nItem; ++i) {
        const char *s = l->pszItem[i];
        g->pszItem[i] = isGap(l, s) ? g->pszEmpty : storeString(g, s, std::strlen(s));
    }
    refreshFree(g);
    return g;
}


constexpr int kCaseCmpFailed = -2;

// The case-insensitive order of the lists: -1, 0 or 1, or kCaseCmpFailed
// (invalid UTF-8, or no memory left: the error code tells) without ever
// throwing, so that searches and sorts stop cleanly.
int caseCompare(const char *a, const char *b) noexcept
{
    return kemo::edge(kCaseCmpFailed, [&] { return kemo::unicode::case_compare(a, b); });
}

// Binary search over the items in the list's sort order.  Returns the index
// of an item equal to key, or the complement of the insertion point.  A
// failed case-insensitive comparison ends the search as "not found" at the
// current insertion point.
int binarySearch(const KLIBSZLIST *l, const char *key, bool caseless)
{
    int lo = 0;
    int hi = l->nItem - 1;
    while (lo <= hi) {
        const int mid = lo + (hi - lo) / 2;
        const int c = caseless ? caseCompare(key, l->pszItem[mid])
                               : std::strcmp(key, l->pszItem[mid]);
        if (caseless && c == kCaseCmpFailed)
            break;
        if (c == 0)
            return mid;
        if (c > 0)
            lo = mid + 1;
        else
            hi = mid - 1;
    }
    return ~lo;
}

int findExact(const KLIBSZLIST *l, const char *str)
{
    if (byteSorted(l)) {
        const int r = binarySearch(l, str, false);
        return r < 0 ? -1 : r;
    }
    const char first = str[0];
    for (int i = 0; i < l->nItem; ++i) {
        const char *item = l->pszItem[i];
        if (!isGap(l, item) && item[0] == first && std::strcmp(item, str) == 0)
            return i;
    }
    return -1;
}

int findCaseless(const KLIBSZLIST *l, const char *str)
{
    if (caseSorted(l)) {
        const int r = binarySearch(l, str, true);
        return r < 0 ? -1 : r;
    }
    for (int i = 0; i < l->nItem; ++i) {
        const char *item = l->pszItem[i];
        if (!isGap(l, item) && caseCompare(str, item) == 0)
            return i;
    }
    return -1;
}

// Membership as the set operations test it: case-insensitively in a
// case-sorted list, byte-wise otherwise.
bool contains(const KLIBSZLIST *l, const char *str)
{
    return (caseSorted(l) ? findCaseless(l, str) : findExact(l, str)) >= 0;
}

// Drops the gap items, keeping the order of the others.
void clean(KLIBSZLIST *l)
{
    char **items = l->pszItem;
    l->nItem = static_cast<int>(
        std::remove(items, items + l->nItem, l->pszEmpty) - items);
    refreshFree(l);
}

// Sorts the item array: byte order, or UTF-8 case-insensitive order.  The
// case-insensitive comparison can fail (invalid UTF-8) and is then not a
// strict weak order; a merge sort stays within bounds even so, and it keeps
// strings that differ only in case in their current order.
void sortArray(KLIBSZLIST *l, bool caseless)
{
    char **items = l->pszItem;
    if (caseless)
        std::stable_sort(items, items + l->nItem, [](const char *a, const char *b) {
            return caseCompare(a, b) == -1;
        });
    else
        std::sort(items, items + l->nItem,
                  [](const char *a, const char *b) { return std::strcmp(a, b) < 0; });
}

// Insert without argument checks.  index is ignored by sorted lists.
int insertAt(PKLIBSZLIST *plist, int index, const char *str)
{
    PKLIBSZLIST l = *plist;
    const size_t len = std::strlen(str);

    if (isSorted(l)) {
        const int pos = binarySearch(l, str, caseSorted(l));
        index = pos < 0 ? ~pos : pos;
    }

    const long long itemBytes =
        index < l->nItem ? kItem : kItem * (static_cast<long long>(index) - l->nItem + 1);
    PKLIBSZLIST old = nullptr;
    if (l->nFree < itemBytes + poolCost(l, len)) {
        // Ask for the worst case (padding included); str may live in the old
        // block, which therefore stays until the copy below is done.
        PKLIBSZLIST g = grownCopy(l, itemBytes + static_cast<long long>(len) + 2);
        if (!g)
            return -1;
        old = l;
        l = g;
    }

    char *copy = storeString(l, str, len);
    char **items = l->pszItem;
    if (index < l->nItem) {
        std::memmove(items + index + 1, items + index,
                     static_cast<size_t>(l->nItem - index) * sizeof(char *));
        ++l->nItem;
    } else {
        std::fill(items + l->nItem, items + index, l->pszEmpty);
        l->nItem = index + 1;
    }
    items[index] = copy;
    refreshFree(l);

    if (old) {
        std::free(old);
        *plist = l;
    }
    return index;
}

int pushBack(PKLIBSZLIST *plist, const char *str) { return insertAt(plist, (*plist)->nItem, str); }

enum class SetOp { Or, And, Sub };

// Or:  A's items in A's order, then B's items that A lacks, in B's order.
//      Duplicates already in A stay; a string repeated in B is added once.
// And: A's items (duplicates included) that B holds, in A's order.
// Sub: A's items (duplicates included) that B lacks, in A's order.
// Gap items of either list take no part.  A sorted A stays sorted: new items
// are inserted in order.
PKLIBSZLIST setOperation(PKLIBSZLIST *plistA, PKLIBSZLIST b, int flags, SetOp op)
{
    if (!plistA || !*plistA || !b)
        return kemo::fail<PKLIBSZLIST>(nullptr, ERR_BAD_PARAMETERS);
    PKLIBSZLIST a = *plistA;
    if (isSorted(a) && isSorted(b) && a->fMode != b->fMode)
        return kemo::fail<PKLIBSZLIST>(nullptr, ERR_BAD_PARAMETERS);

    if (!(flags & KLIB_SZLIST_NEWLIST)) {
        clean(a);
        if (op == SetOp::Or) {
            for (int i = 0; i < b->nItem; ++i) {
                const char *s = b->pszItem[i];
                if (!isGap(b, s) && !contains(*plistA, s) && pushBack(plistA, s) < 0)
                    return nullptr;
            }
            return *plistA;
        }
        const bool keepMembers = op == SetOp::And;
        char **items = a->pszItem;
        a->nItem = static_cast<int>(
            std::remove_if(items, items + a->nItem,
                           [&](const char *s) { return contains(b, s) != keepMembers; }) -
            items);
        refreshFree(a);
        return a;
    }

    const long long size =
        static_cast<long long>(a->nSize) - a->nFree + static_cast<long long>(b->nSize) - b->nFree;
    if (size > INT_MAX)
        return kemo::fail<PKLIBSZLIST>(nullptr, ERR_OUT_OF_MEMORY);
    PKLIBSZLIST r = PslKLIBSzListAlloc(static_cast<int>(size));
    if (!r)
        return nullptr;
    // A's items arrive in A's order, so the result takes A's mode only once
    // they are in; B's additions are then inserted in order.
    for (int i = 0; i < a->nItem; ++i) {
        const char *s = a->pszItem[i];
        if (isGap(a, s))
            continue;
        const bool take = op == SetOp::Or || contains(b, s) == (op == SetOp::And);
        if (take && pushBack(&r, s) < 0) {
            std::free(r);
            return nullptr;
        }
    }
    r->fMode = a->fMode;
    if (op == SetOp::Or) {
        for (int i = 0; i < b->nItem; ++i) {
            const char *s = b->pszItem[i];
            if (!isGap(b, s) && !contains(r, s) && pushBack(&r, s) < 0) {
                std::free(r);
                return nullptr;
            }
        }
    }
    return r;
}

} // namespace

extern "C" {

PKLIBSZLIST PslKLIBSzListAlloc(int size)
{
    size = std::max(size, kMinSize);
    void *mem = std::malloc(static_cast<size_t>(size));
    if (!mem)
        return kemo::fail<PKLIBSZLIST>(nullptr, ERR_OUT_OF_MEMORY);
    return initBlock(mem, size);
}

void KLIBSzListFree(PKLIBSZLIST list) { std::free(list); }

void KLIBSzListRemoveAll(PKLIBSZLIST list)
{
    if (!list)
        return;
    list->nItem = 0;
    list->EndofFree = blockEnd(list);
    refreshFree(list);
}

int KLIBSzListInsert(PKLIBSZLIST *plist, int index, const char *str)
{
    if (!plist || !*plist || !str || index < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return insertAt(plist, index, str);
}

int KLIBSzListPush(PKLIBSZLIST *plist, const char *str)
{
    if (!plist || !*plist || !str)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return pushBack(plist, str);
}

int KLIBSzListUnshift(PKLIBSZLIST *plist, const char *str)
{
    return KLIBSzListInsert(plist, 0, str);
}

int KLIBSzListSet(PKLIBSZLIST *plist, int index, const char *str)
{
    if (!plist || !*plist || !str)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    PKLIBSZLIST l = *plist;
    if (index < 0 || index >= l->nItem)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);

    char *old = l->pszItem[index];
    const size_t len = std::strlen(str);
    if (len > std::strlen(old)) {
        // The block does not grow here; a replacement that does not fit in
        // the free room is refused instead of overrunning the item array.
        if (poolCost(l, len) > l->nFree)
            return kemo::fail(-1, ERR_NOT_ENOUGH_SPACE);
        l->pszItem[index] = storeString(l, str, len);
        refreshFree(l);
    } else {
        std::memmove(old, str, len + 1); // str may point into old itself
    }
    if (!isSorted(l))
        return index;

    return kemo::edge(-1, [&] {
        char *const moved = l->pszItem[index];
        sortArray(l, caseSorted(l));
        return static_cast<int>(std::find(l->pszItem, l->pszItem + l->nItem, moved) - l->pszItem);
    });
}

const char *SzKLIBSzListGet(PKLIBSZLIST list, int index)
{
    if (!list || index < 0 || index >= list->nItem)
        return kemo::fail<const char *>(nullptr, ERR_BAD_PARAMETERS);
    return list->pszItem[index];
}

const char *SzKLIBSzListRemove(PKLIBSZLIST list, int index)
{
    if (!list || index < 0 || index >= list->nItem)
        return kemo::fail<const char *>(nullptr, ERR_BAD_PARAMETERS);
    char **items = list->pszItem;
    const char *removed = items[index];
    std::memmove(items + index, items + index + 1,
                 static_cast<size_t>(list->nItem - index - 1) * sizeof(char *));
    --list->nItem;
    refreshFree(list);
    return removed;
}

const char *SzKLIBSzListPop(PKLIBSZLIST list)
{
    return SzKLIBSzListRemove(list, list ? list->nItem - 1 : 0);
}

const char *SzKLIBSzListShift(PKLIBSZLIST list) { return SzKLIBSzListRemove(list, 0); }

int KLIBSzListFind(PKLIBSZLIST list, const char *str)
{
    // A case-sorted list is not in byte order; it is searched with CaseFind.
    if (!list || !str || caseSorted(list))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return findExact(list, str);
}

int KLIBSzListCaseFind(PKLIBSZLIST list, const char *str)
{
    // A byte-sorted list is not in case-insensitive order.
    if (!list || !str || byteSorted(list))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return findCaseless(list, str);
}

int KLIBSzListSorted(PKLIBSZLIST list)
{
    if (!list)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return list->fMode;
}

int KLIBSzListSortItems(PKLIBSZLIST list, int mode)
{
    if (!list)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        // A list that is already sorted is relabelled only.
        if (!isSorted(list) && (mode & (KLIB_SZLIST_SORTED | KLIB_SZLIST_CASESORT))) {
            clean(list);
            sortArray(list, !(mode & KLIB_SZLIST_SORTED));
        }
        list->fMode = mode;
        return 0;
    });
}

PKLIBSZLIST PslKLIBSzListOr(PKLIBSZLIST *plistA, PKLIBSZLIST listB, int flags)
{
    return kemo::edge<PKLIBSZLIST>(nullptr,
                                   [&] { return setOperation(plistA, listB, flags, SetOp::Or); });
}

PKLIBSZLIST PslKLIBSzListAnd(PKLIBSZLIST *plistA, PKLIBSZLIST listB, int flags)
{
    return kemo::edge<PKLIBSZLIST>(nullptr,
                                   [&] { return setOperation(plistA, listB, flags, SetOp::And); });
}

PKLIBSZLIST PslKLIBSzListSub(PKLIBSZLIST *plistA, PKLIBSZLIST listB, int flags)
{
    return kemo::edge<PKLIBSZLIST>(nullptr,
                                   [&] { return setOperation(plistA, listB, flags, SetOp::Sub); });
}

void KLIBISzListDump(PKLIBSZLIST list)
{
    if (!list)
        return;
    std::printf("%p start address \n", static_cast<void *>(list));
    for (int i = 0; i < list->nItem; ++i)
        std::printf("%p ,%p pszItem[%i]=%s\n", static_cast<void *>(list->pszItem[i]),
                    static_cast<void *>(&list->pszItem[i]), i, list->pszItem[i]);
    std::printf("nSize =%i \t nItem =%i \t nFree =%i \t fMode =%i \t EndofFree=%p\n", list->nSize,
                list->nItem, list->nFree, list->fMode, static_cast<void *>(list->EndofFree));
}

} // extern "C"
