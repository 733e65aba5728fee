/*
 * kemo.h - the public interface of libkemo, the system-management library
 * of the kemo network storage appliance.
 *
 * Every function here has C linkage and a flat calling convention; the
 * header compiles as C11 and as C++.  Conventions shared by all functions:
 *
 *  - Failure: a function that fails stores an error code with KLIBErrSet
 *    (both into errno and into kemoerrno) and returns its failure value:
 *    -1 for most, 0 or NULL for getters and allocators, 0 for Bl predicates.
 *    Success does not clear the code.
 *  - Error codes are an index into rgszErrMsg shifted left by 8 bits; a code
 *    whose low byte is not zero is a plain libc errno value.
 *  - Ownership: lists (PKLIBSZLIST) and hashes (PKLIBSZHASH) are single heap
 *    blocks created by their Psl/Psh allocators and freed by the caller with
 *    KLIBSzListFree/KLIBSzHashFree.  Functions that may grow a list or hash
 *    take the address of the caller's pointer because growth moves the block.
 *  - The library keeps process-global state without locking and is meant
 *    for single-threaded callers.
 */
#ifndef KEMO_H
#define KEMO_H

#include <stddef.h>
#include <stdio.h>

#if defined(__GNUC__)
#define KEMO_API __attribute__((visibility("default")))
#else
#define KEMO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Library version                                                           */
/* ------------------------------------------------------------------------ */

#define KEMO_VERSION_MAJOR 0
#define KEMO_VERSION_MINOR 1
#define KEMO_VERSION_PATCH 0

/* The version of the loaded library as "MAJOR.MINOR.PATCH" (static text). */
KEMO_API const char *SzKEMOLibVersion(void);

/* ------------------------------------------------------------------------ */
/* Error state and error codes                                               */
/* ------------------------------------------------------------------------ */

#define KEMO_ERR_CODE(index) ((index) << 8)

#define ERR_SUCCESS                 0x0000
#define ERR_NOT_ENOUGH_MEMORY       0x0100
#define ERR_OUT_OF_MEMORY           0x0200
#define ERR_ACCESS_DENIED           0x0300
#define ERR_LOCK_FAILED             0x0400
#define ERR_UNLOCK_FAILED           0x0500
#define ERR_PATH_NOT_FOUND          0x0600
#define ERR_FILE_NOT_FOUND          0x0700
#define ERR_FILE_EXISTS             0x0800
#define ERR_OPEN_FAILED             0x0900
#define ERR_READ_FAILED             0x0A00
#define ERR_WRITE_FAILED            0x0B00
#define ERR_CREATE_FAILED           0x0C00
#define ERR_BAD_PARAMETERS          0x0D00
#define ERR_INVALID_SERVERNAME      0x0E00
#define ERR_INVALID_DOMAINNAME      0x0F00
#define ERR_INVALID_NETNAME         0x1000
#define ERR_SERVER_UNREACHABLE      0x1100
#define ERR_INVALID_SHARENAME       0x1200
#define ERR_SHARE_EXISTS            0x1300
#define ERR_NO_SUCH_SHARE           0x1400
#define ERR_TOO_MANY_SHARES         0x1500
#define ERR_INVALID_GROUPNAME       0x1600
#define ERR_GROUP_EXISTS            0x1700
#define ERR_NO_SUCH_GROUP           0x1800
#define ERR_TOO_MANY_GROUPS         0x1900
#define ERR_INVALID_USERNAME        0x1A00
#define ERR_INVALID_PASSWORDNAME    0x1B00
#define ERR_USER_EXISTS             0x1C00
#define ERR_NO_SUCH_USER            0x1D00
#define ERR_WRONG_PASSWORD          0x1E00
#define ERR_TOO_MANY_USERS          0x1F00
#define ERR_KEY_NOT_FOUND           0x2000
#define ERR_KEY_EXISTS              0x2100
#define ERR_SECTION_NOT_FOUND       0x2200
#define ERR_SECTION_EXISTS          0x2300
#define ERR_NOT_ENOUGH_QUOTA        0x2400
#define ERR_NOT_ENOUGH_VOLUME_SPACE 0x2500
#define ERR_SEEK_FAILED             0x2600
#define ERR_STAT_FAILED             0x2700
#define ERR_RENAME_FAILED           0x2800
#define ERR_NOT_ENOUGH_SPACE        0x2900
#define ERR_OP_FAILURE              0x2A00
#define ERR_DEV_UNCONFIG            0x2B00
#define ERR_DEV_UNMOUNTED           0x2C00
#define ERR_OP_UNREGISTERED         0x2D00
#define ERR_TIMER_EXPIRED           0x2E00
#define ERR_READ_GEO                0x3000
#define ERR_USAGE                   0x3100
#define ERR_UPDATE_OFFSET           0x3200
#define ERR_CHECKSUM                0x3300
#define ERR_OPEN_RAWDEVICE          0x3400
#define ERR_OPEN_OPTFILE            0x3500
#define ERR_READ_RAWDEVICE          0x3600
#define ERR_WRITE_RAWDEVICE         0x3700
#define ERR_BADPATCH                0x3800
#define ERR_FORMAT_ERROR            0x4000
#define ERR_NO_VOLUME_ID            0x6000
#define ERR_NO_DISK_ID              0x6100
#define ERR_NOT_ENOUGH_SD           0x6200
#define ERR_SD_SIZE_NOT_ALIGN       0x6300
#define ERR_DEVICE_BUSY             0x6400
#define ERR_INVALID_SD              0x6500
#define ERR_FORMAT_FAIL             0x6600
#define ERR_CANNOT_REBUILD_DISK     0x6700
#define ERR_BROKEN_RAID_CONF        0x6800
#define ERR_DISK_TOO_SMALL          0x6900
#define ERR_CANNOT_GET_MNTINFO      0x6A00
#define ERR_BROKEN_DISK_INFO        0x6B00
#define ERR_DISK_IO_FAILED          0x6C00
#define ERR_BAD_DISKSECTOR          0x6D00
#define ERR_UDPD_INVALID_HANDLE     0x7100
#define ERR_UDPD_RUNNING_HANDLE     0x7200
#define ERR_UDPD_INVALID_EVENT      0x7300
#define ERR_UDPD_INVALID_PARAMETER  0x7400
#define ERR_UDPD_EXIT_ABNORMAL      0x7500
#define ERR_UDPD_NOT_ENOUGH_SPACE   0x7600
#define ERR_UDPD_TIMEOUT            0x7700
#define ERR_UDPD_INIT_FAIL          0x7800
#define ERR_UDPD_SEND_FAIL          0x7900
#define ERR_UDPD_RECV_FAIL          0x7A00
#define ERR_UNKNOWN                 0x8000
#define ERR_SYS_UNKNOWN             0x8100
#define ERR_VOLUME_SIZE_TOO_LARGE   0x8200
#define ERR_YP_BIND                 0x9000

