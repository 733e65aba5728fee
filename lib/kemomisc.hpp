// Internal interface of the process module: the command runner
// (kemomisc_run.cpp) and the process lookups (kemomisc.cpp).
//
// The library's one way to run other programs.  Every function that runs a
// shell command builds it with shell_command() and runs it with shell_run()
// or shell_read(); programs that need no shell are run with run_program()
// or start_program().  Caller text never reaches the shell unquoted:
//
//   auto cmd = kemo::shell_command("/bin/mv -f %s/%s %s > /dev/null 2>&1",
//                                  {dir, name, target});
//   if (!cmd) return kemo::fail(-1, ERR_BAD_PARAMETERS);
//   if (kemo::exit_code(kemo::shell_run(*cmd)) != 0) ...
#pragma once

#include <sys/types.h>

#include <cstdint>

#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kemo {

// One word for /bin/sh that stands for exactly the bytes of text: text
// itself when it consists only of letters, digits and "_@%+=:,./-" (so
// plain names and paths read as they are), else text in single quotes with
// every single quote written as '\''.  The empty text gives ''.  A NUL
// cannot be carried and is the caller's to refuse (shell_command does).
std::string shell_quote(std::string_view text);

// Fills a command template.  Each "%s" takes the next argument, escaped
// for where it stands in the template:
//   - inside single quotes ('%s', '/tmp/%s.pid'): a quote becomes '\''
//   - inside double quotes: \ before $ ` " and \ characters
//   - elsewhere: shell_quote()
// "%%" gives "%".  Plain names and paths therefore give exactly the text a
// printf of the template would give.
// nullopt when an argument holds a NUL, when the number of "%s" differs
// from the number of arguments, or the template holds another "%"
// conversion or ends inside quotes; callers then fail with
// ERR_BAD_PARAMETERS.
std::optional<std::string> shell_command(std::string_view tmpl,
                                         std::initializer_list<std::string_view> args);

// Runs command with "/bin/sh -c" and waits for it, as system(3) does: the
// wait status of the shell, or -1 when it could not be started (also for a
// command that holds a NUL; errno EINVAL).  The configuration locks of the
// caller are not inherited (their descriptors are close-on-exec).
int shell_run(std::string_view command);

// The exit code (0..255) from a wait status of shell_run() or
// ShellOutput::status, or -1 when the shell could not run, was killed by a
// signal, or the status is -1.
int exit_code(int status) noexcept;

// What a command wrote on its standard output (its standard error is left
// alone unless the command redirects it).
struct ShellOutput {
    bool started = false; // false: popen failed (errno set) or a NUL in the command
    std::string text;     // the output, or only its first line without the newline
    int status = -1;      // pclose(): the wait status, or -1 when closing failed
};

enum class Output { first_line, all };

// Runs command through popen and collects its output.  With first_line the
// rest of the output is read and dropped, so the command is never killed
// by a closed pipe and the status stays meaningful.  With max_bytes, for a
// command whose output another user could inflate, at most that many
// bytes are read: the pipe is then closed early, and a command that writes
// more is ended by SIGPIPE (its status says so).
ShellOutput shell_read(std::string_view command, Output what = Output::all,
                       std::size_t max_bytes = SIZE_MAX);

// Runs a program without a shell.  argv[0] is the program's path and its
// argv[0]; the list ends at its end or at its first null entry.  The child
// is detached: standard input, output and error on /dev/null, the caller's
// configuration locks dropped, a session of its own, working directory "/".
//
// run_program waits for it.  If SIGCHLD carries SA_NOCLDWAIT, the flag is
// cleared for the call (so the child can be waited for) and restored.
// Returns the child's exit code (255 when it could not be executed); 0 when
// it was reaped elsewhere (ECHILD), 1 when waiting failed otherwise; -1
// with ERR_OP_FAILURE when it was killed by a signal or fork failed.
int run_program(std::span<const char *const> argv);

// Starts the program in the same detached way without waiting for it.  The
// program is the grandchild of the caller (the intermediate process is
// reaped here), so it never becomes the caller's zombie.  Returns its pid,
// or -1 with ERR_OP_FAILURE when it could not be started or executed.
pid_t start_program(std::span<const char *const> argv);

// The pid a pid file names: the decimal number at the start of its first
// line (digits only, after blanks, at most INT_MAX).  0 when the file holds
// no such number, -1 (errno set) when it cannot be opened.
int read_pid_file(const char *path);

// Sends sig to the process a pid file names, after checking that the file
// names a real process (a pid above 1: never init, never a process group)
// that is alive.  false when it does not or kill fails.  Used instead of
// "kill `cat file`", which would signal whatever text the file holds.
bool signal_pid_file(const char *path, int sig);
// The same, and only when the process's name (its /proc/<pid>/comm) is one
// of names, so that a stale pid file whose number now belongs to another
// program never gets it signalled.
bool signal_pid_file(const char *path, int sig, std::initializer_list<std::string_view> names);

// The processes whose "ps -awx" line holds name, the search's own lines
// left out: their ids go to pids (at most max entries), and their number
// (which may exceed max) is returned.  -1 with ERR_BAD_PARAMETERS for a name
// grep could take for an option or that holds a line break, ERR_READ_FAILED
// when ps could not be run.  The output is read through a pipe.
int ps(std::string_view name, int32_t *pids, int max);

// Stops the processes named so (as ps finds them): SIGKILL when forced,
// else SIGTERM and SIGKILL for the survivors 100 ms later.  Never signals
// the caller itself.  The number found first (at most 256), or -1.
int kill_by_name(std::string_view name, bool force);

// The size in bytes that "du -sk" reports for path, 0 when it fails.
unsigned long long dir_size(const char *path);

// The bytes of the regular files in the tree at path (path itself when it
// is a file), symbolic links not followed, each inode counted once; 0 with
// the error code set when the walk fails.
unsigned long long full_dir_size(const char *path);

// 1 when a line of "ps" holds name, else 0.  name must not start with "-".
int process_listed(const char *name);

// Resets the printer /dev/usb/<device> (device a plain name): 0, or -1
// with ERR_OPEN_FAILED or ERR_OP_FAILURE.
int reset_printer(const char *device);

} // namespace kemo
