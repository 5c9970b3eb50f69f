// The API example of README.md, compiled from the document itself (ReadmeExample.cmake), with
// the test's guid in place of the example's service name.
#ifndef TESTS_INTEGRATION_READMEEXAMPLE_H_
#define TESTS_INTEGRATION_READMEEXAMPLE_H_

#include <string>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"

namespace readme {

// The server half: serves until it is killed (it runs as a peer process).
void Server(const std::string& guid);
// The client half: waits for its connection, makes one round trip, finalizes; its last result.
QVRESULT Client(const std::string& guid);

}  // namespace readme

#endif  // TESTS_INTEGRATION_READMEEXAMPLE_H_
