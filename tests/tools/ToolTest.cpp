// The qvipc tool, run as a subprocess as a person would run it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/IpcSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using Args = std::vector<std::string>;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// One run of the tool; its input, output and errors are files named after the test's guid.
class CTool {
public:
    CTool(const std::string& guid, Args args, const std::string& input = "") {
        static int runs = 0;
        m_base = "/tmp/" + guid + "-run" + std::to_string(++runs);
        std::ofstream(m_base + ".in") << input;
        args.insert(args.begin(), QVIPC_TOOL_PATH);
        if (qvtest::Emulator()[0] != '\0') args.insert(args.begin(), qvtest::Emulator());
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        const int fds[] = {open((m_base + ".in").c_str(), O_RDONLY | O_CLOEXEC),
                           open((m_base + ".out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600),
                           open((m_base + ".err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
        m_pid = fork();
        if (m_pid == 0) {
            for (int i = 0; i < 3; ++i) dup2(fds[i], i);
            execv(argv[0], argv.data());
            _exit(127);
        }
        for (int fd : fds) close(fd);
    }
    ~CTool() {
        if (m_status == -1 && m_pid > 0) kill(m_pid, SIGKILL);
        wait();
    }
    pid_t pid() const { return m_pid; }
    int wait() {  // the exit status, or 128 + the signal that ended it
        int status = 0;
        if (m_status == -1 && m_pid > 0 && waitpid(m_pid, &status, 0) == m_pid)
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return m_status;
    }
    std::string out() const { return ReadFile(m_base + ".out"); }
    std::string err() const { return ReadFile(m_base + ".err"); }
    // Until the output holds every one of texts. Generous: pings at full speed load the machine.
    bool waitForOut(const Args& texts) const {
        return qvtest::WaitFor(
            [&] {
                const std::string o = out();
                return std::all_of(texts.begin(), texts.end(),
                                   [&](const std::string& t) { return o.find(t) != o.npos; });
            },
            std::chrono::seconds(120));
    }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_base;
};

class ToolTest : public testing::Test {
protected:
    void TearDown() override { qvtest::RemoveGuidFiles(m_guid); }
    std::string Sweep(const char* opt = "--", const std::string& guid = "") {
        CTool tool(m_guid, {"sweep", "--guid", guid.empty() ? m_guid : guid, opt});
        EXPECT_EQ(0, tool.wait()) << tool.err();
        return tool.out();
    }
    const std::string m_guid = qvtest::TestGuid();
};

// The exit status and a text on stdout (status 0) or stderr; an error is one line.
TEST_F(ToolTest, CommandsThatAnswerAtOnce) {
    const std::string doc = "{ \"a\": 1, \"b\": [true, null, \"x;y\"],\n \"c\": {\"d\": 2.5e3} }\n";
    const std::string file = "/tmp/" + m_guid + ".json";
    std::ofstream(file) << doc;
    const auto Expect = [&](int status, const std::string& text, const Args& args,
                            const std::string& in = "") {
        SCOPED_TRACE(args.empty() ? "qvipc" : args[0] + " " + args.back());
        CTool tool(m_guid, args, in);
        EXPECT_EQ(status, tool.wait());
        const std::string got = status == 0 ? tool.out() : tool.err();
        EXPECT_NE(std::string::npos, got.find(text)) << got;
        EXPECT_TRUE(status == 1 || (status == 0 ? tool.err() : tool.out()).empty());
        EXPECT_TRUE(status == 0 || args.empty() || std::count(got.begin(), got.end(), '\n') == 1)
            << got;
    };
    Expect(0, "usage: qvipc <command>", {"--help"});
    Expect(0, "usage: qvipc json pretty", {"json", "get", "-h"});
    Expect(2, "usage: qvipc <command>", {});
    Expect(2, "qvipc: unknown command 'frob' (see qvipc --help)", {"frob"});
    Expect(2, "qvipc serve: --guid G is needed", {"serve"});
    Expect(2, "from 0 to 63, not '64'", {"serve", "--guid", "g", "--clients", "64"});
    Expect(2, "at most 3.1536e+07, not '0'", {"serve", "--guid", "g", "--dump-every", "0"});
    Expect(2, "qvipc ping: option '--guid' needs a value", {"ping", "--guid"});
    Expect(2, "from 1 to 100000000, not '-5'", {"ping", "--guid", "g", "--count", "-5"});
    Expect(2, "separated by commas, not '1,,2'", {"ping", "--guid", "g", "--size", "1,,2"});
    Expect(2, "qvipc ping: unexpected argument 'extra'", {"ping", "--guid", "g", "extra"});
    Expect(2, "qvipc sweep: unknown option '-x' (see --help)", {"sweep", "-x"});
    Expect(2, "qvipc sweep: option '--dry-run' takes no value", {"sweep", "--dry-run=yes"});
    Expect(2, "qvipc json: unknown verb 'frob'", {"json", "frob"});
    Expect(2, "qvipc json get: a PATH is needed", {"json", "get"});
    Expect(2, "qvipc params decode: exactly one TEXT is needed", {"params", "decode"});
    Expect(0, "\t\"b\":\n\t[\n\t\ttrue,null,\"x;y\"\n\t],\n\t\"c\":\n\t{\n", {"json", "pretty"},
           doc);
    Expect(0, "x;y\n", {"json", "get", "b.2", file});
    Expect(0, "{\"d\":2.5e3}\n", {"json", "get", "c", "-"}, doc);
    Expect(1, "qvipc json get: no value at 'a.5'", {"json", "get", "a.5"}, doc);
    Expect(0, "valid\n", {"json", "check", file});
    Expect(1, file + "-absent: No such file", {"json", "check", file + "-absent"});
    // Where a document breaks: line and column from 1 (counting characters), byte from 0.
    Expect(1, "qvipc json pretty: empty document", {"json", "pretty"}, "  \n");
    Expect(1, "not an object or an array (line 1, column 1, byte 0)", {"json", "check"}, "42");
    Expect(1, "ends before its closing bracket", {"json", "check"}, "{\"a\":1,");
    Expect(1, "(reading stopped at line 2, column 7, byte 11)", {"json", "check"},
           "[1,\n\t\"\xc3\xa9\", x]");
    Expect(1, "after the document (line 3, column 3, byte 6)", {"json", "check"}, "{}\n\n  x");
    Expect(0,
           "header: GetStatus\nresult: 0x80004005\nparameters: 4\n0: 10 \"0x80004005\"\n1: 6 "
           "\"a;b\\n\\\"c\"\n2: 1 \"T\"\n3: 0 \"\"\n",
           {"params", "decode", "GetStatus;10;0x80004005;6;a;b\n\"c;1;T;0;"});
    Expect(0, "header: (none)\nresult: (none)\nparameters: 1\n0: 3 \"abc\"\n",
           {"params", "decode", "3;abc"});
    Expect(1, "qvipc params decode: malformed parameter text", {"params", "decode", "Cmd;-4;ab"});
    Expect(1, "qvipc ping: no connection within 0.5 s",
           {"ping", "--guid", m_guid, "--connect-timeout", "0.5"});
    EXPECT_EQ("0 to remove, 0 kept\n", Sweep("--dry-run"));
}

// Per-connection FIFOs go with their process; an admin FIFO with its holders and clients.
TEST_F(ToolTest, SweepRemovesOnlyFifosOfProcessesThatAreGone) {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
    const std::string base = "/tmp/" + m_guid, dead = std::to_string(child);
    const std::string live = std::to_string(getpid()), admin = base + "-svr-admin";
    const Args stale = {base + "-cli-rsp--7-p" + dead, base + "-svr-req-3-p" + dead};
    const Args kept = {base + "-cli-req-4-p" + live, base + "-svr-req-4-p" + live, admin};
    for (const Args& paths : {stale, kept})
        for (const std::string& path : paths) ASSERT_EQ(0, mkfifo(path.c_str(), 0666)) << path;
    std::ofstream(base + "-svr-rsp-3-p" + dead) << "x";  // not a FIFO: not the sweep's business
    EXPECT_EQ("would remove " + stale[0] + "\nwould remove " + stale[1] + "\n2 to remove, 3 kept\n",
              Sweep("--dry-run"));
    std::string upper = m_guid;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ("removed " + stale[0] + "\nremoved " + stale[1] + "\n2 removed, 3 kept\n",
              Sweep("--", upper));
    for (const std::string& path : kept) EXPECT_EQ(0, access(path.c_str(), F_OK)) << path;
    EXPECT_EQ(0, access((base + "-svr-rsp-3-p" + dead).c_str(), F_OK));
    for (int i : {0, 1}) unlink(kept[i].c_str());
    const int fd = open(admin.c_str(), O_RDWR | O_NONBLOCK);
    EXPECT_EQ("0 removed, 1 kept\n", Sweep());
    close(fd);
    EXPECT_EQ("removed " + admin + "\n1 removed, 0 kept\n", Sweep());
}

TEST_F(ToolTest, ServeEchoesPingAcrossProcesses) {
    const std::string log = "/tmp/" + m_guid + ".log";
    CTool serve(m_guid, {"serve", "--guid", m_guid, "--ext-size", "48", "--clients", "4", "--log",
                         log, "--trace"});
    ASSERT_TRUE(serve.waitForOut({"serving " + m_guid + "\n"})) << serve.err();
    CTool second(m_guid, {"serve", "--guid", m_guid});
    EXPECT_EQ(1, second.wait());
    EXPECT_EQ(0u,
              second.err().find("qvipc serve: the service " + m_guid + " already has a server"));
    CTool ping(m_guid, {"ping", "--guid", m_guid, "--count", "40", "--clients", "3", "--size",
                        "0,5,4096,70000", "--ext-size", "48", "--connect-timeout", "120"});
    ASSERT_EQ(0, ping.wait()) << ping.err();
    EXPECT_EQ(0u, ping.out().find("round trips: 120 (3 clients), failures: 0\nlatency (us): p50 "))
        << ping.out();
    const std::string pid = std::to_string(ping.pid());
    Args events;
    for (const std::string slot : {"1", "2", "3"})
        events.insert(events.end(),
                      {"connected " + slot + " pid " + pid + "\n", "disconnected " + slot + "\n"});
    EXPECT_TRUE(serve.waitForOut(events)) << serve.out();
    kill(serve.pid(), SIGUSR1);
    EXPECT_TRUE(serve.waitForOut({"\t\"guid\":\"" + m_guid + "\",\n"})) << serve.out();
    kill(serve.pid(), SIGINT);
    EXPECT_EQ(0, serve.wait());
    EXPECT_EQ("", serve.err());
    EXPECT_EQ(serve.out().find("\"guid\""), serve.out().rfind("\"guid\"")) << serve.out();
    EXPECT_EQ("0 to remove, 0 kept\n", Sweep("--dry-run"));
    EXPECT_EQ(0u, ReadFile(log).find("CQVIPCLibraryImpl::CQVIPCLibraryImpl (0x"));
}

// A server restarted under two pings: breaks and lost requests are counted; --strict fails.
TEST_F(ToolTest, PingRidesThroughAServerRestart) {
    const Args serveArgs = {"serve", "--guid", m_guid, "--push", "3"};
    Args echoed;  // every client has taken up its connection
    for (const std::string slot : {"1", "2", "3"})
        echoed.push_back("push " + slot + ": 3 sent, 3 echoed, 0 bad, 0 missing\n");
    CTool serve(m_guid, serveArgs);
    ASSERT_TRUE(serve.waitForOut({"serving " + m_guid + "\n"})) << serve.err();
    Args ping = {"ping", "--guid",    m_guid, "--count", "100000000", "--json", "--connect-timeout",
                 "120",  "--clients", "2"};
    CTool two(m_guid, ping);
    ping.back() = "1";
    ping.push_back("--strict");
    CTool strict(m_guid, ping);
    ASSERT_TRUE(serve.waitForOut(echoed)) << serve.out();
    kill(serve.pid(), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, serve.wait());
    CTool again(m_guid, serveArgs);
    ASSERT_TRUE(again.waitForOut(echoed)) << again.out();
    kill(two.pid(), SIGINT);
    kill(strict.pid(), SIGINT);
    EXPECT_EQ(0, two.wait()) << two.err();
    EXPECT_EQ(1, strict.wait());
    EXPECT_EQ("qvipc ping: requests lost to connection breaks: 1\n", strict.err());
    EXPECT_NE(std::string::npos, two.out().find(R"("breaks":2,"lost":2,)")) << two.out();
    EXPECT_NE(std::string::npos, strict.out().find(R"("breaks":1,"lost":1,)")) << strict.out();
    kill(again.pid(), SIGTERM);
    EXPECT_EQ(0, again.wait());
}

// A server in this process that answers every request with its bytes flipped.
TEST_F(ToolTest, PingFailsWhenAResponseDiffers) {
    const auto server = qvtest::MakeServer(m_guid, 4, 0);
    ASSERT_EQ(S_OK, server->initialize());
    std::thread echo([&] {
        for (qvtest::Received r; (r = qvtest::ReceiveRequest(*server, 0)).hr != QVIPC_E_SHUTDOWN;)
            if (r.hr == S_OK) qvtest::AnswerFlipped(*server, r);
    });
    CTool ping(m_guid, {"ping", "--guid", m_guid, "--count", "3", "--size", "10"});
    EXPECT_EQ(1, ping.wait());
    server->finalize();
    echo.join();
    EXPECT_EQ("qvipc ping: a response differs from its request\n", ping.err());
    EXPECT_EQ(0u, ping.out().find("round trips: 0 (1 clients), failures: 3\n")) << ping.out();
}

}  // namespace