/* Number of slots in rgszErrMsg (indices 0 to 144). */
#define KEMO_ERR_TABLE_SIZE 145

/* The last library error code of this process (not per thread). */
extern KEMO_API int kemoerrno;

/* Names of the error codes by index (code >> 8); reserved slots are NULL. */
extern KEMO_API const char *const rgszErrMsg[KEMO_ERR_TABLE_SIZE];

/* Stores code into errno and into kemoerrno. */
KEMO_API void KLIBErrSet(int code);

/* Returns kemoerrno. */
KEMO_API int KLIBErrGet(void);

/* Prints the name of the code held in errno (not kemoerrno) and a newline to
 * standard output; prints nothing for plain libc values, indices above 144
 * and reserved slots. */
KEMO_API void KLIBErrPrint(void);

/* Creates or truncates the error log file at path (durably).  NULL: no-op. */
KEMO_API void KLIBErrLogInitial(const char *path);

/* Appends message (used as a printf format without arguments) and a newline
 * to the error log at path, flushed and fsynced.  0, or -1 with
 * ERR_BAD_PARAMETERS (NULL argument), ERR_OPEN_FAILED or ERR_WRITE_FAILED. */
KEMO_API int KLIBErrLogSet(const char *path, const char *message);

/* ------------------------------------------------------------------------ */
/* Tracked memory and streams                                                */
/* ------------------------------------------------------------------------ */
/* Every call passes the caller's source file and line.  A process-wide
 * tracer records each live block and stream; blocks carry 32-byte guard
 * zones on both sides.  Unknown and double frees are refused, damaged guards
 * and leaks (at exit) are reported to the system log at LOG_ERR. */

/* size + 64 bytes from libc, returns the user pointer; size 0 gives NULL
 * silently; failure logs and returns NULL. */
KEMO_API void *KEMOMemMAlloc(size_t size, const char *file, int line);

/* KEMOMemMAlloc(count * size) zero-filled; NULL if the product overflows. */
KEMO_API void *KEMOMemCAlloc(size_t count, size_t size, const char *file, int line);

