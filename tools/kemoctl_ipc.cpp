// kemoctl shm ... and kemoctl op ...: shared memory segments with their
// descriptor files, and the registry of running operations.
//
// "op run" is kemoctl's one command that runs another program: the command
// after "--", executed directly (no shell), while the operation stays
// registered in kemoctl's name.  kemoctl waits for it, passes on the
// signals that would end kemoctl (so that the command ends first), and
// unregisters however the command ended.  Its exit status is the command's
// (128 + signal number when a signal ended it); a conflicting operation
// gives 75 (a temporary failure, like flock -E 75) with the conflicts on
// standard error.
#include "kemoctl.hpp"

#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kemoctl {

namespace {

constexpr int conflict_status = 75;

struct ShmCloser {
    void operator()(KLIBSHMEM *rec) const { KLIBShmemClose(rec); }
};
using ShmPtr = std::unique_ptr<KLIBSHMEM, ShmCloser>;

// The segment of a descriptor file, attached; empty after reporting why.
ShmPtr open_segment(std::string_view path, uint32_t *size = nullptr)
{
    const std::string p(path);
    KLIBSHMEM *rec = KLIBShmemOpen(p.c_str(), size);
    if (rec == KLIB_SHMEM_INVALID) {
        library_failure("opening the segment of " + p);
        return nullptr;
    }
    return ShmPtr(rec);
}

// An operation by name ("restore") or id (0-39).
std::optional<int> operation_of(std::string_view word)
{
    for (int id = 0; id < KEMO_OP_ID_COUNT; ++id)
        if (grgIDMap[id].szName != nullptr && word == grgIDMap[id].szName)
            return id;
    const auto number = parse_u32(word, false);
    if (number && *number < KEMO_OP_ID_COUNT && word.find_first_not_of("0123456789") == std::string_view::npos)
        return static_cast<int>(*number);
    return std::nullopt;
}

std::string name_of(int id)
{
    const char *name = KEMOOperationGetName(id);
    return name == nullptr || *name == '\0' ? "#" + std::to_string(id) : name;
}

bool alive(int pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

std::vector<KEMOOPENTRY> running()
{
    std::vector<KEMOOPENTRY> entries(KEMO_OP_MAX_ENTRIES);
    const int n = KEMOOperationEnum(entries.data(), static_cast<int>(entries.size()));
    entries.resize(static_cast<std::size_t>(std::clamp(n, 0, KEMO_OP_MAX_ENTRIES)));
    return entries;
}

// "restore (pid 812), backup (pid 790)": the running operations among ids.
std::string who(const int *ids, int n)
{
    std::vector<std::string> parts;
    const auto entries = running();
    for (int i = 0; i < n; ++i) {
        std::string part = name_of(ids[i]);
        const auto e = std::find_if(entries.begin(), entries.end(), [&](const KEMOOPENTRY &x) {
            return x.id == ids[i] && alive(x.pid);
        });
        if (e != entries.end())
            part += " (pid " + std::to_string(e->pid) + ")";
        if (std::find(parts.begin(), parts.end(), part) == parts.end())
            parts.push_back(part);
    }
    return joined(parts);
}

struct Registration {
    int result = -1;
    int ids[KEMO_OP_MAX_ENTRIES]{};
    int count = 0;
};

Registration register_op(int id, int flags, int wait_ms)
{
    Registration r;
    r.count = KEMO_OP_MAX_ENTRIES;
    r.result = KEMOOperationRegister(id, flags, r.ids, &r.count, wait_ms);
    return r;
}

// The message and status of a registration that did not succeed.
int registration_failure(int id, const Registration &r, int wait_ms)
{
    const std::string name = name_of(id);
    if (r.result < 0)
        return library_failure("registering " + name);
    const int shown = std::min(r.count, KEMO_OP_MAX_ENTRIES);
    if (r.result == 1)
        std::fprintf(stderr, "kemoctl: operation %s refused by running %s\n", name.c_str(),
                     who(r.ids, shown).c_str());
    else
        std::fprintf(stderr, "kemoctl: operation %s still waiting after %d ms for running %s\n", name.c_str(),
                     wait_ms, who(r.ids, shown).c_str());
    return conflict_status;
}

volatile sig_atomic_t g_child = 0;

// Passes a signal that another process sent to kemoctl on to the command.
// One the terminal generated (Ctrl-C) reached the whole foreground process
// group, the command included, and is not sent a second time.
void pass_on(int sig, siginfo_t *info, void *)
{
    if (g_child > 0 && (info == nullptr || info->si_code <= 0))
        ::kill(static_cast<pid_t>(g_child), sig);
}

constexpr int passed_signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};

// Holds back the signals that would end kemoctl from before registration
// until the command runs and they can be passed on: one that arrives in
// between is delivered then, never lost, and never ends kemoctl while its
// operation is registered and no command runs.
class HeldSignals {
public:
    HeldSignals()
    {
        sigemptyset(&set_);
        for (const int sig : passed_signals)
            sigaddset(&set_, sig);
        ::sigprocmask(SIG_BLOCK, &set_, &old_mask_);
    }
    ~HeldSignals() { ::sigprocmask(SIG_SETMASK, &old_mask_, nullptr); }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;
    const sigset_t &old_mask() const { return old_mask_; }

private:
    sigset_t set_{}, old_mask_{};
};

// Runs argv and waits for it; its status as a shell reports it.  The
// passed signals are held (HeldSignals) when this is called.
int run_and_wait(const Args &command, const HeldSignals &held)
{
    std::vector<std::string> owned(command.begin(), command.end());
    std::vector<char *> argv;
    for (auto &a : owned)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    struct sigaction forward {}, old[std::size(passed_signals)]{};
    forward.sa_sigaction = pass_on;
    forward.sa_flags = SA_SIGINFO;
    sigemptyset(&forward.sa_mask);
    for (std::size_t i = 0; i < std::size(passed_signals); ++i)
        ::sigaction(passed_signals[i], &forward, &old[i]);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The command starts with kemoctl's own dispositions and mask.
        for (std::size_t i = 0; i < std::size(passed_signals); ++i)
            ::sigaction(passed_signals[i], &old[i], nullptr);
        ::sigprocmask(SIG_SETMASK, &held.old_mask(), nullptr);
        ::execvp(argv[0], argv.data());
        const int error = errno;
        std::fprintf(stderr, "kemoctl: cannot run %s: %s\n", argv[0], std::strerror(error));
        ::_exit(error == ENOENT ? 127 : 126);
    }
    int status = 0;
    if (pid > 0) {
        g_child = pid;
        // Signals held so far reach the handler now, which passes them on.
        sigset_t open = held.old_mask();
        for (const int sig : passed_signals)
            sigdelset(&open, sig);
        ::sigprocmask(SIG_SETMASK, &open, nullptr);
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        g_child = 0;
    }
    if (pid < 0)
        std::fprintf(stderr, "kemoctl: cannot start %s: %s\n", argv[0], std::strerror(errno));
    // Hold them again while the operation is unregistered.
    sigset_t block;
    sigemptyset(&block);
    for (const int sig : passed_signals)
        sigaddset(&block, sig);
    ::sigprocmask(SIG_BLOCK, &block, nullptr);
    for (std::size_t i = 0; i < std::size(passed_signals); ++i)
        ::sigaction(passed_signals[i], &old[i], nullptr);
    if (pid < 0)
        return 126;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

int cmd_shm_create(const Args &args)
{
    if (args.size() != 2)
        return usage_error("shm create needs FILE and SIZE");
    const auto size = parse_u32(args[1], false);
    if (!size)
        return usage_error("SIZE must be a number of bytes");
    const std::string path(args[0]);
    KLIBSHMEM *rec = KLIBShmemMake(path.c_str(), *size);
    if (rec == KLIB_SHMEM_INVALID)
        return library_failure("making a segment for " + path);
    std::printf("segment %d, semaphore %d, %u bytes, described by %s\n", rec->shmid, rec->semid, rec->state,
                rec->path);
    KLIBShmemClose(rec);
    return 0;
}

int cmd_shm_show(const Args &args)
{
    if (args.size() != 1)
        return usage_error("shm show needs FILE");
    uint32_t size = 0;
    ShmPtr rec = open_segment(args[0], &size);
    if (!rec)
        return 1;
    field("descriptor", args[0]);
    field("recorded path", rec->path);
    field("segment", std::to_string(rec->shmid));
    field("semaphore set", std::to_string(rec->semid));
    field("size", std::to_string(size));
    const int value = ::semctl(rec->semid, 0, GETVAL);
    field("semaphore", value == 1 ? "1 (free)" : value == 0 ? "0 (taken)" : "(unreadable)");
    struct shmid_ds ds {};
    if (::shmctl(rec->shmid, IPC_STAT, &ds) == 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(ds.shm_perm.mode & 0777));
        field("owner uid", std::to_string(ds.shm_perm.uid));
        field("mode", mode);
        field("attached", std::to_string(ds.shm_nattch));
    }
    return 0;
}

