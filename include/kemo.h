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
#include <stdint.h>
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

/* Number of Unicode code points in a UTF-8 string; -1 with
 * ERR_BAD_PARAMETERS (NULL), ERR_OUT_OF_MEMORY or ERR_UNKNOWN (invalid). */
KEMO_API int KLIBUnicodeUTF8StrCountChar(const char *s);

/* Upper-cases a UTF-8 string in the current locale.  Returns the length of
 * the result; it is copied to dst only when length < size, otherwise dst
 * becomes "" (when size > 0).  size 0 only measures.  -1 with
 * ERR_BAD_PARAMETERS (NULL src, negative size, NULL dst with size > 0) or
 * ERR_UNKNOWN (invalid UTF-8). */
KEMO_API int KLIBUnicodeUTF8StrUpper(const char *src, char *dst, int size);

/* Upper-cases n UTF-16 units of src (n < 0: up to the terminating 0) into
 * a new buffer from malloc (terminated; the caller frees it with free()).
 * Returns the result's length in units, or -1 with ERR_BAD_PARAMETERS,
 * ERR_OUT_OF_MEMORY or ERR_UNKNOWN. */
KEMO_API int KLIBUnicodeIUTF16StrUpper(const uint16_t *src, int n, uint16_t **pdst);

/* Settings values of the code-page indexes 0..32 ("8", "437", ... "2950"). */
#define KLIB_CODEPAGE_COUNT 33
KEMO_API extern const char *const rgszSysConfCPValues[KLIB_CODEPAGE_COUNT];

/* Code-page kinds: settings keys of /etc/kemoinfo.conf. */
#define KLIB_CP_KIND_SMB 1          /* "codepage" */
#define KLIB_CP_KIND_APPLE 4        /* "codepage_apple" */
#define KLIB_CP_KIND_MEDIASERVICE 32 /* "codepage_mediaservice" (read only) */

/* Reads the code-page index of a kind from /etc/kemoinfo.conf.  1, or -1
 * with ERR_BAD_PARAMETERS (unknown kind, NULL index), the file's code
 * (key missing) or ERR_KEY_NOT_FOUND (value not in the table). */
KEMO_API int KLIBUnicodeGetCodePage(int kind, int *index);
/* Stores index (< 33) for kind 1 or 4 as key="value".  1, or -1. */
KEMO_API int KLIBUnicodeSetCodePage(int kind, int index);

/* Converter indexes 0..33 (0 UTF-8, 1..32 the code pages of the settings
 * table, 33 UTF-16). */
#define KLIB_CONVERTER_COUNT 34
struct UConverter;
/* The cached ICU converter of an index, opened on first use; NULL with
 * ERR_BAD_PARAMETERS or ERR_OPEN_FAILED.  Owned by the library. */
KEMO_API struct UConverter *PuconvKLIBUnicodeIOpenConvertor(int index);
/* Kept for existing callers; converters stay cached.  Both return 1. */
KEMO_API int KLIBUnicodeOpenConvertor(void);
KEMO_API int KLIBUnicodeCloseConvertor(void);

/* Conversions between a code page (by converter index) and UTF-8, with the
 * size conventions of KLIBUnicodeUTF8StrUpper: the result's length is
 * returned, and the text copied only when length < size. */
KEMO_API int KLIBUnicodeStrCPToUTF8(int index, const char *src, char *dst, int size);
KEMO_API int KLIBUnicodeStrUTF8ToCP(int index, const char *src, char *dst, int size);
/* Same from a 0-terminated UTF-16 string. */
KEMO_API int KLIBUnicodeStrUTF16ToUTF8(const uint16_t *src, char *dst, int size);

/* The address of the byte after the n-th character of a UTF-8 string (the
 * terminating NUL when it has fewer); NULL for NULL s, negative n or
 * invalid UTF-8. */
KEMO_API const char *SzKLIBUnicodeUTF8ForwardNChar(const char *s, int n);

/* Shortens src to maxChars characters followed by suffix into dst, which
 * must hold 6 * maxChars + strlen(suffix) + 1 bytes.  1 when shortened, 0
 * when src already fits (dst untouched), -1 on failure. */
KEMO_API int KLIBUnicodeUTF8ShortenStr(const char *src, int maxChars, const char *suffix,
                                       char *dst, int size);

/* Locale of collation and case mapping ("" is the root locale).  Accepted
 * names: "", "de_DE", "en_US", "es_ES", "fr_FR", "it_IT", "ja_JP", "ko_KR",
 * "pt_BR", "zh__PINYIN", "zh_TW_STROKE". */
/* Gives the current name; checks it once (again with force != 0).  1, or
 * -1 with ERR_KEY_NOT_FOUND for an unknown name, ERR_BAD_PARAMETERS. */
KEMO_API int KLIBUnicodeIGetLocale(int force, const char **name);
/* Makes an accepted name current and drops the cached collator.  1, or -1
 * with ERR_BAD_PARAMETERS / ERR_KEY_NOT_FOUND. */
KEMO_API int KLIBUnicodeSetLocale(const char *name);
/* Forgets the locale check and closes the cached collator.  1. */
KEMO_API int KLIBUnicodeReInitLocale(void);

/* 1 when the "client code page" of /usr/kemo/etc/smb.conf is a
 * double-byte code page (932, 936, 949, 950), else 0. */
KEMO_API int BlKLIBIsDByte(void);

/* ------------------------------------------------------------------------ */
/* Strings                                                                   */
/* ------------------------------------------------------------------------ */

/* Removes leading and trailing space, tab, CR and LF, then one pair of
 * enclosing double quotes.  Writes to dst, or back into src when dst is
 * NULL.  The resulting length, or -1 with ERR_BAD_PARAMETERS. */
KEMO_API int KLIBStrTrimSpace(char *src, char *dst);
/* strsep that skips empty tokens: the next non-empty token, NULL at the
 * end or for NULL arguments. */
KEMO_API char *KLIBIStrTok(char **cursor, const char *delimiters);
/* Pushes every non-empty token (KLIBStrTok) or every token, empty ones
 * included (KLIBStrSep), of str onto *plist.  The number of tokens, or -1. */
KEMO_API int KLIBStrTok(const char *str, const char *delimiters, PKLIBSZLIST *plist);
KEMO_API int KLIBStrSep(const char *str, const char *delimiters, PKLIBSZLIST *plist);
/* Splits line at its first "=" and pushes the trimmed key and value.  0;
 * -1 with ERR_BAD_PARAMETERS for an empty key or a line without "=" (the
 * key is pushed then). */
KEMO_API int KLIBStrSepPair(const char *line, PKLIBSZLIST *plist);

/* Colon encoding: ":" becomes ";," and ";" becomes ";;".  dst holds
 * size + 1 bytes.  The encoded length, or -1 with ERR_BAD_PARAMETERS or
 * ERR_NOT_ENOUGH_MEMORY. */
KEMO_API int KLIBStrEncodeColon(const char *src, char *dst, int size);
KEMO_API int KLIBStrDecodeColon(const char *src, char *dst, int size);
/* Each byte as two upper-case hexadecimal digits, and back.  dst holds
 * size bytes including the NUL.  The written length, or -1 with
 * ERR_BAD_PARAMETERS (NULL, odd length or a non-hex digit) or
 * ERR_NOT_ENOUGH_MEMORY. */
KEMO_API int KLIBStringToHexCode(const char *src, char *dst, int size);
KEMO_API int KLIBStrHexCodeToString(const char *src, char *dst, int size);

/* Lower-cases ASCII letters of s in place; returns s (NULL for NULL). */
KEMO_API char *SzKLIBStrCaseLower(char *s);
/* Edits of a NUL-terminated string in a buffer of size bytes.  Each
 * returns the new length, or -1 with ERR_BAD_PARAMETERS, ERR_KEY_NOT_FOUND
 * (anchor absent) or ERR_NOT_ENOUGH_MEMORY (the buffer stays as it was). */
/* Replaces every occurrence of from with to. */
KEMO_API int KLIBStrReplace(char *buf, int size, const char *from, const char *to);
/* Inserts text at byte offset pos (0..strlen). */
KEMO_API int KLIBStrInsert(char *buf, int size, int pos, const char *text);
/* Inserts text before / after the first occurrence of anchor. */
KEMO_API int KLIBStrInsertBefore(char *buf, int size, const char *anchor, const char *text);
KEMO_API int KLIBStrInsertAfter(char *buf, int size, const char *anchor, const char *text);
/* Deletes count bytes at byte offset pos (clipped at the end). */
KEMO_API int KLIBStrDelete(char *buf, int pos, int count);

/* Code page 932: (DOS code, Mac code) pairs of the characters whose codes
 * differ between the two forms. */
#define KLIB_932_PAIRS 316
KEMO_API extern const uint32_t rg932DosMac[KLIB_932_PAIRS][2];
/* One double-byte code from one form to the other; unmapped codes come
 * back unchanged. */
KEMO_API uint32_t KLIBDcharMac2Dos(uint32_t code);
KEMO_API uint32_t KLIBDcharDos2Mac(uint32_t code);
/* Whole code-page-932 strings from the Mac form to the DOS form (MacIE2Unix)
 * and back, into dst of size bytes.  dst, or NULL with ERR_BAD_PARAMETERS
 * or ERR_NOT_ENOUGH_MEMORY. */
KEMO_API char *SzKLIBStrMacIE2Unix(const char *src, char *dst, int size);
KEMO_API char *SzKLIBStrUnix2MacIE(const char *src, char *dst, int size);

/* ------------------------------------------------------------------------ */
/* Validators: 1 valid, 0 invalid                                            */
/* ------------------------------------------------------------------------ */

KEMO_API int BlKLIBIsAtom(const char *s);
KEMO_API int BlKLIBIsDomain(const char *s);
KEMO_API int BlKLIBIsMailbox(const char *s);
/* Address a.b.c.d (numbers in C notation); rewritten in decimal in place. */
KEMO_API int BlKLIBIsIpAddr(char *s);
/* Contiguous non-zero mask; rewritten in decimal in place. */
KEMO_API int BlKLIBIsIpMask(char *s);
/* "address/prefix" naming a network (no host bits set, prefix 1..32);
 * rewritten in decimal in place. */
KEMO_API int BlKLIBIsSubNet(char *s);
/* "address/mask" to "network/prefix" and back; into dst, or over src when
 * dst is NULL (src then holds 32 bytes).  0, or -1 with ERR_BAD_PARAMETERS
 * or ERR_INVALID_NETNAME. */
KEMO_API int ErrKLIBIpMaskToSubnet(char *src, char *dst);
KEMO_API int ErrKLIBSubnetToIpMask(char *src, char *dst);
KEMO_API int BlKLIBIsHostname(const char *s);
KEMO_API int BlKLIBIsUserName(const char *s);
KEMO_API int BlKLIBIsGroupName(const char *s);
KEMO_API int BlKLIBIsShareName(const char *s);
KEMO_API int BlKLIBIsWorkGroupName(const char *s);

/* ------------------------------------------------------------------------ */
/* Key/value settings files                                                  */
/* ------------------------------------------------------------------------ */
/* Lines are "key=value"; a line whose first byte is "#" or ";" is a
 * comment.  Keys and values are trimmed of blanks and one pair of
 * enclosing double quotes; keys compare case-sensitively.  Lines may be of
 * any length.  Every rewrite writes a complete twin, fsyncs it and renames
 * it over the file (which keeps its owner and mode); lines a function does
 * not own are carried over byte for byte. */

/* 1 when line is not a comment and its key is key; else 0. */
KEMO_API int KLIBILineKeyMatch(const char *line, const char *key);
/* Value of key (the first matching line; the last with flags bit 0).
 * Returns its length + 1 and copies it when it fits size.  NULL buf with
 * size 0 measures.  0 with ERR_KEY_NOT_FOUND when absent or empty; -1 with
 * ERR_BAD_PARAMETERS, ERR_OPEN_FAILED or ERR_NOT_ENOUGH_MEMORY. */
KEMO_API int KLIBFileGetKeyValue(const char *path, const char *key, char *buf, int size,
                                 int flags);
/* Replaces the first line of key (dropping later ones) or appends one;
 * creates a missing file.  format (NULL: "%s=%s\n") holds "%s", "=", "%s",
 * newline in that order.  1, or -1. */
KEMO_API int KLIBFileSetKeyValue(const char *path, const char *key, const char *value,
                                 const char *format);
/* KLIBFileSetKeyValue, then KLIBFileAppendKey if that returned 0. */
KEMO_API int KLIBIFileSetKeyValue(const char *path, const char *key, const char *value,
                                  const char *format);
/* Appends key in place unless present (0 with ERR_KEY_EXISTS).  1, or -1. */
KEMO_API int KLIBFileAppendKey(const char *path, const char *key, const char *value,
                               const char *format);
/* Removes every line of key.  The number removed; 0 with ERR_KEY_NOT_FOUND;
 * -1 on failure. */
KEMO_API int KLIBFileRemoveKey(const char *path, const char *key);
/* Sets every "key=value" line into *phash (comments not special, later
 * lines win).  The hash's pair count, or -1. */
KEMO_API int KLIBFileGetPair(const char *path, PKLIBSZHASH *phash);
/* Sets every pair of hash in the file: lines of its keys are replaced in
 * place, the rest appended in slot order.  Keys found in the file leave the
 * hash.  The number of keys written (0: file untouched), or -1. */
KEMO_API int KLIBFileSetKeys(const char *path, PKLIBSZHASH hash, const char *format);
/* One line of a KLIBFileSetKeys rewrite: writes the key's new line and
 * removes the key from hash (1), or writes nothing (0).  -1 on failure. */
