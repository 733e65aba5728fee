// Deleting shares (their sections of the file-sharing configuration, all
// in one change of the account files), and the folder check the volume
// scan asks.
#include "kemo_share.hpp"
#include "kemo_accounts.hpp"
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemosection.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace kemo::share {

namespace {

using namespace kemo::accounts;

// Sections that configure the file server rather than export a folder.
bool reserved(std::string_view name)
{
    for (std::string_view r : {"global", "homes", "home", "printers"})
        if (equal_nocase(name, r))
            return true;
    return false;
}

// The name a section header line gives ("[name]", blanks after it allowed).
std::string_view header_name(std::string_view line)
{
    const auto close = line.rfind(']');
    return line.substr(1, close - 1);
}

// The share file without the sections of the wanted names (compared
// without case, as the file server compares share names: every section of
// such a name goes).  found[i] tells whether names[i] had a section.
std::string without_sections(const Lines &conf, const std::vector<std::string> &names,
                             std::vector<bool> &found)
{
    Lines out;
    out.final_newline = conf.final_newline;
    bool dropping = false;
    for (const std::string &line : conf.lines) {
        if (kemo::sections::is_section(line)) {
            dropping = false;
            const std::string_view name = header_name(line);
            for (std::size_t i = 0; i < names.size(); ++i)
                if (!reserved(name) && same_name(name, names[i]))
                    dropping = found[i] = true;
        }
        if (!dropping)
            out.lines.push_back(line);
    }
    if (out.lines.empty())
        out.final_newline = true;
    return join_lines(out);
}

} // namespace

int remove(const std::vector<std::string> &names)
{
    if (names.empty())
        return 0;
    for (const std::string &name : names)
        if (name.empty() || reserved(name) || !kemo::fits_on_line(name)) {
            KEMO_LOG("kemoshare: KEMOShareDelete: no such share; szName=%s!", name.c_str());
            return fail(-1, name.empty() || reserved(name) ? ERR_NO_SUCH_SHARE : ERR_BAD_PARAMETERS);
        }
    auto lock = account_lock(kAccountWriteLock, kAccountWriteUnlock);
    if (!lock.held()) {
        KEMO_LOG("kemoshare: KEMOShareDelete: lock smb.conf failed!");
        return fail(-1, ERR_LOCK_FAILED);
    }
    Lines conf;
    if (!read_lines(kSmbConf, conf))
        return -1;
    std::vector<bool> found(names.size());
    std::string text = without_sections(conf, names, found);
    for (std::size_t i = 0; i < names.size(); ++i)
        if (!found[i]) {
            KEMO_LOG("kemoshare: KEMOShareDelete: no such share; szName=%s!", names[i].c_str());
            return fail(-1, ERR_NO_SUCH_SHARE);
        }
    Transaction txn;
    txn.stage(kSmbConf, std::move(text));
    if (!txn.commit()) {
        KEMO_LOG("kemoshare: KEMOShareDelete: fail to write %s (%X)", kSmbConf, KLIBErrGet());
        return -1;
    }
    return 0;
}

// A symbolic link in the last place is not taken for the folder: the
// volume scan asks where a folder itself lives, and a link may point to
// another volume.  Links in the directories above it are followed.
int folder_state(const char *path)
{
    if (path == nullptr || path[0] != '/')
        return fail(-1, ERR_BAD_PARAMETERS);
    struct stat st {};
    if (::lstat(path, &st) == 0)
        return S_ISDIR(st.st_mode) ? 1 : 0;
    if (errno == ENOENT || errno == ENOTDIR)
        return 0;
    return fail(-1, errno == ENAMETOOLONG ? ERR_BAD_PARAMETERS : ERR_OP_FAILURE);
}

} // namespace kemo::share

extern "C" {

KEMO_API int KEMOShareDelete(char **names, int count)
{
    if (names == nullptr || count <= 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    for (int i = 0; i < count; ++i)
        if (names[i] == nullptr)
            return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const std::vector<std::string> list(names, names + count);
        return kemo::share::remove(list);
    });
}

KEMO_API int SDKICheckFolderState(const char *path)
{
    return kemo::edge(-1, [&] { return kemo::share::folder_state(path); });
}

} // extern "C"
