// Acting as an unprivileged local user in a test: the body runs in a child
// process that has become the user and group "nobody" (65534) without
// supplementary groups, as a hostile local user would be.
#pragma once

#include <cerrno>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

// Makes the calling process the user nobody; false when it cannot.
inline bool become_nobody()
{
    return ::setgroups(0, nullptr) == 0 && ::setresgid(65534, 65534, 65534) == 0 &&
           ::setresuid(65534, 65534, 65534) == 0;
}

// True when body() returned true in the child.
template <class Body>
bool as_nobody(Body &&body)
{
    const pid_t pid = ::fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        if (!become_nobody())
            ::_exit(2);
        ::_exit(body() ? 0 : 1);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
