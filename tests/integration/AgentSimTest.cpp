// The agent simulator against a scripted client over the real channel: every request pair, the
// greeting by service state, the statistics stream, the control lines, and the daemon binary.
#include "AgentSimulator.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "ScriptedClient.h"
#include "ipc/IPCTesting.h"

namespace {

using std::chrono::milliseconds;

class TempRoot {
  public:
    TempRoot() {
        char pattern[] = "/tmp/tideway-sim-XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
        ipc::SetSocketRootForTesting(path_);
    }
    ~TempRoot() {
        ipc::SetSocketRootForTesting("");
        if (!path_.empty()) {
            const std::string command = "rm -rf '" + path_ + "'";
            if (system(command.c_str()) != 0)
                ADD_FAILURE() << "cannot remove " << path_;
        }
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Collects the simulator's log lines.
class LogLines {
  public:
    CAgentSimulator::LogSink Sink() {
        return [this](const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        };
    }
    bool Has(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& l : lines_) {
            if (l == line)
                return true;
        }
        return false;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

uint8_t Byte(const ReceivedMessage& m) {
    return m.data.empty() ? 0xEE : m.data[0];
}

TEST(AgentSimulator, AnswersEveryRequestPairAndLogsWhatItReceived) {
    TempRoot root;
    LogLines log;
    AgentSimOptions options;
    options.statsIntervalMs = 10;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);

    ScriptedClient client;
    ASSERT_TRUE(client.Connect(options.port));
    ReceivedMessage m;
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_STARTED);
    EXPECT_TRUE(m.data.empty());

    // Tower list, with the active tower behind "&" on the last item.
    ASSERT_TRUE(client.Send(COMM_MSG_TOWERS_REQUEST_INFO));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_TOWERS_RESPONSE_INFO);
    EXPECT_EQ(m.Text(), "west-1,west-2,east-1&west-2");

