// Shared machinery of the account modules: locks, name keys, whole-file
// access, the multi-file transaction with its commit record, and the member
// list rewrite.
#include "kemo_accounts.hpp"
#include "kemounicode.hpp"
#include "kemofile.hpp"

#include "kemo_io.hpp"
#include "kemo_records.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace kemo::accounts {

namespace {

// Files a transaction may replace, in the order their twins are renamed
// over them; files not listed follow in staging order.  passwd goes last:
// glibc and the login programs see a new account only once every other
// file already knows it.
constexpr std::array<std::string_view, 5> kCommitOrder = {kSmbConf, kSmbpasswd, kGroup, kShadow,
                                                          kPasswd};

// Every file whose twin a transaction may leave behind when its process dies.
constexpr std::array<const char *, 9> kTransactionFiles = {
    kSmbConf, kSmbpasswd, kGroup, kShadow, kPasswd, kMail, kCurUid, kHtpasswd, kGroupDesc};

std::size_t commit_rank(std::string_view path)
{
    const auto at = std::find(kCommitOrder.begin(), kCommitOrder.end(), path);
    return static_cast<std::size_t>(at - kCommitOrder.begin());
}

std::string twin_of(std::string_view path)
{
    return std::string(path) + ".tmp";
}

// A hard link to the file a commit replaces, so that a failed rename can
// put the old file back.
std::string undo_of(std::string_view path)
{
    return std::string(path) + ".undo";
}

bool exists(const std::string &path)
{
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// The mode of an account file that a transaction creates: the files that
// hold password hashes are root's alone, the others are read by every
// program that looks up an account or a share.
mode_t mode_of_new(std::string_view path)
{
    return path == kShadow || path == kSmbpasswd || path == kHtpasswd ? 0600 : 0644;
}

// Opens the twin of a staged file.  It is created under umask 077, so that
// not even an empty twin of a secret file is open to others; a twin of a
// file that does not exist yet then takes the mode of its kind, whatever
// the caller's umask.
bool open_twin(Twin &twin, bool fresh)
{
    const mode_t caller_mask = ::umask(077);
    const bool opened = twin.open();
    ::umask(caller_mask);
    if (!opened)
        return false;
    return !fresh || ::chmod(twin.path().c_str(), mode_of_new(twin.target())) == 0 ||
           fail(false, ERR_OPEN_FAILED);
}

bool record_present()
{
    return ::access(kCommitRecord, F_OK) == 0;
}

// Directories of the given files, each once, fsynced so that the renames
// in them survive a power cut.
void sync_directories(const std::vector<std::string> &paths)
{
    std::vector<std::string> done;
    for (const std::string &path : paths) {
        const std::string dir = path.substr(0, path.rfind('/') + 1);
        if (std::find(done.begin(), done.end(), dir) != done.end())
            continue;
        done.push_back(dir);
        sync_parent_directory(path);
    }
}

void remove_leftovers(const std::string &path)
{
    ::unlink(twin_of(path).c_str());
    ::unlink(undo_of(path).c_str());
}

} // namespace

// ---------------------------------------------------------------- locks

ConfigLock account_lock(int request, int unlock_mask)
{
    const bool writer = (request & KLIB_LOCK_EX) != 0;
    if (!writer && record_present()) {
        // A reader must not see a half-done commit: finish it first.  When
        // this process already holds a shared lock the writer lock cannot
        // be had, and the reader goes on with what is there.
        ConfigLock finisher(kAccountWriteLock, kAccountWriteUnlock, kLockTimeout);
        if (finisher.held())
            recover();
    }
    ConfigLock lock(request, unlock_mask, kLockTimeout);
    // A writer never builds on a half-done commit it could not complete.
    if (lock.held() && writer && !recover()) {
        lock.release();
        KLIBErrSet(ERR_LOCK_FAILED);
    }
    return lock;
}

// ---------------------------------------------------------------- names

std::optional<std::string> upper(std::string_view name)
{
    // Plain ASCII upper-cases the same way in every locale the library
    // accepts, and needs no conversion: the common case stays cheap.
    if (std::all_of(name.begin(), name.end(), [](char c) { return (c & 0x80) == 0; })) {
        std::string out(name);
        for (char &c : out)
            if (c >= 'a' && c <= 'z')
                c = static_cast<char>(c - 'a' + 'A');
        return out;
    }
    return kemo::unicode::upper(name);
}

bool same_name(std::string_view a, std::string_view b)
{
    const auto ua = upper(a);
    const auto ub = upper(b);
    return ua && ub && *ua == *ub;
}

bool is_system_group(std::string_view name, long gid) noexcept
{
    return gid < kFirstUserGid || equal_nocase(name, "wheel");
}

bool is_fixed_group(std::string_view name) noexcept
{
    return equal_nocase(name, "users") || equal_nocase(name, "administrators");
}

// ---------------------------------------------------------------- files

bool read_lines(const char *path, Lines &out, bool missing_ok)
{
    out.lines.clear();
    out.final_newline = true;
    FilePtr in = open_file(path, "r");
    if (!in) {
        if (missing_ok && errno == ENOENT)
            return true;
        return fail(false, ERR_OPEN_FAILED);
    }
    LineReader reader(in.get());
    std::string_view line;
    while (reader.next(line)) {
        out.final_newline = line.back() == '\n';
        if (out.final_newline)
            line.remove_suffix(1);
        out.lines.emplace_back(line);
    }
    return !reader.failed() || fail(false, ERR_READ_FAILED);
}

std::string join_lines(const Lines &lines)
{
    std::size_t total = 0;
    for (const std::string &line : lines.lines)
        total += line.size() + 1;
    std::string out;
    out.reserve(total);
    for (const std::string &line : lines.lines)
        out.append(line).push_back('\n');
    if (!lines.final_newline && !out.empty())
        out.pop_back();
    return out;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const auto at = text.find(separator);
        parts.push_back(text.substr(0, at));
        if (at == std::string_view::npos)
            return parts;
        text.remove_prefix(at + 1);
    }
}

