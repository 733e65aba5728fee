// kemoctl - the appliance's command-line tool over libkemo.
//
//   kemoctl version                       library version
//   kemoctl errors                        the error table: index, code, name
//   kemoctl error CODE                    the name of one code (0x2000, 8192)
//   kemoctl list [--sort none|byte|case] [--at INDEX TEXT]... [--find TEXT] ITEM...
//   kemoctl setop or|and|sub [--sort byte|case] A1,A2,... B1,B2,...
//   kemoctl hash [--get KEY] [--remove KEY] KEY=VALUE...
//   kemoctl get FILE KEY [--last]         the value of a key in a settings file
//   kemoctl set FILE KEY VALUE [--quote]  sets a key (replaced in place or added)
//   kemoctl unset FILE KEY                removes every line of a key
//   kemoctl sections FILE                 the section names of a [section] file
//   kemoctl section FILE NAME             the keys of one section
//   kemoctl section-set FILE NAME KEY=VALUE...   sets keys (adds the section)
//   kemoctl section-remove FILE NAME      removes a section (its comments stay)
//
//   kemoctl user list|show|add|modify|rename|delete|password|add-batch ...
//   kemoctl group list|show|add|modify|rename|delete|members|desc ...
//   kemoctl share list|show|access ...    ('kemoctl help' lists their arguments)
//
//   kemoctl log add|show|size|connections ...   event logs
//   kemoctl backup export|check|import|list ... configuration backup files
//   kemoctl hostname [NAME]               the host name, or sets it
//
//   kemoctl disk list|status|init|clean|check-layout ...   internal disks
//   kemoctl raid create|status|add|remove|destroy|grow|expand|progress ...
//   kemoctl volume list|info|health|init|expand ...        data volumes
//   kemoctl quota on|get|set|clear ...    users' space limits on the volumes
//
//   kemoctl shm create|show|put|get|delete ...   shared memory segments
//   kemoctl op names|list|check|run ...   the registry of running operations
//
// Changes to a file are made under its lock: the file-sharing lock for
// /usr/kemo/etc/smb.conf, the settings lock for every other file.  The
// account and share commands leave locking to the library.
//
// Arguments and lines read from standard input may not hold CR, LF or NUL
// (a usage error), and "--" ends a command's options, so that a name or
// value starting with "-" is taken as given.  kemoctl runs no other program
// but the command given to "op run" (executed directly, never by a shell):
// caller text reaches only the library.
//
// Exit status: 0 on success, 1 when the library reports a failure (its error
// name is printed on standard error), 2 on a usage error; "op run" exits
// with its command's status, or 75 when a running operation conflicts.
//
// The commands live by family: kemoctl_lists.cpp (list, setop, hash),
// kemoctl_settings.cpp (get, set, unset, sections, section...),
// kemoctl_accounts.cpp (user, group, share), kemoctl_system.cpp (log,
// backup, hostname), kemoctl_storage.cpp and kemoctl_raid.cpp (disk, raid,
// volume, quota) and kemoctl_ipc.cpp (shm, op).  This file holds main, the
// dispatch table, the library commands (version, errors, error, help) and
// the helpers they all share.
#include "kemoctl.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace kemoctl {

std::vector<std::string> list_texts(const KLIBSZLIST *list)
{
    std::vector<std::string> texts;
    for (int i = 0; i < list->nItem; ++i)
        texts.emplace_back(list->pszItem[i]);
    return texts;
}

const char *error_name(int code)
{
    if (code >= 0 && (code & 0xFF) == 0 && (code >> 8) < KEMO_ERR_TABLE_SIZE && rgszErrMsg[code >> 8] &&
        rgszErrMsg[code >> 8][0] != '\0')
        return rgszErrMsg[code >> 8];
    if (code == KEMO_ERR_CROSS_DUP_NAME) // the table leaves this account code unnamed
        return "KEMO_ERR_CROSS_DUP_NAME";
    return "(no name)";
}