    // Tower change: known name (any case) succeeds; empty and unknown names fail.
    ASSERT_TRUE(client.Send(COMM_MSG_CHANGE_ACTIVE_TOWER, "EAST-1", 6));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS);
    EXPECT_EQ(Byte(m), 1);
    ASSERT_TRUE(client.Send(COMM_MSG_CHANGE_ACTIVE_TOWER));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(Byte(m), 0);
    ASSERT_TRUE(client.Send(COMM_MSG_CHANGE_ACTIVE_TOWER, "nowhere", 7));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(Byte(m), 0);
    ASSERT_TRUE(client.Send(COMM_MSG_TOWERS_REQUEST_INFO));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.Text(), "west-1,west-2,east-1&east-1");

    // DCT settings: the update is taken and reported back, the GUI field kept.
    ASSERT_TRUE(client.Send(COMM_MSG_DCT_SETTINGS_REQUEST));
    ASSERT_TRUE(client.Next(m));
    ASSERT_EQ(m.id, COMM_MSG_DCT_SETTINGS_RESPONSE);
    ASSERT_EQ(m.data.size(), sizeof(DCTSettings));
    DCTSettings settings;
    memcpy(&settings, m.data.data(), sizeof(settings));
    EXPECT_EQ(settings.nMode, 0u);
    EXPECT_EQ(settings.nDetectClosest, 0u);
    EXPECT_EQ(settings.nGUI, 1u);
    const DCTSettings update{2, 1, 0};
    ASSERT_TRUE(client.Send(COMM_MSG_DCT_SETTINGS_UPDATE, &update, sizeof(update)));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_DCT_SETTINGS_UPDATED);
    EXPECT_EQ(Byte(m), 1);
    ASSERT_TRUE(client.Send(COMM_MSG_DCT_SETTINGS_REQUEST));
    ASSERT_TRUE(client.Next(m));
    memcpy(&settings, m.data.data(), sizeof(settings));
    EXPECT_EQ(settings.nMode, 2u);
    EXPECT_EQ(settings.nDetectClosest, 1u);
    EXPECT_EQ(settings.nGUI, 1u);

    // Statistics: 1058 then a stream of whole records until 1060.
    ASSERT_TRUE(client.Send(COMM_MSG_SERVICE_STATS_START));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SERVICE_STATS_START_RESULT);
    EXPECT_EQ(Byte(m), 1);
    uint64_t lastTotal = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(client.Next(m));
        ASSERT_EQ(m.id, COMM_MSG_SERVICE_STATS);
        ASSERT_EQ(m.data.size(), sizeof(ServiceStatistics));
        ServiceStatistics stats;
        memcpy(&stats, m.data.data(), sizeof(stats));
        EXPECT_GT(stats.totalFilteredA, lastTotal);
        lastTotal = stats.totalFilteredA;
        EXPECT_STREQ(stats.szActiveTower, "east-1");
        EXPECT_EQ(stats.nSelectionMode, 2u);
    }
    ASSERT_TRUE(client.Send(COMM_MSG_SERVICE_STATS_STOP));
    // The marker's answer comes after the stop was handled; nothing follows it.
    ASSERT_TRUE(client.Send(COMM_MSG_DCT_SETTINGS_REQUEST));
    ASSERT_TRUE(client.NextWithId(COMM_MSG_DCT_SETTINGS_RESPONSE, m));
    EXPECT_FALSE(client.Next(m, milliseconds(150))) << "message " << m.id << " after the stop";

    // Service control and disconnect: their effect shows in 1030/1028 and the state byte.
    ASSERT_TRUE(client.Send(COMM_MSG_STOP_SERVICE));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_STOPPED);
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(Byte(m), kSimStateStopped);
    ASSERT_TRUE(client.Send(COMM_MSG_START_SERVICE));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_STARTED);
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(Byte(m), kSimStateFiltering);
    ASSERT_TRUE(client.Send(COMM_MSG_DISCONNECT));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(Byte(m), kSimStateBypassed);

    // What the client sent is in the log, decoded.
    ProxyCredInfo info;
    memset(&info, 0, sizeof(info));
    memset(info.szUser, 'u', sizeof(info.szUser));  // a full field has no terminator
    strcpy(info.szPassword, "secret");
    ASSERT_TRUE(client.Send(COMM_MSG_PROXY_CRED_RESPONSE, &info, sizeof(info)));
    ASSERT_TRUE(client.Send(COMM_MSG_DCT_SETTINGS_REQUEST));  // marker
    ASSERT_TRUE(client.NextWithId(COMM_MSG_DCT_SETTINGS_RESPONSE, m));
    EXPECT_TRUE(log.Has("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower=\"EAST-1\""));
    EXPECT_TRUE(log.Has("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=0 tower=\"\""));
    EXPECT_TRUE(log.Has("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=2 detect=1"));
    EXPECT_TRUE(log.Has("RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE len=400 user=\"" +
                        std::string(100, 'u') + "\" password=\"secret\" reserved=zero"));
    EXPECT_TRUE(log.Has("CONNECT session=1 identity=6"));
    sim.Stop();
}

