// kemohash.cpp - the string hash.
//
// A hash is one heap block:
//
//   [header][rgSlot[0..nSlot-1]][ string pool: nPoolSize bytes ]
//                                ^ used bytes ^ pPool, then nPoolFree bytes
//
// Open addressing with linear probing.  A slot is empty (key and value
// null), live (both point into the pool) or a tombstone (key null, value
// still set) that keeps probe chains intact after a removal.  A new pair
// stores its key and value next to each other at pPool.  Nothing in the pool
// is reclaimed until the table is rebuilt into a new block; that happens when
// the pool runs short or fewer than a tenth of the slots are free, and the
// slot count then grows 31 -> 119 -> 471 -> ... (4n - 5).

#include "kemohash.hpp"
#include "kemo_io.hpp"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr size_t kHeader = offsetof(KLIBSZHASH, rgSlot);
constexpr int kFirstSlots = 31;
constexpr int kMinPool = 512;
constexpr float kMinFreeSlotRatio = 0.1f;

char *poolStart(PKLIBSZHASH h) { return reinterpret_cast<char *>(h->rgSlot + h->nSlot); }

uint32_t bigEndianWord(const char *p)
{
    uint32_t w;
    std::memcpy(&w, p, sizeof w);
    if constexpr (std::endian::native == std::endian::little)
        w = __builtin_bswap32(w);
    return w;
}

// The key's bytes read as 32-bit big-endian words and summed modulo 2^32; a
// last partial word holds its bytes in its most significant end.  The slot
// is that sum modulo the slot count, so the empty key lands in slot 0.
int homeSlot(std::string_view key, int nSlot)
{
    uint32_t sum = 0;
    size_t i = 0;
    for (; i + 4 <= key.size(); i += 4)
        sum += bigEndianWord(key.data() + i);
    uint32_t tail = 0;
    for (int shift = 24; i < key.size(); ++i, shift -= 8)
        tail |= uint32_t{static_cast<unsigned char>(key[i])} << shift;
    sum += tail;
    return static_cast<int>(sum % static_cast<uint32_t>(nSlot));
}

bool isEmpty(const KLIBSZHASHSLOT &s) { return !s.pszKey && !s.pszValue; }

struct Probe {
    int found = -1;  // slot holding the key, or -1
    int insert = -1; // slot the key would take when absent (-1: table full)
};

// Looks the key up from its home slot h.  When the key is absent, the slot
// for inserting it is h if h is empty, else the first slot with a null key
// (empty or tombstone) met from h + 1 on; a tombstone at h itself is left
// alone.
Probe probe(PKLIBSZHASH h, std::string_view key)
{
    const int n = h->nSlot;
    const KLIBSZHASHSLOT *slots = h->rgSlot;
    const int home = homeSlot(key, n);
    const char *k = key.data();

    if (isEmpty(slots[home]))
        return {-1, home};
    if (slots[home].pszKey && std::strcmp(slots[home].pszKey, k) == 0)
        return {home, home};

    Probe result;
    for (int i = home + 1 == n ? 0 : home + 1; i != home; i = i + 1 == n ? 0 : i + 1) {
        const KLIBSZHASHSLOT &s = slots[i];
        if (!s.pszKey) {
            if (result.insert < 0)
                result.insert = i;
            if (!s.pszValue)
                break;
        } else if (std::strcmp(s.pszKey, k) == 0) {
            return {i, i};
        }
    }
    return result;
}

// Appends key and value (each with its NUL) at pPool; the caller has
// checked the room.
void storePair(PKLIBSZHASH h, int slot, std::string_view key, std::string_view value)
{
    char *k = h->pPool;
    std::memmove(k, key.data(), key.size() + 1);
    char *v = k + key.size() + 1;
    std::memmove(v, value.data(), value.size() + 1);
    h->rgSlot[slot] = {k, v};
    const int used = static_cast<int>(key.size() + value.size() + 2);
    h->pPool += used;
    h->nPoolFree -= used;
    ++h->nPair;
}

