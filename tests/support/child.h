// Child processes for the tests that run daemons and tools: stdout and
// stderr go to files, and the child is killed when the test process dies, so
// a test that crashes leaves no bus or daemon behind. Every wait is bounded.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace cvtest {

// The child's pid, or -1 if it could not be forked. `inChild` runs in the
// child just before the program (it may change the account, the
// environment, or do the child's work and _exit). A program that cannot be
// started exits with status 127.
inline pid_t startChild(std::vector<std::string> args, const std::string& out, const std::string& err,
                        const std::function<void()>& inChild = {}) {
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
    if (inChild) inChild();
    execvp(argv[0], argv.data());
    _exit(127);
}

// Polls `done` (after 1 ms, then less often, every 10 ms at most) for at
// most ms milliseconds; whether it came true.
inline bool waitUntil(const std::function<bool()>& done, int ms) {
    using Clock = std::chrono::steady_clock;
    auto step = std::chrono::milliseconds(1);
    for (const auto until = Clock::now() + std::chrono::milliseconds(ms); !done();) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(step);
        step = std::min(step * 2, std::chrono::milliseconds(10));
    }
    return true;
}

// A whole file's bytes ("" when it cannot be read).
inline std::string slurp(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// How many times `what` occurs in `text`.
inline size_t countOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A child process, its standard output and error in files under `dir`;
// killed when the object goes.
struct Proc {
    pid_t pid = -1;
    bool running = false;
    int status = -1;
    std::string out, err;

    Proc(std::vector<std::string> args, const std::string& dir, const std::function<void()>& inChild = {}) {
        static int n = 0;
        out = dir + "/" + std::to_string(++n) + ".out";
        err = dir + "/" + std::to_string(n) + ".err";
        pid = startChild(std::move(args), out, err, inChild);
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
    int stop(int sig, int ms = 20000) {
        if (running) kill(pid, sig);
        return wait(ms);
    }
    std::string stdout_() const { return slurp(out); }
    std::string stderr_() const { return slurp(err); }
};

}  // namespace cvtest