std::string setting(const char *path, const char *key)
{
    return kemo::settings::get_value(path, key).value_or(std::string());
}

bool guest_support()
{
    return setting(kDefaults, "guestsupport") == "yes";
}

bool equal_nocase(std::string_view a, std::string_view b) noexcept
{
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

// ---------------------------------------------------------------- two-call buffers

long long packed_size(const std::vector<std::string> &texts)
{
    std::size_t total = sizeof(char *);
    for (const std::string &t : texts)
        total += t.size() + 1 + sizeof(char *);
    return total > static_cast<std::size_t>(INT_MAX) ? -1 : static_cast<long long>(total);
}

void pack(const std::vector<std::string> &texts, char **out, int size)
{
    char *end = reinterpret_cast<char *>(out) + size;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        end -= texts[i].size() + 1;
        std::memcpy(end, texts[i].c_str(), texts[i].size() + 1);
        out[i] = end;
    }
    out[texts.size()] = nullptr;
}

int store_names(const std::vector<std::string> &texts, char **out, int size, int *needed)
{
    const long long total = packed_size(texts);
    if (total < 0)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    *needed = static_cast<int>(total);
    if (out == nullptr)
        return 0;
    if (total > size)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    pack(texts, out, size);
    return static_cast<int>(texts.size());
}

bool enum_arguments_ok(char *const *out, int size, const int *needed) noexcept
{
    return needed != nullptr && size >= 0 &&
           (out == nullptr ? size == 0 : size >= static_cast<int>(sizeof(char *)));
}

// ---------------------------------------------------------------- transaction

void Transaction::stage(const char *path, std::string content)
{
    for (auto &[target, text] : files_)
        if (target == path) {
            text = std::move(content);
            return;
        }
    files_.emplace_back(path, std::move(content));
}

const std::string *Transaction::staged(const char *path) const
{
    for (const auto &[target, text] : files_)
        if (target == path)
            return &text;
    return nullptr;
}

bool Transaction::current(const char *path, std::string &out, bool missing_ok) const
{
    if (const std::string *text = staged(path)) {
        out = *text;
        return true;
    }
    Lines lines;
    if (!read_lines(path, lines, missing_ok))
        return false;
    out = join_lines(lines);
    return true;
}

bool Transaction::commit()
{
    std::stable_sort(files_.begin(), files_.end(), [](const auto &a, const auto &b) {
        return commit_rank(a.first) < commit_rank(b.first);
    });
    std::vector<std::string> targets;
    for (const auto &entry : files_)
        targets.push_back(entry.first);
    auto discard = [&] {
        for (const std::string &target : targets)
            remove_leftovers(target);
    };

    // 1. Every new file complete on disk beside the old one.
    // The twins' fixed names are what lets recover() find them.
    for (const auto &[target, text] : files_) {
        Twin twin(target, twin_of(target));
        if (!open_twin(twin, !exists(target)) || !twin.write(text) || !twin.finish()) {
            KEMO_LOG("writing %s failed", twin.path().c_str());
            discard();
            return fail(false, ERR_WRITE_FAILED);
        }
    }
    // 2. A second name for each old file, to put it back should a rename fail.
    std::vector<bool> existed;
    for (const std::string &target : targets) {
        const std::string undo = undo_of(target);
        ::unlink(undo.c_str());
        existed.push_back(exists(target));
        if (existed.back() && ::link(target.c_str(), undo.c_str()) != 0) {
            KEMO_LOG("link(%s) failed", target.c_str());
            discard();
            return fail(false, ERR_WRITE_FAILED);
        }
    }
    // 3. The commit record: from here on the change happens, even if this
    //    process dies before the last rename.
    std::string record;
    for (const std::string &target : targets)
        record.append(target).push_back('\n');
    {
        Twin twin(kCommitRecord, twin_of(kCommitRecord));
        if (!open_twin(twin, false) || !twin.write(record) || !twin.commit()) {
            discard();
            return fail(false, ERR_WRITE_FAILED);
        }
    }
    // 4. The renames, in order.
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (::rename(twin_of(targets[i]).c_str(), targets[i].c_str()) == 0)
            continue;
        KEMO_LOG("rename(%s) failed", targets[i].c_str());
        // Put back what was replaced already; the change did not happen.
        bool restored = true;
        for (std::size_t j = 0; j < i; ++j) {
            const bool back = existed[j]
                                  ? ::rename(undo_of(targets[j]).c_str(), targets[j].c_str()) == 0
                                  : ::unlink(targets[j].c_str()) == 0;
            restored = restored && back;
        }
        if (!restored) {
            // Nothing more can be done here: the record stays, and the next
            // writer completes the commit with the twins still present.
            KEMO_LOG("restoring the account files failed; the next call completes the commit");
            return fail(false, ERR_RENAME_FAILED);
        }
        ::unlink(kCommitRecord);
        discard();
        sync_directories(targets);
        return fail(false, ERR_RENAME_FAILED);
    }
    // 5. Durable, then the record and the old files' second names go.
    sync_directories(targets);
    ::unlink(kCommitRecord);
    sync_parent_directory(kCommitRecord);
    for (const std::string &target : targets)
        ::unlink(undo_of(target).c_str());
    return true;
}

