// README.md's API example (cut out by ReadmeExample.cmake), the test's guid as service name.
#ifndef TESTS_INTEGRATION_READMEEXAMPLE_H_
#define TESTS_INTEGRATION_READMEEXAMPLE_H_

#include <string>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"

namespace readme {

void Server(const std::string& guid);      // serves until it is killed
QVRESULT Client(const std::string& guid);  // one round trip, then finalize; its last result

}  // namespace readme

#endif  // TESTS_INTEGRATION_READMEEXAMPLE_H_
