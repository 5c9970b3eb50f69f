// A child process that holds a named mutex until it is killed; the lock goes with the process.
#ifndef TESTS_PLATFORM_MUTEXHOLDER_H_
#define TESTS_PLATFORM_MUTEXHOLDER_H_

#include <string>

#include "platform/PMutex.h"
#include "tests/support/TestSupport.h"

namespace qvtest {

struct MutexHolder : CHeldChild {
    explicit MutexHolder(const std::string& name)
        : CHeldChild([name] { return (new CPMutex(1, 0, name, 0, 1))->wait(~0ul, nullptr) == 0; }) {
    }
    bool holding() const { return ok(); }
};

}  // namespace qvtest

#endif  // TESTS_PLATFORM_MUTEXHOLDER_H_
