// A child process for the tests that run daemons: stdout and stderr go to
// files, and the child is killed when the test process dies, so a test that
// crashes leaves no bus or daemon behind.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace cvtest {

// The child's pid, or -1 if it could not be forked. A program that cannot be
// started exits with status 127.
inline pid_t startChild(std::vector<std::string> args, const std::string& out, const std::string& err) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(127);
    execvp(argv[0], argv.data());
    _exit(127);
}

}  // namespace cvtest
