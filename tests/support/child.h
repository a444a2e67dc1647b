// A child process for the tests that run daemons: stdout and stderr go to
// files, and the child is killed when the test process dies, so a test that
// crashes leaves no bus or daemon behind.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
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

// Polls `done` every 10 ms for at most ms milliseconds; whether it came true.
inline bool waitUntil(const std::function<bool()>& done, int ms) {
    using Clock = std::chrono::steady_clock;
    for (const auto until = Clock::now() + std::chrono::milliseconds(ms); !done();) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A whole file's bytes ("" when it cannot be read).
inline std::string slurp(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// A child process, its standard output and error in files under `dir`;
// killed when the object goes.
struct Proc {
    pid_t pid = -1;
    bool running = false;
    int status = -1;
    std::string out, err;

    Proc(std::vector<std::string> args, const std::string& dir) {
        static int n = 0;
        out = dir + "/" + std::to_string(++n) + ".out";
        err = dir + "/" + std::to_string(n) + ".err";
        pid = startChild(std::move(args), out, err);
        running = pid > 0;
    }
    Proc(const Proc&) = delete;
    Proc& operator=(const Proc&) = delete;
    ~Proc() { stop(SIGKILL); }
    // The exit status (128 + signal), or -1 when still running after ms.
    int wait(int ms = 20000) {
        if (running && waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms))
            running = false;
        return running ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int stop(int sig) {
        if (running) kill(pid, sig);
        return wait();
    }
    std::string stdout_() const { return slurp(out); }
    std::string stderr_() const { return slurp(err); }
};

}  // namespace cvtest
