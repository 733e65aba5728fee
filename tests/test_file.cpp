// Key/value settings files: reading, the writers' byte-exact output, and the
// safety of every rewrite (owner and mode kept, full disks, killed writers,
// concurrent writers under the settings lock).
#include "kemo.h"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <set>

namespace {

class KeyFile : public SandboxTest {
protected:
    const std::string path = "/etc/test.conf";

    // The value of key, or "<absent>" / "<error>".
    std::string get(const std::string &key, int flags = 0)
    {
        char buf[64];
        const int n = KLIBFileGetKeyValue(path.c_str(), key.c_str(), buf, sizeof buf, flags);
        if (n == 0)
            return "<absent>";
        return n < 0 ? "<error>" : std::string(buf);
    }
};

std::string big(char c, std::size_t n)
{
    return std::string(n, c);
}

TEST_F(KeyFile, ValuesAreTrimmedUnquotedAndEmptyDiffersFromAbsent)
{
    write_file(path, "# a=comment\n;a=comment\n  a = \"x y\" \nempty=\nblank=   \n"
                     "quoted=\"\"\neq=a=b\nnoeq\n\"q\"=1\nlast=no newline");
    EXPECT_EQ(get("a"), "x y");
    EXPECT_EQ(get("#"), "<absent>");
    EXPECT_EQ(get("empty"), "<absent>");
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_NOT_FOUND);
    EXPECT_EQ(get("blank"), "");
    EXPECT_EQ(get("quoted"), "");
    EXPECT_EQ(get("eq"), "a=b");
    EXPECT_EQ(get("noeq"), "<absent>");
    EXPECT_EQ(get("q"), "1");
    EXPECT_EQ(get("last"), "no newline");
    EXPECT_EQ(get("A"), "<absent>") << "keys are case-sensitive";
}