int cmd_shm_put(const Args &args)
{
    if (args.size() != 2)
        return usage_error("shm put needs FILE and TEXT");
    uint32_t size = 0;
    ShmPtr rec = open_segment(args[0], &size);
    if (!rec)
        return 1;
    if (args[1].size() >= size)
        return file_failure(args[0], "the text does not fit in the segment");
    auto *memory = static_cast<char *>(AddrKLIBShmemGetShm(rec.get()));
    if (memory == nullptr)
        return library_failure("taking the segment");
    std::memset(memory, 0, size);
    std::memcpy(memory, args[1].data(), args[1].size());
    return KLIBShmemReturnShm(rec.get()) == 0 ? 0 : library_failure("giving the segment back");
}

int cmd_shm_get(const Args &args)
{
    if (args.size() != 1)
        return usage_error("shm get needs FILE");
    uint32_t size = 0;
    ShmPtr rec = open_segment(args[0], &size);
    if (!rec)
        return 1;
    const auto *memory = static_cast<const char *>(AddrKLIBShmemGetShm(rec.get()));
    if (memory == nullptr)
        return library_failure("taking the segment");
    const std::string text(memory, strnlen(memory, size));
    if (KLIBShmemReturnShm(rec.get()) != 0)
        return library_failure("giving the segment back");
    std::printf("%s\n", text.c_str());
    return 0;
}

