// What the kemoctl command files share: the argument and output helpers of
// kemoctl.cpp, the owners of the library's lists and hashes, and the
// commands the dispatch table in kemoctl.cpp names.
//
// Every command takes its arguments after the command words and returns the
// exit status: 0 on success, 1 when the library (or a file) fails, 2 on a
// usage error.
#pragma once

#include "kemo.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kemoctl {

using Args = std::vector<std::string_view>;

struct ListDeleter {
    void operator()(KLIBSZLIST *l) const { KLIBSzListFree(l); }
};
struct HashDeleter {
    void operator()(KLIBSZHASH *h) const { KLIBSzHashFree(h); }
};
using ListPtr = std::unique_ptr<KLIBSZLIST, ListDeleter>;
using HashPtr = std::unique_ptr<KLIBSZHASH, HashDeleter>;

// Runs a library call that takes the address of a list or hash pointer
// because it may move the block, and keeps the owner pointing at the block.
template <class Owner, class Call>
int growing(Owner &owner, Call call)
{
    auto *raw = owner.release();
    const int result = call(&raw);
    owner.reset(raw);
    return result;
}

// The texts of a new list that fill(&list) filled; nullopt when the list
// cannot be made or fill fails (the library's error code stays set).
template <class Fill>
std::optional<std::vector<std::string>> filled_list(Fill fill);

// The items of a list, in order.
std::vector<std::string> list_texts(const KLIBSZLIST *list);

// ---- Messages and exit status ----------------------------------------------

// The name of an error code, "(no name)" for a code without one.
const char *error_name(int code);

// "kemoctl: WHAT failed: NAME (0xCODE)" on standard error; returns 1.
int library_failure(std::string_view what);

// "kemoctl: PATH: MESSAGE" on standard error, for what a file lacks or a
// reader found wrong; returns 1.
int file_failure(std::string_view path, std::string_view message);

// "kemoctl: MESSAGE (try 'kemoctl help')" on standard error; returns 2.
int usage_error(std::string_view message);

// ---- Arguments -------------------------------------------------------------

// A command's arguments split into options ("--name" followed by a fixed
// number of values, in the order given) and the remaining words.  A "--"
// ends the options: every argument after it is a word, so that a name or
// value starting with "-" is never taken for an option.
struct Parsed {
    std::vector<std::pair<std::string_view, std::vector<std::string_view>>> options;
    std::vector<std::string_view> words;
    std::string error;
};

Parsed parse_args(const Args &args, std::initializer_list<std::pair<std::string_view, std::size_t>> known);

// True when text holds a CR, LF or NUL.  No name, key or value may: in the
// file it goes to, it would end the line and start one of the caller's.
bool has_line_break(std::string_view text);

// The usage message for such text; where says which ("argument 3").
std::string line_break_message(std::string_view where);

// "KEY=VALUE" split at its first "="; nullopt without one.
std::optional<std::pair<std::string, std::string>> key_value(std::string_view word);

// A 32-bit decimal number, or hexadecimal with or without "0x"; nullopt for
// anything else (signs, blanks, trailing text, overflow).
std::optional<uint32_t> parse_u32(std::string_view text, bool hex);

// The first line of standard input without its line end ("\n" or "\r\n");
// nullopt at the end of the input.  The line may still hold a CR or NUL:
// callers check it with has_line_break.
std::optional<std::string> stdin_line();

// ---- Output and C views ------------------------------------------------------

// Each text on a line of its own; returns 0.
int print_lines(const std::vector<std::string> &lines);

std::string joined(const std::vector<std::string> &items, std::string_view separator = ", ");
// The 1-based numbers of the bits set among the low `bits` of mask, comma
// separated ("1,3"); "" when none is.
std::string bit_numbers(uint32_t mask, int bits);
// A front-panel slot "1".."4" to its disk number 0..3.
std::optional<int> slot_of(std::string_view word);

// One "label: value" line of a record; an empty value shows as "(empty)".
void field(const char *label, std::string_view value);

const char *text_or_empty(const char *text);
const char *c_str_or_null(const std::optional<std::string> &text);

// Pointers to the texts, for the library calls that take an array of names.
std::vector<const char *> c_strings(const std::vector<std::string> &texts);