KEMO_API int KLIBILineKeyMoveHash2File(FILE *stream, const char *line, PKLIBSZHASH hash,
                                       const char *format);
/* 1 when format is NULL or holds "%s", "=", "%s" and a newline in order. */
KEMO_API int KLIBIFileCheckFormat(const char *format);
/* prefix + "<pid>-<counter>" into buf.  0, or -1. */
KEMO_API int KLIBFileITmpName(const char *prefix, char *buf, int size);

/* The whole first line (last with flags bit 0) of key, without its newline;
 * conventions of KLIBFileGetKeyValue. */
KEMO_API int KLIBFileGetLineByKey(const char *path, const char *key, char *buf, int size,
                                  int flags);
/* Replaces the first line of key by line (a newline is added when missing)
 * and drops later ones, or appends line; creates a missing file.  1, or -1. */
KEMO_API int KLIBFileSetLineByKey(const char *path, const char *key, const char *line);
/* Appends line unless a line of key exists (0 with ERR_KEY_EXISTS).  1, or
 * -1. */
KEMO_API int KLIBFileAddLineByKey(const char *path, const char *key, const char *line);
/* Replaces every occurrence of from by to in every line that is not a
 * comment.  The number of replacements (0: file untouched), or -1. */
KEMO_API int KLIBFileReplaceSubStr(const char *path, const char *from, const char *to);
/* Comments out ("#" in front) every line of key.  The number of lines, 0
 * with ERR_KEY_NOT_FOUND, or -1. */
KEMO_API int KLIBFileComment(const char *path, const char *key);
/* Sets every pair of hash in the file like KLIBFileSetKeys, leaving the
 * hash as it was.  0, or -1. */
KEMO_API int ErrKLIBFileSetPair(const char *path, PKLIBSZHASH hash, const char *format);
/* Appends to dst every key of src that dst lacks (dst's values win).  The
 * number of keys added, or -1. */
KEMO_API int KLIBFileMergePairs(const char *dst, const char *src, const char *format);
/* Rewrites the file with its lines in reverse order.  The number of lines,
 * or -1. */
KEMO_API int KLIBFileIInverse(const char *path);
/* Pushes every line, without its newline, onto *plist.  The count, or -1. */
KEMO_API int KLIBFileReadLines(const char *path, PKLIBSZLIST *plist);
/* 1-based number of the first line (last with flags bit 0) matching pattern
 * under the rules of KLIBILineMatch; 0 with ERR_KEY_NOT_FOUND; -1. */
KEMO_API int KLIBFileMatchLineNo(const char *path, const char *pattern, int flags);
/* Pushes "dir/name" of every entry but "." and ".." in byte order of the
 * names; flags: 0 all, KLIB_ENUM_FILES regular files, KLIB_ENUM_DIRS
 * directories.  The count, or -1. */
#define KLIB_ENUM_FILES 1
#define KLIB_ENUM_DIRS 2
KEMO_API int KLIBFileEnumDir(const char *dir, PKLIBSZLIST *plist, int flags);

/* ------------------------------------------------------------------------ */
/* Sectioned settings files                                                  */
/* ------------------------------------------------------------------------ */

/* Line match flags. */
#define KLIB_MATCH_LAST 0x1     /* callers: the last match, not the first */
#define KLIB_MATCH_PREFIX 0x2   /* pattern at the start of the line */
#define KLIB_MATCH_SUFFIX 0x4   /* pattern right before the newline */
#define KLIB_MATCH_NOCASE 0x400 /* compare UTF-8 upper-cased */

/* 1 when the first length bytes of line are a "[name]" header. */
KEMO_API int KLIBIFileIsSection(const char *line, int length);
/* 1 when they are the header of name; 0; -1 with ERR_BAD_PARAMETERS. */
KEMO_API int KLIBIFileMatchSection(const char *line, int length, const char *name);
/* 1 when line (not a comment) holds pattern under flags; else 0. */
KEMO_API int KLIBILineMatch(const char *line, const char *pattern, int flags);
/* Pushes every section name in file order.  The list's count, or -1. */
KEMO_API int KLIBFileEnumSection(const char *path, PKLIBSZLIST *plist);
/* Sets the pairs of section name into *phash.  The pair count, or -1. */
KEMO_API int KLIBFileGetSection(const char *path, const char *name, PKLIBSZHASH *phash);
/* Appends section name with the pairs of hash unless it exists (0).  1, or
 * -1. */
KEMO_API int ErrKLIBFileAddSection(const char *path, const char *name, PKLIBSZHASH hash,
                                   const char *format);
/* Drops every section name (keeping comment lines inside it); with flags
 * bit 0 writes newName (or name) with the pairs of hash in its place.  1
 * when found, 0 when not, -1. */
KEMO_API int ErrKLIBIFileModifySection(const char *path, const char *name, const char *newName,
                                       PKLIBSZHASH hash, int flags, const char *format);
KEMO_API int ErrKLIBFileRemoveSection(const char *path, const char *name);
KEMO_API int ErrKLIBFileSetSection(const char *path, const char *name, const char *newName,
                                   PKLIBSZHASH hash, const char *format);
/* Sets one key of a section, adding the section when absent.  1, or -1. */
KEMO_API int ErrSetSecKeyVal(const char *path, const char *section, const char *key,
                             const char *value, const char *format);
/* The first line (last with flags bit 0) matching pattern, without its
 * newline.  Its length + 1; 0 with ERR_KEY_NOT_FOUND; -1. */
KEMO_API int KLIBFileGetLine(const char *path, const char *pattern, char *buf, int size,
                             int flags);
/* Replaces the first (last with bit 0) matching line by line; creates a
 * missing file with line.  1; 0 with ERR_KEY_NOT_FOUND; -1. */
KEMO_API int KLIBFileSetLine(const char *path, const char *pattern, const char *line, int flags);
/* Inserts line after the first (last with bit 0) line matching pattern, or
 * at the end when none matches or pattern is NULL; creates a missing file.
 * 1, or -1. */
KEMO_API int KLIBFileAddLine(const char *path, const char *pattern, const char *line, int flags);

/* ------------------------------------------------------------------------ */
/* Configuration file locks                                                  */
/* ------------------------------------------------------------------------ */

/* Lock files under /tmp/lock/, selected by mask bits. */
#define KLIB_LOCK_KEMOINFO 0x800
#define KLIB_LOCK_PW 0x10
#define KLIB_LOCK_GR 0x20
#define KLIB_LOCK_RC 0x80
#define KLIB_LOCK_HOST 0x100
#define KLIB_LOCK_SMB 0x40
#define KLIB_LOCK_EXPORTS 0x200
#define KLIB_LOCK_NW 0x400
#define KLIB_LOCK_APPLE 0x1000
#define KLIB_LOCK_SNMP 0x2000
#define KLIB_LOCK_WIN 0x4000
#define KLIB_LOCK_TAPEBKP 0x8000
#define KLIB_LOCK_CONNECT 0x10000
#define KLIB_LOCK_USBIDMAP 0x20000
#define KLIB_LOCK_DUSERUID 0x40000
#define KLIB_LOCK_DUSERGID 0x80000
#define KLIB_LOCK_FSTAB 0x100000
#define KLIB_LOCK_HOTSWAP 0x200000
/* Operation, in the low 4 bits of a request. */
#define KLIB_LOCK_SH 1
#define KLIB_LOCK_EX 2
#define KLIB_LOCK_NB 4

/* Makes sure /tmp/lock/ is a directory of root's (mode 0755, no group or
 * other write) and every lock file a regular file of root's, mode 0600.
 * Anything else at those names (a link, a FIFO, another user's directory
 * or file, a lock file others may open) is moved away and replaced, never
 * used; only root can make these repairs.  0, or -1 with ERR_LOCK_FAILED
 * (the directory cannot be made trustworthy; logged) / ERR_OPEN_FAILED. */
KEMO_API int ErrKLIBILockCheckDir(void);
/* Takes the locks of request (masks | operation); timeout in seconds, 0 a
 * single attempt.  Locks nest; a lock this process holds shared is never
 * made exclusive by nesting (the request fails, blocking or not).  Lock
 * files are checked as ErrKLIBILockCheckDir describes before flock.  0, or
 * -1 with ERR_LOCK_FAILED (nothing of this request is then held) or
 * ERR_BAD_PARAMETERS for an operation that is not shared or exclusive. */
KEMO_API int ErrKLIBFileLock(int request, int timeout);
/* Releases one nesting level of each held lock in mask.  0, or -1. */
KEMO_API int ErrKLIBFileUnlock(int mask);
/* Keeps the held locks of mask at nesting 1 and releases all others. */
KEMO_API int ErrKLIBFileResetLock(int mask);
/* Releases every lock of the process.  0, or -1. */
KEMO_API int ErrKLIBFileCloseLock(void);
/* Opens path (created mode 0600 when absent; never through a symbolic link,
 * never anything but a regular file) holding an exclusive lock, retrying
 * every 200 ms while *timeoutMs (lowered as it goes) is not negative.  The
 * descriptor; -2 with ERR_LOCK_FAILED on timeout; -1 with ERR_OPEN_FAILED
 * or ERR_BAD_PARAMETERS. */
KEMO_API int GetExclusiveFileLock(const char *path, int *timeoutMs);
KEMO_API int ReleaseExclusiveFileLock(int fd);

/* ------------------------------------------------------------------------ */
/* Processes and sizes                                                       */
/* ------------------------------------------------------------------------ */

/* Runs path with up to four arguments (the list ends at the first NULL)
 * detached (stdio on /dev/null, no configuration locks, own session, cwd
 * "/") and waits.  Its exit code (255 when it could not be run); -1 with
 * ERR_OP_FAILURE when killed by a signal or fork failed. */
KEMO_API int KLIBExec(const char *path, const char *arg1, const char *arg2, const char *arg3,
                      const char *arg4);
/* system(command); 0 for NULL. */
KEMO_API int KLIBSystem(const char *command);
/* Starts path like KLIBExec without waiting.  The child's pid, or -1. */
KEMO_API int KLIBBackgroundExec(const char *path, const char *arg1, const char *arg2,
                                const char *arg3, const char *arg4);
/* Ids of the processes whose ps line holds name, up to max into pids.  The
 * number found (may exceed max), or -1. */
KEMO_API int KLIBPs(const char *name, int32_t *pids, int max);
/* Stops the processes named name (SIGTERM, then SIGKILL for survivors;
 * SIGKILL at once when force).  The number found, or -1. */
KEMO_API int KLIBIKill(const char *name, int force);
KEMO_API int BlKLIBIIsProcAlive(const char *name);
KEMO_API int BlKLIBProcAlive(int pid);
KEMO_API int BlProcessIsAlive(const char *name);
/* The number in a pid file; 0 when it holds none; -1 when unreadable. */
KEMO_API int KLIBReadPidFile(const char *path);
KEMO_API int KLIBProcAliveByPidFile(const char *path);

/* Sizes in bytes; 0 on failure. */
KEMO_API unsigned long long KLIBGetFsAvailSize(const char *path);
KEMO_API unsigned long long KLIBGetFsFreeSize(const char *path);
KEMO_API unsigned long long KLIBGetFsUsedSize(const char *path);
KEMO_API unsigned long long KLIBGetDirSize(const char *path);
KEMO_API unsigned long long KLIBGetFullDirSize(const char *path);

/* Service notifications.  Services: */
#define KLIB_SERVICE_SMB 0x1
#define KLIB_SERVICE_AFP 0x2
#define KLIB_SERVICE_FTP 0x4
/* Connections of the selected servers.  The count, or -1. */
KEMO_API int KLIBConnectionCountGet(int services);
/* 1 when one more connection stays within "maxservices"; 0 when not; -1. */
KEMO_API int KLIBConnectionCountLogin(int services);
/* 1 when the selected servers have a connection; else 0. */
KEMO_API int BlKLIBIsConnected(int services);
/* Asks the media indexer to index path (in a media folder).  0, or -1. */
KEMO_API int KLIBKemoIndexAdd(const char *path);
/* Asks the thumbnail maker to process path (in the photo folder).  0, -1. */
KEMO_API int KLIBSignalKemomkthumbd(const char *path);
/* Signals the status-light daemon: on != 0 lights, 0 clears.  0, or -1. */
KEMO_API int KLIBChangeQormdLight(int on);
/* Soft-resets the USB printer "/dev/usb/<device>".  0, or -1. */
KEMO_API int KEMOResetPrinter(const char *device);

/* ------------------------------------------------------------------------ */
/* Shared memory segments                                                    */
/* ------------------------------------------------------------------------ */

/* A System V shared memory segment with a one-value semaphore (semaphore 0
 * of its set: 1 free, 0 taken).  The record lives on the heap; its first
 * 96 bytes of layout (four 32-bit words, then the path) are also what a
 * descriptor file holds, with the address word meaningless there.
 * state: the segment size for records of KLIBShmemOpen/KLIBShmemMake; for
 * records of the attach kind, KLIB_SHMEM_ATTACHED and KLIB_SHMEM_ACCESS. */
#define KLIB_SHMEM_PATH_SIZE 80
#define KLIB_SHMEM_FILE_SIZE 96
#define KLIB_SHMEM_ACCESS 0x1
#define KLIB_SHMEM_ATTACHED 0x2
typedef struct KLIBSHMEM {
    int32_t shmid;
    int32_t semid;
    uint32_t state;
    void *addr;                       /* in this process; not kept in a file */
    char path[KLIB_SHMEM_PATH_SIZE];  /* the descriptor file, or "" */
} KLIBSHMEM;
/* The invalid record handle. */
#define KLIB_SHMEM_INVALID ((KLIBSHMEM *)-1)

