// The entries of the account files, one record type per file: passwd,
// shadow, the SMB password file, group and the mail address file.
//
// A parse takes one line (without its newline) and gives views into it, or
// nullopt for a line that is no entry of that file (a comment, a blank or
// damaged line), which the writers carry over as it is.  A format gives the
// line of an entry.  Writers format only the entries they change; every
// other line goes back to its file byte for byte.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kemo::records {

// The name of an entry line of passwd, shadow, the SMB password file or
// group: the text before the first ":"; "" for a line without one.
std::string_view name_of(std::string_view line) noexcept;

// A decimal number that fills the whole text; nullopt otherwise.
std::optional<long> decimal(std::string_view text) noexcept;

// /etc/passwd: "name:password:uid:gid:gecos:home:shell".
struct Passwd {
    std::string_view name, password;
    long uid = -1, gid = -1;
    std::string_view gecos, home, shell;
};
// Exactly seven fields, a name, numeric uid and gid.
std::optional<Passwd> parse_passwd(std::string_view line);
std::string format_passwd(const Passwd &entry);
// The uid of a passwd line, read without taking the rest apart.
std::optional<long> passwd_uid(std::string_view line) noexcept;

// /etc/shadow: nine fields, the aging fields kept as the text they are.
struct Shadow {
    std::string_view name, hash, changed, min_age, max_age, warning, inactive, expire, reserved;
};
// Exactly nine fields and a name.
std::optional<Shadow> parse_shadow(std::string_view line);
std::string format_shadow(const Shadow &entry);

// The SMB password file: "name:uid:LM:NT:flags:LCT-stamp:" and whatever
// follows the sixth field (kept as it is, with its leading ":").
struct Smbpasswd {
    std::string_view name;
    long uid = -1;
    std::string_view lm, nt, flags, changed, rest;
};
// At least six fields, a name and a numeric uid.
std::optional<Smbpasswd> parse_smbpasswd(std::string_view line);
std::string format_smbpasswd(const Smbpasswd &entry);

// /etc/group: "name:password:gid:members", with the optional tail of the
// groups that mirror a Windows group ("flags:second name:number") and any
// further fields kept in tail.
struct Group {
    std::string_view name, password;
    long gid = -1;
    std::string_view members;
    std::vector<std::string_view> tail;
};
// At least four fields, a name and a numeric gid; not a comment.
std::optional<Group> parse_group(std::string_view line);
std::string format_group(const Group &entry);

// /etc/mail: "name=\"address\"" (the quotes optional when read).
struct Mail {
    std::string_view name, address;
};
// Not a comment ("#", ";") or blank, and holding "=".
std::optional<Mail> parse_mail(std::string_view line);
std::string format_mail(std::string_view name, std::string_view address);

} // namespace kemo::records