/* Resizes a tracked block, keeping the first allocation's site and recording
 * this call as the reallocation site.  ptr NULL acts as KEMOMemMAlloc; size 0
 * returns NULL and leaves ptr alive.  Returns the new user pointer or NULL
 * (then ptr is still valid). */
KEMO_API void *KEMOMemRealloc(void *ptr, size_t size, const char *file, int line);

/* KEMOMemRealloc that frees ptr when the reallocation fails. */
KEMO_API void *KEMOMemReallocFree(void *ptr, size_t size, const char *file, int line);

/* Releases a tracked block after checking its guards; unknown blocks (and
 * NULL) are refused and logged, nothing is released. */
KEMO_API void KEMOMemFree(void *ptr, const char *file, int line);

/* fopen (large-file) recorded by the tracer; NULL and a log line on failure. */
KEMO_API FILE *KEMOFileOpen(const char *path, const char *mode, const char *file, int line);

/* fdopen recorded by the tracer; NULL and a log line on failure. */
KEMO_API FILE *KEMOFileDescOpen(int fd, const char *mode, const char *file, int line);

/* freopen of stream; the tracer entry follows the returned stream.  On
 * failure the old entry is dropped and NULL returned. */
KEMO_API FILE *KEMOFileReopen(const char *path, const char *mode, FILE *stream,
                              const char *file, int line);

/* fclose of a tracked stream and its result; an unknown stream is not
 * closed: -1 and a log line. */
KEMO_API int KEMOFileClose(FILE *stream, const char *file, int line);

/* Convenience forms that pass the caller's own source position. */
#define KEMO_MALLOC(size) KEMOMemMAlloc((size), __FILE__, __LINE__)
#define KEMO_CALLOC(count, size) KEMOMemCAlloc((count), (size), __FILE__, __LINE__)
#define KEMO_REALLOC(ptr, size) KEMOMemRealloc((ptr), (size), __FILE__, __LINE__)
#define KEMO_FREE(ptr) KEMOMemFree((ptr), __FILE__, __LINE__)
#define KEMO_FOPEN(path, mode) KEMOFileOpen((path), (mode), __FILE__, __LINE__)
#define KEMO_FCLOSE(stream) KEMOFileClose((stream), __FILE__, __LINE__)

/* ------------------------------------------------------------------------ */
/* Plain system wrappers (not tracked)                                       */
/* ------------------------------------------------------------------------ */

/* The libc call's result, unchanged. */
KEMO_API int KLIBSysRename(const char *oldpath, const char *newpath);
KEMO_API int KLIBSysUnlink(const char *path);
KEMO_API int KLIBSysRemove(const char *path);
KEMO_API int KLIBSysRmdir(const char *path);

/* fopen with mode cut to 7 characters. */
KEMO_API FILE *pfKLIBSysFopen(const char *path, const char *mode);

/* fdopen / freopen with the mode "s" followed by at most 6 characters of
 * the caller's mode (kept for compatibility with existing callers; glibc
 * refuses such a mode with EINVAL). */
KEMO_API FILE *pfKLIBSysFdopen(int fd, const char *mode);
KEMO_API FILE *pfKLIBSysFreopen(const char *path, const char *mode, FILE *stream);

/* ------------------------------------------------------------------------ */
/* String list                                                               */
/* ------------------------------------------------------------------------ */
/* One heap block: this header, nItem item pointers directly after it, free
 * room, and a pool of strings growing down from the block's end.  The last
 * byte of the block is a NUL shared by all gap items (pszEmpty).
 * Invariant: nFree = nSize - header - nItem * sizeof(char *) - pool bytes in
 * use (dead strings included until the next growth).  Pointers returned by
 * Get/Remove point into the block and die when it moves or is freed. */

#define KLIB_SZLIST_UNSORTED  0   /* insertion order */
#define KLIB_SZLIST_SORTED    1   /* byte order (strcmp) */
#define KLIB_SZLIST_CASESORT  16  /* UTF-8 case-insensitive order */
#define KLIB_SZLIST_NEWLIST   0x1000 /* set operations: build a new list */

typedef struct _tag_KLIBSZLIST {
    int nSize;       /* bytes of the whole block */
    int nItem;       /* number of items */
    int nFree;       /* free bytes between item array and pool */
    int fMode;       /* 0 unsorted, 1 byte-sorted, 16 case-sorted */
    char *EndofFree; /* lowest byte of the string pool */
    char *pszEmpty;  /* last byte of the block, a NUL */
    char *pszItem[]; /* nItem string pointers */
} KLIBSZLIST, *PKLIBSZLIST;