/* Kept for callers of the attach kind, which make their segments
 * elsewhere: they do nothing and return NULL. */
KEMO_API KLIBSHMEM *KLIBShmemCreate(int key, uint32_t size);
KEMO_API KLIBSHMEM *KLIBShmemCreateByPath(const char *path, uint32_t size);
KEMO_API KLIBSHMEM *KLIBShmemAttach(int shmid);
/* Makes a private segment of size bytes (1 to 64 MiB, zero-filled) and
 * its semaphore, both readable and writable by the calling user only,
 * sets the semaphore to 1, attaches the segment and writes the descriptor
 * file descriptorPath (absolute, at most 79 bytes; created mode 0600, never
 * through a link or into another user's file).  A descriptor file that
 * still names a living segment is refused with ERR_FILE_EXISTS.  The
 * record (state = size), or KLIB_SHMEM_INVALID with ERR_BAD_PARAMETERS,
 * ERR_FILE_EXISTS, ERR_OUT_OF_MEMORY (the system refused the objects) or
 * ERR_WRITE_FAILED; nothing is left behind on failure. */
KEMO_API KLIBSHMEM *KLIBShmemMake(const char *descriptorPath, uint32_t size);
/* Reads the descriptor file, attaches its segment read-write and stores
 * the state word (the size) in *size when size is given.  The record, or
 * KLIB_SHMEM_INVALID (logged "fopen error\n", "malloc error\n",
 * "fread error i:%d\n"; or the segment is gone or smaller than the file
 * says). */
KEMO_API KLIBSHMEM *KLIBShmemOpen(const char *descriptorPath, uint32_t *size);
/* Detaches and frees the record.  0, or -1. */
KEMO_API int KLIBShmemClose(KLIBSHMEM *rec);
/* Waits (polling every 10 ms) until the semaphore is 1, sets it to 0 and
 * returns the attach address; NULL for the invalid handle or when the
 * semaphore no longer exists.  Reading and setting the value are two
 * calls: two processes may both win. */
KEMO_API void *AddrKLIBShmemGetShm(KLIBSHMEM *rec);
/* Sets the semaphore to 1.  0, or -1. */
KEMO_API int KLIBShmemReturnShm(KLIBSHMEM *rec);
/* Removes the segment and its semaphore, unlinks the descriptor file the
 * record names (if any) and frees the record.  0, or -1. */
KEMO_API int KLIBShmemDelete(KLIBSHMEM *rec);
/* The attach kind (state holds KLIB_SHMEM_ATTACHED): detach; take the
 * semaphore (retrying every 10 ms while it is taken, up to 1000 times);
 * give it back (needs KLIB_SHMEM_ACCESS); detach and remove the objects
 * (the record stays the caller's).  0, or -1. */
KEMO_API int KLIBShmemDetach(KLIBSHMEM *rec);
KEMO_API int KLIBShmemGetAccess(KLIBSHMEM *rec);
KEMO_API int KLIBShmemReleaseAccess(KLIBSHMEM *rec);
KEMO_API int KLIBShmemRemove(KLIBSHMEM *rec);

/* ------------------------------------------------------------------------ */
/* Operations registry                                                       */
/* ------------------------------------------------------------------------ */

/* Administrative operations register before they start; one that conflicts
 * with a running operation is refused or waits.  The running operations
 * stand in shared memory (key 888, 132 bytes, mode 0600: a count and 16
 * pairs of operation id and owner pid, as big-endian 32-bit words) guarded
 * by the lock file "/tmp/procreg.lock". */
#define KEMO_OP_KEY 888
#define KEMO_OP_SEGMENT_SIZE 132
#define KEMO_OP_MAX_ENTRIES 16
#define KEMO_OP_ID_COUNT 40     /* ids 0 to 39 */
#define KEMO_OP_CATEGORY_COUNT 18
#define KEMO_OP_LOCK_PATH "/tmp/procreg.lock"
/* Registration flags. */
#define KEMO_OP_CHECK_ONLY 0x1    /* only ask; add no entry */
#define KEMO_OP_IGNORE_WAIT 0x2   /* start despite conflicts that would wait */

/* An operation id's name and category. */
typedef struct KEMOOPID {
    const char *szName;   /* NULL for id 39 */
    uint32_t category;
} KEMOOPID;
/* A category's own bit, and the categories an operation of it refuses and
 * makes wait while it runs. */
typedef struct KEMOOPCATEGORY {
    uint32_t bit;
    uint32_t refuse;
    uint32_t wait;
} KEMOOPCATEGORY;
KEMO_API extern const KEMOOPID grgIDMap[KEMO_OP_ID_COUNT];
KEMO_API extern const KEMOOPCATEGORY grgBOPack[KEMO_OP_CATEGORY_COUNT];

/* Registers operation id (0-39) for the calling process, waiting in 200 ms
 * steps up to timeoutMs while conflicts remain.  0 registered (or, with
 * KEMO_OP_CHECK_ONLY, free to run) and *count = 0; 1 refused, 2 still
 * waiting when the time ran out: *count = the number of running operations
 * that refuse it (or that it waits for), and up to the capacity *count had
 * on entry of their ids in conflicts.  -1 with ERR_BAD_PARAMETERS,
 * ERR_TIMER_EXPIRED (the lock was busy throughout), ERR_NOT_ENOUGH_SPACE
 * (16 running operations), ERR_OUT_OF_MEMORY (no segment) or the lock
 * file's ERR_OPEN_FAILED.  Entries of processes that died are removed. */
KEMO_API int KEMOOperationRegister(int id, int flags, int *conflicts, int *count, int timeoutMs);
/* Removes the calling process's entry of id.  0; -2 with
 * ERR_OP_UNREGISTERED when there is none (the code is also left set after
 * success); -1 when the lock or the segment cannot be had. */
KEMO_API int KEMOOperationUnregister(int id);
/* Hands the calling process's entry of id to the living process pid.
 * 0; -2 no such entry; -1 with ERR_BAD_PARAMETERS (pid 0, negative or not
 * running) or when the lock or the segment cannot be had. */
KEMO_API int KEMOOperationTransfer(int id, int pid);
/* The name of id; NULL for 39 and "" for ids out of range. */
KEMO_API const char *KEMOOperationGetName(int id);
/* One running operation as the registry holds it. */
typedef struct KEMOOPENTRY {
    int32_t id;
    int32_t pid;   /* the owner; it may have died since */
} KEMOOPENTRY;
/* Copies up to capacity entries of the registry, in order and as they
 * stand (entries of dead owners too; nothing is removed), into entries.
 * The number of entries (which may exceed capacity), 0 when no operation
 * ever registered; -1 when the lock or the segment cannot be had. */
KEMO_API int KEMOOperationEnum(KEMOOPENTRY *entries, int capacity);


/* ------------------------------------------------------------------------ */
/* Accounts: users, groups and shares                                       */
/* ------------------------------------------------------------------------ */
/* Account files: /etc/passwd, /etc/shadow, /usr/kemo/etc/private/smbpasswd,
 * /etc/group, /etc/group_desc, /etc/mail, /etc/curUID.conf,
 * /usr/kemo/etc/.htpasswd; access lists live in /usr/kemo/etc/smb.conf.
 * Names compare without regard to case (UTF-8 upper-casing).  Changes are
 * transactions: complete ".tmp" twins are written first and renamed over
 * the files only when all of them reached the disk; a process killed in
 * the middle of the renames is finished by the next account call.
 *
 * Two-call buffers: called with a NULL buffer and size 0, a getter or
 * enumerator stores the needed size and returns 0; called again with a
 * buffer of that size it fills it.  Enumerators write a NULL-terminated
 * array of text pointers at the buffer's start and the texts from its end
 * backwards: the needed size is sizeof(char *) plus, per name, its length
 * + 1 + sizeof(char *). */

/* Account types. */
#define KEMO_ACCOUNT_LOCAL 1

/* User enumeration flags (KEMOUserEnum). */
#define KEMO_USER_LOCAL 0x01
#define KEMO_USER_DOMAIN_ALL 0x10
#define KEMO_USER_DOMAIN_USED 0x20

/* A user as KEMOUserGet returns it: the record, then its texts (name,
 * hash, description, mail address) in the same buffer.  expire is a day
 * number (days since 1970-01-01), 0 = never. */
typedef struct KEMOUSER {
    char *szName;
    char *szPasswd;
    char *szDesc;
    int32_t expire;
    char *szEmail;
} KEMOUSER, *PKEMOUSER;

/* One account to create (szOldName NULL or "") or to modify or rename
 * (szOldName the existing name).  szPasswd is the plain password; when it
 * equals the stored hash byte for byte the password is kept.  expire <= 0:
 * no expiry.  szEmail NULL leaves /etc/mail alone. */
typedef struct KEMOUSERSET {
    int32_t type;
    const char *szOldName;
    const char *szName;
    const char *szPasswd;
    const char *szDesc;
    int32_t expire;
    const char *szEmail;
} KEMOUSERSET, *PKEMOUSERSET;

/* The user's record into out (size bytes).  type must be 1.  needed gets
 * sizeof(KEMOUSER) + the four texts' lengths + 5 (their terminators and
 * one byte more: texts + 25 on a 32-bit target).  0 after a size query
 * (out NULL, size 0), 1 when filled, -1 with ERR_BAD_PARAMETERS,
 * ERR_LOCK_FAILED, ERR_NO_SUCH_USER, ERR_FORMAT_ERROR or
 * ERR_NOT_ENOUGH_MEMORY (size too small). */
KEMO_API int KEMOUserGet(int reserved, int type, const char *name, PKEMOUSER out, int size,
                         int *needed);
/* User names (flags 0 = local) in the two-call layout: local users in
 * /etc/passwd order (uid 1024 and above; guest only with guest support),
 * then domain users.  The number stored (0 on a size query), or -1 with
 * ERR_BAD_PARAMETERS, ERR_NOT_ENOUGH_MEMORY, ERR_OPEN_FAILED or
 * ERR_SYS_UNKNOWN (a passwd file that looks truncated). */
KEMO_API int KEMOUserEnum(int flags, char **out, int size, int *needed);
/* The number of users of the same filter; here the flags are 0x01 local,
 * 0x02 all domain users, 0x04 domain users in use (7: local only, the
 * count the account limit uses).  -1 on failure. */
KEMO_API int KEMOUserTotalNum(int flags);
/* Creates or modifies count accounts in one transaction (type must be 1);
 * on success signals the download scheduler when the model has one.  The
 * result of KEMOUserSetLocal, or -1 with ERR_BAD_PARAMETERS. */
KEMO_API int KEMOUserSet(int type, const KEMOUSERSET *users, int count);
/* The transaction itself.  *errorList (allocated here when NULL) is
 * emptied and receives the names that caused a refusal.  0; -1 failure;
 * -2 invalid name (ERR_INVALID_USERNAME); -3 a new name exists
 * (ERR_USER_EXISTS); -4 an old name is missing (ERR_NO_SUCH_USER); -5 one
 * name both created and renamed to (code KEMO_ERR_CROSS_DUP_NAME); -6 too
 * many accounts (ERR_TOO_MANY_USERS); -7 the lock could not be released.
 * A change, rename or password of a system account (uid below 1024 or
 * from 65534 up) is -1 with ERR_ACCESS_DENIED, its name in *errorList, and
 * nothing changes. */
#define KEMO_ERR_CROSS_DUP_NAME 0x2F00
KEMO_API int KEMOUserSetLocal(const KEMOUSERSET *users, int count, PKLIBSZLIST *errorList);
/* Deletes accounts ("root", "admin", NULL and, with guest support, "guest"
 * are never deleted) and drops them from group and share lists.  The
 * number deleted; 0 with ERR_INVALID_USERNAME when none was eligible; -1
 * on bad arguments or failure; -2 when the commit failed. */
KEMO_API int KEMOUserDelete(const char *const *names, int count);
/* 1 expired, 0 not (or no expiry), -1 on failure.  An account with expiry
 * day D expires at the end of day D in local time. */
KEMO_API int KEMOUserCheckExpired(const char *name);
/* One salt character for n: |n| mod 64 over "0-9A-Za-z./". */
KEMO_API int KEMOUserRandomNumMap2Seed(int n);

/* Static passwd records, overwritten by the next call (not reentrant).
 * KLIBGetPwNam: the /etc/passwd entry of name, or NULL with
 * ERR_BAD_PARAMETERS (NULL, empty, over 64 characters), ERR_NO_SUCH_USER,
 * ERR_FORMAT_ERROR.  PpwGetLocalPwNam: the same with the hash of
 * /etc/shadow as password.  PpwGetDomainPwNam: a "DOMAIN\\user" record
 * with the domain's uid and gid.  PpwGetPwNam: local or domain by
 * IsDomainUG. */
struct passwd;
KEMO_API struct passwd *KLIBGetPwNam(const char *name);
KEMO_API struct passwd *PpwGetLocalPwNam(const char *name);
KEMO_API struct passwd *PpwGetDomainPwNam(const char *name);
KEMO_API struct passwd *PpwGetPwNam(const char *name);
KEMO_API void KLIBEndPwEnt(void);

/* The LAN Manager and NT password hashes (16 bytes each).  0, or -1 with
 * ERR_BAD_PARAMETERS or ERR_UNKNOWN (text that is not UTF-8). */
KEMO_API int KLIBSmbLmHash(const char *plain, unsigned char hash[16]);
KEMO_API int KLIBSmbNtHash(const char *plain, unsigned char hash[16]);

