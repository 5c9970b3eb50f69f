// The trace utility and the line sink: what reaches a callback or a log file, and when not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "platform/QVLog.h"
#include "platform/TraceUtility.h"
#include "tests/support/TestSupport.h"

namespace {

using Line = std::tuple<int, int, int, std::string>;  // kind, trace class, priority, text

void Capture(void* lines, int kind, int traceClass, int priority, const char* text) {
    static_cast<std::vector<Line>*>(lines)->emplace_back(kind, traceClass, priority, text);
}

// The utility is shared and counted; lines are written while it exists and a sink or file is set.
TEST(TraceTest, LinesReachTheSinkAndTheLogFileWhileTheUtilityLives) {
    std::vector<Line> lines;
    QVSetLogCallback(&Capture, &lines);
    qvTrace("no utility");
    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 0);
    CreateCTraceUtility(nullptr, "xprt", "ipc ", "Transport", 0, nullptr, 0, 0);  // counted only
    DestroyCTraceUtility(&g_ptu);
    const std::string big(5000, 'x');
    qvTrace("CQVIPCLibraryImpl::initialize (0x%08X)", 0x1234ABCDu);
    qvLogError("(Error) can't mknod fifo %s, errno %d", "/tmp/x", 17);
    qvLogNotice("<%s>", big.c_str());
    qvTrace("%s", "");
    QVSetLogCallback(nullptr, nullptr);
    qvTrace("no sink");
    const std::string path = "/tmp/" + qvtest::TestGuid() + ".log";
    ASSERT_EQ(0, QVSetLogFile(path.c_str(), 0));
    qvTrace("trace dropped");
    qvLogError("(Error) kept %d", 1);
    ASSERT_EQ(0, QVSetLogFile(path.c_str(), 1));
    qvTrace("trace kept");
    ASSERT_EQ(0, QVSetLogFile(nullptr, 0));
    qvLogNotice("after close");
    QVSetLogCallback(&Capture, &lines);
    DestroyCTraceUtility(&g_ptu);
    EXPECT_EQ(nullptr, g_ptu);
    qvLogError("(Error) no utility");
    QVSetLogCallback(nullptr, nullptr);
    EXPECT_EQ(
        (std::vector<Line>{{QV_LINE_TRACE, 16, 2, "CQVIPCLibraryImpl::initialize (0x1234ABCD)"},
                           {QV_LINE_LOG, 0, 64, "(Error) can't mknod fifo /tmp/x, errno 17"},
                           {QV_LINE_LOG, 0, 2, "<" + big + ">"},
                           {QV_LINE_TRACE, 16, 2, ""}}),
        lines);
    std::ifstream in(path);
    EXPECT_EQ("(Error) kept 1\ntrace kept\n", std::string(std::istreambuf_iterator<char>(in), {}));
    unlink(path.c_str());
    EXPECT_EQ(-1, QVSetLogFile("/nonexistent-dir/x.log", 1));
}

}  // namespace