bool recover()
{
    Lines record;
    if (!read_lines(kCommitRecord, record, true))
        return false;
    if (record.lines.empty() && !record_present()) {
        // No commit was under way: twins and second names are leftovers of
        // a writer that died before committing.
        for (const char *path : kTransactionFiles)
            remove_leftovers(path);
        ::unlink(twin_of(kCommitRecord).c_str());
        return true;
    }
    KEMO_LOG("completing an interrupted account commit");
    bool done = true;
    for (const std::string &target : record.lines) {
        if (target.empty())
            continue;
        const std::string twin = twin_of(target);
        if (exists(twin) && ::rename(twin.c_str(), target.c_str()) != 0) {
            KEMO_LOG("rename(%s) failed", twin.c_str());
            done = false;
        }
    }
    if (!done)
        return fail(false, ERR_RENAME_FAILED);
    sync_directories(record.lines);
    ::unlink(kCommitRecord);
    sync_parent_directory(kCommitRecord);
    for (const char *path : kTransactionFiles)
        remove_leftovers(path);
    return true;
}

// ---------------------------------------------------------------- lists

std::string rewrite_members(std::string_view list, const MemberMap &map, std::string_view prefix)
{
    std::string out;
    out.reserve(list.size());
    bool first = true;
    for (std::string_view member : split(list, ',')) {
        std::optional<std::string> replaced;
        bool dropped = false;
        const bool is_group = !member.empty() && member.front() == '@';
        if (prefix.empty() ? !is_group : member.starts_with(prefix)) {
            const std::string_view name = member.substr(prefix.size());
            if (const auto key = upper(name)) {
                if (const auto hit = map.find(*key); hit != map.end()) {
                    if (hit->second)
                        replaced = std::string(prefix) + *hit->second;
                    else
                        dropped = true;
                }
            }
        }
        if (dropped)
            continue;
        if (!first)
            out.push_back(',');
        first = false;
        out.append(replaced ? std::string_view(*replaced) : member);
    }
    return out;
}

namespace {

constexpr std::array<std::string_view, 4> kAccessKeys = {"\twrite list=", "\tread list=",
                                                         "\tvalid users=", "\tinvalid users="};

// Applies edit(line) -> bool changed to every line of path's current
// content, and stages the result when anything changed.
template <class Edit>
bool stage_edited(Transaction &txn, const char *path, Edit &&edit)
{
    std::string content;
    if (!txn.current(path, content, true))
        return false;
    bool changed = false;
    std::string out;
    out.reserve(content.size() + 64);
    std::string_view rest = content;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        std::string line(rest.substr(0, end));
        changed = edit(line) || changed;
        out.append(line);
        if (end == std::string_view::npos)
            break;
        out.push_back('\n');
        rest.remove_prefix(end + 1);
    }
    if (changed)
        txn.stage(path, std::move(out));
    return true;
}

} // namespace

bool stage_list_rewrite(Transaction &txn, const MemberMap &map, std::string_view prefix,
                        bool with_group_file)
{
    if (map.empty())
        return true;
    const bool shares = stage_edited(txn, kSmbConf, [&](std::string &line) {
        for (std::string_view key : kAccessKeys) {
            if (!line.starts_with(key))
                continue;
            std::string value = rewrite_members(std::string_view(line).substr(key.size()), map, prefix);
            if (value == std::string_view(line).substr(key.size()))
                return false;
            line = std::string(key) + value;
            return true;
        }
        return false;
    });
    if (!shares) {
        KEMO_LOG("reading %s failed", kSmbConf);
        return false;
    }
    if (!with_group_file)
        return true;
    const bool groups = stage_edited(txn, kGroup, [&](std::string &line) {
        auto entry = records::parse_group(line);
        if (!entry)
            return false;
        const std::string members = rewrite_members(entry->members, map, prefix);
        if (members == entry->members)
            return false;
        entry->members = members;
        line = records::format_group(*entry);
        return true;
    });
    if (!groups)
        KEMO_LOG("reading %s failed", kGroup);
    return groups;
}

} // namespace kemo::accounts