int library_failure(std::string_view what)
{
    const int code = KLIBErrGet();
    std::fprintf(stderr, "kemoctl: %.*s failed: %s (0x%X)\n", static_cast<int>(what.size()), what.data(),
                 error_name(code), static_cast<unsigned>(code));
    return 1;
}

int file_failure(std::string_view path, std::string_view message)
{
    std::fprintf(stderr, "kemoctl: %.*s: %.*s\n", static_cast<int>(path.size()), path.data(),
                 static_cast<int>(message.size()), message.data());
    return 1;
}

int usage_error(std::string_view message)
{
    std::fprintf(stderr, "kemoctl: %.*s (try 'kemoctl help')\n", static_cast<int>(message.size()),
                 message.data());
    return 2;
}

Parsed parse_args(const Args &args, std::initializer_list<std::pair<std::string_view, std::size_t>> known)
{
    Parsed p;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--") {
            p.words.insert(p.words.end(), args.begin() + i + 1, args.end());
            break;
        }
        const auto *option = std::find_if(known.begin(), known.end(),
                                        [&](const auto &k) { return k.first == args[i]; });
        if (option == known.end()) {
            p.words.push_back(args[i]);
            continue;
        }
        if (i + option->second >= args.size()) {
            p.error = std::string(option->first) + " needs " + std::to_string(option->second) + " value(s)";
            return p;
        }
        p.options.emplace_back(option->first, Args(args.begin() + i + 1, args.begin() + i + 1 + option->second));
        i += option->second;
    }
    return p;
}