TEST_F(KeyFile, DuplicatesSizesAndRefusals)
{
    write_file(path, "k=first\nk=second\n");
    EXPECT_EQ(get("k"), "first");
    EXPECT_EQ(get("k", 1), "second");

    EXPECT_EQ(KLIBFileGetKeyValue(path.c_str(), "k", nullptr, 0, 0), 6);
    char small[5];
    EXPECT_EQ(KLIBFileGetKeyValue(path.c_str(), "k", small, sizeof small, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    char exact[6];
    EXPECT_EQ(KLIBFileGetKeyValue(path.c_str(), "k", exact, sizeof exact, 0), 6);
    EXPECT_STREQ(exact, "first");

    EXPECT_EQ(KLIBFileGetKeyValue(path.c_str(), "k", nullptr, 4, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBFileGetKeyValue(path.c_str(), "k", exact, 6, -1), -1);
    EXPECT_EQ(KLIBFileGetKeyValue("/etc/none.conf", "k", exact, 6, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
}

TEST_F(KeyFile, LinesOfAnyLength)
{
    const std::string value = big('v', 20000);
    write_file(path, "a=1\nlong=" + value + "\nz=2\n");
    std::vector<char> buf(value.size() + 1);
    EXPECT_EQ(KLIBFileGetKeyValue(path.c_str(), "long", buf.data(), static_cast<int>(buf.size()), 0),
              20001);
    EXPECT_EQ(std::string(buf.data()), value);
    EXPECT_EQ(get("z"), "2");
    ASSERT_EQ(KLIBFileSetKeyValue(path.c_str(), "z", "3", nullptr), 1);
    EXPECT_EQ(read_file(path), "a=1\nlong=" + value + "\nz=3\n");
}

TEST_F(KeyFile, SetReplacesInPlaceAndKeepsEveryOtherByte)
{
    const std::string others = "# comment = kept\r\n;x=1\n  spaced  =  v  \n\n";
    write_file(path, others + "key=old\nmid=m\nkey=dup\ntail=t");
    ASSERT_EQ(KLIBFileSetKeyValue(path.c_str(), "key", "new", nullptr), 1);
    EXPECT_EQ(read_file(path), others + "key=new\nmid=m\ntail=t");

    ASSERT_EQ(KLIBFileSetKeyValue(path.c_str(), "added", "a b", nullptr), 1);
    EXPECT_EQ(read_file(path), others + "key=new\nmid=m\ntail=t\nadded=a b\n")
        << "a last line without its newline gets one before the appended line";

    // A caller's format keeps the line's own key text, spacing included.
    ASSERT_EQ(KLIBFileSetKeyValue(path.c_str(), "spaced", "w", "%s=\"%s\"\n"), 1);
    EXPECT_EQ(lines_of(path)[2], "  spaced  =\"w\"");
    EXPECT_FALSE(exists(path + ".tmp"));
}

TEST_F(KeyFile, SetCreatesMissingFilesAndRefusesBadInput)
{
    ASSERT_EQ(KLIBFileSetKeyValue("/etc/new.conf", "k", "v", nullptr), 1);
    EXPECT_EQ(read_file("/etc/new.conf"), "k=v\n");

    write_file(path, "k=v\n");
    EXPECT_EQ(KLIBFileSetKeyValue(path.c_str(), "k", "w", "%s:%s\n"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBFileSetKeyValue(path.c_str(), "k", "w", "%s=%d\n"), -1);
    EXPECT_EQ(KLIBFileSetKeyValue("/etc", "k", "w", nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBFileSetKeyValue(path.c_str(), nullptr, "w", nullptr), -1);
    EXPECT_EQ(read_file(path), "k=v\n");

    EXPECT_EQ(KLIBIFileCheckFormat(nullptr), 1);
    EXPECT_EQ(KLIBIFileCheckFormat("%s = %s ; x\n"), 1);
    EXPECT_EQ(KLIBIFileCheckFormat("%s=%s"), 0);
    EXPECT_EQ(KLIBIFileCheckFormat("%s\n=%s"), 0);
}

TEST_F(KeyFile, DefaultFileSystemChangesAreTraced)
{
    SyslogCapture log;
    write_file(path, "defaultfs=ext3\n");
    ASSERT_EQ(KLIBFileSetKeyValue(path.c_str(), "defaultfs", "ext4", nullptr), 1);
    const auto texts = log.texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_THAT(texts[0], ::testing::EndsWith("szKey=defaultfs, szValue=ext4"));
    EXPECT_THAT(texts[0], ::testing::StartsWith("lib/kemofile.cpp("));
}

TEST_F(KeyFile, RewritesKeepOwnerAndMode)
{
    write_file("/etc/shadow", read_file("/etc/shadow"), 0600);
    ASSERT_EQ(::chown("/etc/shadow", 0, 42), 0);
    ASSERT_EQ(KLIBFileSetKeyValue("/etc/shadow", "x", "y", nullptr), 1);
    struct stat st = stat_of("/etc/shadow");
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_gid, 42u);

    write_file(path, "a=1\n", 0640);
    ASSERT_EQ(::chown(path.c_str(), 1024, 100), 0);
    ASSERT_EQ(KLIBFileRemoveKey(path.c_str(), "a"), 1);
    st = stat_of(path);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_uid, 1024u);
    EXPECT_EQ(st.st_gid, 100u);
}

TEST_F(KeyFile, FullDiskLeavesTheOriginal)
{
    ASSERT_EQ(::mkdir("/mnt/small", 0755) == 0 || errno == EEXIST, true);
    ASSERT_EQ(::mount("tmpfs", "/mnt/small", "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
    const std::string file = "/mnt/small/settings.conf";
    const std::string original = "a=1\nfiller=" + big('f', 40000) + "\n";
    write_file(file, original);
    // A second copy no longer fits.
    EXPECT_EQ(KLIBFileSetKeyValue(file.c_str(), "a", "2", nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_WRITE_FAILED);
    EXPECT_TRUE(read_file(file) == original);
    EXPECT_FALSE(exists(file + ".tmp"));
    EXPECT_EQ(KLIBFileRemoveKey(file.c_str(), "a"), -1);
    EXPECT_TRUE(read_file(file) == original);

    // Appending in place is cut back to the old length.
    write_file("/mnt/small/pad", big('p', 20000));
    EXPECT_EQ(KLIBFileAppendKey(file.c_str(), "b", big('b', 8000).c_str(), nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_WRITE_FAILED);
    EXPECT_TRUE(read_file(file) == original);
}

TEST_F(KeyFile, KilledWriterLeavesOldOrNewFile)
{
    const std::string a = "mode=a\n" + big('a', 200000) + "=x\n";
    const std::string b = "mode=b\n" + big('a', 200000) + "=x\n";
    write_file(path, a);
    for (int round = 0; round < 20; ++round) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (int i = 0;; ++i)
                KLIBFileSetKeyValue(path.c_str(), "mode", i % 2 ? "a" : "b", nullptr);
        }
        ::usleep(static_cast<useconds_t>(1000 + round * 1500));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        const std::string now = read_file(path);
        ASSERT_TRUE(now == a || now == b) << "round " << round << ": " << now.size() << " bytes";
    }
}

TEST_F(KeyFile, WritersUnderTheSettingsLockLoseNoUpdate)
{
    write_file(path, "# shared\n");
    constexpr int writers = 4, keys = 25;
    std::vector<pid_t> children;
    for (int w = 0; w < writers; ++w) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (int k = 0; k < keys; ++k) {
                const std::string key = "w" + std::to_string(w) + "k" + std::to_string(k);
                if (ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX, 10) != 0)
                    ::_exit(2);
                const int r = KLIBFileSetKeyValue(path.c_str(), key.c_str(), "v", nullptr);
                ErrKLIBFileUnlock(KLIB_LOCK_KEMOINFO);
                if (r != 1)
                    ::_exit(3);
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
    std::set<std::string> lines;
    for (const std::string &line : lines_of(path))
        lines.insert(line);
    EXPECT_EQ(lines.size(), 1u + writers * keys);
}

TEST_F(KeyFile, AppendAndRemove)
{
    write_file(path, "a=1\n#b=2\nlast=x");
    EXPECT_EQ(KLIBFileAppendKey(path.c_str(), "a", "9", nullptr), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_EXISTS);
    ASSERT_EQ(KLIBFileAppendKey(path.c_str(), "b", "2", nullptr), 1);
    EXPECT_EQ(read_file(path), "a=1\n#b=2\nlast=x\nb=2\n");
    ASSERT_EQ(KLIBFileAppendKey("/etc/fresh.conf", "k", "v", "%s=\"%s\"\n"), 1);
    EXPECT_EQ(read_file("/etc/fresh.conf"), "k=\"v\"\n");

    write_file(path, "a=1\nb=2\n a =3\n#a=4\n");
    EXPECT_EQ(KLIBFileRemoveKey(path.c_str(), "a"), 2);
    EXPECT_EQ(read_file(path), "b=2\n#a=4\n");
    EXPECT_EQ(KLIBFileRemoveKey(path.c_str(), "zz"), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_NOT_FOUND);
    EXPECT_EQ(read_file(path), "b=2\n#a=4\n");
}

struct Hash {
    PKLIBSZHASH h = PshKLIBSzHashAlloc(512);
    ~Hash() { KLIBSzHashFree(h); }
    std::string operator[](const char *key) const
    {
        const char *v = SzKLIBSzHashGetValue(h, key);
        return v ? v : "<absent>";
    }
};

TEST_F(KeyFile, WholeFilesIntoAndOutOfHashes)
{
    write_file(path, "a = 1\n#c=3\nnoeq\n=x\nb=\"2\"\na=later\n");
    Hash read;
    EXPECT_EQ(KLIBFileGetPair(path.c_str(), &read.h), 3);
    EXPECT_EQ(read["a"], "later");
    EXPECT_EQ(read["#c"], "3");
    EXPECT_EQ(read["b"], "2");

    write_file(path, "# head\nb=old\nkeep=k\nb=dup\n");
    Hash in;
    KLIBSzHashSetValue(&in.h, "b", "new");
    KLIBSzHashSetValue(&in.h, "x", "1");
    KLIBSzHashSetValue(&in.h, "y", "2");
    EXPECT_EQ(KLIBFileSetKeys(path.c_str(), in.h, nullptr), 3);
    std::string appended;
    for (int i = 0; i < in.h->nSlot; ++i) // the keys the file lacked, in slot order
        if (in.h->rgSlot[i].pszKey)
            appended += std::string(in.h->rgSlot[i].pszKey) + "=" + in.h->rgSlot[i].pszValue + "\n";
    EXPECT_EQ(read_file(path), "# head\nb=new\nkeep=k\nb=dup\n" + appended);
    EXPECT_EQ(in["b"], "<absent>") << "keys found in the file leave the hash";
    EXPECT_EQ(KLIBSzHashPairNum(in.h), 2);

    // Nothing to write: the file is not touched at all.
    Hash none;
    const ino_t before = stat_of(path).st_ino;
    EXPECT_EQ(KLIBFileSetKeys(path.c_str(), none.h, nullptr), 0);
    EXPECT_EQ(stat_of(path).st_ino, before);

    Hash keep;
    KLIBSzHashSetValue(&keep.h, "keep", "K");
    EXPECT_EQ(ErrKLIBFileSetPair(path.c_str(), keep.h, nullptr), 0);
    EXPECT_EQ(keep["keep"], "K") << "ErrKLIBFileSetPair leaves the hash alone";
    EXPECT_EQ(lines_of(path)[2], "keep=K");
}

TEST_F(KeyFile, LineMoveWritesOnlyItsKeys)
{
    Hash h;
    KLIBSzHashSetValue(&h.h, "k", "v");
    char *data = nullptr;
    std::size_t size = 0;
    FILE *out = ::open_memstream(&data, &size);
    EXPECT_EQ(KLIBILineKeyMoveHash2File(out, "  # k=1\n", h.h, nullptr), 0);
    EXPECT_EQ(KLIBILineKeyMoveHash2File(out, "other=1\n", h.h, nullptr), 0);
    EXPECT_EQ(KLIBILineKeyMoveHash2File(out, " k = old\n", h.h, "%s: %s=\n"), -1);
    EXPECT_EQ(KLIBILineKeyMoveHash2File(out, " k = old\n", h.h, "[%s=%s]\n"), 1);
    EXPECT_EQ(KLIBILineKeyMoveHash2File(out, "k=again\n", h.h, nullptr), 0);
    std::fclose(out);
    EXPECT_EQ(std::string(data, size), "[k=v]\n");
    std::free(data);
}

TEST_F(KeyFile, WholeLineFunctions)
{
    write_file(path, "a=1\n b = 2 \n#b=3\n");
    char buf[32];
    EXPECT_EQ(KLIBFileGetLineByKey(path.c_str(), "b", buf, sizeof buf, 0), 8);
    EXPECT_STREQ(buf, " b = 2 ");
    ASSERT_EQ(KLIBFileSetLineByKey(path.c_str(), "b", "b=two"), 1);
    ASSERT_EQ(KLIBFileSetLineByKey(path.c_str(), "c", "c=3\n"), 1);
    EXPECT_EQ(read_file(path), "a=1\nb=two\n#b=3\nc=3\n");
    EXPECT_EQ(KLIBFileAddLineByKey(path.c_str(), "a", "a=x"), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_EXISTS);
    ASSERT_EQ(KLIBFileAddLineByKey(path.c_str(), "d", "d=4"), 1);
    EXPECT_EQ(read_file(path), "a=1\nb=two\n#b=3\nc=3\nd=4\n");

    EXPECT_EQ(KLIBFileReplaceSubStr(path.c_str(), "3", "three"), 1);
    EXPECT_EQ(read_file(path), "a=1\nb=two\n#b=3\nc=three\nd=4\n") << "comments are not edited";
    EXPECT_EQ(KLIBFileComment(path.c_str(), "c"), 1);
    EXPECT_EQ(KLIBFileComment(path.c_str(), "c"), 0);
    EXPECT_EQ(read_file(path), "a=1\nb=two\n#b=3\n#c=three\nd=4\n");
    EXPECT_FALSE(exists("/etc/skel/tempErrKLIBFileComment"));
    ASSERT_EQ(KLIBFileReplaceSubStr(path.c_str(), "#c", "c"), 0) << "comments are not edited";
    ASSERT_EQ(KLIBFileSetLineByKey(path.c_str(), "#c", "c=three"), 1) << "nor matched by key";
    EXPECT_EQ(KLIBFileIInverse(path.c_str()), 6);
    EXPECT_EQ(read_file(path), "c=three\nd=4\n#c=three\n#b=3\nb=two\na=1\n");
    EXPECT_EQ(KLIBFileMatchLineNo(path.c_str(), "=t", 0), 1);
    EXPECT_EQ(KLIBFileMatchLineNo(path.c_str(), "=t", 1), 5);
    EXPECT_EQ(KLIBFileMatchLineNo(path.c_str(), "B=", 0x400), 5) << "comment lines never match";
}

TEST_F(KeyFile, MergeListAndNames)
{
    write_file("/etc/defaults.conf", "# defaults\na=default\nb=2\nc=3\nb=again\n");
    write_file(path, "a=mine\nc=x");
    EXPECT_EQ(KLIBFileMergePairs(path.c_str(), "/etc/defaults.conf", nullptr), 1);
    EXPECT_EQ(read_file(path), "a=mine\nc=x\nb=2\n");

    PKLIBSZLIST list = PslKLIBSzListAlloc(256);
    EXPECT_EQ(KLIBFileReadLines(path.c_str(), &list), 3);
    EXPECT_STREQ(SzKLIBSzListGet(list, 2), "b=2");
    KLIBSzListFree(list);

    ::mkdir("/etc/enum", 0755);
    ::mkdir("/etc/enum/sub", 0755);
    write_file("/etc/enum/b", "");
    write_file("/etc/enum/a", "");
    list = PslKLIBSzListAlloc(256);
    EXPECT_EQ(KLIBFileEnumDir("/etc/enum", &list, KLIB_ENUM_FILES), 2);
    EXPECT_STREQ(SzKLIBSzListGet(list, 0), "/etc/enum/a");
    EXPECT_EQ(KLIBFileEnumDir("/etc/enum", &list, KLIB_ENUM_DIRS), 1);
    EXPECT_STREQ(SzKLIBSzListGet(list, 2), "/etc/enum/sub");
    KLIBSzListFree(list);

    char name[32];
    ASSERT_EQ(KLIBFileITmpName("/tmp/x", name, sizeof name), 0);
    EXPECT_EQ(std::string(name), "/tmp/x" + std::to_string(::getpid()) + "-0");
    ASSERT_EQ(KLIBFileITmpName("/tmp/x", name, sizeof name), 0);
    EXPECT_EQ(std::string(name), "/tmp/x" + std::to_string(::getpid()) + "-1");
    EXPECT_EQ(KLIBFileITmpName("/tmp/x", name, 8), -1);
}

} // namespace
