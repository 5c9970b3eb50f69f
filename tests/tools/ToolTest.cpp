// The qvipc tool, run as a subprocess exactly as a person would run it: its errors for bad
// arguments, the json and params subcommands, sweep against real FIFOs of live and dead
// processes, and serve and ping as two processes talking over the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/support/TestSupport.h"

namespace {

using std::chrono::seconds;

// One run of the tool with its stdout and stderr collected by reader threads.
class CTool {
public:
    explicit CTool(const std::vector<std::string>& args, const std::string& input = "") {
        std::vector<std::string> argv;
        if (qvtest::Emulator()[0] != '\0') argv.push_back(qvtest::Emulator());
        argv.push_back(QVIPC_TOOL_PATH);
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargv;
        for (std::string& a : argv) cargv.push_back(&a[0]);
        cargv.push_back(nullptr);

        int in[2], out[2], err[2];
        if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(err[1], 2);
            for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
            execv(cargv[0], cargv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        close(err[1]);
        m_outReader = std::thread(&CTool::readAll, this, out[0], &m_out);
        m_errReader = std::thread(&CTool::readAll, this, err[0], &m_err);
        if (!input.empty() && write(in[1], input.data(), input.size()) < 0) ADD_FAILURE();
        close(in[1]);
    }
    CTool(const CTool&) = delete;
    CTool& operator=(const CTool&) = delete;
    ~CTool() {
        if (m_status == -1 && m_pid > 0) {
            kill(m_pid, SIGKILL);
            wait();
        }
    }

    pid_t pid() const { return m_pid; }
    // Waits for the exit; the exit status, or 128 + the signal.
    int wait() {
        if (m_status != -1) return m_status;
        int status = 0;
        if (m_pid > 0) waitpid(m_pid, &status, 0);
        if (m_outReader.joinable()) m_outReader.join();
        if (m_errReader.joinable()) m_errReader.join();
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return m_status;
    }
    std::string out() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_out;
    }
    std::string err() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_err;
    }
    bool waitForOut(const std::string& text, std::chrono::milliseconds deadline = seconds(30)) {
        return qvtest::WaitFor([&] { return out().find(text) != std::string::npos; }, deadline);
    }

private:
    void readAll(int fd, std::string* into) {
        char buf[4096];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
            if (n <= 0) continue;
            std::lock_guard<std::mutex> lock(m_mutex);
            into->append(buf, static_cast<size_t>(n));
        }
        close(fd);
    }

    pid_t m_pid = -1;
    int m_status = -1;
    std::mutex m_mutex;
    std::string m_out, m_err;
    std::thread m_outReader, m_errReader;
};

struct CResult {
    int status;
    std::string out, err;
};

CResult RunTool(const std::vector<std::string>& args, const std::string& input = "") {
    CTool tool(args, input);
    const int status = tool.wait();
    return {status, tool.out(), tool.err()};
}

bool IsFifo(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
}

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Waits until the server's trace log shows an echo sent to each slot: then the clients have
// taken up their connections, and their deaths are seen by the server. Under a pinging client
// the log grows by megabytes a second, faster than a sanitized build rereads it, so it is read
// once, as it grows.
bool WaitForEchoes(const std::string& log, const std::vector<int>& slots) {
    std::ifstream in(log, std::ios::binary);
    std::vector<int> missing = slots;
    std::string part;  // the unfinished last line
    return qvtest::WaitFor(
        [&] {
            char buf[65536];
            in.clear();
            while (!missing.empty() && (in.read(buf, sizeof buf), in.gcount() > 0)) {
                part.append(buf, static_cast<size_t>(in.gcount()));
                size_t from = 0;
                for (size_t eol; (eol = part.find('\n', from)) != std::string::npos;
                     from = eol + 1) {
                    const std::string line = part.substr(from, eol - from);
                    if (line.find("CQVIPCLibraryImpl::sendResponse (0x") == std::string::npos) {
                        continue;
                    }
                    missing.erase(
                        std::remove_if(missing.begin(), missing.end(),
                                       [&](int slot) {
                                           return line.find(", ipcid " + std::to_string(slot) +
                                                            ", buf ") != std::string::npos;
                                       }),
                        missing.end());
                }
                part.erase(0, from);
            }
            return missing.empty();
        },
        seconds(30));
}

// A process id that was in use a moment ago and is gone now.
pid_t DeadPid() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
}

