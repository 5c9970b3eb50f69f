// Frames that one read() takes come out one per call and in order; a frame torn by its writer
// after good ones still breaks the connection, whether the writer died or lives on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>
#include <string>

#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "tests/support/IpcSupport.h"

namespace {

constexpr unsigned long SLOT = 2;

class ReadAheadTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, pipe(fds_));
        impl_.m_fdsRecvResponse[SLOT] = fds_[0];
    }
    void TearDown() override {
        impl_.m_fdsRecvResponse[SLOT] = -1;
        close(fds_[0]);
        if (fds_[1] != -1) close(fds_[1]);
        qvtest::RemoveGuidFiles(guid_);
    }

    // A data response with request id id and a body of len bytes, each the id's low byte.
    static std::string frame(uint32_t id, uint32_t len) {
        return qvtest::ResponseBytes(qvframe::TYPE_DATA, id, 0, len) +
               std::string(len, static_cast<char>(id));
    }
    void send(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fds_[1], bytes.data(), bytes.size()));
    }
    QVRESULT receive(unsigned long* pId, std::string* pBody) {
        char* buf = nullptr;
        unsigned long len = 0;
        *pId = 0;
        const QVRESULT hr = impl_.receiveResponseOnClientPipe(SLOT, 0, pId, &buf, &len, nullptr);
        pBody->assign(buf != nullptr ? buf : "", len);
        delete[] buf;
        return hr;
    }

    std::string guid_ = qvtest::TestGuid();
    CQVIPCLibraryImpl impl_{"t", guid_, 1, 4, 0, 0xFFFFFFFFul};
    int fds_[2] = {-1, -1};
};

TEST_F(ReadAheadTest, FramesOfOneReadComeOutInOrderWhereverTheBufferCutsThem) {
    // Header and body edges fall on every side of 4 KiB boundaries; one body outgrows the buffer.
    std::string burst;
    for (uint32_t id = 1; id <= 120; ++id) burst += frame(id, id == 60 ? 9000 : id * 37 % 300);
    send(burst);
    for (uint32_t id = 1; id <= 120; ++id) {
        unsigned long got = 0;
        std::string body;
        ASSERT_EQ(S_OK, receive(&got, &body));
        EXPECT_EQ(id, got);
        EXPECT_EQ(std::string(id == 60 ? 9000 : id * 37 % 300, static_cast<char>(id)), body);
    }
}

struct CutOff {
    size_t kept;  // bytes of the third frame (68-byte header, 100-byte body) written
    bool writerCloses;
    QVRESULT result;
};

// Printed by its fields: the bytes of the struct include padding that nothing wrote.
void PrintTo(const CutOff& c, std::ostream* os) {
    *os << c.kept << (c.writerCloses ? "/closed" : "");
}

class ReadAheadCutOffTest : public ReadAheadTest, public testing::WithParamInterface<CutOff> {};

TEST_P(ReadAheadCutOffTest, AFrameCutOffByItsWriterAfterGoodOnesStillBreaks) {
    send(frame(1, 5) + frame(2, 0) + frame(3, 100).substr(0, GetParam().kept));
    if (GetParam().writerCloses) {
        close(fds_[1]);
        fds_[1] = -1;
    }
    unsigned long id = 0;
    std::string body;
    EXPECT_EQ(S_OK, receive(&id, &body));
    EXPECT_EQ(S_OK, receive(&id, &body));
    EXPECT_EQ(2u, id);
    EXPECT_EQ(GetParam().result, receive(&id, &body));
    EXPECT_EQ("", body);
}

INSTANTIATE_TEST_SUITE_P(Cuts, ReadAheadCutOffTest,
                         testing::Values(CutOff{0, true, QVIPC_E_DISCONNECTED},
                                         CutOff{30, true, QVIPC_E_READ},
                                         CutOff{30, false, QVIPC_E_READ},
                                         CutOff{68 + 40, true, QVIPC_E_READ}));

}  // namespace