// ---- Commands --------------------------------------------------------------

// The library itself (kemoctl.cpp).
int cmd_version(const Args &args);
int cmd_errors(const Args &args);
int cmd_error(const Args &args);
int cmd_help(const Args &args);

// String lists and hashes (kemoctl_lists.cpp).
int cmd_list(const Args &args);
int cmd_setop(const Args &args);
int cmd_hash(const Args &args);

// Settings files and [section] files (kemoctl_settings.cpp).
int cmd_get(const Args &args);
int cmd_set(const Args &args);
int cmd_unset(const Args &args);
int cmd_sections(const Args &args);
int cmd_section(const Args &args);
int cmd_section_set(const Args &args);
int cmd_section_remove(const Args &args);

// The internal disks (kemoctl_storage.cpp).
int cmd_disk_list(const Args &args);
int cmd_disk_status(const Args &args);
int cmd_disk_init(const Args &args);
int cmd_disk_clean(const Args &args);
int cmd_disk_check_layout(const Args &args);

// RAID arrays, volumes and quotas (kemoctl_raid.cpp).
int cmd_raid_create(const Args &args);
int cmd_raid_status(const Args &args);
int cmd_raid_add(const Args &args);
int cmd_raid_remove(const Args &args);
int cmd_raid_destroy(const Args &args);
int cmd_raid_grow(const Args &args);
int cmd_raid_expand(const Args &args);
int cmd_raid_progress(const Args &args);
int cmd_volume_list(const Args &args);
int cmd_volume_info(const Args &args);
int cmd_volume_health(const Args &args);
int cmd_volume_init(const Args &args);
int cmd_volume_expand(const Args &args);
int cmd_quota_on(const Args &args);
int cmd_quota_get(const Args &args);
int cmd_quota_set(const Args &args);
int cmd_quota_clear(const Args &args);

// Users, groups and shares (kemoctl_accounts.cpp).
int cmd_user_list(const Args &args);
int cmd_user_show(const Args &args);
int cmd_user_add(const Args &args);
int cmd_user_modify(const Args &args);
int cmd_user_rename(const Args &args);
int cmd_user_delete(const Args &args);
int cmd_user_password(const Args &args);
int cmd_user_add_batch(const Args &args);
int cmd_group_list(const Args &args);
int cmd_group_show(const Args &args);
int cmd_group_add(const Args &args);
int cmd_group_modify(const Args &args);
int cmd_group_rename(const Args &args);
int cmd_group_delete(const Args &args);
int cmd_group_members(const Args &args);
int cmd_group_desc(const Args &args);
int cmd_share_list(const Args &args);
int cmd_share_show(const Args &args);
int cmd_share_access(const Args &args);

// Event logs, configuration backup and host name (kemoctl_system.cpp).
int cmd_log_add(const Args &args);
int cmd_log_show(const Args &args);
int cmd_log_size(const Args &args);
int cmd_log_connections(const Args &args);
int cmd_backup_export(const Args &args);
int cmd_backup_check(const Args &args);
int cmd_backup_import(const Args &args);
int cmd_backup_list(const Args &args);
int cmd_hostname(const Args &args);

// Shared memory segments and the operations registry (kemoctl_ipc.cpp).
int cmd_shm_create(const Args &args);
int cmd_shm_show(const Args &args);
int cmd_shm_put(const Args &args);
int cmd_shm_get(const Args &args);
int cmd_shm_delete(const Args &args);
int cmd_op_names(const Args &args);
int cmd_op_list(const Args &args);
int cmd_op_check(const Args &args);
int cmd_op_run(const Args &args);

// Finding appliances, time settings and the UPS (kemoctl_find.cpp,
// kemoctl_time.cpp, kemoctl_ups.cpp): each takes its subcommand as the
// first argument.
int cmd_find(const Args &args);
int cmd_time(const Args &args);
int cmd_ups(const Args &args);

// ---- Template definitions ----------------------------------------------------

template <class Fill>
std::optional<std::vector<std::string>> filled_list(Fill fill)
{
    ListPtr list(PslKLIBSzListAlloc(0));
    if (!list || growing(list, fill) < 0)
        return std::nullopt;
    return list_texts(list.get());
}

} // namespace kemoctl