/* A list in a block of max(size, 512) bytes; NULL with ERR_OUT_OF_MEMORY. */
KEMO_API PKLIBSZLIST PslKLIBSzListAlloc(int size);

/* Frees the block; NULL is ignored. */
KEMO_API void KLIBSzListFree(PKLIBSZLIST list);

/* Empties the list, keeping its block and sort mode; NULL is ignored. */
KEMO_API void KLIBSzListRemoveAll(PKLIBSZLIST list);

/* Inserts a copy of str at index (past the end: gap items fill the hole;
 * sorted lists ignore index and insert in order).  Returns the index where
 * the string now stands, or -1 (ERR_BAD_PARAMETERS, ERR_OUT_OF_MEMORY: the
 * list is unchanged).  May move the block. */
KEMO_API int KLIBSzListInsert(PKLIBSZLIST *plist, int index, const char *str);

/* Insert at the end / at the front. */
KEMO_API int KLIBSzListPush(PKLIBSZLIST *plist, const char *str);
KEMO_API int KLIBSzListUnshift(PKLIBSZLIST *plist, const char *str);

/* Replaces item index.  A string no longer than the old one overwrites it
 * in place; a longer one is stored in the pool without growing the block
 * (-1 with ERR_NOT_ENOUGH_SPACE when nFree cannot hold it).  Sorted lists
 * are re-sorted and the item's new position is returned; otherwise index.
 * -1 with ERR_BAD_PARAMETERS on bad arguments. */
KEMO_API int KLIBSzListSet(PKLIBSZLIST *plist, int index, const char *str);

/* Item index, or NULL with ERR_BAD_PARAMETERS. */
KEMO_API const char *SzKLIBSzListGet(PKLIBSZLIST list, int index);

/* Removes item index and returns its string (still inside the block), or
 * NULL with ERR_BAD_PARAMETERS. */
KEMO_API const char *SzKLIBSzListRemove(PKLIBSZLIST list, int index);

/* Remove the last item / the first item. */
KEMO_API const char *SzKLIBSzListPop(PKLIBSZLIST list);
KEMO_API const char *SzKLIBSzListShift(PKLIBSZLIST list);

/* Index of the first item equal to str (strcmp), or -1.  Binary search in
 * mode 1; refused (ERR_BAD_PARAMETERS) in mode 16. */
KEMO_API int KLIBSzListFind(PKLIBSZLIST list, const char *str);

/* Index of an item equal to str without regard to case (UTF-8), or -1.
 * Binary search in mode 16; refused (ERR_BAD_PARAMETERS) in mode 1. */
KEMO_API int KLIBSzListCaseFind(PKLIBSZLIST list, const char *str);

/* The list's sort mode, or -1 with ERR_BAD_PARAMETERS for NULL. */
KEMO_API int KLIBSzListSorted(PKLIBSZLIST list);

/* Sorts an unsorted list by mode (bit 0: strcmp, bit 4: case-insensitive),
 * dropping gap items, and sets fMode to mode.  An already sorted list is
 * only relabelled.  0, or -1 with ERR_BAD_PARAMETERS. */
KEMO_API int KLIBSzListSortItems(PKLIBSZLIST list, int mode);

/* Set union, intersection and difference of *plistA and listB.  With flags
 * KLIB_SZLIST_NEWLIST a new list is returned and A is left alone; otherwise
 * A is changed in place and its (possibly moved) block returned.  Sorted
 * operands must share their mode.  NULL with ERR_BAD_PARAMETERS or
 * ERR_OUT_OF_MEMORY. */
KEMO_API PKLIBSZLIST PslKLIBSzListOr(PKLIBSZLIST *plistA, PKLIBSZLIST listB, int flags);
KEMO_API PKLIBSZLIST PslKLIBSzListAnd(PKLIBSZLIST *plistA, PKLIBSZLIST listB, int flags);
KEMO_API PKLIBSZLIST PslKLIBSzListSub(PKLIBSZLIST *plistA, PKLIBSZLIST listB, int flags);

/* Debugging print of the list to standard output. */
KEMO_API void KLIBISzListDump(PKLIBSZLIST list);

