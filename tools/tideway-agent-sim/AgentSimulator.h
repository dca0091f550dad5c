// An agent simulator: the server side of the IPC channel speaking the service agent's half of the
// conversation, for integration tests, benchmarks and demonstrations.
//
// It answers every request with its pair (1040/1041, 1042/1043, 1044/1045, 1046/1047,
// 1057/1058 then 1059 at a set rate until 1060), greets each client with 1028, or 1029/1030 when
// its service is not running, starts and stops its service on 1026/1027 (and on the command
// clients' 1055/1056), and takes control lines that make it send a state byte, a proxy request,
// an info text and the like. Every event and every message it receives is written to its log as
// one line, so a test can assert what a client sent.
//
// Thread model: IPC callbacks run on the server's I/O thread, statistics on the simulator's own
// thread, control lines on the caller's thread; m_Mutex guards the simulated state and is never
// held across a send. The log sink is called under m_LogMutex, one line at a time.
#ifndef TIDEWAY_TOOLS_AGENTSIMULATOR_H_
#define TIDEWAY_TOOLS_AGENTSIMULATOR_H_

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comm/MsgQueueMsg.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"
#include "ipc/IPCServer.h"

enum class SimServiceState { kRunning, kStopped, kFailed };

// State bytes the simulator reports in 1037 when its service or tunnel changes.
constexpr uint8_t kSimStateFiltering = 0x01;  // service running, traffic through the towers
constexpr uint8_t kSimStateStopped = 0x02;    // service stopped
constexpr uint8_t kSimStateBypassed = 0x04;   // disconnected from the towers on request

struct AgentSimOptions {
    uint16_t port = 5003;
    std::vector<std::string> towers{"west-1", "west-2", "east-1"};
    std::string activeTower = "west-2";
    SimServiceState service = SimServiceState::kRunning;
    uint32_t dctMode = 0;
    uint32_t dctDetectClosest = 0;
    uint32_t dctGui = 1;
    int statsIntervalMs = 1000;  // period of 1059 after a successful 1058
    bool statsStartOk = true;    // answer 1057 with success
};

class CAgentSimulator final : private IIPCServerCallback {
  public:
    using LogSink = std::function<void(const std::string& line)>;

    CAgentSimulator(const AgentSimOptions& options, LogSink log);
    ~CAgentSimulator();
    CAgentSimulator(const CAgentSimulator&) = delete;
    CAgentSimulator& operator=(const CAgentSimulator&) = delete;

    // Listens on the port's socket; 0 or the IPC library's status.
    BR_STATUSCODE Start();
    // Stops the statistics and the server; no callback runs afterwards. Harmless twice.
    void Stop();

    // Runs one control line and returns the reply: "OK ..." or "ERR ...". See kControlHelp.
    std::string Control(const std::string& line);
    // True once a control line asked the simulator to exit.
    bool ExitRequested() const;

    // Sends one message to every connected client of identity 6; returns how many got it.
    int Broadcast(eCOMM_MESSAGE_ID id, const void* data, uint32_t length);
    uint32_t ClientCount();

    static const char* const kControlHelp;

  private:
    // IIPCServerCallback
    void OnPeerStateChanged(uint32_t peerIdentity, uint32_t session, uint32_t state) override;
    void OnReqMsgRecv(IPCBuffer* buffer) override;
    void OnRespMsgRecv(IPCBuffer* buffer) override;
    void OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) override;

    void Handle(uint16_t session, const MSG_QUEUE_MSG& message);
    bool SendTo(uint16_t session, eCOMM_MESSAGE_ID id, const void* data, uint32_t length);
    bool SendByte(uint16_t session, eCOMM_MESSAGE_ID id, uint8_t value);
    void SetService(SimServiceState state) EXCLUDES(m_ServiceSendMutex);
    void SendGreeting(uint16_t session) EXCLUDES(m_ServiceSendMutex);
    void SendGreetingLocked(uint16_t session) REQUIRES(m_ServiceSendMutex);
    std::string TowerListText();
    ServiceStatistics NextStatistics();
    void StatsLoop();
    void Log(const std::string& line);
    std::vector<uint16_t> ApiSessions();

    const uint16_t m_Port;  // the options' port, which never changes: read without the lock
    CMutex m_LogMutex;
    LogSink m_LogSink GUARDED_BY(m_LogMutex);

    mutable CMutex m_Mutex;
    AgentSimOptions m_Options GUARDED_BY(m_Mutex);  // towers, active tower, service, DCT state
    std::map<uint16_t, uint32_t> m_Clients GUARDED_BY(m_Mutex);  // session -> identity
    std::map<uint16_t, bool> m_StatsOn GUARDED_BY(m_Mutex);  // sessions that asked for statistics
    uint64_t m_StatsTick GUARDED_BY(m_Mutex) = 0;
    bool m_bStatsPaused GUARDED_BY(m_Mutex) = false;  // "stats off": no periodic 1059
    // Held by the statistics thread from choosing the sessions to the end of their sends, so
    // that "stats off" returns only when no periodic 1059 is still on its way. Taken before
    // m_Mutex, never inside it.
    CMutex m_StatsSendMutex;
    // Held from reading the service state to the end of the messages that report it (a new
    // client's greeting, or a change to every client), so that a client never gets an old state
    // after a newer one. Taken before m_Mutex, never inside it.
    CMutex m_ServiceSendMutex;
    bool m_bExit GUARDED_BY(m_Mutex) = false;
    bool m_bStopping GUARDED_BY(m_Mutex) = false;
    CCondition m_StatsWake;  // wakes the statistics thread: stopping, or a session asked
    std::thread m_StatsThread;

    std::unique_ptr<IIPCServer> m_pServer;
};

// Parses "running", "stopped" or "failed".
bool ParseServiceState(const std::string& text, SimServiceState& out);

#endif  // TIDEWAY_TOOLS_AGENTSIMULATOR_H_