/* Windows domain.  Domain names of users and groups are written
 * "DOMAIN\\name". */
/* 2 when name begins with the joined domain's name and a backslash
 * (without regard to case) while "domainjoined" is "yes"; else 1.  -1 with
 * ERR_BAD_PARAMETERS for NULL. */
KEMO_API int IsDomainUG(const char *name);
/* Refreshes the domain lists under /usr/kemo/etc/private/ (domain_user,
 * domain_group, domain_group_member) from the domain lookup tool
 * "/usr/kemo/bin/wbinfo".  0, or -1 with ERR_SYS_UNKNOWN when the tool
 * fails, ERR_INVALID_DOMAINNAME when no domain is joined. */
KEMO_API int KEMOWinGetDomainUG(int flags);
/* The SID of a domain user into out; 0 or -1 (ERR_BAD_PARAMETERS for a
 * name that starts with "-": it never reaches the lookup tool). */
KEMO_API int KEMOGetDUserSid(const char *name, char *out, int size);
/* The uid / gid of a domain user, or -1 (ERR_BAD_PARAMETERS for a name
 * that starts with "-"). */
KEMO_API int KEMOGetDUserUid(const char *name);
KEMO_API int KEMOGetDUserGid(const char *name);
/* Appends every domain user / every domain user named in a share's access
 * lists (directly or through a domain group) to *list.  The number
 * appended, or -1. */
KEMO_API int KEMOPushDUser(PKLIBSZLIST *list);
KEMO_API int KEMOPushDUserUsed(PKLIBSZLIST *list);

/* SMB connections: the file server's session processes ("smbd" running
 * with the user's effective uid; none for "root", so the server's own
 * process is never listed).  Their ids, up to max, into pids: the number
 * stored, or -1.  KEMODelConnOfSmb ends them (each pid is checked again to
 * still be such a session): the number ended, or -1. */
KEMO_API int KEMOGetConnPidOfSmb(const char *user, int32_t *pids, int max);
KEMO_API int KEMODelConnOfSmb(const int32_t *pids, int count);

/* Network backup: keeps the backup server's password of user equal to the
 * account's password.  Users without a line in the backup server's
 * secrets file are left alone.  1 changed, 0 nothing to do, -1. */
KEMO_API int KEMONetBackupSetServerPasswd(const char *user, const char *password);

/* Groups.  Flags: 0x1 local, 0x2 domain, 0 both. */
#define KEMO_GROUP_LOCAL 0x1
#define KEMO_GROUP_DOMAIN 0x2

/* The static group record of the low-level readers: the member array ends
 * with NULL and never holds the sentinel member "nobody".  flags, name2 and
 * number come from the extended tail (0, "" and 0 without one). */
typedef struct KLIBGROUP {
    char *gr_name;
    char *gr_passwd;
    int32_t gr_gid;
    int32_t gr_flags;
    char *gr_name2;
    unsigned long gr_number;
    char **gr_mem;
} KLIBGROUP, *PKLIBGROUP;

/* A group: KEMOGROUP is an array of text pointers, the group name first,
 * then the members, ended by NULL. */
typedef char *KEMOGROUP;

/* The group's name (as stored) and members into out.  needed = name
 * length + 1 + 2 * sizeof(char *), plus member length + 1 +
 * sizeof(char *) per member (9 and 5 on the 32-bit appliance).  1 filled;
 * 0 for a size query, or for too small a buffer (ERR_NOT_ENOUGH_MEMORY
 * set); -1 with ERR_BAD_PARAMETERS, ERR_NO_SUCH_GROUP, ERR_LOCK_FAILED,
 * ERR_UNLOCK_FAILED. */
KEMO_API int KEMOGroupGet(int flags, int type, const char *name, char **out, int size,
                          int *needed);
/* Group names (local groups of gid 65536 and above, and "users"; then
 * domain groups) in the two-call layout.  The count, or -1. */
KEMO_API int KEMOGroupEnum(int flags, char **out, int size, int *needed);
KEMO_API int KEMOGroupTotalNum(int flags);
/* Creates group (oldName NULL) or modifies and maybe renames oldName;
 * group is a KEMOGROUP array.  A rename rewrites "@old" in the share
 * file.  0, or -1 with ERR_BAD_PARAMETERS, ERR_INVALID_GROUPNAME,
 * ERR_GROUP_EXISTS, ERR_NO_SUCH_GROUP, ERR_TOO_MANY_GROUPS,
 * ERR_LOCK_FAILED or ERR_WRITE_FAILED (the files are then unchanged);
 * ERR_ACCESS_DENIED for a system group (gid below 100, or "wheel"), for
 * renaming "users" or "administrators", and for making a group "wheel". */
KEMO_API int KEMOGroupSet(int flags, int type, const char *oldName, const char *const *group);
/* Deletes groups and their "@name" members of share lists.  0, or -1
 * (ERR_ACCESS_DENIED and nothing deleted when a name is a system group,
 * "users" or "administrators"). */
KEMO_API int KEMOGroupDelete(const char *const *names, int count);
/* The group's decoded description: needed = length + 1; 1 filled, 0 size
 * query, -1 (ERR_KEY_NOT_FOUND when the group has none).
 * KEMOGroupSetDesc replaces it: 0, or -1. */
KEMO_API int KEMOGroupGetDesc(const char *name, char *out, int size, int *needed);
KEMO_API int KEMOGroupSetDesc(const char *name, const char *desc);
/* Splits "name:member,member,..." into a KEMOGROUP array in one block
 * from malloc (the caller frees it with free()).  The member count, or -1
 * with ERR_BAD_PARAMETERS (no ":") or ERR_OUT_OF_MEMORY. */
KEMO_API int GROUPParseCreateParam(const char *text, char ***group);
/* The next free gid from 65536 to 196607 (advancing the index line of
 * /etc/group), or -1. */
KEMO_API int GROUPIGetFreeGid(void);
/* Pushes the members of local group name (entry: its record, or NULL to
 * look it up) onto *list, each once.  The count, or -1 (an empty group is
 * a failure). */
KEMO_API int GROUPIListMember(const char *name, PKLIBSZLIST *list, const KLIBGROUP *entry);
/* Low-level readers of /etc/group; records are static.  KLIBIGrpStart
 * rewinds, KLIBIGrpScan1 reads entries until one matches (search 0: the
 * next entry; 1: by name; 2: by gid): 1 found, 0 end, -1 failure. */
KEMO_API int KLIBIGrpStart(void);
KEMO_API int KLIBIGrpScan1(int search, const char *name, int gid);
KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrEnt(void);
KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrNam(const char *name);
KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrGid(int gid);
/* Local group, or for a "DOMAIN\\group" name the domain group. */
KEMO_API PKLIBGROUP KLIBGetGrNam(const char *name);
KEMO_API void KLIBEndGrEnt(void);
/* Domain groups: members of group pushed onto *list (count or -1); the
 * member text of group into out (its length + 1, or -1); 1 when user is
 * in group ("DOMAIN\\domain users" holds every domain user), else 0;
 * every domain group appended to *list (count or -1). */
KEMO_API int KEMOGetDGRPMem(const char *group, PKLIBSZLIST *list);
KEMO_API int KEMOGetDGRPInfo(const char *group, char *out, int size);
KEMO_API int KEMOIsDGRPMem(const char *user, const char *group);
KEMO_API int KEMOPushDGroup(PKLIBSZLIST *list);

/* Shares: sections of /usr/kemo/etc/smb.conf. */
#define KEMO_SHARE_ORDINARY 0x1
#define KEMO_SHARE_USB 0x2
#define KEMO_SHARE_SATA 0x4
/* Access of "@users": */
#define KEMO_ACCESS_RO 1
#define KEMO_ACCESS_RW 2
#define KEMO_ACCESS_NONE 4

/* A share as KEMOShareGet returns it, texts in the same buffer (lists
 * without "nobody" members). */
typedef struct KEMOSHARE {
    char *szName;
    char *szComment;
    char *szPath;
    char *szDenyList;
    char *szRWList;
    char *szROList;
    int32_t usersAccess;
    int32_t browseable;
} KEMOSHARE, *PKEMOSHARE;

/* The share's record: needed = sizeof(KEMOSHARE) + length + 1 of the name
 * and of each present text.  1 filled, 0 size query, -1 with
 * ERR_BAD_PARAMETERS, ERR_NO_SUCH_SHARE, ERR_LOCK_FAILED, ERR_UNKNOWN
 * (the default access cannot be told) or ERR_NOT_ENOUGH_MEMORY. */
KEMO_API int KEMOShareGet(int type, const char *name, PKEMOSHARE out, int size, int *needed);
/* Share names in section order, two-call layout; kinds: KEMO_SHARE_*
 * bits.  KEMOShareEnum lists every kind.  The count, or -1. */
KEMO_API int KEMOShareEnum(char **out, int size, int *needed);
KEMO_API int KEMOShareEnum1(char **out, int size, int *needed, int kinds);
KEMO_API int BlShareIIsUsbSection(const char *name);
KEMO_API int BlShareIIsSATASection(const char *name);
/* The share's "path" into out.  0, or -1 (ERR_NOT_ENOUGH_MEMORY when it
 * does not fit). */
KEMO_API int KEMOSharePathGet(const char *name, char *out, int size);
/* 1 when user is named in the comma-separated access list (directly, by
 * "@users" or by a group), else 0. */
KEMO_API int BlSDKUserIsInList(const char *user, const char *list);
/* 1 when path lies inside a share's folder (or inside user's own home
 * folder under /home); 0 when not; -1 on failure (ERR_PATH_NOT_FOUND for a
 * path that does not resolve). */
KEMO_API int KEMOShareIsUnderValidPath(const char *user, const char *path);
/* The stored spelling of a share name given in any letter case into
 * *stored (free it with KEMOShareGetCaseFree).  0, or -1 with
 * ERR_NO_SUCH_SHARE. */
KEMO_API int KEMOShareGetCase(const char *name, char **stored);
KEMO_API void KEMOShareGetCaseFree(char *stored);
/* Names of the shares on data volume index volume ("/volume<volume+1>"),
 * two-call layout.  The count, or -1. */
KEMO_API int KEMOShareEnumbyVolume(int volume, char **out, int size, int *needed);
/* Deletes the count shares named (their smb.conf sections; names compare
 * without case) in one change of the account files.  0, or -1 with every
 * share kept (ERR_NO_SUCH_SHARE when a name has no section or is one of
 * the server's own sections). */
KEMO_API int KEMOShareDelete(char **names, int count);
/* 1 when path (absolute) is an existing directory, 0 when it is not (a
 * symbolic link in the last place counts as not), -1 on failure
 * (ERR_BAD_PARAMETERS for a null or relative path). */
KEMO_API int SDKICheckFolderState(const char *path);
/* 1 when user may write share (not denied, and in the read-write list, or
 * the share is writeable to all and the user is not read-only); 0; -1. */
KEMO_API int KEMOShareWriteableGet(const char *share, const char *user);
/* A record from "name:comment:path:deny:rw:ro:access:browseable" with the
 * size conventions of KEMOShareGet. */
KEMO_API int ParseShareParam(const char *text, PKEMOSHARE out, int size, int *needed);

/* ------------------------------------------------------------------------ */
/* Event logs                                                                */
/* ------------------------------------------------------------------------ */
/* Fixed-size binary ring files under /var/log, one per log class, with
 * their paths and size limits in /etc/kemolog.conf.  Every integer in a
 * ring file is big-endian:
 *   header: "KEMO", 4 reserved bytes, u32 head (oldest record), u32 tail
 *           (where the next record goes); empty: head = tail = 16.
 *   record: u16 length (itself included), u16 type, u32 time, u16 source
 *           length, u16 user length, u32 event id, u16 x4 argument
 *           lengths, then source, user and the four arguments (no NULs).
 *   A u16 length of 0 at the tail ends the record area; it goes on at 16.
 * Writers and readers of one file exclude each other with flock. */

/* Log classes. */
#define KEMO_LOG_SYSTEM 1  /* /var/log/kemosys.log */
#define KEMO_LOG_MANAGE 2  /* written into the system log */
#define KEMO_LOG_CONNECT 3 /* /var/log/kemoconn.log */
#define KEMO_LOG_BACKUP 5  /* /var/log/kemobackup.log */
#define KEMO_LOG_COPY 6    /* /var/log/kemocopy.log */
#define KEMO_LOG_NETBKP 7  /* /var/log/kemonetbkp.log (no KEMOLogSetSize) */
/* Event types (severities). */
#define KEMO_EVENT_INFO 1
#define KEMO_EVENT_WARNING 2
#define KEMO_EVENT_ERROR 3

/* Size limit in bytes of the file being written (initially 65536); every
 * KEMOLogSet1 sets it from the class's size key. */
KEMO_API extern int32_t glogsizeMax;
/* Event texts loaded so far (key: event id in "%lX"), or NULL. */
KEMO_API extern PKLIBSZHASH gpshEvent;

/* Appends one event to the log of logClass.  A NULL argument is stored
 * empty, an empty one as " ".  Creates /etc/kemolog.conf with defaults when
 * missing and shrinks the file to its size key.  0, or -1 (class 0, 4 or
 * above 7; the file cannot be opened or its record chain is broken). */
KEMO_API int KEMOLogSet1(uint32_t logClass, uint32_t type, uint32_t eventId, const char *arg1,
                         const char *arg2, const char *arg3, const char *arg4);
/* Appends one event to the ring file at path under glogsizeMax, creating
 * and initialising the file when needed; the file ends with mode 0600. */
