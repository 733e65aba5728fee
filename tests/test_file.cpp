// Key/value settings files: reading, the writers' byte-exact output, and the
// safety of every rewrite (owner and mode kept, full disks, killed writers,
// concurrent writers under the settings lock).
#include "kemo.h"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <dirent.h>
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

    // "<prefix><pid>-<n>", n counting up; the twins draw from the same
    // counter, so no name is ever handed out twice.
    char name[32];
    const std::string prefix = "/tmp/x" + std::to_string(::getpid()) + "-";
    ASSERT_EQ(KLIBFileITmpName("/tmp/x", name, sizeof name), 0);
    ASSERT_THAT(std::string(name), ::testing::StartsWith(prefix));
    const int first = std::stoi(std::string(name).substr(prefix.size()));
    ASSERT_EQ(KLIBFileITmpName("/tmp/x", name, sizeof name), 0);
    EXPECT_EQ(std::string(name), prefix + std::to_string(first + 1));
    ASSERT_EQ(KLIBFileSetKeyValue(path.c_str(), "k", "v", nullptr), 1);
    ASSERT_EQ(KLIBFileITmpName("/tmp/x", name, sizeof name), 0);
    EXPECT_EQ(std::string(name), prefix + std::to_string(first + 3)) << "one name went to the twin";
    EXPECT_EQ(KLIBFileITmpName("/tmp/x", name, 8), -1);
    EXPECT_STREQ(name, "");
}

// Caller text with a line break would add lines of the caller's choosing.
TEST_F(KeyFile, LineBreaksInKeysAndValuesAreRefused)
{
    const std::string before = "# settings\nk=v\nlast=x\n";
    write_file(path, before);
    const char *p = path.c_str();
    const auto refused = refusal_check(path, before);
    for (const char *bad : {"v\ndomainjoined=yes", "v\rdomainjoined=yes", "\n", "v\r"}) {
        const std::string what = std::string("value ") + bad;
        refused(KLIBFileSetKeyValue(p, "k", bad, nullptr), what);
        refused(KLIBFileSetKeyValue(p, "new", bad, "%s = %s\n"), what);
        refused(KLIBIFileSetKeyValue(p, "k", bad, nullptr), what);
        refused(KLIBFileAppendKey(p, "new", bad, nullptr), what);
        refused(KLIBFileReplaceSubStr(p, "v", bad), what);
        refused(KLIBFileSetKeyValue(p, (std::string("domainjoined=yes") + bad).c_str(), "v", nullptr),
                "key " + what);
        refused(KLIBFileSetLineByKey(p, "k", (std::string("k=1") + bad + "x=2").c_str()), "line " + what);
        refused(KLIBFileAddLineByKey(p, "n", (std::string("n=1") + bad + "x=2").c_str()), "line " + what);
    }
    refused(KLIBFileSetLineByKey(p, "k", "k=1\r\n"), "only one final LF ends a line");
    EXPECT_EQ(KLIBFileSetKeyValue("/etc/created.conf", "k", "v\nx=1", nullptr), -1);
    EXPECT_FALSE(exists("/etc/created.conf")) << "no file is created either";

    // Hashes: every pair is checked before anything is written.
    for (const auto &[key, value] : {std::pair{"k2", "ok\nroot=1"}, std::pair{"k2\nroot", "1"}}) {
        Hash h;
        KLIBSzHashSetValue(&h.h, "k", "fine");
        KLIBSzHashSetValue(&h.h, key, value);
        refused(KLIBFileSetKeys(p, h.h, nullptr), std::string("SetKeys ") + key);
        refused(ErrKLIBFileSetPair(p, h.h, nullptr), std::string("SetPair ") + key);
        EXPECT_EQ(h["k"], "fine") << "the hash is left as it was";
        char *data = nullptr;
        std::size_t size = 0;
        FILE *out = ::open_memstream(&data, &size);
        if (key == std::string("k2")) {
            EXPECT_EQ(KLIBILineKeyMoveHash2File(out, "k2=old\n", h.h, nullptr), -1);
        }
        std::fclose(out);
        EXPECT_EQ(size, 0u);
        std::free(data);
    }
    write_file("/etc/defaults.conf", "a=1\rroot=1\nb=2\n");
    refused(KLIBFileMergePairs(p, "/etc/defaults.conf", nullptr), "merge");
}

