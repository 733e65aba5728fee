// Sectioned settings files: headers, reading a section, the byte-exact
// output of adding, replacing and removing sections, and pattern lines.
#include "kemo.h"
#include "sandbox_fixture.hpp"

namespace {

class SectionFile : public SandboxTest {
protected:
    const std::string path = "/etc/sections.conf";
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(1024);
    ~SectionFile() override { KLIBSzHashFree(hash); }

    std::string value(const char *key)
    {
        const char *v = SzKLIBSzHashGetValue(hash, key);
        return v ? v : "<absent>";
    }
};

TEST(SectionLine, HeadersAndMatches)
{
    const auto is = [](std::string_view l) { return KLIBIFileIsSection(l.data(), static_cast<int>(l.size())); };
    const auto match = [](std::string_view l, const char *name) {
        return KLIBIFileMatchSection(l.data(), static_cast<int>(l.size()), name);
    };
    EXPECT_EQ(is("[music]  \n"), 1);
    EXPECT_EQ(is("[music] x\n"), 0);
    EXPECT_EQ(is("["), 0);
    EXPECT_EQ(is(" [music]"), 0);
    EXPECT_EQ(match("[music]  \n", "music"), 1);
    EXPECT_EQ(match("[Music]\n", "music"), 0);
    EXPECT_EQ(match("[music2]\n", "music"), 0);
    EXPECT_EQ(match("[music]x\n", "music"), 0);
    EXPECT_EQ(match("[music]", nullptr), -1);

    EXPECT_EQ(KLIBILineMatch("Path = /a\n", "path", 0), 0);
    EXPECT_EQ(KLIBILineMatch("Path = /a\n", "path", 0x402), 1);
    EXPECT_EQ(KLIBILineMatch("Path = /a\n", "= /", 0), 1);
    EXPECT_EQ(KLIBILineMatch("Path = /a\n", "= /", 0x2), 0);
    EXPECT_EQ(KLIBILineMatch("Path = /a\n", "/a", 0x4), 1);
    EXPECT_EQ(KLIBILineMatch("Path = /a", "/a", 0x4), 0) << "no newline: the suffix rule cannot apply";
    EXPECT_EQ(KLIBILineMatch("#Path = /a\n", "Path", 0), 0);
    EXPECT_EQ(KLIBILineMatch("straße=1\n", "STRASSE", 0x402), 1);
}

const char *const kSmb = "[global]\n"
                         "workgroup = HOME\n"
                         "[photo]\n"
                         "# the photo share\n"
                         "path = /volume1/photo\n"
                         "valid users = \"@users\"\n"
                         "broken line\n"
                         "[music]\n"
                         "path=/volume1/music\n"
                         "[\n"
                         "after=bracket\n";

TEST_F(SectionFile, EnumerateAndRead)
{
    write_file(path, kSmb);
    PKLIBSZLIST list = PslKLIBSzListAlloc(256);
    EXPECT_EQ(KLIBFileEnumSection(path.c_str(), &list), 3);
    EXPECT_STREQ(SzKLIBSzListGet(list, 1), "photo");
    EXPECT_STREQ(SzKLIBSzListGet(list, 2), "music");
    KLIBSzListFree(list);

    EXPECT_EQ(KLIBFileGetSection(path.c_str(), "photo", &hash), 2);
    EXPECT_EQ(value("path"), "/volume1/photo");
    EXPECT_EQ(value("valid users"), "@users");
    EXPECT_EQ(value("workgroup"), "<absent>");
    PslSzHashRemoveAll(hash);
    EXPECT_EQ(KLIBFileGetSection(path.c_str(), "music", &hash), 1) << "a lone [ ends the body";
    EXPECT_EQ(KLIBFileGetSection(path.c_str(), "absent", &hash), 1);

    write_file(path, std::string(kSmb) + "[long]\nx=1\n[" + std::string(1100, 'n') + "]\n");
    list = PslKLIBSzListAlloc(256);
    EXPECT_EQ(KLIBFileEnumSection(path.c_str(), &list), -1);
    KLIBSzListFree(list);
}

TEST_F(SectionFile, RemoveKeepsCommentsAndEveryOtherLine)
{
    write_file(path, kSmb);
    EXPECT_EQ(ErrKLIBFileRemoveSection(path.c_str(), "photo"), 1);
    EXPECT_EQ(read_file(path), "[global]\nworkgroup = HOME\n# the photo share\n[music]\n"
                               "path=/volume1/music\n[\nafter=bracket\n");
    EXPECT_EQ(ErrKLIBFileRemoveSection(path.c_str(), "photo"), 0);
    EXPECT_FALSE(exists(path + ".tmp"));
}

TEST_F(SectionFile, ReplaceRenameAndAdd)
{
    write_file(path, "[a]\nx=1\n[b]\ny=2\n[a]\nz=3\n");
    KLIBSzHashSetValue(&hash, "k", "v");
    EXPECT_EQ(ErrKLIBFileSetSection(path.c_str(), "a", "renamed", hash, "%s = %s\n"), 1);
    EXPECT_EQ(read_file(path), "[renamed]\nk = v\n[b]\ny=2\n[renamed]\nk = v\n")
        << "every header of the name is replaced";
    EXPECT_EQ(ErrKLIBFileSetSection(path.c_str(), "zz", nullptr, hash, nullptr), 0);
    EXPECT_EQ(read_file(path), "[renamed]\nk = v\n[b]\ny=2\n[renamed]\nk = v\n");
    EXPECT_EQ(ErrKLIBFileSetSection(path.c_str(), "b", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(ErrKLIBFileSetSection(path.c_str(), "b", "bad]name", hash, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);

    write_file(path, "[a]\nx=1");
    EXPECT_EQ(ErrKLIBFileAddSection(path.c_str(), "a", hash, nullptr), 0);
    EXPECT_EQ(ErrKLIBFileAddSection(path.c_str(), "new", hash, nullptr), 1);
    EXPECT_EQ(read_file(path), "[a]\nx=1\n[new]\nk=v\n");
    EXPECT_EQ(ErrKLIBFileAddSection(path.c_str(), "f", hash, "%s %s\n"), -1);
    EXPECT_EQ(read_file(path), "[a]\nx=1\n[new]\nk=v\n");
    EXPECT_EQ(ErrKLIBFileAddSection("/etc/missing.conf", "a", hash, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
}

TEST_F(SectionFile, SetOneKeyOfASection)
{
    write_file(path, "[global]\nworkgroup=HOME\n");
    EXPECT_EQ(ErrSetSecKeyVal(path.c_str(), "global", "workgroup", "OFFICE", nullptr), 1);
    EXPECT_EQ(read_file(path), "[global]\nworkgroup=OFFICE\n");
    EXPECT_EQ(ErrSetSecKeyVal(path.c_str(), "new", "a", "1", nullptr), 1);
    EXPECT_EQ(read_file(path), "[global]\nworkgroup=OFFICE\n[new]\na=1\n");
}

TEST_F(SectionFile, PatternLines)
{
    write_file(path, "Alpha=1\n#alpha=0\nbeta=2\nALPHA=3\ntail");
    char buf[16];
    EXPECT_EQ(KLIBFileGetLine(path.c_str(), "alpha", buf, sizeof buf, 0x402), 8);
    EXPECT_STREQ(buf, "Alpha=1");
    EXPECT_EQ(KLIBFileGetLine(path.c_str(), "alpha", buf, sizeof buf, 0x403), 8);
    EXPECT_STREQ(buf, "ALPHA=3");
    EXPECT_EQ(KLIBFileGetLine(path.c_str(), "gamma", buf, sizeof buf, 0), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_NOT_FOUND);
    EXPECT_EQ(KLIBFileGetLine(path.c_str(), "Alpha", buf, 4, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);

    EXPECT_EQ(KLIBFileSetLine(path.c_str(), "alpha=", "alpha=9", 0x403), 1);
    EXPECT_EQ(KLIBFileAddLine(path.c_str(), "beta", "gamma=4", 0), 1);
    EXPECT_EQ(KLIBFileAddLine(path.c_str(), nullptr, "end", 0), 1);
    EXPECT_EQ(read_file(path), "Alpha=1\n#alpha=0\nbeta=2\ngamma=4\nalpha=9\ntail\nend\n");
    EXPECT_EQ(KLIBFileSetLine(path.c_str(), "delta", "x", 0), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_NOT_FOUND);
    EXPECT_EQ(KLIBFileSetLine("/etc/created.conf", "x", "x=1", 0), 1);
    EXPECT_EQ(read_file("/etc/created.conf"), "x=1\n");
}

// A line break in a name, key or value would add sections and keys of the
// caller's choosing ("[homes]", "root preexec = ...").
TEST_F(SectionFile, LineBreaksNeverReachTheFile)
{
    const std::string before = "[global]\nworkgroup=HOME\n";
    write_file(path, before);
    const char *p = path.c_str();
    const auto refused = refusal_check(path, before);
    for (const char *brk : {"\n", "\r"}) {
        const std::string evil = std::string("x") + brk + "[homes]" + brk + "root preexec=/bin/sh";
        refused(ErrSetSecKeyVal(p, "global", "workgroup", evil.c_str(), nullptr), "value");
        refused(ErrSetSecKeyVal(p, "absent", "k", evil.c_str(), nullptr), "value, new section");
        refused(ErrSetSecKeyVal(p, "global", evil.c_str(), "1", nullptr), "key");
        refused(ErrSetSecKeyVal(p, evil.c_str(), "k", "1", nullptr), "section");
        refused(ErrKLIBFileRemoveSection(p, (std::string("global") + brk).c_str()), "removed name");
        refused(KLIBFileSetLine(p, "workgroup", evil.c_str(), 0), "line");
        refused(KLIBFileAddLine(p, nullptr, evil.c_str(), 0), "line");

        PslSzHashRemoveAll(hash);
        KLIBSzHashSetValue(&hash, "comment", "fine");
        KLIBSzHashSetValue(&hash, "path", evil.c_str());
        refused(ErrKLIBFileSetSection(p, "global", nullptr, hash, nullptr), "hash value");
        refused(ErrKLIBFileAddSection(p, "new", hash, nullptr), "hash value");
        PslSzHashRemoveAll(hash);
        KLIBSzHashSetValue(&hash, evil.c_str(), "1");
        refused(ErrKLIBFileSetSection(p, "global", "renamed", hash, nullptr), "hash key");
        refused(ErrKLIBIFileModifySection(p, "global", nullptr, hash, 1, nullptr), "hash key");
    }
    EXPECT_EQ(KLIBFileSetLine(p, "workgroup", "workgroup=OFFICE\n", 0), 1) << "one final newline is the terminator";
    EXPECT_EQ(read_file(path), "[global]\nworkgroup=OFFICE\n");
}

} // namespace