KEMO_API int KEMOLogSet1a(const char *path, uint32_t type, uint32_t eventId, const char *arg1,
                          const char *arg2, const char *arg3, const char *arg4);
/* Writes the log of logClass, oldest first, as text to outputPath (NULL:
 * "./output"), one line per event whose text is known in language (NULL:
 * "enu"): "type\ttype name\tYYYY/MM/DD hh:mm:ss\tsource\tuser\tsentence".
 * Frees the event text cache afterwards.  0, or -1. */
KEMO_API int KEMOLogGet1(uint32_t logClass, const char *outputPath, const char *language);
/* The reader proper.  A tail past the last complete record is moved back
 * to it.  0, or -1 (missing log, open or lock failure). */
KEMO_API int KEMOLogGet1a(const char *logPath, const char *outputPath, const char *language);
/* Stores size as the size key of logClass (1, 2, 3, 5 or 6) and shrinks
 * the file when it is larger.  0, or -1. */
KEMO_API int KEMOLogSetSize(int size, int logClass);
/* Shrinks the file of logClass to at most size bytes by dropping its
 * oldest records; a smaller or missing file is left alone.  0, or -1. */
KEMO_API int KEMOLogChangeSize(int size, int logClass);
/* Drops the oldest records totalling at least bytesToDrop bytes and
 * compacts the rest into a fresh file renamed over path.  0, or -1 (the log
 * then is as it was). */
KEMO_API int KEMOLogChangeSize_a(int bytesToDrop, const char *path);
/* (Re)creates /etc/kemolog.conf with the default paths and sizes.  0, or
 * -1 with ERR_OPEN_FAILED. */
KEMO_API int KEMOSetLogConf(void);
/* Gives an open ring file its header unless it starts with "KEMO" (any
 * other start resets it to empty).  0, or -1. */
KEMO_API int KEMOLogInit(int fd);
/* The u32 at offset 8 (head) or 12 (tail); 0xFFFFFFFF on a short read. */
KEMO_API uint32_t KEMOLogGetHead(int fd);
KEMO_API uint32_t KEMOLogGetTail(int fd);
/* Store head (then fsync) or tail (fsync first, so the records it covers
 * are durable before it moves).  0, or -1. */
KEMO_API int KEMOLogSetHead(int fd, uint32_t head);
KEMO_API int KEMOLogSetTail(int fd, uint32_t tail);
/* write() at the current position: its result. */
KEMO_API int KEMOLogWriteByte(int fd, const void *buffer, int count);
/* read() at the current position: count, or -1 unless exactly count bytes
 * were read. */
KEMO_API int KEMOLogReadByte(int fd, void *buffer, int count);
/* The current file position, or -1. */
KEMO_API long long KEMOLogTell(int fd);
/* The user name for new records (static buffer): $USERNAME, else the
 * effective user's name from /etc/passwd, "root" given as "admin". */
KEMO_API char *KEMOLogObtainUser(void);
/* Local time "%Y/%m/%d %H:%M:%S" (static buffer). */
KEMO_API char *KEMOLogConvertTime1(int64_t seconds);
/* The name of event type (1, 2, 3; anything else "unknown") in language,
 * "Unknown" when the catalogue lacks it (static buffer). */
KEMO_API char *KEMOLogConvertType(int type, const char *language);
/* The sentence of eventId in language with "@1".."@4" replaced by the
 * non-empty arguments; malloc'ed (free it), or NULL when unknown. */
KEMO_API char *KEMOLogConvertEventKey(uint32_t eventId, const char *language, const char *arg1,
                                      const char *arg2, const char *arg3, const char *arg4);
/* Decodes one record body (the record without its length field, size
 * bytes) and prints its text line to out; a truncated body or an unknown
 * event prints nothing.  0, or -1. */
KEMO_API int KEMOLogEventSpread(FILE *out, const unsigned char *body, const char *language,
                                int size);
/* kind 2, sub 1: pushes the current file-sharing, Apple and FTP
 * connections onto *list, one "%s\t%s\t%s\t%s\t%d" line each (filter is
 * unused).  The count, or -1 with ERR_BAD_PARAMETERS for other kinds. */
KEMO_API int KEMOLogGet(int kind, int sub, PKLIBSZLIST *list, const char *filter);

/* ------------------------------------------------------------------------ */
/* Host name and network services                                            */
/* ------------------------------------------------------------------------ */
/* The appliance's host name ("hostname" of /etc/kemoinfo.conf, else the
 * kernel's) into buf.  0, or -1 (ERR_NOT_ENOUGH_MEMORY when it does not
 * fit). */
KEMO_API int KEMOLnxGetHostname(char *buf, int size);
/* Sets the host name in /etc/kemoinfo.conf, /etc/hostname and the kernel.
 * 0, or -1 (ERR_INVALID_SERVERNAME for a name BlKLIBIsHostname refuses). */
KEMO_API int KEMOLnxSetHostname(const char *name);
/* Stop and start the file and network services through their control
 * script.  0, or -1. */
KEMO_API int ErrNetServiceStop(void);
KEMO_API int ErrNetServiceStart(void);
/* Switches the web service on (non-zero) or off: "runweb" and the web
 * control script.  0, or -1. */
KEMO_API int KEMOWebService(int on);

/* ------------------------------------------------------------------------ */
/* Network interfaces and finding appliances                                 */
/* ------------------------------------------------------------------------ */
/* One network interface as the network settings see it. */
typedef struct KEMONETCARD {
    char szName[16];   /* interface name, "eth0" */
    char szIP[16];     /* IPv4 address, dotted quad */
    char szMask[16];   /* netmask, dotted quad */
    char szMac[18];    /* hardware address "00:11:22:33:44:55", or "" */
    uint32_t flags;    /* the interface's IFF_* flags */
} KEMONETCARD;
/* Fills card with interface index (0 = the first interface that is up, not
 * loopback and has an IPv4 address, in the kernel's order; 1 the next...).
 * An interface with several IPv4 addresses counts once, with its first.
 * szMac is lower-case hex ("02:00:00:aa:bb:01"), "" when the interface has
 * no 6-byte hardware address; flags are the IFF_* bits of <net/if.h>.
 * flags: 0 (no other value is defined).  1, or -1 with ERR_BAD_PARAMETERS
 * (null card, negative index, other flags), ERR_DEV_UNCONFIG (no such
 * interface) or ERR_OP_FAILURE (the interfaces could not be listed). */
KEMO_API int KEMONetGetCard1(int index, int flags, KEMONETCARD *card);

/* The discovery packets, byte for byte in wire order, and their sizes. */
#define FHOST_PORT 9999
#define FHOST_HOST_LIST "/tmp/kemobx.list"
#define FHOST_HOST_LIST_TMP "/tmp/kemobx.list.tmp"
KEMO_API extern const unsigned char stFHOSTHeader[8];
KEMO_API extern const unsigned char stFHOSTBroadCast[10];
KEMO_API extern const unsigned char stFHOSTBroadCastV11[20];
KEMO_API extern const unsigned char stFHOSTBroadCastZMP20[20];
KEMO_API extern const int FHOSTHeaderSize;
KEMO_API extern const int FHOSTBroadCastSize;
KEMO_API extern const int FHOSTBroadCastSizeV11;
KEMO_API extern const int FHOSTBroadCastSizeZMP20;

/* Sends the query twice from interface 0 to 255.255.255.255:9999; 0 when
 * either send worked, -1 when both failed. */
KEMO_API int ErrFHOSTSendQueryPkt(void);
/* Sends packet from interface 0's address.  0, or -1 (ERR_BAD_PARAMETERS
 * for a null packet or a length below 1). */
KEMO_API int ErrFHOSTSendBroadcastUdp(const void *packet, int length);
/* Sends packet as one UDP broadcast to 255.255.255.255:9999 from
 * localAddress (an IPv4 address in network order), port chosen by the
 * system.  0, or -1. */
KEMO_API int BroadcastUdpByInterface(const void *packet, int length, const uint32_t *localAddress);
/* Refreshes the list of appliances found: starts the discovery daemon
 * /usr/kemo/bin/findhostd when it does not run (waiting up to 3 s for its
 * pid file), sends the query, waits 10 s for the answers, and moves the
 * daemon's list to the snapshot the parser reads.  Blocks about 10 s; one
 * refresh at a time.  0, or -1 (the daemon did not start, the query could
 * not be sent, or there was no list to move). */
KEMO_API int KEMOFHOSTDumpHost(void);
/* Parses the snapshot into *hash: key "name(address)", value the address.
 * Lines "model,build,name,address[,...]": model 0 and builds below 240 are
 * left out.  The number of entries in the hash; 0 with ERR_OPEN_FAILED when
 * there is no snapshot (or it is not a regular file); -1 with
 * ERR_BAD_PARAMETERS, or ERR_OUT_OF_MEMORY (also for a snapshot above
 * 4 MiB).  The snapshot is deleted in every case. */
KEMO_API int KEMOFHOSTGet2Hash(PKLIBSZHASH *hash);

/* Addresses of a raw UDP broadcast.  A zero source MAC means the
 * interface's own, a zero destination MAC ff:ff:ff:ff:ff:ff.  Addresses in
 * network order, ports in host order. */
typedef struct KEMOUDPADDR {
    uint8_t srcMac[6];
    uint8_t dstMac[6];
    uint32_t srcIp;
    uint32_t dstIp;
    uint16_t srcPort;
    uint16_t dstPort;
} KEMOUDPADDR;
/* Sends payload as one UDP datagram in an Ethernet frame built by hand on
 * the interface named (the raw link layer): IPv4 identification 242, don't
 * fragment, TTL 64, checksums computed.  mode 0 or 1, which send alike.
 * payloadLength 1..65507; the frame must fit the interface's MTU.  0, or
 * -1 with ERR_BAD_PARAMETERS or ERR_UNKNOWN (no such interface, or the
 * frame could not be built or sent whole). */
KEMO_API int KEMONetSendUDPBroadCast(int mode, const KEMOUDPADDR *addr, const void *payload, int payloadLength,
                                     const char *interfaceName);

/* ------------------------------------------------------------------------ */
/* Time zone, date and time server                                           */
/* ------------------------------------------------------------------------ */
#define KEMO_ZONE_DIR "/usr/share/zoneinfo/Timezone/"
#define KEMO_RTC_DEVICE "/dev/kemobios"
#define KEMO_RTC_SET 0xC0074B06u   /* read-write request 'K' 6, 7 bytes */

/* Local date and time. */
typedef struct KEMODATE {
    int32_t year;    /* four digits */
    int32_t month;   /* 1-12 */
    int32_t day;
    int32_t hour;    /* 0-23 */
    int32_t minute;
    int32_t second;
} KEMODATE;
/* The board clock's record, every byte packed decimal (BCD).  hour is in
 * 12-hour form with 0x20 marking the afternoon: 0 -> 0x12, 1-11 as BCD,
 * 12 -> 0x32, 13-23 -> BCD of hour + 8.  year: BCD of year - 2000 after
 * 2000, else 0. */
typedef struct KEMORTC {
    uint8_t second;
    uint8_t minute;
    uint8_t hour;
    uint8_t weekday;   /* 0 = Sunday */
    uint8_t day;
    uint8_t month;     /* 1-12 */
    uint8_t year;
} KEMORTC;
/* Time-server settings. */
typedef struct KEMONTP {
    uint32_t enabled;            /* 1 = synchronise */
    char szPeriod[10];           /* "daily", "weekly" or "monthly" */
    char szServer[64];
    char szServerBackup[64];
} KEMONTP;

/* The zone name ("timezone") by the two-call convention.  0, or -1. */
KEMO_API int KEMOZoneGet(char *buffer, int size, int *needed);
/* *flag = 1 when the hardware clock keeps UTC ("UTC" of
 * /etc/sysconfig/clock is "true" in any case), else 0.  0, or -1. */
KEMO_API int KEMOZoneIsDayLightSaving(int *flag);
/* A zone's description from the zone table.  1 copied, 0 size query, -1. */
KEMO_API int KEMOZoneDesc(const char *zone, char *buffer, int size, int *needed);
/* Every zone name of the zone table, as a null-terminated array of text
 * pointers at the buffer's start and the texts at its end.  *needed: the
 * names with one terminator each, one pointer per zone and the final null
 * pointer.  The count, 0 for a size query, or -1. */
KEMO_API int KEMOZoneEnum(char **buffer, int size, int *needed);
/* Makes zone the appliance's zone: the local-time file (replaced by a copy
 * of the zone file), "timezone", /etc/TZ (the zone's POSIX TZ string) and
 * /etc/sysconfig/clock (its UTC flag kept).  zone is a name of the zone
 * table: relative, without "..", of letters, digits and "/_+-".  0, or -1
 * with ERR_BAD_PARAMETERS (refused or unknown zone), ERR_LOCK_FAILED,
 * ERR_KEY_NOT_FOUND (not in the zone list) or a write error; nothing is
 * changed unless the zone file and its list entry are there. */
KEMO_API int KEMOZoneSet(const char *zone);
/* The current local date and time.  0, or -1. */
KEMO_API int KEMODateGet(KEMODATE *date);
/* Sets the system clock and then the board clock.  0, or -1 with
 * ERR_BAD_PARAMETERS (an invalid date) or ERR_OP_FAILURE (also for dates
 * the kernel cannot keep: Linux stops in the year 2262). */
KEMO_API int KEMODateSet(const KEMODATE *date);
/* Writes t (0: now) to the board clock as UTC.  0 (also when the board has
 * no clock driver), -1 when t cannot be broken down. */
