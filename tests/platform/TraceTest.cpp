#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "platform/QVLog.h"
#include "platform/TraceUtility.h"
#include "tests/support/TestSupport.h"

namespace {

struct Line {
    int kind;
    int traceClass;
    int priority;
    std::string text;
    bool operator==(const Line& o) const {
        return kind == o.kind && traceClass == o.traceClass && priority == o.priority &&
               text == o.text;
    }
};

std::ostream& operator<<(std::ostream& os, const Line& l) {
    return os << l.kind << "/" << l.traceClass << "/" << l.priority << " \"" << l.text << "\"";
}

struct Capture {
    std::mutex mutex;
    std::vector<Line> lines;
    static void callback(void* ctx, int kind, int traceClass, int priority, const char* text) {
        Capture* self = static_cast<Capture*>(ctx);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.push_back(Line{kind, traceClass, priority, text});
    }
};

class TraceTest : public testing::Test {
protected:
    void SetUp() override { QVSetLogCallback(&Capture::callback, &capture_); }
    void TearDown() override {
        QVSetLogCallback(nullptr, nullptr);
        while (g_ptu != nullptr) DestroyCTraceUtility(&g_ptu);
    }
    Capture capture_;
};

TEST_F(TraceTest, TransportLinesCarryClassPriorityAndExactText) {
    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    qvTrace("CQVIPCLibraryImpl::initialize (0x%08X)", 0x1234ABCDu);
    qvLogError("(Error) CQVIPCLibraryImpl::initialize, can't mknod fifo %s, errno %d", "/tmp/x",
               17);
    qvLogNotice("--dumpIPC \"%s\" - \"%s\"", "reconn", "title");
    const std::vector<Line> expected = {
        {QV_LINE_TRACE, 16, 2, "CQVIPCLibraryImpl::initialize (0x1234ABCD)"},
        {QV_LINE_LOG, 0, 64,
         "(Error) CQVIPCLibraryImpl::initialize, can't mknod fifo /tmp/x, errno 17"},
        {QV_LINE_LOG, 0, 2, "--dumpIPC \"reconn\" - \"title\""},
    };
    EXPECT_EQ(expected, capture_.lines);
}

TEST_F(TraceTest, NothingIsWrittenWithoutTraceUtilityOrSink) {
    qvTrace("no utility %d", 1);
    qvLogError("(Error) no utility");
    EXPECT_TRUE(capture_.lines.empty());

    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    QVSetLogCallback(nullptr, nullptr);
    qvTrace("no sink");
    QVSetLogCallback(&Capture::callback, &capture_);
    qvTrace("sink again");
    ASSERT_EQ(1u, capture_.lines.size());
    EXPECT_EQ("sink again", capture_.lines[0].text);
}

TEST_F(TraceTest, UtilityIsSharedAndLivesUntilTheLastEndpointReleasesIt) {
    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    CTraceUtility* first = g_ptu;
    ASSERT_NE(nullptr, first);
    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    EXPECT_EQ(first, g_ptu);
    DestroyCTraceUtility(&g_ptu);
    EXPECT_EQ(first, g_ptu);
    qvTrace("still here");
    DestroyCTraceUtility(&g_ptu);
    EXPECT_EQ(nullptr, g_ptu);
    qvTrace("gone");
    ASSERT_EQ(1u, capture_.lines.size());
    EXPECT_EQ("still here", capture_.lines[0].text);
}

TEST_F(TraceTest, LongLinesArriveWhole) {
    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    const std::string big(5000, 'x');
    qvTrace("<%s>", big.c_str());
    ASSERT_EQ(1u, capture_.lines.size());
    EXPECT_EQ("<" + big + ">", capture_.lines[0].text);
}

TEST_F(TraceTest, LogFileTakesLinesAndTraceOnlyWhenAsked) {
    const std::string path = "/tmp/" + qvtest::TestGuid() + ".log";
    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    ASSERT_EQ(0, QVSetLogFile(path.c_str(), 0));
    qvTrace("trace dropped");
    qvLogError("(Error) kept %d", 1);
    ASSERT_EQ(0, QVSetLogFile(path.c_str(), 1));
    qvTrace("trace kept");
    ASSERT_EQ(0, QVSetLogFile(nullptr, 0));
    qvLogNotice("after close");

    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_EQ("(Error) kept 1\ntrace kept\n", content.str());
    unlink(path.c_str());
    EXPECT_EQ(-1, QVSetLogFile("/nonexistent-dir/x.log", 1));
}

}  // namespace
