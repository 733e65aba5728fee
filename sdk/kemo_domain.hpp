// Internal entry points of the domain module (kemodomain.cpp): the joined
// Windows domain's users and groups, the file server's sessions and the
// backup server's password file.  Arguments are taken as already checked
// by the caller; failures set the error code like the public functions.
#pragma once

#include "kemo_internal.hpp"

#include <cstdint>
#include <string_view>

namespace kemo::domain {

// 2 when name is "DOMAIN\name" of the joined domain, else 1.
int name_kind(std::string_view name);
// Asks the domain for its users, groups and group members again and
// rewrites the three lists.  0, or -1 with the error code set.
int refresh_lists();
// The user's SID into out (size bytes).  0, or -1.
int user_sid(const char *name, char *out, int size);
// The user's uid or primary gid as the domain maps them, or -1.
int user_uid(const char *name);
int user_gid(const char *name);
// Push the domain's users (machine accounts skipped), the domain users the
// shares' access lists name, or the domain's groups, each once (without
// case).  The number pushed, or -1.
int push_users(PKLIBSZLIST *list);
int push_used_users(PKLIBSZLIST *list);
int push_groups(PKLIBSZLIST *list);
// Pushes the members of a domain group; the number pushed, or -1
// (ERR_NO_SUCH_GROUP for a group that is not listed).
int push_group_members(std::string_view group, PKLIBSZLIST *list);
// 1 when user is a member of the domain group, else 0.
int is_group_member(std::string_view user, std::string_view group);
// The pids of the user's file server sessions (at most max); the number.
int session_pids(const char *user, int32_t *pids, int max);
// Ends the file server sessions among pids; the number ended.
int end_sessions(const int32_t *pids, int count);
// Sets the user's password in the backup server's secrets file: 1 when
// changed, 0 when unchanged or not a backup user, -1 on failure.
int set_backup_password(const char *user, const char *password);

} // namespace kemo::domain