int cmd_shm_delete(const Args &args)
{
    if (args.size() != 1)
        return usage_error("shm delete needs FILE");
    ShmPtr rec = open_segment(args[0]);
    if (!rec)
        return 1;
    // Delete frees the record itself.
    return KLIBShmemDelete(rec.release()) == 0 ? 0 : library_failure("deleting the segment");
}

int cmd_op_names(const Args &args)
{
    if (!args.empty())
        return usage_error("op names takes no arguments");
    for (int id = 0; id < KEMO_OP_ID_COUNT; ++id)
        std::printf("%2d %-12s category %u\n", id, name_of(id).c_str(), grgIDMap[id].category);
    return 0;
}

int cmd_op_list(const Args &args)
{
    if (!args.empty())
        return usage_error("op list takes no arguments");
    KEMOOPENTRY entries[KEMO_OP_MAX_ENTRIES];
    const int n = KEMOOperationEnum(entries, KEMO_OP_MAX_ENTRIES);
    if (n < 0)
        return library_failure("reading the operations registry");
    for (int i = 0; i < std::min(n, KEMO_OP_MAX_ENTRIES); ++i)
        std::printf("%2d %-12s pid %-7d %s\n", entries[i].id, name_of(entries[i].id).c_str(), entries[i].pid,
                    alive(entries[i].pid) ? "running" : "dead (removed by the next registration)");
    return 0;
}

int cmd_op_check(const Args &args)
{
    if (args.size() != 1)
        return usage_error("op check needs NAME");
    const auto id = operation_of(args[0]);
    if (!id)
        return usage_error("unknown operation '" + std::string(args[0]) + "' (see 'kemoctl op names')");
    const Registration r = register_op(*id, KEMO_OP_CHECK_ONLY, 0);
    if (r.result != 0)
        return registration_failure(*id, r, 0);
    std::printf("%s may start\n", name_of(*id).c_str());
    return 0;
}

int cmd_op_run(const Args &args)
{
    // Options come before "--"; everything after it is the command.
    const auto dashes = std::find(args.begin(), args.end(), std::string_view("--"));
    if (dashes == args.end() || dashes + 1 == args.end())
        return usage_error("op run needs NAME [--wait MS] [--ignore-waits] -- COMMAND...");
    const Parsed p = parse_args(Args(args.begin(), dashes), {{"--wait", 1}, {"--ignore-waits", 0}});
    if (!p.error.empty())
        return usage_error(p.error);
    if (p.words.size() != 1)
        return usage_error("op run needs one operation NAME before --");
    const auto id = operation_of(p.words[0]);
    if (!id)
        return usage_error("unknown operation '" + std::string(p.words[0]) + "' (see 'kemoctl op names')");
    int wait_ms = 0;
    int flags = 0;
    for (const auto &[name, values] : p.options) {
        if (name == "--ignore-waits") {
            flags |= KEMO_OP_IGNORE_WAIT;
            continue;
        }
        const auto ms = parse_u32(values[0], false);
        if (!ms || *ms > 24u * 3600 * 1000)
            return usage_error("--wait takes milliseconds (at most a day)");
        wait_ms = static_cast<int>(*ms);
    }
    int status = 0;
    {
        const HeldSignals held;
        const Registration r = register_op(*id, flags, wait_ms);
        if (r.result != 0)
            return registration_failure(*id, r, wait_ms);
        status = run_and_wait(Args(dashes + 1, args.end()), held);
        if (KEMOOperationUnregister(*id) != 0)
            library_failure("unregistering " + name_of(*id));
    }
    // A signal that came after the command ended takes effect now.
    return status;
}

} // namespace kemoctl