KEMO_API int KEMORTCSet(int64_t t);
/* The time-server settings.  1, or -1. */
KEMO_API int KEMONtpGet(KEMONTP *ntp);
/* Stores the time-server settings and its line in the scheduler's table.
 * Server names are DNS host names or dotted IPv4 addresses (the server is
 * required when enabling), the period a lower-case word; texts must end
 * within their fields.  1; -4 lock; -1 enabling or -3 disabling failed in
 * the scheduler, or a refused record (ERR_BAD_PARAMETERS). */
KEMO_API int KEMONtpSet(const KEMONTP *ntp);
/* Replaces the system scheduler table's line that runs command (its
 * command field is command) with line, or removes it when line is NULL,
 * and makes the scheduler reread its table (SIGHUP to a running cron; the
 * table's new date is noticed within a minute too).  command holds no
 * blank; line is one line.  0, or a negative value. */
KEMO_API int KEMOUpdateCrontab(const char *command, const char *line);

/* ------------------------------------------------------------------------ */
/* UPS                                                                       */
/* ------------------------------------------------------------------------ */
/* The UPS is watched by the UPS daemons (driver and data server, started
 * and stopped by "/usr/kemo/bin/ups.sh start|stop|restart"); these calls
 * read their state and store the settings "ups_enabled" and "ups_wait_time"
 * of /etc/kemoinfo.conf. */
#define KEMO_UPS_ONLINE 1
#define KEMO_UPS_ON_BATTERY 2
#define KEMO_UPS_BATTERY_LOW 3
/* The wait times KEMOUPSInfoSet accepts, in minutes (one minute to a day). */
#define KEMO_UPS_WAIT_MIN 1
#define KEMO_UPS_WAIT_MAX 1440
/* UPS settings and live state. */
typedef struct KEMOUPS {
    uint32_t enabled;     /* 1 when UPS support is on */
    uint32_t waitTime;    /* minutes on battery before the shutdown timer fires */
    char szMfr[128];
    char szModel[128];
    uint8_t status;       /* KEMO_UPS_*; unchanged when unknown */
    int32_t load;         /* percent */
    int32_t runtime;      /* remaining battery runtime, seconds */
    int32_t charge;       /* battery charge, percent */
} KEMOUPS;
/* The settings and the UPS's live state, as "upsc ups@localhost" reports
 * it.  enabled is 1 only for ups_enabled="yes" (exactly so); waitTime is 0
 * when ups_wait_time is not a decimal number.  status: battery low when the
 * UPS's status flags hold LB, else on battery for OB, else on line for OL;
 * left as it was for any other state (a UPS still starting up).  load,
 * runtime and charge take the integer part of the reported number, 0 for
 * one that is not a plain non-negative number.  Values a UPS does not
 * report are left as they were; so is every live field while the UPS
 * cannot be reached (UPS support off, daemons stopped): the call still
 * returns 0 with the settings.  0, or -1 when a setting cannot be read
 * (ERR_BAD_PARAMETERS for NULL). */
KEMO_API int KEMOUPSInfoGet(KEMOUPS *ups);
/* Stores enabled and waitTime, sets the shutdown timer of the UPS
 * scheduler's file /usr/kemo/etc/upssched.conf (its "AT ONBATT" lines
 * become "AT ONBATT * START-TIMER on-batt <waitTime x 60>"; every other line
 * is kept byte for byte, a file without such a line is left as it is) and
 * restarts the UPS daemons, which start only when support is on.  A failed
 * restart is logged and does not fail the call.  0, or -1:
 * ERR_BAD_PARAMETERS for NULL or a waitTime outside KEMO_UPS_WAIT_MIN ..
 * KEMO_UPS_WAIT_MAX, ERR_LOCK_FAILED when the settings stay locked for 5
 * seconds, ERR_OPEN_FAILED when the timer file cannot be read (nothing is
 * changed then), or the code of the write that failed. */
KEMO_API int KEMOUPSInfoSet(const KEMOUPS *ups);

/* ------------------------------------------------------------------------ */
/* Internal disks and RAID arrays                                            */
/* ------------------------------------------------------------------------ */
/* Disks are numbered 0..3 (/dev/sda../dev/sdd), partition indexes 0..3
 * (index 2 is the data partition /dev/sdX3).  Every disk carries the same
 * DOS layout, sizes in 512-byte sectors: partition 1 at 63 (1574307
 * sectors, member of the system array /dev/md0), partition 2 right after
 * it (787185, the swap array /dev/md1), 273105 sectors free, partition 3 to
 * the end of the disk (a data array /dev/md2 upward; data volume N is
 * /dev/md<N+2>).  All partitions have type 0xfd.
 *
 * Failures set the disk module's error word (KEMORaidDiskGetErr) or the
 * array module's (KEMORaidGetErr), whose small codes are listed below, and
 * also the library's error code: KEMO_RAID_ERR_PARAM gives
 * ERR_BAD_PARAMETERS, an absent array ERR_DEV_UNCONFIG, an inconsistent
 * RAID state ERR_BROKEN_RAID_CONF, an unreadable disk ERR_DISK_IO_FAILED,
 * anything else ERR_OP_FAILURE. */

#define KEMO_RAID_DISK_SYS_SECTORS 1574307u  /* partition 1 */
#define KEMO_RAID_DISK_SWAP_START 1574370u
#define KEMO_RAID_DISK_SWAP_SECTORS 787185u  /* partition 2 */
#define KEMO_RAID_DISK_GAP_SECTORS 273105u   /* free before partition 3 */
#define KEMO_RAID_DISK_DATA_START 2634660u
#define KEMO_RAID_DISK_RESERVE 2634597u      /* 1 + 2 + the gap */
#define KEMO_RAID_CYLINDER 16065u            /* 255 x 63 sectors */

/* KEMORaidDiskInit / KEMORaidDiskClean types (bit sets). */
#define KEMO_RAID_DISK_INIT_SYS 1   /* system and swap partitions */
#define KEMO_RAID_DISK_INIT_DATA 2  /* the data partition */
#define KEMO_RAID_DISK_INIT_ALL 3

/* Disk status values. */
#define KEMO_DISK_NORMAL 0        /* in both system arrays, healthy data member */
#define KEMO_DISK_NONE 1          /* no disk in the slot */
#define KEMO_DISK_UNINITIALIZED 2 /* in no array at all */
#define KEMO_DISK_SYSTEM_ONLY 3   /* system partitions in place, no data array */
#define KEMO_DISK_DATA_FAULTY 4   /* flagged by its data array */
#define KEMO_DISK_SYSTEM_PARTIAL 5 /* in one system array only, or flagged there */
#define KEMO_DISK_SYSTEM_MISSING 6 /* healthy data member, system arrays incomplete */

/* Disk module error codes (KEMORaidDiskGetErr). */
#define KEMO_RAID_DISK_ERR_PARAM 1
#define KEMO_RAID_DISK_ERR_RESET 3    /* "-M1" or another partitioning command failed */
#define KEMO_RAID_DISK_ERR_MODEL 5
#define KEMO_RAID_DISK_ERR_SIZE 6
#define KEMO_RAID_DISK_ERR_STATE 7

/* Array module error codes (KEMORaidGetErr). */
#define KEMO_RAID_ERR_PARAM 1
#define KEMO_RAID_ERR_NO_ID 2      /* no free array number / not RAID 1 or 5 */
#define KEMO_RAID_ERR_COMMAND 3
#define KEMO_RAID_ERR_INACTIVE 4   /* the md driver knows no such array */
#define KEMO_RAID_ERR_SUPERBLOCK 5
#define KEMO_RAID_ERR_UNMOUNT 7
#define KEMO_RAID_ERR_STOP 8
#define KEMO_RAID_ERR_GROW 9
#define KEMO_RAID_ERR_LAYOUT 10
#define KEMO_RAID_ERR_PART_SIZE 11

/* One disk's status (KEMORaidDiskStatus); zero it before the call. */
typedef struct KEMORAIDDISK {
    uint32_t reserved;       /* not filled */
    uint32_t status;         /* KEMO_DISK_* */
    char device[4096];       /* "/dev/sda" ... */
    char model[128];         /* as the drive reports it, trailing blanks kept */
    uint32_t dataVolumeMask; /* bit N: member of data volume N (ORed in) */
    float sizeGiB;           /* sectors x 2^-21 */
} KEMORAIDDISK, *PKEMORAIDDISK;

/* One member of an array as the md driver lists it.  state bits: 1 faulty,
 * 2 active, 4 in sync, 8 removed. */
typedef struct KEMORAIDMEMBER {
    int32_t major;
    int32_t minor;
    int32_t state;
} KEMORAIDMEMBER, *PKEMORAIDMEMBER;

/* One array's status (KEMORaidVolStatus).  Masks have bit d for disk d. */
typedef struct KEMORAIDVOL {
    int32_t mdId;
    int32_t level;            /* 0, 1, 5 ... as the md driver reports it */
    int32_t reserved;
    int32_t volStatus;        /* 0 normal, 1 degraded (also while a member is rebuilt), 2 crashed */
    uint32_t rebuildState;    /* from /proc/mdstat: 0 none, 1 running, 2 waiting */
    float rebuildProgress;    /* percent done while running */
    int32_t designDisks;      /* configured member count */
    int32_t workingDisks;     /* equal to activeDisks */
    int32_t activeDisks;      /* present and not faulty */
    uint32_t memberMask;
    uint32_t faultyMask;
    uint32_t failedMask;      /* never filled here: read it as empty */
    uint32_t activeMask;
    char device[4096];        /* "/dev/md%d" */
    int32_t mounted;
    char mountPoint[4096];    /* at most 15 characters */
    uint64_t totalBytes;
    int64_t componentKiB;     /* per-member size */
} KEMORAIDVOL, *PKEMORAIDVOL;

/* 1 when n (taken unsigned) is a disk number / partition index 0..3. */
KEMO_API int KEMORaidIDiskNumValid(unsigned int n);
KEMO_API int KEMORaidIPartNumValid(unsigned int n);
/* "/dev/sdX", "/dev/sdXN" (part an index), "/sys/block/sdX"; NULL for an
 * invalid number.  Static strings. */
KEMO_API const char *KEMORaidIDiskName(int disk);
KEMO_API const char *KEMORaidIPartName(int disk, int part);
KEMO_API const char *KEMORaidIDiskProc(int disk);

/* The disk slots of the model: "maxdisks" of /etc.defaults/kemoinfo.conf,
 * read by running /bin/get_key_value.  0 when that fails. */
KEMO_API int KEMOMaxDiskGet(void);
/* (1 << KEMOMaxDiskGet()) - 1; all ones from 32 slots up. */
KEMO_API uint32_t KEMOMaxDiskMaskGet(void);

/* Size in sectors of a disk (part -1) or of its partition index part.
 * Sizes above 2 TiB read as 0xFFFFFFFF.  0, or non-zero (disk error 1 or
 * 6). */
KEMO_API int KEMOLnxDiskSize(int disk, int part, uint32_t *sectors);
/* The drive's model from ATA IDENTIFY, else the line of
 * /sys/block/<name>/device/model (newline kept), into buf (len bytes,
 * always terminated).  0, or -1 (disk error 1 or 5). */
KEMO_API int KEMOLnxDiskGetModel(const char *devicePath, char *buf, int len);
/* 0 when path exists; 1 otherwise, with *status 1 when it does not exist. */
KEMO_API int KEMOLnxDiskProc(const char *path, int *status);

/* ((disk - KEMO_RAID_DISK_RESERVE) / cylinder) x cylinder; 0 when the disk
 * is smaller than the reserve. */
KEMO_API uint32_t KEMORaidDiskPartitionSizeFromDiskSize(uint32_t diskSectors);
/* A member's usable size: low 7 bits cleared, minus 128 (unsigned). */
KEMO_API uint32_t KEMORaidDiskMDSizeFromPartitionSize(uint32_t partSectors);
KEMO_API int KEMORaidDiskUsableSizeFromDisk(int disk, uint32_t *sectors);
KEMO_API int KEMORaidDiskUsableSizeFromPartition(int disk, int part, uint32_t *sectors);
/* The smallest size of the disks in diskMask, less the reserve, rounded
 * down to a cylinder.  Disks that cannot be measured are skipped; when none
 * can be, the subtraction wraps.  0, or 1 (disk error 1). */
KEMO_API int KEMORaidDiskMinSizeGet(int diskMask, uint32_t *sectors);

/* Lays the layout on a disk (initType bits KEMO_RAID_DISK_INIT_*), cleaning
 * first what it replaces.  A type without bit 0 or 1 is refused (disk
 * error 7), bits above them are refused (disk error 1).  0, or 1. */
KEMO_API int KEMORaidDiskInit(int disk, int initType);
/* Clears md superblocks and deletes partition entries: type 3 all four
 * (after resetting the table), 1 partitions 1-2 (after the reset), 2
 * partition 3 only, anything else partition 1 only.  0, or 1 (disk error 1
 * or 3). */
KEMO_API int KEMORaidDiskClean(int disk, int cleanType);

/* The disk's status into *record (status KEMO_DISK_NONE and 0 for an
 * empty slot).  0, or 1 (disk error 1, 5, 6 or 7). */
KEMO_API int KEMORaidDiskStatus(int disk, PKEMORAIDDISK record);
/* From /dev/md0 and /dev/md1: 0 member of both and flagged in neither, 2
 * member of one or flagged, 1 member of neither.  0, or 1. */
KEMO_API int KEMORAIDStatusGetSYS(int *sysStatus, int disk);
/* From the first data array that lists the disk (its bit ORed into
 * *dataVolumeMask): 0 healthy member, 2 flagged, 1 member of none.  0, or 1. */