// Replaces the value of a live slot: in place when it fits, otherwise at
// pPool (the caller has checked the room).
void replaceValue(PKLIBSZHASH h, int slot, std::string_view value)
{
    char *old = h->rgSlot[slot].pszValue;
    if (value.size() <= std::strlen(old)) {
        std::memmove(old, value.data(), value.size() + 1);
        return;
    }
    std::memmove(h->pPool, value.data(), value.size() + 1);
    h->rgSlot[slot].pszValue = h->pPool;
    h->pPool += value.size() + 1;
    h->nPoolFree -= static_cast<int>(value.size() + 1);
}

PKLIBSZHASH newTable(long long nSlot, long long poolSize)
{
    if (nSlot > INT_MAX || poolSize > INT_MAX)
        return kemo::fail<PKLIBSZHASH>(nullptr, ERR_OUT_OF_MEMORY);
    const size_t bytes = kHeader + static_cast<size_t>(nSlot) * sizeof(KLIBSZHASHSLOT) +
                         static_cast<size_t>(poolSize);
    auto *h = static_cast<PKLIBSZHASH>(std::calloc(1, bytes));
    if (!h)
        return kemo::fail<PKLIBSZHASH>(nullptr, ERR_OUT_OF_MEMORY);
    h->nPoolSize = static_cast<int>(poolSize);
    h->nPoolFree = h->nPoolSize;
    h->nSlot = static_cast<int>(nSlot);
    h->nPair = 0;
    h->pPool = poolStart(h);
    return h;
}

struct Room {
    PKLIBSZHASH table = nullptr;   // the table to store into (null: failed)
    PKLIBSZHASH retired = nullptr; // the old block after a rebuild
};

// Makes room for r more pool bytes and keeps at least a tenth of the slots
// free, rebuilding the table into a new block when needed.  The old block
// is handed back rather than freed: the strings being stored may live in it.
Room makeRoom(PKLIBSZHASH h, size_t r)
{
    const int n = h->nSlot;
    const int freeSlots = n - h->nPair;
    const float f = static_cast<float>(freeSlots) / static_cast<float>(n);
    const bool moreSlots = f < kMinFreeSlotRatio;
    const long long need = static_cast<long long>(r);

    long long poolSize = h->nPoolSize;
    if (h->nPoolFree <= need) {
        // Grow the pool by the average pair size for every free slot.
        const long long perPair =
            h->nPair > 0 ? static_cast<long long>(static_cast<float>(h->nPoolSize) /
                                                  static_cast<float>(h->nPair))
                         : need;
        poolSize += freeSlots * perPair + need;
    } else if (!moreSlots) {
        return {h, nullptr};
    }

    PKLIBSZHASH g = newTable(moreSlots ? 4LL * n - 5 : n, poolSize);
    if (!g)
        return {};
    if (kemo::szhash::copy(*h, *g) != 0) {
        std::free(g);
        return {};
    }
    return {g, h};
}

bool put(FILE *stream, std::string_view text)
{
    return text.empty() || std::fwrite(text.data(), 1, text.size(), stream) == text.size();
}

} // namespace

namespace kemo::szhash {

int copy(const KLIBSZHASH &src, KLIBSZHASH &dst)
{
    for (int i = 0; i < src.nSlot; ++i) {
        const KLIBSZHASHSLOT &s = src.rgSlot[i];
        if (!s.pszKey)
            continue;
        const std::string_view k{s.pszKey};
        const std::string_view v{s.pszValue};
        const Probe p = probe(&dst, k);
        if (p.found >= 0) {
            if (v.size() > std::strlen(dst.rgSlot[p.found].pszValue) &&
                static_cast<size_t>(dst.nPoolFree) < v.size() + 1)
                return kemo::fail(-1, ERR_NOT_ENOUGH_SPACE);
            replaceValue(&dst, p.found, v);
        } else {
            if (p.insert < 0 || static_cast<size_t>(dst.nPoolFree) < k.size() + v.size() + 2)
                return kemo::fail(-1, ERR_NOT_ENOUGH_SPACE);
            storePair(&dst, p.insert, k, v);
        }
    }
    return 0;
}

int write_section(FILE *stream, const char *section, const KLIBSZHASH &hash, const char *format)
{
    kemo::PairFormat fmt;
    if (!fmt.parse_or_default(format))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    if (section && !(put(stream, "[") && put(stream, section) && put(stream, "]\n")))
        return kemo::fail(-1, ERR_WRITE_FAILED);
    for (int i = 0; i < hash.nSlot; ++i) {
        const KLIBSZHASHSLOT &s = hash.rgSlot[i];
        if (s.pszKey && !put(stream, fmt.line(s.pszKey, s.pszValue)))
            return kemo::fail(-1, ERR_WRITE_FAILED);
    }
    return 0;
}

} // namespace kemo::szhash