bool has_line_break(std::string_view text)
{
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

std::string line_break_message(std::string_view where)
{
    return std::string(where) + " contains CR, LF or NUL, which no name, key or value may hold";
}

std::optional<std::pair<std::string, std::string>> key_value(std::string_view word)
{
    const auto eq = word.find('=');
    if (eq == std::string_view::npos)
        return std::nullopt;
    return std::pair<std::string, std::string>(word.substr(0, eq), word.substr(eq + 1));
}

std::optional<uint32_t> parse_u32(std::string_view text, bool hex)
{
    if (hex && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<std::string> stdin_line()
{
    std::string line;
    if (!std::getline(std::cin, line))
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

int print_lines(const std::vector<std::string> &lines)
{
    for (const auto &line : lines)
        std::printf("%s\n", line.c_str());
    return 0;
}

std::string joined(const std::vector<std::string> &items, std::string_view separator)
{
    std::string out;
    for (const auto &item : items)
        out += (out.empty() ? "" : std::string(separator)) + item;
    return out;
}

void field(const char *label, std::string_view value)
{
    if (value.empty())
        value = "(empty)";
    std::printf("%s: %.*s\n", label, static_cast<int>(value.size()), value.data());
}

const char *text_or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

const char *c_str_or_null(const std::optional<std::string> &text)
{
    return text ? text->c_str() : nullptr;
}

std::vector<const char *> c_strings(const std::vector<std::string> &texts)
{
    std::vector<const char *> pointers;
    for (const auto &text : texts)
        pointers.push_back(text.c_str());
    return pointers;
}

int cmd_version(const Args &)
{
    std::printf("libkemo %s\n", SzKEMOLibVersion());
    return 0;
}

int cmd_errors(const Args &)
{
    for (int i = 0; i < KEMO_ERR_TABLE_SIZE; ++i)
        if (rgszErrMsg[i] != nullptr)
            std::printf("%3d  0x%04X  %s\n", i, static_cast<unsigned>(KEMO_ERR_CODE(i)), rgszErrMsg[i]);
    return 0;
}

int cmd_error(const Args &args)
{
    if (args.size() != 1)
        return usage_error("error needs one CODE");
    char *end = nullptr;
    const std::string text(args[0]);
    errno = 0;
    const long code = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0')
        return usage_error("CODE must be a number");
    std::printf("0x%lX  %s\n", code, error_name(static_cast<int>(code)));
    return 0;
}

namespace {


struct Command {
    std::string_view name;
    std::string_view usage;
    int (*run)(const Args &);
};

constexpr Command kCommands[] = {
    {"version", "version", cmd_version},
    {"errors", "errors", cmd_errors},
    {"error", "error CODE", cmd_error},
    {"list", "list [--sort none|byte|case] [--at INDEX TEXT]... [--find TEXT] ITEM...", cmd_list},
    {"setop", "setop or|and|sub [--sort none|byte|case] A1,A2,... B1,B2,...", cmd_setop},
    {"hash", "hash [--get KEY]... [--remove KEY]... KEY=VALUE...", cmd_hash},
    {"get", "get FILE KEY [--last]", cmd_get},
    {"set", "set FILE KEY VALUE [--quote]", cmd_set},
    {"unset", "unset FILE KEY", cmd_unset},
    {"sections", "sections FILE", cmd_sections},
    {"section", "section FILE NAME", cmd_section},
    {"section-set", "section-set FILE NAME KEY=VALUE...", cmd_section_set},
    {"section-remove", "section-remove FILE NAME", cmd_section_remove},
    {"user list", "user list [--domain|--domain-used]", cmd_user_list},
    {"user show", "user show NAME", cmd_user_show},
    {"user add", "user add NAME [--password P|--password-stdin] [--desc D] [--mail M] [--expire YYYY-MM-DD]",
     cmd_user_add},
    {"user modify",
     "user modify NAME [--password P|--password-stdin] [--desc D] [--mail M] [--expire YYYY-MM-DD|never]",
     cmd_user_modify},
    {"user rename", "user rename OLD NEW", cmd_user_rename},
    {"user delete", "user delete NAME...", cmd_user_delete},
    {"user password", "user password NAME [--password P|--password-stdin]", cmd_user_password},
    {"user add-batch", "user add-batch < name:password[:description] lines", cmd_user_add_batch},
    {"group list", "group list [--domain]", cmd_group_list},
    {"group show", "group show NAME", cmd_group_show},
    {"group add", "group add NAME [MEMBER...]", cmd_group_add},
    {"group modify", "group modify NAME [MEMBER...]", cmd_group_modify},
    {"group rename", "group rename OLD NEW", cmd_group_rename},
    {"group delete", "group delete NAME...", cmd_group_delete},
    {"group members", "group members NAME", cmd_group_members},
    {"group desc", "group desc NAME [TEXT]", cmd_group_desc},
    {"share list", "share list [--usb|--sata|--all]", cmd_share_list},
    {"share show", "share show NAME", cmd_share_show},
    {"share access", "share access NAME USER", cmd_share_access},
    {"log add", "log add CLASS TYPE ID [ARG1 [ARG2 [ARG3 [ARG4]]]]   (ID hexadecimal)", cmd_log_add},
    {"log show", "log show CLASS [LANGUAGE]", cmd_log_show},
    {"log size", "log size CLASS BYTES", cmd_log_size},
    {"log connections", "log connections", cmd_log_connections},
    {"backup export", "backup export FILE [MASK]   (MASK hexadecimal, default 37FFFFB: all)", cmd_backup_export},
    {"backup check", "backup check FILE [MASK]", cmd_backup_check},
    {"backup import", "backup import FILE [MASK]", cmd_backup_import},
    {"backup list", "backup list FILE", cmd_backup_list},
    {"hostname", "hostname [NAME]", cmd_hostname},
    {"disk list", "disk list", cmd_disk_list},
    {"disk status", "disk status SLOT   (SLOT 1-4: /dev/sda../dev/sdd)", cmd_disk_status},
    {"disk init", "disk init SLOT system|data|all", cmd_disk_init},
    {"disk clean", "disk clean SLOT system|data|all", cmd_disk_clean},
    {"disk check-layout", "disk check-layout SLOT", cmd_disk_check_layout},
    {"raid create", "raid create LEVEL SLOTS [COUNT]   (LEVEL 0|1|5, SLOTS like 1,2,3; COUNT members)",
     cmd_raid_create},
    {"raid status", "raid status [ARRAY]   (ARRAY 0-5: 2, md2 or /dev/md2)", cmd_raid_status},
    {"raid add", "raid add ARRAY SLOT", cmd_raid_add},
    {"raid remove", "raid remove ARRAY SLOT   (fails the member and takes it out)", cmd_raid_remove},
    {"raid destroy", "raid destroy ARRAY   (unmounts, stops, clears the members)", cmd_raid_destroy},
    {"raid grow", "raid grow ARRAY   (members to the size their disks allow)", cmd_raid_grow},
    {"raid expand", "raid expand ARRAY COUNT   (the member count)", cmd_raid_expand},
    {"raid progress", "raid progress", cmd_raid_progress},
    {"volume list", "volume list", cmd_volume_list},
    {"volume info", "volume info VOLUME_ID   (1-4: /dev/md2../dev/md5 at /volume1../volume4)", cmd_volume_info},
    {"volume health", "volume health VOLUME_ID", cmd_volume_health},
    {"volume init", "volume init VOLUME_ID [ext3|ext2]   (makes the file system and mounts it)", cmd_volume_init},
    {"volume expand", "volume expand VOLUME_ID   (grows the file system to its array)", cmd_volume_expand},
    {"quota on", "quota on VOLUME_ID", cmd_quota_on},
    {"quota get", "quota get USER VOLUME_ID", cmd_quota_get},
    {"quota set", "quota set USER VOLUME_ID MB   (0 removes the limit)", cmd_quota_set},
    {"quota clear", "quota clear USER...   (on every volume)", cmd_quota_clear},
    {"shm create", "shm create FILE SIZE   (a private segment and semaphore, described by FILE)", cmd_shm_create},
    {"shm show", "shm show FILE", cmd_shm_show},
    {"shm put", "shm put FILE TEXT   (under the segment's semaphore)", cmd_shm_put},
    {"shm get", "shm get FILE", cmd_shm_get},
    {"shm delete", "shm delete FILE   (the segment, its semaphore and FILE)", cmd_shm_delete},
    {"op names", "op names   (operation ids, names and categories)", cmd_op_names},
    {"op list", "op list   (the running operations)", cmd_op_list},
    {"op check", "op check NAME", cmd_op_check},
    {"op run", "op run NAME [--wait MS] [--ignore-waits] -- COMMAND [ARG...]", cmd_op_run},
    {"find", "find [--list]   (refresh the appliances found on the network, then list them)", cmd_find},
    {"time", "time show|set-date|zones|zone|ntp ...   ('kemoctl time' lists them)", cmd_time},
    {"ups", "ups show|set ...   ('kemoctl ups' lists them)", cmd_ups},
    {"help", "help", cmd_help},
};

} // namespace

int cmd_help(const Args &)
{
    std::printf("usage: kemoctl COMMAND [ARG...]\n");
    for (const auto &c : kCommands)
        std::printf("  kemoctl %.*s\n", static_cast<int>(c.usage.size()), c.usage.data());
    return 0;
}

} // namespace kemoctl

int main(int argc, char **argv)
{
    using namespace kemoctl;
    if (argc < 2) {
        cmd_help({});
        return 2;
    }
    // Every argument is a name, key, value, path or number: none may carry
    // a line break into the files the library writes.
    for (int i = 1; i < argc; ++i)
        if (has_line_break(argv[i]))
            return usage_error(line_break_message("argument " + std::to_string(i)));
    // A command is one word, or a family word and a command word ("user add").
    const std::string_view name = argv[1];
    const std::string_view sub = argc > 2 ? argv[2] : "";
    bool family = false;
    for (const auto &c : kCommands) {
        const auto space = c.name.find(' ');
        if (space == std::string_view::npos) {
            if (c.name == name)
                return c.run(Args(argv + 2, argv + argc));
        } else if (c.name.substr(0, space) == name) {
            family = true;
            if (c.name.substr(space + 1) == sub)
                return c.run(Args(argv + 3, argv + argc));
        }
    }
    if (family)
        return usage_error(sub.empty() ? std::string(name) + " needs a command"
                                       : "unknown " + std::string(name) + " command '" + std::string(sub) + "'");
    return usage_error("unknown command '" + std::string(name) + "'");
}