KEMO_API int KEMORAIDStatusGetDATA(int *dataStatus, uint32_t *dataVolumeMask, int disk);
/* Maps (system, data) to a KEMO_DISK_* value.  0, or 1 (disk error 7 for
 * an inconsistent pair, 1 for a null pointer). */
KEMO_API int KEMORAIDStatusGet(int sysStatus, int dataStatus, int *diskStatus);
/* The number of slots whose disk no data array uses (status 2 or 3). */
KEMO_API int KEMORaidDiskUnused(void);
/* The 1-based disk whose partition has device numbers major:minor, or -1.
 * kind 0: partition 1, 1: partition 2, 2..5: partition 3. */
KEMO_API int KEMORaidDiskIDGet(int kind, int major, int minor);
/* Partition number part (1-based) of device as the partitioning tool lists
 * it: its size, start and type; -1 when it is absent or unreadable. */
KEMO_API long long RCRaiddiskPartitionConfigs(int part, const char *device, uint32_t *start,
                                              uint32_t *type);
/* 1 when device carries the appliance's layout (partitions 1 and 2 exact,
 * partition 3 of type 0xfd), else 0. */
KEMO_API int BlKEMORaidDiskCheckPartitions(const char *device);
/* Logs a failed shell command (status a wait status, or -1). */
KEMO_API void KEMOErrLogShellCmd(int status, const char *source, int line, const char *command);
KEMO_API void KEMORaidIDiskSetErr(uint32_t code);
KEMO_API uint32_t KEMORaidDiskGetErr(void);

/* The status of /dev/md<md> (0..5) from the md driver and the mount table.
 * 0, or non-zero (array error 1, 3, or 4 for an array that is not
 * active). */
KEMO_API int KEMORaidVolStatus(int md, PKEMORAIDVOL record);
/* Fills memberMask, faultyMask, activeMask and the two active counts of
 * masks from count members of array md.  0, or non-zero for a member on no
 * internal disk or in an unknown state. */
KEMO_API int DecideRAIDDiskStatus(int md, const KEMORAIDMEMBER *members, int count, PKEMORAIDVOL masks);
/* 0 normal, 1 degraded, 2 crashed, from the level and the counts. */
KEMO_API int DecideRAIDVolStatus(int level, const KEMORAIDVOL *masks);
/* The per-member size in KiB of /dev/md<md> (0..5).  0, or non-zero. */
KEMO_API int KEMORaidComponentSize(int md, int64_t *kib);
/* Data volumes (= disk slots); arrays (slots + 2: md0, md1 and one per
 * slot); the highest array number (slots + 1). */
KEMO_API int KEMOMaxVolGet(void);
KEMO_API int KEMORaidMaxMDGet(void);
KEMO_API int KEMORaidMaxMDIDGet(void);
/* 1 for an array number 0..5. */
KEMO_API int KEMORaidIVolNumValid(int md);
/* *sectors = KEMO_RAID_DISK_RESERVE.  0, or 1 for a null pointer. */
KEMO_API int KEMORaidVolDiskReserveSizeGet(uint32_t *sectors);
/* The array size limit set by a root-owned file "/tmp/volume.<GiB>", in
 * KiB.  0, or 1 with *kib 0 when there is none. */
KEMO_API int KEMORaidIDiskSizeLimitGet(uint64_t *kib);
KEMO_API void KEMORaidISetErr(uint32_t code);
KEMO_API uint32_t KEMORaidGetErr(void);

/* Array administration.  Disk masks have bit d for disk d (0..3); part is a
 * partition index (0 system, 1 swap, 2 data); levels are 0, 1 and 5.  Every
 * number is checked before a command runs.  Results are 0 for success and
 * 1 for failure (array error word set, one system log line) unless stated. */

/* Creates an array of level over the part partitions of the disks in
 * diskMask, with count members ("missing" for each absent one, "-f" for a
 * single member), into *md: the system array is md0, the swap array md1,
 * a data array the lowest free number from md2 up (error 2 when that
 * number is taken or none is free).  RAID 0 may miss no member and RAID 5
 * one at most (error 1).  For data arrays a "/tmp/volume.<GiB>" limit caps
 * the member size.  Error 11: a partition cannot be measured; 3: mdadm
 * failed (an array it left half-made from these partitions is stopped). */
KEMO_API int KEMORaidDevCreate(int diskMask, int part, int level, int count, int *md);
/* KEMORaidDevCreate on the data partitions. */
KEMO_API int KEMORaidVolCreate(int diskMask, int level, int count, int *md);
/* Adds disk's part partition to array md: partition index 0 only to md0,
 * 1 only to md1, 2 only to a data array (error 1).  System and swap
 * partitions must have the exact layout size (error 10). */
KEMO_API int KEMORaidDevDiskAdd(int md, int disk, int part);
KEMO_API int KEMORaidVolDiskAdd(int md, int disk);    /* data partition */
KEMO_API int KEMORaidVolDiskAddSys(int disk);         /* md0, partition 1 */
KEMO_API int KEMORaidVolDiskAddSwap(int disk);        /* md1, partition 2 */
/* Marks disk's part partition faulty in array md and removes it; the
 * member is gone from the array when this returns 0 (error 3 when mdadm
 * fails or the md driver keeps it).  unused is ignored. */
KEMO_API int KEMORaidDevDiskRemove(int md, int disk, int part, int unused);
KEMO_API int KEMORaidVolDiskRemove(int md, int disk, int unused);
/* The running data arrays: bit N of *dataMask for array N + 2, the first
 * such N and their number.  Any pointer may be null, not all three. */
KEMO_API int KEMORaidDevEnum(uint32_t *dataMask, int *firstIndex, int *count);
/* The lowest array number the md driver reports as not active (error 2
 * when there is none). */
KEMO_API int KEMORaidVolFindUnusedID(int *md);
/* Unmounts, stops and clears array md (0..5): the superblocks of its own
 * members, and only those, are zeroed.  Error 1 (also for an array that
 * is not running), 3, 5 (superblock clear refused), 7 (unmount) or 8
 * (stop). */
KEMO_API int KEMORaidVolDestroy(int md);
/* For a RAID 1 or 5 array: *newKiB the member size its partitions allow
 * (less the data offset of members whose superblock is at the start,
 * capped by a "/tmp/volume.<GiB>" limit); returns 1 when that is more than
 * the size in use, 0 when not, -1 on failure (error 2 for another level,
 * 11 when no member can be measured). */
KEMO_API int KEMORaidVolExpansible(int md, uint64_t *newKiB);
/* Grows array md to the size KEMORaidVolExpansible allows.  0, or 1
 * (error 9 the command could not start, 3 it failed). */
KEMO_API int KEMORaidVolExpand(int md);
/* Changes the member count of array md to count, 1..4 (mdadm --grow
 * --raid-disks; a new member must have been added as a spare first).
 * 0, or 1 (error 1, 9 the command could not start, 3 it failed). */
KEMO_API int KEMORaidVolDiskCountChange(int md, int count);
/* Lays the system layout on every present disk and creates the system
 * (md0) and swap (md1) arrays over them.  0, or 1. */
KEMO_API int KEMORaidSystemInit(void);
/* The smallest disk, in sectors, that can replace a member of the RAID 1
 * or 5 array described by record (2634916 + 2 x componentKiB).  0; 1 for
 * another level (no error code) or a null pointer (error 1). */
KEMO_API int KEMORaidVolRepairMinDisk(const KEMORAIDVOL *record, uint64_t *minSectors);
/* The number of arrays /proc/mdstat lists (md0 .. the highest number). */
KEMO_API int KEMORaidVolCount(int *count);
/* The number of bits set among bits 0..3 of mask. */
KEMO_API int KEMORaidVolDiskCount(uint32_t mask);
/* 1 while md0 or md1 is being synchronised or rebuilt or waits to be
 * (a non-zero rebuildState), else 0. */
KEMO_API int KEMORaidSystemRebuilding(void);

/* ------------------------------------------------------------------------ */
/* Volumes                                                                   */
/* ------------------------------------------------------------------------ */
/* A volume is the file system on a data array, mounted at /volume1 ..
 * /volume4.  Volume ids are 1..4 ("/volume<id>"); volume indexes are 0..3
 * (index N is /dev/md<N+2> mounted at /volume<N+1>).  The index functions
 * set the volume module's error word (KEMOVolGetErr, codes below). */

/* One volume; KEMOVOLINFOLIST when chained (next owned by the list). */
typedef struct KEMOVOLINFO {
    int32_t svi_id;              /* volume id, or index for the index functions */
    char svi_device[16];         /* the mounted device, e.g. /dev/md2 */
    int32_t svi_status;          /* 1 mounted, 0 not */
    char svi_mount_point[32];    /* "/volume1" .. */
    uint64_t svi_avail_bytes;    /* blocks available to users x block size */
    uint64_t svi_total_bytes;    /* total blocks x block size */
    int32_t svi_writeable;       /* 0 mounted read-only, else 1 */
    struct KEMOVOLINFO *next;
} KEMOVOLINFO, *PKEMOVOLINFO, KEMOVOLINFOLIST, *PKEMOVOLINFOLIST;

/* Volume module error codes (KEMOVolGetErr). */
#define KEMO_VOL_ERR_PARAM 1
#define KEMO_VOL_ERR_COMMAND 2      /* a command could not run, or enumeration failed */
#define KEMO_VOL_ERR_NOT_MOUNTED 3
#define KEMO_VOL_ERR_MOUNTED 4
#define KEMO_VOL_ERR_MOUNT 5
#define KEMO_VOL_ERR_MKFS 6
#define KEMO_VOL_ERR_STATFS 7
#define KEMO_VOL_ERR_NO_SPACE 9     /* no room for the mount directory */
#define KEMO_VOL_ERR_MKDIR 10
#define KEMO_VOL_ERR_STAT 11

/* 1 for a volume index 0..3. */
KEMO_API int KEMOVolIVolIDValid(int index);
/* Volume index's device, mount point and (when mounted) sizes.  0, or -1
 * (error 1 bad index, 2 the mount table could not be read, 7 statfs). */
KEMO_API int KEMOVolRaidGetInfo(int index, PKEMOVOLINFO record);
/* The mounted data volumes: bit N of *mask for index N, their number and
 * the first index.  Any pointer may be null, not all three.  0, or -1. */
KEMO_API int KEMOVolRaidEnum(uint32_t *mask, int *first, int *count);
KEMO_API void KEMOVolISetErr(uint32_t code);
KEMO_API uint32_t KEMOVolGetErr(void);

struct statfs;
/* The file-system statistics of mounted volume index (error 3 not mounted,
 * 7 statfs failed).  0, or -1. */
KEMO_API int KEMOVolStatfs(int index, struct statfs *out);
/* Makes the file system of volume index on /dev/md<index+2> and mounts it
 * at /volume<index+1>: fsKind 3 runs "mke2fs -P option", 4 "mkfs.ext3 -P
 * option" (option: the progress file prefix, "/tmp/mkfs.progress"; a plain
 * path below /tmp/, else error 1).  0, or -1 (error 1, 2, 4 already
 * mounted, 5, 6, 9, 10, 11). */
KEMO_API int KEMOVolInit(int index, int fsKind, const char *option);
/* Unmounts volume index.  0, or -1 (error 1 or 2). */
KEMO_API int KEMOVolStop(int index);
/* The size of a block device (a plain path below /dev/) in 512-byte
 * sectors.  0, or -1 (error 1 not such a device, 2 it cannot be asked). */
KEMO_API int KEMOVolDevSize(const char *device, uint64_t *sectors);
/* 0 when the ext file system on device can grow into its device, -1 when
 * it cannot or the check failed. */
KEMO_API int KEMOVolExpansible(const char *device);
/* Grows the file system on device to its device's size, reporting progress
 * in /tmp/resize2fs.progress.{extend,scan}.<device name>.  0, or -1. */
KEMO_API int KEMOVolExpand(const char *device);
/* The percent done of the file-system grow of name ("md2", a plain file
 * name), from its two progress files.  0, or -1. */
KEMO_API int KEMOVolExpandProgress(const char *name, int *percent);
/* The percent done of making the file system of volume index, from
 * /tmp/mkfs.progress.md<index+2>; 0 before anything was written, -1 when
 * the maker is not running and left no progress. */
KEMO_API int KEMOVolFSInitStatusGet(int index);

/* Library-wide error codes of the volume-id functions. */
#define KEMO_ERR_VOL_PATH 0x9900 /* the path names no place inside a volume */

/* Health values (KEMOVolHealthCheck). */
#define KEMO_VOL_UNMOUNTED 0
#define KEMO_VOL_READONLY 1
#define KEMO_VOL_WRITEABLE 2

/* 1 for a volume id 1..4. */
KEMO_API int KEMOVolIDCheck(int id);
/* N for a path "/volume<N>/<more>"; -1 (ERR_BAD_PARAMETERS, or
 * KEMO_ERR_VOL_PATH for a path of another form). */
KEMO_API int KEMOVolIDParse(const char *path);
/* The mount of volume id from the mount table: device, mount point,
 * writeable, sizes (svi_status 0 when not mounted).  0, or -1. */
KEMO_API int KEMOVolInfoGet(int id, PKEMOVOLINFO record);
/* The mounted /volume<digit> file systems, sorted by id (only the first
 * with firstOnly).  NULL when there are none or on failure (error code
 * set then).  Free with KEMOMountVolInfoFree. */