/* ------------------------------------------------------------------------ */
/* String hash                                                               */
/* ------------------------------------------------------------------------ */
/* One heap block: this header, nSlot slots directly after it, then a pool of
 * nPoolSize bytes.  Open addressing with linear probing; a removed key
 * leaves a tombstone (key NULL, value kept).  Keys compare with strcmp. */

typedef struct _tag_KLIBSZHASHSLOT {
    char *pszKey;   /* NULL: empty (value NULL) or tombstone (value set) */
    char *pszValue;
} KLIBSZHASHSLOT, *PKLIBSZHASHSLOT;

typedef struct _tag_KLIBSZHASH {
    int nPoolSize;   /* bytes of the string pool */
    int nPoolFree;   /* bytes of the pool not yet used */
    int nSlot;       /* number of slots (31 for a new table) */
    int nPair;       /* number of live keys */
    char *pPool;     /* next free byte of the pool */
    KLIBSZHASHSLOT rgSlot[]; /* nSlot slots, then the pool */
} KLIBSZHASH, *PKLIBSZHASH;

/* A table of 31 slots and a pool of max(size, 512) bytes; NULL with
 * ERR_OUT_OF_MEMORY. */
KEMO_API PKLIBSZHASH PshKLIBSzHashAlloc(int size);

/* Frees the block; NULL is ignored. */
KEMO_API void KLIBSzHashFree(PKLIBSZHASH hash);

/* The value of key (inside the block) or NULL; sets no error code. */
KEMO_API const char *SzKLIBSzHashGetValue(PKLIBSZHASH hash, const char *key);

/* Inserts or replaces key; returns its slot index or -1 (NULL argument,
 * table full, or no room: ERR_OUT_OF_MEMORY).  May move the block. */
KEMO_API int KLIBSzHashSetValue(PKLIBSZHASH *phash, const char *key, const char *value);

/* Removes key, leaving a tombstone; returns the old value (still inside the
 * block) or NULL when absent. */
KEMO_API const char *SzKLIBSzHashRemoveKey(PKLIBSZHASH hash, const char *key);

/* Counts the keys in slot order and pushes each onto *plist when plist is
 * not NULL.  The count, or -1 (NULL hash, failed push). */
KEMO_API int KLIBSzHashEnumKey(PKLIBSZHASH hash, PKLIBSZLIST *plist);

/* The number of keys; NULL: -1 with ERR_BAD_PARAMETERS. */
KEMO_API int KLIBSzHashPairNum(PKLIBSZHASH hash);

/* The number of keys; NULL: -1 without an error code. */
KEMO_API int KLIBSzHashGetLength(PKLIBSZHASH hash);

/* Removes every key (slots become tombstones) and empties the pool.  NULL is
 * ignored. */
KEMO_API void PslSzHashRemoveAll(PKLIBSZHASH hash);

/* Inserts every live pair of src, in slot order, into dst, which must have
 * room.  0, or -1 with ERR_BAD_PARAMETERS / ERR_NOT_ENOUGH_SPACE. */
KEMO_API int KLIBICopyHash(PKLIBSZHASH src, PKLIBSZHASH dst);

/* Debugging print of every pair to standard output. */
KEMO_API void KLIBIHashDump(PKLIBSZHASH hash);

/* Writes "[section]\n" (when section is not NULL) and every pair in slot
 * order with format ("%s=%s\n" when NULL).  The format holds exactly two
 * "%s" (key, then value) with "=" between them and a newline after the
 * second; "%%" is a literal "%"; anything else is refused with
 * ERR_BAD_PARAMETERS before a byte is written.  0, or -1 with
 * ERR_BAD_PARAMETERS or ERR_WRITE_FAILED. */
KEMO_API int ErrKLIBIFileHash2File(FILE *stream, const char *section, PKLIBSZHASH hash,
                                   const char *format);

/* ------------------------------------------------------------------------ */
/* Unicode                                                                   */
/* ------------------------------------------------------------------------ */

/* Compares two UTF-8 strings without regard to case: both are upper-cased
 * and compared with the cached collator of the current locale.  -1, 0 or 1;
 * -2 on failure (NULL argument, invalid UTF-8, no memory, no collator). */
KEMO_API int KLIBUnicodeUTF8StrCaseCmp(const char *a, const char *b);

/* Kept for existing callers: the collator stays cached for the life of the
 * process.  Both return 1. */
KEMO_API int KLIBUnicodeOpenCollator(void);
KEMO_API int KLIBUnicodeCloseCollator(void);

#ifdef __cplusplus
}
#endif

#endif /* KEMO_H */