TEST(AgentSimulator, ControlLinesReachTheClient) {
    TempRoot root;
    LogLines log;
    AgentSimOptions options;
    options.service = SimServiceState::kStopped;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);
    EXPECT_EQ(sim.Control("state 1"), "OK sent=0");  // nobody connected yet

    ScriptedClient client;
    ASSERT_TRUE(client.Connect(options.port));
    ReceivedMessage m;
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_STOPPED);

    EXPECT_EQ(sim.Control("state 0x48"), "OK sent=1");
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(m.data, std::vector<uint8_t>{0x48});

    EXPECT_EQ(sim.Control("proxy 192.168.1.10 3128 Basic Corporate proxy"), "OK sent=1");
    ASSERT_TRUE(client.Next(m));
    ASSERT_EQ(m.id, COMM_MSG_PROXY_CRED_REQUEST);
    ASSERT_EQ(m.data.size(), sizeof(ProxyCredRequest));
    ProxyCredRequest request;
    memcpy(&request, m.data.data(), sizeof(request));
    EXPECT_STREQ(request.szProxyHost, "192.168.1.10");
    EXPECT_EQ(request.nProxyPort, 3128u);
    EXPECT_STREQ(request.szAuthType, "Basic");
    EXPECT_STREQ(request.szRealm, "Corporate proxy");

    EXPECT_EQ(sim.Control("info 12 tower  west-1 is down"), "OK sent=1");
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_INFO_MESSAGE);
    EXPECT_EQ(m.Text(), std::string("12#tower  west-1 is down") + '\0');

    EXPECT_EQ(sim.Control("activate east-1"), "OK sent=1");
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_DCT_TOWER_ACTIVATED);
    EXPECT_EQ(m.Text(), "east-1");

    EXPECT_EQ(sim.Control("send 1041 612C62"), "OK sent=1");
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_TOWERS_RESPONSE_INFO);
    EXPECT_EQ(m.Text(), "a,b");

    EXPECT_EQ(sim.Control("start-service"), "OK service=running");
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_STARTED);
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(sim.Control("fail-service"), "OK service=failed");
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_START_FAILED);

    EXPECT_EQ(sim.Control("stats-burst 5"), "OK sent=5");
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(client.Next(m));
        EXPECT_EQ(m.id, COMM_MSG_SERVICE_STATS);
        EXPECT_EQ(m.data.size(), sizeof(ServiceStatistics));
    }

    // Bad lines are refused with a reason and change nothing.
    EXPECT_EQ(sim.Control("state 256").rfind("ERR", 0), 0u);
    EXPECT_EQ(sim.Control("send 1041 ABC").rfind("ERR", 0), 0u);
    EXPECT_EQ(sim.Control("send 1041 ZZ").rfind("ERR", 0), 0u);
    EXPECT_EQ(sim.Control("bogus").rfind("ERR", 0), 0u);
    EXPECT_EQ(sim.Control(""), "ERR empty line");
    EXPECT_EQ(client.Pending(), 0u);

    EXPECT_EQ(sim.Control("clients"), "OK clients=1");
    EXPECT_EQ(sim.Control("drop"), "OK dropped=1");
    EXPECT_TRUE(client.WaitDisconnected());
    EXPECT_FALSE(sim.ExitRequested());
    EXPECT_EQ(sim.Control("exit"), "OK exiting");
    EXPECT_TRUE(sim.ExitRequested());
    sim.Stop();
}

// Reads the file until a line equal to `line` shows up.
bool WaitForLine(const std::string& path, const std::string& line, milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream in(path);
        std::string l;
        while (std::getline(in, l)) {
            if (l == line)
                return true;
        }
        std::this_thread::sleep_for(milliseconds(20));
    }
    return false;
}

TEST(AgentSimulator, DaemonTakesControlLinesOnStdinAndExits) {
    TempRoot root;
    const std::string logPath = root.path() + "/sim.log";
    int toChild[2], fromChild[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(fromChild), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(toChild[0], STDIN_FILENO);
        dup2(fromChild[1], STDOUT_FILENO);
        close(toChild[1]);
        close(fromChild[0]);
        execl(TIDEWAY_AGENT_SIM_PATH, "tideway-agent-sim", "--root", root.path().c_str(), "--port",
              "6001", "--log", logPath.c_str(), "--service", "failed", nullptr);
        _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    ASSERT_TRUE(WaitForLine(logPath, "LISTENING port=6001", std::chrono::seconds(10)));

    ScriptedClient client;
    ASSERT_TRUE(client.Connect(6001));
    ReceivedMessage m;
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_SRVC_START_FAILED);

    const std::string lines = "state 8\nexit\n";
    ASSERT_EQ(write(toChild[1], lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    ASSERT_TRUE(client.Next(m));
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(m.data, std::vector<uint8_t>{8});

    // The daemon ends on "exit"; its replies came on stdout.
    int status = -1;
    for (int i = 0; i < 500 && waitpid(pid, &status, WNOHANG) == 0; ++i) {
        std::this_thread::sleep_for(milliseconds(20));
    }
    if (!WIFEXITED(status))
        kill(pid, SIGKILL), waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string replies;
    char chunk[256];
    ssize_t n;
    while ((n = read(fromChild[0], chunk, sizeof(chunk))) > 0)
        replies.append(chunk, n);
    EXPECT_EQ(replies, "OK sent=1\nOK exiting\n");
    EXPECT_TRUE(client.WaitDisconnected());
    close(toChild[1]);
    close(fromChild[0]);
    EXPECT_TRUE(WaitForLine(logPath, "CONNECT session=1 identity=6", milliseconds(100)));
}

}  // namespace