extern "C" {

PKLIBSZHASH PshKLIBSzHashAlloc(int size)
{
    return newTable(kFirstSlots, std::max(size, kMinPool));
}

void KLIBSzHashFree(PKLIBSZHASH hash) { std::free(hash); }

const char *SzKLIBSzHashGetValue(PKLIBSZHASH hash, const char *key)
{
    if (!hash || !key)
        return nullptr;
    const Probe p = probe(hash, key);
    return p.found < 0 ? nullptr : hash->rgSlot[p.found].pszValue;
}

int KLIBSzHashSetValue(PKLIBSZHASH *phash, const char *key, const char *value)
{
    if (!phash || !*phash || !key || !value)
        return -1;
    PKLIBSZHASH h = *phash;
    const std::string_view k{key};
    const std::string_view v{value};

    Probe p = probe(h, k);
    const bool exists = p.found >= 0;
    if (exists && v.size() <= std::strlen(h->rgSlot[p.found].pszValue)) {
        replaceValue(h, p.found, v);
        return p.found;
    }
    if (!exists && p.insert < 0)
        return -1; // every slot is taken

    const Room room = makeRoom(h, exists ? v.size() + 1 : k.size() + v.size() + 2);
    if (!room.table)
        return -1;
    if (room.retired) {
        h = room.table;
        p = probe(h, k);
    }
    int slot = exists ? p.found : p.insert;
    if (slot >= 0) {
        if (exists)
            replaceValue(h, slot, v);
        else
            storePair(h, slot, k, v);
    }
    if (room.retired) {
        std::free(room.retired);
        *phash = h;
    }
    return slot;
}

const char *SzKLIBSzHashRemoveKey(PKLIBSZHASH hash, const char *key)
{
    if (!hash || !key)
        return nullptr;
    const Probe p = probe(hash, key);
    if (p.found < 0)
        return nullptr;
    KLIBSZHASHSLOT &s = hash->rgSlot[p.found];
    s.pszKey = nullptr; // the value stays: the slot is now a tombstone
    --hash->nPair;
    return s.pszValue;
}

int KLIBSzHashEnumKey(PKLIBSZHASH hash, PKLIBSZLIST *plist)
{
    if (!hash)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    int count = 0;
    for (int i = 0; i < hash->nSlot; ++i) {
        const char *key = hash->rgSlot[i].pszKey;
        if (!key)
            continue;
        if (plist && KLIBSzListPush(plist, key) < 0)
            return -1;
        ++count;
    }
    return count;
}

int KLIBSzHashPairNum(PKLIBSZHASH hash)
{
    if (!hash)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return hash->nPair;
}

int KLIBSzHashGetLength(PKLIBSZHASH hash) { return hash ? hash->nPair : -1; }

void PslSzHashRemoveAll(PKLIBSZHASH hash)
{
    if (!hash)
        return;
    for (int i = 0; i < hash->nSlot; ++i)
        hash->rgSlot[i].pszKey = nullptr;
    hash->nPair = 0;
    hash->nPoolFree = hash->nPoolSize;
    hash->pPool = poolStart(hash);
}

int KLIBICopyHash(PKLIBSZHASH src, PKLIBSZHASH dst)
{
    if (!src || !dst)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::szhash::copy(*src, *dst);
}

void KLIBIHashDump(PKLIBSZHASH hash)
{
    if (!hash)
        return;
    PKLIBSZLIST keys = PslKLIBSzListAlloc(2000);
    if (!keys)
        return;
    KLIBSzHashEnumKey(hash, &keys);
    for (int i = 0; i < keys->nItem; ++i)
        std::printf("%ith item: key=%s,value=%s\n", i, keys->pszItem[i],
                    SzKLIBSzHashGetValue(hash, keys->pszItem[i]));
    KLIBSzListFree(keys);
}

int ErrKLIBIFileHash2File(FILE *stream, const char *section, PKLIBSZHASH hash, const char *format)
{
    if (!stream || !hash)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::szhash::write_section(stream, section, *hash, format); });
}

} // extern "C"