class ToolTest : public testing::Test {
protected:
    void SetUp() override { m_guid = qvtest::TestGuid(); }
    void TearDown() override { qvtest::RemoveGuidFiles(m_guid); }

    std::string m_guid;
};

TEST_F(ToolTest, EveryCommandHasHelp) {
    const std::vector<std::vector<std::string>> helps = {
        {"--help"},         {"serve", "--help"},  {"ping", "--help"},   {"sweep", "--help"},
        {"json", "--help"}, {"params", "--help"}, {"json", "get", "-h"}};
    for (const auto& args : helps) {
        SCOPED_TRACE(args[0]);
        const CResult r = RunTool(args);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(0u, r.out.find("usage: qvipc"));
        EXPECT_EQ("", r.err);
    }
}

TEST_F(ToolTest, BadArgumentsGiveOneLineErrorAndStatus2) {
    struct Case {
        std::vector<std::string> args;
        const char* err;
    };
    const Case cases[] = {
        {{}, nullptr},
        {{"frob"}, "qvipc: unknown command 'frob' (see qvipc --help)\n"},
        {{"serve"}, "qvipc serve: --guid G is needed\n"},
        {{"serve", "--guid", "g", "--clients", "64"},
         "qvipc serve: --clients must be a whole number from 0 to 63, not '64'\n"},
        {{"serve", "--guid", "g", "--ext-size", "49"},
         "qvipc serve: --ext-size must be a whole number from 0 to 48, not '49'\n"},
        {{"serve", "--guid", "g", "--trace"}, "qvipc serve: --trace needs --log FILE\n"},
        {{"serve", "--guid", "g", "--dump-every", "0"},
         "qvipc serve: --dump-every must be a number of seconds above 0 and at most "
         "3.1536e+07, not '0'\n"},
        {{"ping", "--guid"}, "qvipc ping: option '--guid' needs a value\n"},
        {{"ping", "--guid", "g", "--count", "-5"},
         "qvipc ping: --count must be a whole number from 1 to 100000000, not '-5'\n"},
        {{"ping", "--guid", "g", "--size", "1,,2"},
         "qvipc ping: --size must be sizes in bytes from 0 to 67108864, separated by "
         "commas, not '1,,2'\n"},
        {{"ping", "--guid", "g", "extra"}, "qvipc ping: unexpected argument 'extra'\n"},
        {{"sweep", "--bogus"}, "qvipc sweep: unknown option '--bogus' (see --help)\n"},
        {{"sweep", "--dry-run=yes"}, "qvipc sweep: option '--dry-run' takes no value\n"},
        {{"json"}, "qvipc json: a verb is needed: pretty, get or check\n"},
        {{"json", "frob"}, "qvipc json: unknown verb 'frob' (see --help)\n"},
        {{"json", "get"}, "qvipc json get: a PATH is needed\n"},
        {{"json", "check", "a", "b"}, "qvipc json check: unexpected argument 'b'\n"},
        {{"params", "decode"}, "qvipc params decode: exactly one TEXT is needed\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "(none)" : c.args[0] + " ...");
        const CResult r = RunTool(c.args);
        EXPECT_EQ(2, r.status);
        EXPECT_EQ("", r.out);
        if (c.err != nullptr) {
            EXPECT_EQ(c.err, r.err);
        } else {
            EXPECT_EQ(0u, r.err.find("usage: qvipc"));
        }
    }
}

TEST_F(ToolTest, JsonSubcommandsOnAGoodDocument) {
    const std::string doc = "{ \"a\": 1, \"b\": [true, null, \"x;y\"],\n \"c\": {\"d\": 2.5e3} }\n";
    const CResult pretty = RunTool({"json", "pretty"}, doc);
    EXPECT_EQ(0, pretty.status);
    EXPECT_EQ(
        "{\n\t\"a\":1,\n\t\"b\":\n\t[\n\t\ttrue,null,\"x;y\"\n\t],\n\t\"c\":\n\t{\n\t\t"
        "\"d\":2.5e3\n\t}\n}\n",
        pretty.out);
    struct Get {
        const char* path;
        const char* out;
    };
    const Get gets[] = {{"a", "1\n"},
                        {"b.2", "x;y\n"},
                        {"b.0", "true\n"},
                        {"b.1", "null\n"},
                        {"c.d", "2.5e3\n"},
                        {"c", "{\"d\":2.5e3}\n"},
                        {"b", "[true,null,\"x;y\"]\n"}};
    for (const Get& g : gets) {
        SCOPED_TRACE(g.path);
        const CResult r = RunTool({"json", "get", g.path}, doc);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(g.out, r.out);
    }
    const CResult check = RunTool({"json", "check", "-"}, doc);
    EXPECT_EQ(0, check.status);
    EXPECT_EQ("valid\n", check.out);

    // The same from a file.
    const std::string path = "/tmp/" + m_guid + ".json";
    std::ofstream(path) << doc;
    const CResult fromFile = RunTool({"json", "get", "b.2", path});
    EXPECT_EQ(0, fromFile.status);
    EXPECT_EQ("x;y\n", fromFile.out);
    unlink(path.c_str());
}

TEST_F(ToolTest, JsonSubcommandsOnBrokenDocuments) {
    struct Case {
        const char* doc;
        const char* err;
    };
    const Case cases[] = {
        {"", "empty document"},
        {"  \n", "empty document"},
        {"42", "the document is not an object or an array (line 1, column 1, byte 0)"},
        {"{\"a\":}", "not valid JSON (reading stopped at line 1, column 6, byte 5)"},
        {"{\"a\":1,", "the document ends before its closing bracket"},
        {"{\"a\":[1,2]", "not valid JSON (reading stopped at line 1, column 11, byte 10)"},
        {"{\"a\":\"}\"", "not valid JSON (reading stopped at line 1, column 9, byte 8)"},
        {"{\"a\":[1,2]}}", "unexpected data after the document (line 1, column 12, byte 11)"},
        {"{\"a\":1} {", "unexpected data after the document (line 1, column 9, byte 8)"},
        // Columns count characters: the two-byte letter and the tab are one column each.
        {"[1,\n\t\"\xc3\xa9\", x]",
         "not valid JSON (reading stopped at line 2, column 7, byte 11)"},
        {"{}\n\n  x", "unexpected data after the document (line 3, column 3, byte 6)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.doc);
        for (const char* verb : {"check", "pretty"}) {
            const CResult r = RunTool({"json", verb}, c.doc);
            EXPECT_EQ(1, r.status);
            EXPECT_EQ("", r.out);
            EXPECT_EQ(std::string("qvipc json ") + verb + ": " + c.err + "\n", r.err);
        }
    }
    const CResult missing = RunTool({"json", "get", "a.5"}, "{\"a\":[1]}");
    EXPECT_EQ(1, missing.status);
    EXPECT_EQ("qvipc json get: no value at 'a.5'\n", missing.err);
    const CResult noFile = RunTool({"json", "check", "/tmp/" + m_guid + "-absent.json"});
    EXPECT_EQ(1, noFile.status);
    EXPECT_EQ("qvipc json check: cannot open /tmp/" + m_guid +
                  "-absent.json: No such file or directory\n",
              noFile.err);
}

TEST_F(ToolTest, ParamsDecodeShowsHeaderResultAndValues) {
    const CResult r = RunTool({"params", "decode", "GetStatus;10;0x80004005;6;a;b\n\"c;1;T;0;"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(
        "header: GetStatus\nresult: 0x80004005\nparameters: 4\n0: 10 \"0x80004005\"\n"
        "1: 6 \"a;b\\n\\\"c\"\n2: 1 \"T\"\n3: 0 \"\"\n",
        r.out);
    const CResult noCode = RunTool({"params", "decode", "3;abc"});
    EXPECT_EQ(0, noCode.status);
    EXPECT_EQ("header: (none)\nresult: (none)\nparameters: 1\n0: 3 \"abc\"\n", noCode.out);
    const CResult bad = RunTool({"params", "decode", "Cmd;-4;ab"});
    EXPECT_EQ(1, bad.status);
    EXPECT_EQ("qvipc params decode: malformed parameter text\n", bad.err);
}

TEST_F(ToolTest, SweepRemovesOnlyFifosOfProcessesThatAreGone) {
    const std::string dead = std::to_string(DeadPid());
    const std::string live = std::to_string(getpid());
    const std::string base = "/tmp/" + m_guid;
    const std::vector<std::string> stale = {base + "-svr-req-3-p" + dead,
                                            base + "-cli-rsp--7-p" + dead};
    const std::vector<std::string> kept = {base + "-svr-req-4-p" + live,
                                           base + "-cli-req-4-p" + live, base + "-svr-admin"};
    for (const auto& path : stale) ASSERT_EQ(0, mkfifo(path.c_str(), 0666)) << path;
    for (const auto& path : kept) ASSERT_EQ(0, mkfifo(path.c_str(), 0666)) << path;
    // A plain file under a FIFO's name is not the sweep's business.
    const std::string plain = base + "-svr-rsp-3-p" + dead;
    std::ofstream(plain) << "x";

    const CResult dry = RunTool({"sweep", "--guid", m_guid, "--dry-run"});
    EXPECT_EQ(0, dry.status);
    EXPECT_EQ("would remove " + stale[1] + "\nwould remove " + stale[0] + "\n2 to remove, 3 kept\n",
              dry.out);
    for (const auto& path : stale) EXPECT_TRUE(IsFifo(path)) << path;

    // The guid is matched as the library spells it, in lower case.
    std::string upper = m_guid;
    for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    const CResult swept = RunTool({"sweep", "--guid", upper});
    EXPECT_EQ(0, swept.status);
    EXPECT_EQ("removed " + stale[1] + "\nremoved " + stale[0] + "\n2 removed, 3 kept\n", swept.out);
    for (const auto& path : stale) EXPECT_FALSE(Exists(path)) << path;
    for (const auto& path : kept) EXPECT_TRUE(IsFifo(path)) << path;
    EXPECT_TRUE(Exists(plain));
}

TEST_F(ToolTest, SweepKeepsAnAdminFifoThatIsHeldOpen) {
    const std::string admin = "/tmp/" + m_guid + "-svr-admin";
    ASSERT_EQ(0, mkfifo(admin.c_str(), 0666));
    const int fd = open(admin.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    const CResult held = RunTool({"sweep", "--guid", m_guid});
    EXPECT_EQ("0 removed, 1 kept\n", held.out);
    EXPECT_TRUE(IsFifo(admin));
    close(fd);
    // With no holder and no live client, the service's rendezvous is stale too.
    const CResult unheld = RunTool({"sweep", "--guid", m_guid});
    EXPECT_EQ("removed " + admin + "\n1 removed, 0 kept\n", unheld.out);
    EXPECT_FALSE(Exists(admin));
}

// The clients of one ping process connect in turn; every connected line names that process.
TEST_F(ToolTest, ServeEchoesPingAcrossProcesses) {
    CTool serve({"serve", "--guid", m_guid, "--ext-size", "8", "--clients", "4"});
    ASSERT_TRUE(serve.waitForOut("serving " + m_guid + "\n")) << serve.err();

    CTool ping({"ping", "--guid", m_guid, "--count", "40", "--clients", "3", "--size",
                "0,5,4096,70000", "--ext-size", "8"});
    ASSERT_EQ(0, ping.wait()) << ping.err();
    const std::string out = ping.out();
    EXPECT_EQ(0u, out.find("round trips: 120 (3 clients), failures: 0\nlatency (us): p50 ")) << out;
    EXPECT_NE(std::string::npos, out.find(" MB/s\n"));
    EXPECT_EQ("", ping.err());

    const std::string pid = std::to_string(ping.pid());
    for (const char* slot : {"1", "2", "3"}) {
        EXPECT_TRUE(serve.waitForOut(std::string("connected ") + slot + " pid " + pid + "\n"))
            << serve.out();
        EXPECT_TRUE(serve.waitForOut(std::string("disconnected ") + slot + "\n")) << serve.out();
    }
    kill(serve.pid(), SIGTERM);
    EXPECT_EQ(0, serve.wait()) << serve.err();
    EXPECT_EQ("", serve.err());
    // The clients removed their FIFOs, the server its admin FIFO.
    const CResult left = RunTool({"sweep", "--guid", m_guid, "--dry-run"});
    EXPECT_EQ("0 to remove, 0 kept\n", left.out);
}

TEST_F(ToolTest, ServePushesRequestsThatPingEchoes) {
    CTool serve({"serve", "--guid", m_guid, "--push", "25", "--ext-size", "48"});
    ASSERT_TRUE(serve.waitForOut("serving " + m_guid + "\n")) << serve.err();
    const CResult ping =
        RunTool({"ping", "--guid", m_guid, "--count", "3", "--ext-size", "48", "--json"});
    EXPECT_EQ(0, ping.status) << ping.err;
    EXPECT_EQ(0u, ping.out.find("{\"clients\":1,\"round-trips\":3,\"failures\":0,\"latency-us\":"
                                "{\"p50\":"))
        << ping.out;
    EXPECT_EQ(1u, std::count(ping.out.begin(), ping.out.end(), '\n'));
    EXPECT_TRUE(serve.waitForOut("push 1: 25 sent, 25 echoed, 0 bad, 0 missing\n")) << serve.out();

    // A second server on the same service is refused while the first holds its admin FIFO.
    const CResult second = RunTool({"serve", "--guid", m_guid});
    EXPECT_EQ(1, second.status);
    EXPECT_EQ("qvipc serve: the service " + m_guid + " already has a server (/tmp/" + m_guid +
                  "-svr-admin is held open)\n",
              second.err);

    kill(serve.pid(), SIGUSR1);
    EXPECT_TRUE(serve.waitForOut("\t\"guid\":\"" + m_guid + "\",\n")) << serve.out();
    kill(serve.pid(), SIGINT);
    EXPECT_EQ(0, serve.wait());
}

// A killed client leaves its FIFOs; once the server has dropped it, sweep takes exactly those
// and keeps the admin FIFO that the live server holds open.
TEST_F(ToolTest, SweepRemovesTheFifosOfAKilledClient) {
    const std::string log = "/tmp/" + m_guid + ".log";
    CTool serve({"serve", "--guid", m_guid, "--log", log, "--trace"});
    ASSERT_TRUE(serve.waitForOut("serving " + m_guid + "\n")) << serve.err();
    {
        CTool ping({"ping", "--guid", m_guid, "--clients", "2", "--count", "100000000"});
        ASSERT_TRUE(WaitForEchoes(log, {1, 2})) << serve.out();
        kill(ping.pid(), SIGKILL);
        EXPECT_EQ(128 + SIGKILL, ping.wait());
    }
    ASSERT_TRUE(serve.waitForOut("disconnected 1\n")) << serve.out();
    ASSERT_TRUE(serve.waitForOut("disconnected 2\n")) << serve.out();
    const CResult swept = RunTool({"sweep", "--guid", m_guid});
    EXPECT_EQ(0, swept.status);
    EXPECT_EQ(8, std::count(swept.out.begin(), swept.out.end(), '\n') - 1) << swept.out;
    EXPECT_NE(std::string::npos, swept.out.find("\n8 removed, 1 kept\n")) << swept.out;
    EXPECT_TRUE(IsFifo("/tmp/" + m_guid + "-svr-admin"));

    kill(serve.pid(), SIGTERM);
    EXPECT_EQ(0, serve.wait());
    EXPECT_FALSE(Exists("/tmp/" + m_guid + "-svr-admin"));
    unlink(log.c_str());
}

// A server killed under load that does not come back: ping gives up once the connect time-out
// has passed since the break, and the dead server's admin FIFO is swept.
TEST_F(ToolTest, PingFailsWhenTheServerIsKilled) {
    const std::string log = "/tmp/" + m_guid + ".log";
    CTool serve({"serve", "--guid", m_guid, "--log", log, "--trace", "--dump-every", "0.2"});
    ASSERT_TRUE(serve.waitForOut("serving " + m_guid + "\n")) << serve.err();
    CTool ping({"ping", "--guid", m_guid, "--count", "100000000", "--connect-timeout", "3"});
    ASSERT_TRUE(WaitForEchoes(log, {1})) << serve.out();
    // The timed dump shows the client's connection.
    EXPECT_TRUE(serve.waitForOut("-svr-req-")) << serve.out();
    kill(serve.pid(), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, serve.wait());
    EXPECT_EQ(1, ping.wait());
    EXPECT_EQ("qvipc ping: no reconnection within 3 s of a break (is 'qvipc serve --guid " +
                  m_guid + "' running?)\n",
              ping.err());
    EXPECT_NE(std::string::npos, ping.out().find("\nbreaks: 1, lost: 1\n")) << ping.out();

    const CResult swept = RunTool({"sweep", "--guid", m_guid});
    EXPECT_EQ("removed /tmp/" + m_guid + "-svr-admin\n1 removed, 0 kept\n", swept.out);
    // --trace added the library's trace lines to the log.
    std::ifstream in(log);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(0u, text.find("CQVIPCLibraryImpl::CQVIPCLibraryImpl (0x")) << text.substr(0, 200);
    unlink(log.c_str());
}

// A server killed and restarted in the middle of two pings: every client counts one break and
// the one request that the break cut off, reconnects and goes on; only --strict fails for it.
TEST_F(ToolTest, PingRidesThroughAServerRestart) {
    // The echo of one pushed request shows that a client has taken up its connection.
    const std::vector<std::string> serveArgs = {"serve", "--guid", m_guid, "--push", "1"};
    const auto allEchoed = [](CTool& serve) {
        for (const char* slot : {"1", "2", "3"}) {
            if (!serve.waitForOut(std::string("push ") + slot + ": 1 sent, 1 echoed, 0 bad")) {
                return false;
            }
        }
        return true;
    };
    std::unique_ptr<CTool> serve(new CTool(serveArgs));
    ASSERT_TRUE(serve->waitForOut("serving " + m_guid + "\n")) << serve->err();
    const std::vector<std::string> pingArgs = {
        "ping", "--guid", m_guid, "--count", "100000000", "--json", "--connect-timeout", "60"};
    std::vector<std::string> twoArgs = pingArgs, strictArgs = pingArgs;
    twoArgs.insert(twoArgs.end(), {"--clients", "2"});
    strictArgs.push_back("--strict");
    CTool ping(twoArgs), strict(strictArgs);
    // Killed while every client is connected and pinging, with no connect in flight.
    ASSERT_TRUE(allEchoed(*serve)) << serve->out();
    kill(serve->pid(), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, serve->wait());
    serve.reset(new CTool(serveArgs));
    ASSERT_TRUE(serve->waitForOut("serving " + m_guid + "\n")) << serve->err();
    ASSERT_TRUE(allEchoed(*serve)) << serve->out();

    kill(ping.pid(), SIGINT);
    kill(strict.pid(), SIGINT);
    EXPECT_EQ(0, ping.wait()) << ping.err();
    EXPECT_EQ("", ping.err());
    EXPECT_TRUE(std::regex_match(
        ping.out(), std::regex(R"(\{"clients":2,"round-trips":\d+,"failures":0,.*)"
                               R"("breaks":2,"lost":2,"reconnect-ms":\[\d+,\d+\]\}\n)")))
        << ping.out();
    EXPECT_EQ(1, strict.wait());
    EXPECT_EQ("qvipc ping: requests lost to connection breaks: 1\n", strict.err());
    EXPECT_TRUE(std::regex_match(strict.out(),
                                 std::regex(R"(\{"clients":1,"round-trips":\d+,"failures":0,.*)"
                                            R"("breaks":1,"lost":1,"reconnect-ms":\[\d+\]\}\n)")))
        << strict.out();
    kill(serve->pid(), SIGTERM);
    EXPECT_EQ(0, serve->wait());
}

// A server in this process that answers every request with its first byte changed.
TEST_F(ToolTest, PingFailsWhenAResponseDiffers) {
    CQVIPCLibrary server("corrupting echo", m_guid, 1, 4, 0, QVIPC_NO_TIMEOUT);
    ASSERT_EQ(S_OK, server.initialize());
    std::thread echo([&server] {
        for (;;) {
            unsigned long slot = 0, id = 0, len = 0;
            char* body = nullptr;
            int type = 0;
            const QVRESULT rc = server.receiveRequest(&slot, &id, &body, &len, &type, nullptr);
            std::unique_ptr<char[]> owned(body);
            if (rc == QVIPC_E_SHUTDOWN) return;
            if (rc != S_OK) continue;
            if (len != 0) body[0] = static_cast<char>(body[0] ^ 1);
            server.sendResponse(slot, id, body, len, nullptr);
        }
    });
    const CResult r = RunTool({"ping", "--guid", m_guid, "--count", "3", "--size", "10"});
    server.finalize();
    echo.join();
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvipc ping: a response differs from its request\n", r.err);
    EXPECT_EQ(0u, r.out.find("round trips: 0 (1 clients), failures: 3\n")) << r.out;
}

TEST_F(ToolTest, PingFailsWhenNoServerAnswers) {
    const CResult r = RunTool({"ping", "--guid", m_guid, "--connect-timeout", "0.5"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvipc ping: no connection within 0.5 s (is 'qvipc serve --guid " + m_guid +
                  "' running?)\n",
              r.err);
    EXPECT_EQ(0u, r.out.find("round trips: 0 (1 clients), failures: 100\n")) << r.out;
    // What the clients made, their own FIFOs and the admin FIFO, is gone again.
    const CResult left = RunTool({"sweep", "--guid", m_guid, "--dry-run"});
    EXPECT_EQ("0 to remove, 0 kept\n", left.out);
}

}  // namespace
