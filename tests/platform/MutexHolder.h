// A child process that holds a named mutex until it is told to let go or is killed. Used by
// the tests of the mutex itself and of the id generator built on it. The child is killed and
// reaped when the object goes, whatever happened.
#ifndef TESTS_PLATFORM_MUTEXHOLDER_H_
#define TESTS_PLATFORM_MUTEXHOLDER_H_

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/PMutex.h"

namespace qvtest {

class MutexHolder {
public:
    // Returns once the child holds the mutex named name (or has failed to).
    explicit MutexHolder(const std::string& name) {
        int up[2];
        int down[2];
        if (pipe(up) != 0 || pipe(down) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            close(up[0]);
            close(down[1]);
            CPMutex m(1, 0, name, 0, 1);
            if (m.wait(0xFFFFFFFFul, nullptr) != 0) _exit(2);
            char c = 'h';
            if (write(up[1], &c, 1) != 1) _exit(3);
            if (read(down[0], &c, 1) < 0) _exit(4);
            m.release();
            _exit(0);
        }
        close(up[1]);
        close(down[0]);
        m_toChild = down[1];
        char c = 0;
        m_holding = m_pid > 0 && read(up[0], &c, 1) == 1;
        close(up[0]);
    }
    ~MutexHolder() {
        kill();
        if (m_toChild != -1) close(m_toChild);
    }
    MutexHolder(const MutexHolder&) = delete;
    MutexHolder& operator=(const MutexHolder&) = delete;

    bool holding() const { return m_holding; }

    // Lets the child release the mutex and exit; returns true when it exited cleanly.
    bool release() {
        const char c = 'r';
        if (m_pid <= 0 || write(m_toChild, &c, 1) != 1) return false;
        int status = 0;
        const bool reaped = waitpid(m_pid, &status, 0) == m_pid;
        m_pid = -1;
        return reaped && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    // Kills the child while it holds the mutex, and reaps it.
    void kill() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
    int m_toChild = -1;
    bool m_holding = false;
};

}  // namespace qvtest

#endif  // TESTS_PLATFORM_MUTEXHOLDER_H_