// A new file gets 0644 whatever the caller's umask allows, narrower only
// when the umask is.
TEST_F(KeyFile, NewFilesAreNotWritableByOthers)
{
    const mode_t old = ::umask(0);
    EXPECT_EQ(KLIBFileSetKeyValue("/etc/a.conf", "k", "v", nullptr), 1);
    EXPECT_EQ(KLIBFileAppendKey("/etc/b.conf", "k", "v", nullptr), 1);
    EXPECT_EQ(KLIBFileSetLineByKey("/etc/c.conf", "k", "k=v"), 1);
    ::umask(077);
    EXPECT_EQ(KLIBFileSetKeyValue("/etc/d.conf", "k", "v", nullptr), 1);
    ::umask(old);
    EXPECT_EQ(mode_of("/etc/a.conf"), 0644u);
    EXPECT_EQ(mode_of("/etc/b.conf"), 0644u);
    EXPECT_EQ(mode_of("/etc/c.conf"), 0644u);
    EXPECT_EQ(mode_of("/etc/d.conf"), 0600u);
}

// Names in /etc that begin with the file's name and a dot: its twins.
std::vector<std::string> twins_of(const std::string &file)
{
    std::vector<std::string> found;
    const auto slash = file.rfind('/');
    const std::string dir = file.substr(0, slash), base = file.substr(slash + 1) + ".";
    DIR *d = ::opendir(dir.c_str());
    while (const dirent *e = d ? ::readdir(d) : nullptr)
        if (std::string_view(e->d_name).starts_with(base))
            found.emplace_back(e->d_name);
    if (d)
        ::closedir(d);
    return found;
}

// Two writers without the settings lock: each rewrite goes through a twin
// of its own, so the file is always one whole version; at worst a writer's
// latest change is overwritten by the other's copy.
TEST_F(KeyFile, WritersWithoutTheLockNeverShareATwin)
{
    write_file(path, "# shared\n");
    constexpr int rounds = 400;
    int start[2];
    ASSERT_EQ(::pipe(start), 0);
    std::vector<pid_t> children;
    for (const char *key : {"left", "right"}) {
        const pid_t child = ::fork();
        if (child == 0) {
            // Both begin together, so that their rewrites overlap.
            char go;
            ::close(start[1]);
            if (::read(start[0], &go, 1) < 0)
                ::_exit(2);
            int failed = 0;
            for (int i = 0; i < rounds; ++i)
                failed += KLIBFileSetKeyValue(path.c_str(), key, std::to_string(i).c_str(), nullptr) != 1;
            ::_exit(failed == 0 ? 0 : 3);
        }
        children.push_back(child);
    }
    ::close(start[0]);
    ::close(start[1]);
    int checks = 0, broken = 0;
    std::vector<int> statuses(children.size(), -1);
    for (bool running = true; running;) {
        std::ifstream in(path, std::ios::binary);
        std::string first;
        std::getline(in, first);
        broken += first != "# shared";
        ++checks;
        running = false;
        for (std::size_t i = 0; i < children.size(); ++i) {
            if (statuses[i] == -1 && ::waitpid(children[i], &statuses[i], WNOHANG) == 0) {
                statuses[i] = -1;
                running = true;
            }
        }
    }
    for (const int status : statuses)
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "every write succeeded";
    EXPECT_EQ(broken, 0) << "of " << checks << " reads, the file was empty or torn";
    // Unlocked writers may lose updates, a key's whole history among them
    // when one writer's last rewrite began before the other's first rename;
    // they never lose or tear the file.
    const std::vector<std::string> lines = lines_of(path);
    ASSERT_GE(lines.size(), 2u) << read_file(path);
    ASSERT_LE(lines.size(), 3u) << read_file(path);
    EXPECT_EQ(lines[0], "# shared");
    // The last rename carried its writer's final value.
    const std::string last = std::to_string(rounds - 1);
    const std::set<std::string> ends(lines.begin() + 1, lines.end());
    EXPECT_TRUE(ends.count("left=" + last) + ends.count("right=" + last) >= 1) << read_file(path);
    EXPECT_THAT(twins_of(path), ::testing::IsEmpty());
}

// The comment writer goes through a twin beside the file like every other
// writer: no scratch name elsewhere that a planted link could redirect.
TEST_F(KeyFile, CommentKeepsOwnerModeAndIgnoresPlantedScratchNames)
{
    write_file("/etc/victim", "precious\n", 0600);
    ::mkdir("/etc/skel", 0755);
    ::unlink("/etc/skel/tempErrKLIBFileComment");
    ASSERT_EQ(::symlink("/etc/victim", "/etc/skel/tempErrKLIBFileComment"), 0);
    write_file(path, "a=1\nb=2\n", 0640);
    ASSERT_EQ(::chown(path.c_str(), 1024, 100), 0);
    EXPECT_EQ(KLIBFileComment(path.c_str(), "a"), 1);
    EXPECT_EQ(read_file(path), "#a=1\nb=2\n");
    EXPECT_EQ(mode_of(path), 0640u);
    EXPECT_EQ(stat_of(path).st_uid, 1024u);
    EXPECT_EQ(read_file("/etc/victim"), "precious\n");
    EXPECT_THAT(twins_of(path), ::testing::IsEmpty());
}

} // namespace
