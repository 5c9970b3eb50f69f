# Cuts the C++ example under "## Using the API" out of README.md into ReadmeExample.cpp: the lines
# before "// Server" are its includes, the server half up to "// Client" becomes readme::Server,
# the rest readme::Client, which returns its last result (rc). The service name "my-service"
# becomes the test's guid. Run with -DREADME=<README.md> -DOUT=<file.cpp>.
file(READ "${README}" text)
string(FIND "${text}" "## Using the API" at)
if(at EQUAL -1)
    message(FATAL_ERROR "${README}: no \"## Using the API\" section")
endif()
string(SUBSTRING "${text}" ${at} -1 text)
string(FIND "${text}" "```cpp\n" at)
string(FIND "${text}" "// Server" server)
string(FIND "${text}" "// Client" client)
if(at EQUAL -1 OR server EQUAL -1 OR client EQUAL -1)
    message(FATAL_ERROR "${README}: the API example lacks its C++ block or a half")
endif()
math(EXPR at "${at} + 7")
string(SUBSTRING "${text}" ${client} -1 rest)
string(FIND "${rest}" "```" end)
math(EXPR includesLength "${server} - ${at}")
math(EXPR serverLength "${client} - ${server}")
string(SUBSTRING "${text}" ${at} ${includesLength} includes)
string(SUBSTRING "${text}" ${server} ${serverLength} serverHalf)
string(SUBSTRING "${rest}" 0 ${end} clientHalf)
string(REPLACE "\"my-service\"" "guid" serverHalf "${serverHalf}")
string(REPLACE "\"my-service\"" "guid" clientHalf "${clientHalf}")
file(WRITE "${OUT}" "// Generated from README.md by ReadmeExample.cmake; edit README.md instead.
#include \"tests/integration/ReadmeExample.h\"

${includes}
namespace readme {

void Server(const std::string& guid) {
${serverHalf}}

QVRESULT Client(const std::string& guid) {
${clientHalf}    return rc;
}

}  // namespace readme
")