KEMO_API PKEMOVOLINFOLIST KEMOMountVolInfoGet(int firstOnly);
/* Sorts the chain ascending by svi_id in place; returns the new head. */
KEMO_API PKEMOVOLINFOLIST KEMOMountVolInfoSort(PKEMOVOLINFOLIST list);
KEMO_API void KEMOMountVolInfoFree(PKEMOVOLINFOLIST list);
/* *health = KEMO_VOL_* of volume id.  0, or -1. */
KEMO_API int KEMOVolHealthCheck(int id, int *health);
/* The first writeable volume id, or 0. */
KEMO_API int KEMOVolGetWriteableVolID(void);
/* 1 when no mounted volume is writeable, else 0. */
KEMO_API int KEMOVolNoVolume(void);
/* The first writeable volume id whose "/volume<id><relativePath>" is a
 * directory; 0 when none is; -1 (ERR_BAD_PARAMETERS) for a path that does
 * not begin with "/". */
KEMO_API int KEMOVolAllVolumeScan(const char *relativePath);
/* 1 when "supportraid" of the defaults file is "yes" (any case). */
KEMO_API int KEMOSupportRAID(void);
/* For an array status: 1 a single-disk RAID 0, 2 a single-member RAID 1,
 * 3 an unhealthy array recorded as non-RAID ("md<N>_level" 99), else 0. */
KEMO_API int KEMOVolIsNonRAID(const KEMORAIDVOL *status);

/* Progress of creating a volume ("/tmp/raid_add_init_volume.tmp", key
 * STEP), as VolInitStatusGet fills it. */
#define KEMO_INIT_START 0
#define KEMO_INIT_FINISH 1
#define KEMO_INIT_ERROR 2
#define KEMO_INIT_DISKINIT 3
#define KEMO_INIT_MDSYNC 4
#define KEMO_INIT_VOLINIT 5
#define KEMO_INIT_DEFINIT 6
typedef struct KEMOVOLINITSTATUS {
    int32_t step;         /* KEMO_INIT_* */
    int32_t diskPercent;
    float syncPercent;
    int32_t fsPercent;
    float finalPercent;
} KEMOVOLINITSTATUS, *PKEMOVOLINITSTATUS;

/* 0 (record filled), -1 failure, -2 no volume is being created. */
KEMO_API int VolInitStatusGet(PKEMOVOLINITSTATUS status);
/* 1 while a volume is being created / repaired / grown (and, when
 * processName is not NULL, a process of that name is alive), else 0. */
KEMO_API int BlAddIsApplying(const char *processName);
KEMO_API int BlRepairIsApplying(const char *processName);
KEMO_API int BlExpandIsApplying(const char *processName);
/* The resync or rebuild percent of array md: the percent while it runs,
 * -1.0 while it waits, 100.0 when the array is in sync, -2.0 when it is
 * degraded or crashed and not rebuilding.  An array that cannot be asked
 * within five seconds reads as in sync.  0, or -1 (null pointer, md
 * outside 0..5). */
KEMO_API int MDSyncProgress(int md, float *percent);
/* Remounts the file system of a crashed array device read-only (services
 * stopped around it); when the array refuses the write that takes, the
 * mount alone is made read-only.  0, or -1 when it is not mounted, already
 * read-only ("ro" anywhere in its options) or could not be changed. */
KEMO_API int KEMORemountCrashRaidRo(const char *device);
/* Start-up scan: data arrays that lost every member are unmounted and their
 * services and shares removed; crashed arrays are remounted read-only.
 * Returns the number of arrays removed. */
KEMO_API int KEMOVolRemoveStaleVolumes(void);

/* ------------------------------------------------------------------------ */
/* User quotas                                                               */
/* ------------------------------------------------------------------------ */
/* Users' space limits on the data volumes: the kernel's user quotas in the
 * "vfsv0" format.  Amounts are megabytes. */

/* Quota error codes (no entry in rgszErrMsg). */
#define KEMO_ERR_QUOTA_OFF 0x9100       /* quotas not enabled on the device */
#define KEMO_ERR_QUOTA_INVALID 0x9200   /* the kernel refused the request */
#define KEMO_ERR_QUOTA_REMOUNT 0x9300
#define KEMO_ERR_QUOTA_CHECK 0x9400
#define KEMO_ERR_QUOTA_ON 0x9500
#define KEMO_ERR_QUOTA_SHELL 0x9600
#define KEMO_ERR_QUOTA_ENUM 0x9700

/* One user's quota on a device. */
typedef struct KEMOQUOTA {
    float limitMB; /* 0: no limit */
    float usedMB;
} KEMOQUOTA, *PKEMOQUOTA;

/* 1 when "supportquota" of the defaults file is "yes" (any case). */
KEMO_API int KEMOSupportQUOTA(void);
/* Switches user and group quotas on for mounted volume number volume
 * ("/volume<volume>"): remount with the quota options, quotacheck, quotaon.
 * 0, or -1 (ERR_BAD_PARAMETERS not mounted, KEMO_ERR_QUOTA_*). */
KEMO_API int KEMOQuotaInit(int volume);
/* User name's limit and use on block device.  name is a local user or a
 * domain user (DOMAIN\name); system accounts (root, the daemons, nobody)
 * never have a limit and are refused with ERR_BAD_PARAMETERS.  0, or -1. */
KEMO_API int KEMOQuotaGet(const char *name, const char *device, PKEMOQUOTA reading);
/* Sets user name's limit on device to *limitMB (0 removes it; stored in
 * 1 KiB quota blocks, a part of a block counting as a whole one; at most
 * 4 TiB).  0, or -1. */
KEMO_API int KEMOQuotaSet(const char *name, const char *device, const float *limitMB);
/* Removes the limits of every user of list on device (all are tried).  0,
 * or -1 when any failed. */
KEMO_API int KEMOQuotaClean(PKLIBSZLIST list, const char *device);
/* KEMOQuotaClean on "/dev/hda3", the data partition of single-disk models. */
KEMO_API int KEMOQuotaCleanOne(PKLIBSZLIST list);
/* KEMOQuotaClean on every mounted data array.  0, or -1. */
KEMO_API int KEMOQuotaCleanRAID(PKLIBSZLIST list);
/* Switches user quotas off on device.  Always 0. */
KEMO_API int KEMOQuotaOff(const char *device);
/* The quota format number of device's user quotas (2 for vfsv0), or 0
 * (error code set). */
KEMO_API int KEMOQuotaFmtGet(const char *device);
/* kind 0: value x 2^20; 1: / 2^20; 2 and 5: / 1024; 3 and 4: x 1024; other
 * kinds 0.  Computed in single precision. */
KEMO_API double KEMOUnitTrans(int kind, double value);

/* ------------------------------------------------------------------------ */
/* Services                                                                  */
/* ------------------------------------------------------------------------ */
/* The file and network services run from the control scripts of
 * /usr/kemo/etc/rc.d. */

/* 1 stops every service, 2 starts them ("rc.netservice stop|start").  0,
 * or -1 (ERR_BAD_PARAMETERS for another action). */
KEMO_API int KEMOServiceOnOffALL(int action);
/* Takes the services registered on volume id 1..4 off it before it goes
 * away ("<service>_volume" keys of /etc/kemoinfo.conf naming the id): each
 * is stopped through its control script, "run<service>" set to "no" and
 * the key removed.  0, or -1 (also when a script failed: the services are
 * switched off all the same). */
KEMO_API int KEMOServiceRemovebyVolume(int volume);

/* ------------------------------------------------------------------------ */
/* Configuration backup                                                      */
/* ------------------------------------------------------------------------ */
/* One file of big-endian u32 words: "KEMO", category 1, the content mask,
 * then sections "id, version, body size, body" in registry order.  A body
 * is typed values: string (1, strlen + 1, text with its NUL) or long (2, 4,
 * value). */

/* Every section. */
#define KEMO_SYSBKP_ALL 0x37FFFFBu

/* One registry entry; the table ends with an all-zero entry. */
typedef struct KEMOSYSBKPROUTINE {
    int (*pfExport)(int fd);
    int (*pfImport)(int fd, uint32_t version, int apply);
    const char *szDesc; /* description key of the section */
    uint32_t id;        /* one bit */
    uint32_t version;
} KEMOSYSBKPROUTINE;

/* The sections in file order. */
KEMO_API extern const KEMOSYSBKPROUTINE grgSysRoutine[];
/* After an import: the ids of the sections that were restored (cleared
 * bits failed). */
KEMO_API extern uint32_t gimp_status;
/* User name -> uid of the accounts an import restored, until
 * KEMOSysbkpFinishImport. */
KEMO_API extern PKLIBSZHASH gpshUser;

/* Writes a backup of the sections in mask (KEMO_SYSBKP_ALL: every section)
 * to path.  The file carries password hashes: it is created exclusively, or
 * an existing file is reused only when it is a regular file of the caller's
 * with one name (never through a link, never a FIFO), and it always ends
 * with at most mode & 0600.  0, or -1 (a file at path that may not be
 * reused is left alone; a partial file of ours is removed). */
KEMO_API int KEMOSysbkpExport(const char *path, uint32_t mask, unsigned int mode);
/* Reads the backup at path and restores the sections in mask (apply 0:
 * check only, nothing changes).  The network services are stopped for the
 * import.  0 when every selected section was restored; -1 when the file is
 * unreadable or malformed or a section failed (see gimp_status). */
KEMO_API int KEMOSysbkpImport(const char *path, uint32_t mask, int apply);
/* Registry index of id, or -1. */
KEMO_API int KEMOSysbkpIGetIdx(uint32_t id);
/* Section header: id, its version and a zero size.  0, or -1. */
KEMO_API int KEMOSysbkpIWriteHeader(int fd, uint32_t id);
/* Patches the size before offBegin with offEnd - offBegin and seeks back
 * to offEnd.  0, or -1. */
KEMO_API int KEMOSysbkpIWriteBlkSize(int fd, int64_t offBegin, int64_t offEnd);
/* One string value; the reader malloc's *text (free it).  0, or -1. */
KEMO_API int KEMOSysbkpIWriteString(int fd, const char *text);
KEMO_API int KEMOSysbkpIReadString(int fd, char **text);
/* One long value.  0, or -1. */
KEMO_API int KEMOSysbkpIWriteLong(int fd, int32_t value);
KEMO_API int KEMOSysbkpIReadLong(int fd, int32_t *value);
/* count bytes (a multiple of 4) of 32-bit words.  The write: 0, or -1.
 * The read: count, 0 at the end of the file, -1 on a short read. */
KEMO_API int KEMOSysbkpRawIntWrite(int fd, const void *buffer, int count);
KEMO_API int KEMOSysbkpRawIntRead(int fd, void *buffer, int count);

/* Section exporters (write one section at the current position; 0 or -1)
 * and importers (read one body from the start of fd; apply 0 checks only;
 * 0 or -1).  A failure appends the section's failure event to the system
 * log. */
KEMO_API int KEMOSysbkpTimeExport(int fd);
KEMO_API int KEMOSysbkpTimeImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpHostnameExport(int fd);
KEMO_API int KEMOSysbkpHostnameImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpInterfaceExport(int fd);
KEMO_API int KEMOSysbkpInterfaceImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpLangExport(int fd);
KEMO_API int KEMOSysbkpLangImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpMailExport(int fd);
KEMO_API int KEMOSysbkpMailImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpAppleExport(int fd);
KEMO_API int KEMOSysbkpAppleImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpWindowsExport(int fd);
KEMO_API int KEMOSysbkpWindowsImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpUserExport(int fd);
KEMO_API int KEMOSysbkpUserImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpGroupExport(int fd);
KEMO_API int KEMOSysbkpGroupImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpShareExport(int fd);
KEMO_API int KEMOSysbkpShareImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpHDSleepTimeExport(int fd);
KEMO_API int KEMOSysbkpHDSleepTimeImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpRunFtpdExport(int fd);
KEMO_API int KEMOSysbkpRunFtpdImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpUSBBkpScheduleExport(int fd);
KEMO_API int KEMOSysbkpUSBBkpScheduleImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpPPPoEExport(int fd);
KEMO_API int KEMOSysbkpPPPoEImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpUSBBkpShareListExport(int fd);
KEMO_API int KEMOSysbkpUSBBkpShareListImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpPhotoExport(int fd);
KEMO_API int KEMOSysbkpPhotoImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpHttpPortExport(int fd);
KEMO_API int KEMOSysbkpHttpPortImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpMTUExport(int fd);
KEMO_API int KEMOSysbkpMTUImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpRCPowerExport(int fd);
KEMO_API int KEMOSysbkpRCPowerImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpUSBCopySetExport(int fd);
KEMO_API int KEMOSysbkpUSBCopySetImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpWebExport(int fd);
KEMO_API int KEMOSysbkpWebImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpDCacheExport(int fd);
KEMO_API int KEMOSysbkpDCacheImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpGrabdockExport(int fd);
KEMO_API int KEMOSysbkpGrabdockImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpMySQLExport(int fd);
KEMO_API int KEMOSysbkpMySQLImport(int fd, uint32_t version, int apply);
KEMO_API int KEMOSysbkpUserQuotaExport(int fd);
KEMO_API int KEMOSysbkpUserQuotaImport(int fd, uint32_t version, int apply);
/* The last registry entry: writes nothing; its importer frees gpshUser. */
KEMO_API int KEMOSysbkpFinishExport(int fd);
KEMO_API int KEMOSysbkpFinishImport(int fd, uint32_t version, int apply);

#ifdef __cplusplus
}
#endif

#endif /* KEMO_H */
