#include "bench/BenchSupport.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace qvbench {

bool MakePipe(int fds[2]) { return pipe2(fds, O_CLOEXEC) == 0; }

pid_t SpawnSelf(const std::vector<std::string>& args, const std::vector<int>& keepFds) {
    // Everything the child needs is built before fork: the parent may have threads, so the
    // child calls nothing but fcntl and exec.
    std::vector<std::string> all;
    all.push_back("/proc/self/exe");
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return -1;
    exe[n] = '\0';
    const pid_t pid = fork();
    if (pid == 0) {
        for (int fd : keepFds) fcntl(fd, F_SETFD, 0);
        execv(exe, argv.data());
        _exit(127);
    }
    return pid;
}

void WaitChild(pid_t pid) {
    if (pid <= 0) return;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

void StopChild(pid_t pid, int sig) {
    if (pid <= 0) return;
    kill(pid, sig);
    WaitChild(pid);
}

void CLatencies::report(benchmark::State& state) {
    if (m_samples.empty()) return;
    std::vector<double> s = m_samples;
    std::sort(s.begin(), s.end());
    auto at = [&s](double q) {
        const size_t i =
            std::min(s.size() - 1, static_cast<size_t>(q * static_cast<double>(s.size())));
        return s[i] * 1e6;
    };
    state.counters["p50_us"] = at(0.50);
    state.counters["p99_us"] = at(0.99);
    m_samples.clear();
}

}  // namespace qvbench
