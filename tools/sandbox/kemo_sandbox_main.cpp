// kemo-sandbox: runs one command in a fresh appliance sandbox.
//
// Everything the command changes stays in the sandbox and is gone when the
// command and its children have ended. Exit status: the command's own, or
// 128 + signal number when it was killed; 77 when no sandbox can be made
// here (not root, no mount namespaces or overlays); 125 when making it
// failed; 126/127 when the command cannot be run; 2 for a usage error.

#include "kemo_sandbox.hpp"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kUsage = 2;
constexpr int kUnavailable = 77;
constexpr int kFailed = 125;

const char kUsageText[] =
    "usage: kemo-sandbox [--place HOSTFILE:/ABS/DEST[:MODE]]... [--keep-tmp] [--] COMMAND [ARG...]\n"
    "\n"
    "Runs COMMAND in a fresh appliance sandbox: a private copy-on-write view of\n"
    "this machine's root file system in which the appliance's factory files\n"
    "(/etc/passwd, /etc/kemoinfo.conf, /usr/kemo/etc/smb.conf ...) are installed\n"
    "and /tmp, /run and /dev are empty. Nothing the command writes reaches this\n"
    "machine's files. Needs root.\n"
    "\n"
    "  --place HOSTFILE:/ABS/DEST[:MODE]\n"
    "              copy HOSTFILE (read before entering) to /ABS/DEST in the\n"
    "              sandbox, with the octal MODE or else HOSTFILE's mode\n"
    "  --keep-tmp  start /tmp as a copy-on-write view of this machine's /tmp\n"
    "              instead of an empty one\n"
    "  --help      show this text\n"
    "\n"
    "Exit status: COMMAND's, or 128+N when it was killed by signal N; 77 when\n"
    "no sandbox can be made here; 125 when making it failed; 126 or 127 when\n"
    "COMMAND cannot be run; 2 for a usage error.\n";

struct Placement {
    std::string source;
    std::string destination;
    mode_t mode = 0;
    bool mode_given = false;
    std::string content;
};

int usage_error(const std::string &message) {
    std::fprintf(stderr, "kemo-sandbox: %s\n%s", message.c_str(), kUsageText);
    return kUsage;
}

// HOSTFILE:/ABS/DEST[:MODE]; the destination starts at the first ":/".
bool parse_placement(const std::string &text, Placement *out) {
    const std::size_t split = text.find(":/");
    if (split == 0 || split == std::string::npos) return false;
    out->source = text.substr(0, split);
    out->destination = text.substr(split + 1);
    const std::size_t colon = out->destination.rfind(':');
    if (colon != std::string::npos) {
        const std::string mode = out->destination.substr(colon + 1);
        if (mode.empty() || mode.size() > 4 || mode.find_first_not_of("01234567") != std::string::npos)
            return false;
        out->mode = static_cast<mode_t>(std::stoul(mode, nullptr, 8));
        out->mode_given = true;
        out->destination.resize(colon);
    }
    return out->destination.size() > 1 && out->destination.back() != '/';
}

bool read_source(Placement *p) {
    struct stat st {};
    if (::stat(p->source.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "kemo-sandbox: cannot read %s: is a directory\n", p->source.c_str());
        return false;
    }
    errno = 0;
    std::ifstream in(p->source, std::ios::binary);
    std::ostringstream content;
    if (in) content << in.rdbuf();
    if (!in) {
        std::fprintf(stderr, "kemo-sandbox: cannot read %s: %s\n", p->source.c_str(),
                     errno != 0 ? std::strerror(errno) : "read error");
        return false;
    }
    p->content = content.str();
    if (!p->mode_given) p->mode = S_ISREG(st.st_mode) ? (st.st_mode & 07777) : 0644;
    return true;
}

int run(char **argv) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        std::fprintf(stderr, "kemo-sandbox: fork: %s\n", std::strerror(errno));
        return kFailed;
    }
    if (child == 0) {
        ::execvp(argv[0], argv);
        const int error = errno;
        std::fprintf(stderr, "kemo-sandbox: %s: %s\n", argv[0], std::strerror(error));
        ::_exit(error == ENOENT ? 127 : 126);
    }
    // Terminal interrupts reach the command too; it decides, we report.
    ::signal(SIGINT, SIG_IGN);
    ::signal(SIGQUIT, SIG_IGN);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            std::fprintf(stderr, "kemo-sandbox: waitpid: %s\n", std::strerror(errno));
            return kFailed;
        }
    }
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<Placement> placements;
    kemo::sandbox::Options options;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsageText, stdout);
            return 0;
        }
        if (arg == "--keep-tmp") {
            options.keep_tmp = true;
        } else if (arg == "--place" || arg.rfind("--place=", 0) == 0) {
            std::string text;
            if (arg == "--place") {
                if (i + 1 >= argc) return usage_error("--place needs HOSTFILE:/ABS/DEST[:MODE]");
                text = argv[++i];
            } else {
                text = arg.substr(8);
            }
            Placement p;
            if (!parse_placement(text, &p)) return usage_error("bad --place argument: " + text);
            placements.push_back(std::move(p));
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option " + arg);
        } else {
            break;
        }
    }
    if (i >= argc) return usage_error("no command given");

    for (Placement &p : placements) {
        if (!read_source(&p)) return kFailed;
    }
    std::string why;
    if (!kemo::sandbox::available(&why)) {
        std::fprintf(stderr, "kemo-sandbox: appliance sandbox unavailable: %s\n", why.c_str());
        return kUnavailable;
    }
    if (!kemo::sandbox::fresh(options, &why)) {
        std::fprintf(stderr, "kemo-sandbox: cannot build the appliance sandbox: %s\n", why.c_str());
        return kFailed;
    }
    for (const Placement &p : placements) {
        if (!kemo::sandbox::place(p.destination, p.content, p.mode, &why)) {
            std::fprintf(stderr, "kemo-sandbox: cannot place %s: %s\n", p.destination.c_str(),
                         why.c_str());
            return kFailed;
        }
    }
    return run(argv + i);
}
