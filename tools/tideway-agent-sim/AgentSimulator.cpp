#include "AgentSimulator.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <chrono>
#include <sstream>

#include "comm/ChannelPacket.h"

namespace {

constexpr uint32_t kIdentityApiClient = 6;
constexpr uint32_t kIdentityAgent = 8;

std::string Hex(const uint8_t* data, uint32_t length, uint32_t limit = 64) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (uint32_t i = 0; i < length && i < limit; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 0xF];
    }
    if (length > limit)
        out += "...";
    return out;
}

// Text of a fixed field, up to its first NUL or its end.
// A message without data has no field at all.
std::string FieldText(const char* field, size_t size) {
    if (field == nullptr)
        return std::string();
    return std::string(field, strnlen(field, size));
}

std::string Quote(const std::string& text) {
    return "\"" + text + "\"";
}

bool ParseUnsigned(const std::string& text, unsigned long& out) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    out = strtoul(text.c_str(), &end, 0);
    return errno == 0 && end != nullptr && *end == '\0';
}

std::vector<std::string> Words(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    std::string word;
    while (stream >> word)
        words.push_back(word);
    return words;
}

// The rest of `line` after its first `count` words, leading blanks removed.
std::string Rest(const std::string& line, size_t count) {
    size_t pos = 0;
    for (size_t i = 0; i < count; ++i) {
        pos = line.find_first_not_of(" \t", pos);
        if (pos == std::string::npos)
            return "";
        pos = line.find_first_of(" \t", pos);
        if (pos == std::string::npos)
            return "";
    }
    pos = line.find_first_not_of(" \t", pos);
    return pos == std::string::npos ? "" : line.substr(pos);
}

std::vector<std::string> SplitTowers(const std::string& text) {
    std::vector<std::string> towers;
    std::string item;
    std::istringstream stream(text);
    while (std::getline(stream, item, ',')) {
        if (!item.empty())
            towers.push_back(item);
    }
    return towers;
}

// What the log shows of a received message's data.
std::string Describe(const MSG_QUEUE_MSG& m) {
    const uint32_t n = m.m_pData != nullptr ? m.m_DataLength : 0;
    std::ostringstream out;
    switch (m.m_MessageId) {
        case COMM_MSG_CHANGE_ACTIVE_TOWER:
            out << " tower=" << Quote(FieldText(reinterpret_cast<const char*>(m.m_pData), n));
            break;
        case COMM_MSG_DCT_SETTINGS_UPDATE:
            if (n >= sizeof(DCTSettings)) {
                DCTSettings s;
                memcpy(&s, m.m_pData, sizeof(s));
                out << " mode=" << s.nMode << " detect=" << s.nDetectClosest;
            } else if (n > 0) {
                out << " data=" << Hex(m.m_pData, n);
            }
            break;
        case COMM_MSG_PROXY_CRED_RESPONSE:
            if (n >= sizeof(ProxyCredInfo)) {
                ProxyCredInfo info;
                memcpy(&info, m.m_pData, sizeof(info));
                bool reservedZero = true;
                for (char c : info.szReserved)
                    reservedZero = reservedZero && c == 0;
                out << " user=" << Quote(FieldText(info.szUser, sizeof(info.szUser)))
                    << " password=" << Quote(FieldText(info.szPassword, sizeof(info.szPassword)))
                    << " reserved=" << (reservedZero ? "zero" : "nonzero");
            } else if (n > 0) {
                out << " data=" << Hex(m.m_pData, n);
            }
            break;
        case COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL:
            if (n >= 4) {
                uint32_t mask;
                memcpy(&mask, m.m_pData, sizeof(mask));
                char text[16];
                snprintf(text, sizeof(text), "0x%X", mask);
                out << " mask=" << text;
            }
            break;
        default:
            if (n > 0)
                out << " data=" << Hex(m.m_pData, n);
            break;
    }
    return out.str();
}

}  // namespace

const char* const CAgentSimulator::kControlHelp =
    "Control lines (one per line; the reply is one line starting with OK or ERR):\n"
    "  state <byte>                 send 1037 with the state byte (decimal or 0x..)\n"
    "  proxy [host port auth realm] send a proxy credential request 1049\n"
    "                               (defaults: 10.0.0.1 8080 Basic corp)\n"
    "  info <type> <text...>        send the info message 1061 \"<type>#<text>\"\n"
    "  activate <tower>             make <tower> active and send 1048 with its name\n"
    "  towers <a,b,c> [active]      replace the tower list (and the active tower)\n"
    "  stats-burst <n>              send <n> statistics messages 1059 at once\n"
    "  stats on [ms] | stats off    resume (with a new period) or pause the periodic 1059\n"
    "  send <id> [hex bytes]        send any message id with raw data\n"
    "  start-service                start the service: 1028 and state byte 0x01\n"
    "  stop-service                 stop the service: 1030 and state byte 0x02\n"
    "  fail-service                 the service failed to start: 1029\n"
    "  drop                         disconnect every client\n"
    "  clients                      number of connected clients\n"
    "  exit                         stop the simulator\n";

bool ParseServiceState(const std::string& text, SimServiceState& out) {
    if (text == "running") {
        out = SimServiceState::kRunning;
    } else if (text == "stopped") {
        out = SimServiceState::kStopped;
    } else if (text == "failed") {
        out = SimServiceState::kFailed;
    } else {
        return false;
    }
    return true;
}

CAgentSimulator::CAgentSimulator(const AgentSimOptions& options, LogSink log)
    : m_Port(options.port), m_LogSink(std::move(log)), m_Options(options) {}

CAgentSimulator::~CAgentSimulator() {
    Stop();
}

BR_STATUSCODE CAgentSimulator::Start() {
    BR_STATUSCODE status = 0;
    m_pServer.reset(CIPCFactory::CreateIPCServer(kIdentityAgent, this, status, m_Port));
    if (!m_pServer)
        return status != 0 ? status : IPC_STATUS_NO_RESOURCES;
    status = m_pServer->Listen();
    if (status != 0) {
        m_pServer.reset();
        return status;
    }
    {
        CMutexLock lock(m_Mutex);
        m_bStopping = false;
    }
    m_StatsThread = std::thread(&CAgentSimulator::StatsLoop, this);
    Log("LISTENING port=" + std::to_string(m_Port));
    return 0;
}

void CAgentSimulator::Stop() {
    {
        CMutexLock lock(m_Mutex);
        m_bStopping = true;
    }
    m_StatsWake.NotifyAll();
    if (m_StatsThread.joinable())
        m_StatsThread.join();
    if (m_pServer) {
        m_pServer->TearDown();
        m_pServer.reset();
    }
    CMutexLock lock(m_Mutex);
    m_Clients.clear();
    m_StatsOn.clear();
}

bool CAgentSimulator::ExitRequested() const {
    CMutexLock lock(m_Mutex);
    return m_bExit;
}

uint32_t CAgentSimulator::ClientCount() {
    CMutexLock lock(m_Mutex);
    return static_cast<uint32_t>(m_Clients.size());
}

void CAgentSimulator::Log(const std::string& line) {
    CMutexLock lock(m_LogMutex);
    if (m_LogSink)
        m_LogSink(line);
}

std::vector<uint16_t> CAgentSimulator::ApiSessions() {
    CMutexLock lock(m_Mutex);
    std::vector<uint16_t> sessions;
    for (const auto& client : m_Clients) {
        if (client.second == kIdentityApiClient)
            sessions.push_back(client.first);
    }
    return sessions;
}

bool CAgentSimulator::SendTo(uint16_t session, eCOMM_MESSAGE_ID id, const void* data,
                             uint32_t length) {
    MSG_QUEUE_MSG message(id, 0, 1, 0);
    if (length != 0 && message.SetData(data, length) != 0)
        return false;
    CWirePacket packet;
    if (!MakeWirePacket(&message, packet))
        return false;
    IIPCServer* server = m_pServer.get();
    const bool sent = server != nullptr && server->SendData(&packet.m_Buffer, session) == 0;
    if (id != COMM_MSG_SERVICE_STATS) {
        Log(std::string(sent ? "SEND" : "SEND-FAILED") + " session=" + std::to_string(session) +
            " " + GetMessageName(id) + " len=" + std::to_string(length) +
            (length != 0 ? " data=" + Hex(static_cast<const uint8_t*>(data), length) : ""));
    }
    return sent;
}

bool CAgentSimulator::SendByte(uint16_t session, eCOMM_MESSAGE_ID id, uint8_t value) {
    return SendTo(session, id, &value, 1);
}

int CAgentSimulator::Broadcast(eCOMM_MESSAGE_ID id, const void* data, uint32_t length) {
    int sent = 0;
    for (uint16_t session : ApiSessions())
        sent += SendTo(session, id, data, length) ? 1 : 0;
    return sent;
}

void CAgentSimulator::SendGreeting(uint16_t session) {
    CMutexLock serviceLock(m_ServiceSendMutex);
    SendGreetingLocked(session);
}

void CAgentSimulator::SendGreetingLocked(uint16_t session) {
    SimServiceState service;
    {
        CMutexLock lock(m_Mutex);
        service = m_Options.service;
    }
    switch (service) {
        case SimServiceState::kRunning:
            SendTo(session, COMM_MSG_SRVC_STARTED, nullptr, 0);
            break;
        case SimServiceState::kStopped:
            SendTo(session, COMM_MSG_SRVC_STOPPED, nullptr, 0);
            break;
        case SimServiceState::kFailed:
            SendTo(session, COMM_MSG_SRVC_START_FAILED, nullptr, 0);
            break;
    }
}

void CAgentSimulator::SetService(SimServiceState state) {
    CMutexLock serviceLock(m_ServiceSendMutex);
    {
        CMutexLock lock(m_Mutex);
        m_Options.service = state;
        if (state != SimServiceState::kRunning)
            m_StatsOn.clear();
    }
    for (uint16_t session : ApiSessions()) {
        SendGreetingLocked(session);
        if (state == SimServiceState::kRunning) {
            SendByte(session, COMM_MSG_ICON_APLUS_STATE, kSimStateFiltering);
        } else if (state == SimServiceState::kStopped) {
            SendByte(session, COMM_MSG_ICON_APLUS_STATE, kSimStateStopped);
        }
    }
}

std::string CAgentSimulator::TowerListText() {
    CMutexLock lock(m_Mutex);
    std::string text;
    for (size_t i = 0; i < m_Options.towers.size(); ++i) {
        if (i != 0)
            text += ",";
        text += m_Options.towers[i];
    }
    // The active tower rides on the last item, so that every tower is listed before it.
    if (!text.empty() && !m_Options.activeTower.empty())
        text += "&" + m_Options.activeTower;
    return text;
}

ServiceStatistics CAgentSimulator::NextStatistics() {
    CMutexLock lock(m_Mutex);
    const uint64_t tick = ++m_StatsTick;
    ServiceStatistics s;
    memset(&s, 0, sizeof(s));
    s.activeFilteredA = 3;
    s.activeBypassedA = 1;
    s.activeOtherA = 2;
    s.activeFilteredB = 4;
    s.activeBypassedB = 5;
    s.activeOtherB = 6;
    s.totalOtherA = tick;
    s.totalFilteredA = 100 * tick;
    s.totalBypassedA = 10 * tick;
    s.totalOtherB = 2 * tick;
    s.totalFilteredB = 200 * tick;
    s.totalBypassedB = 20 * tick;
    s.nDetectOnLan = 1;
    s.nOnLan = 0;
    s.nSelectionMode = m_Options.dctMode;
    s.nServiceStatus = m_Options.service == SimServiceState::kRunning ? 1 : 0;
    snprintf(s.szLastTowerSelect, sizeof(s.szLastTowerSelect), "%llu seconds ago",
             static_cast<unsigned long long>(tick));
    snprintf(s.szServiceEnabled, sizeof(s.szServiceEnabled), "2026-11-22 08:00:00");
    snprintf(s.szActiveTower, sizeof(s.szActiveTower), "%s", m_Options.activeTower.c_str());
    return s;
}

void CAgentSimulator::StatsLoop() {
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        std::vector<uint16_t> sessions;
        {
            CMutexLock lock(m_Mutex);
            if (m_bStopping)
                return;
            const int interval = m_Options.statsIntervalMs > 0 ? m_Options.statsIntervalMs : 1;
            next += std::chrono::milliseconds(interval);
            while (!m_bStopping && m_StatsWake.WaitUntil(m_Mutex, next)) {
            }
            if (m_bStopping)
                return;
        }
        CMutexLock sending(m_StatsSendMutex);
        {
            CMutexLock lock(m_Mutex);
            if (m_bStopping)
                return;
            for (const auto& entry : m_StatsOn) {
                if (entry.second && !m_bStatsPaused)
                    sessions.push_back(entry.first);
            }
            if (sessions.empty()) {
                next = std::chrono::steady_clock::now();
                continue;
            }
        }
        // Sent without m_Mutex, which is never held across a send.
        const ServiceStatistics stats = NextStatistics();
        for (uint16_t session : sessions) {
            SendTo(session, COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
        }
    }
}

void CAgentSimulator::OnPeerStateChanged(uint32_t peerIdentity, uint32_t session, uint32_t state) {
    const uint16_t id = static_cast<uint16_t>(session);
    if (state == IPC_PEER_CONNECTED) {
        {
            CMutexLock lock(m_Mutex);
            m_Clients[id] = peerIdentity;
        }
        Log("CONNECT session=" + std::to_string(id) + " identity=" + std::to_string(peerIdentity));
        if (peerIdentity == kIdentityApiClient)
            SendGreeting(id);
    } else if (state == IPC_PEER_CLOSED) {
        {
            CMutexLock lock(m_Mutex);
            m_Clients.erase(id);
            m_StatsOn.erase(id);
        }
        Log("DISCONNECT session=" + std::to_string(id) +
            " identity=" + std::to_string(peerIdentity));
    }
}

void CAgentSimulator::OnReqMsgRecv(IPCBuffer* buffer) {
    OnReqMsgRecvFrom(0, buffer);
}

void CAgentSimulator::OnRespMsgRecv(IPCBuffer*) {}

void CAgentSimulator::OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) {
    if (buffer == nullptr)
        return;
    MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
    if (!ParsePacket(buffer->m_pData, buffer->m_Length, message)) {
        Log("BAD session=" + std::to_string(session) + " len=" + std::to_string(buffer->m_Length));
        return;
    }
    Log("RECV session=" + std::to_string(session) + " " + GetMessageName(message.m_MessageId) +
        " len=" + std::to_string(message.m_DataLength) + Describe(message));
    Handle(session, message);
}

void CAgentSimulator::Handle(uint16_t session, const MSG_QUEUE_MSG& m) {
    const uint32_t n = m.m_pData != nullptr ? m.m_DataLength : 0;
    switch (m.m_MessageId) {
        case COMM_MSG_START_SERVICE:
        case COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC:
            SetService(SimServiceState::kRunning);
            break;
        case COMM_MSG_STOP_SERVICE:
        case COMM_MSG_CLIENT_TYPE_CMD_DISABLE_SVC:
            SetService(SimServiceState::kStopped);
            break;
        case COMM_MSG_DISCONNECT:
            SendByte(session, COMM_MSG_ICON_APLUS_STATE, kSimStateBypassed);
            break;
        case COMM_MSG_TOWERS_REQUEST_INFO: {
            const std::string text = TowerListText();
            SendTo(session, COMM_MSG_TOWERS_RESPONSE_INFO, text.data(),
                   static_cast<uint32_t>(text.size()));
            break;
        }
        case COMM_MSG_CHANGE_ACTIVE_TOWER: {
            const std::string name = FieldText(reinterpret_cast<const char*>(m.m_pData), n);
            bool known = false;
            {
                CMutexLock lock(m_Mutex);
                for (const std::string& tower : m_Options.towers) {
                    if (!name.empty() && strcasecmp(tower.c_str(), name.c_str()) == 0) {
                        m_Options.activeTower = tower;
                        known = true;
                    }
                }
            }
            SendByte(session, COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS, known ? 1 : 0);
            break;
        }
        case COMM_MSG_DCT_SETTINGS_REQUEST: {
            DCTSettings settings;
            {
                CMutexLock lock(m_Mutex);
                settings = {m_Options.dctMode, m_Options.dctDetectClosest, m_Options.dctGui};
            }
            SendTo(session, COMM_MSG_DCT_SETTINGS_RESPONSE, &settings, sizeof(settings));
            break;
        }
        case COMM_MSG_DCT_SETTINGS_UPDATE: {
            bool ok = n >= 8;
            if (ok) {
                DCTSettings settings{0, 0, 0};
                memcpy(&settings, m.m_pData, n < sizeof(settings) ? n : sizeof(settings));
                CMutexLock lock(m_Mutex);
                m_Options.dctMode = settings.nMode;
                m_Options.dctDetectClosest = settings.nDetectClosest;
            }
            SendByte(session, COMM_MSG_DCT_SETTINGS_UPDATED, ok ? 1 : 0);
            break;
        }
        case COMM_MSG_SERVICE_STATS_START: {
            bool ok;
            {
                CMutexLock lock(m_Mutex);
                ok = m_Options.statsStartOk;
                if (ok)
                    m_StatsOn[session] = true;
            }
            SendByte(session, COMM_MSG_SERVICE_STATS_START_RESULT, ok ? 1 : 0);
            m_StatsWake.NotifyAll();
            break;
        }
        case COMM_MSG_SERVICE_STATS_STOP: {
            {
                CMutexLock lock(m_Mutex);
                m_StatsOn.erase(session);
            }
            // Waits out a round of reports that chose this session before the stop, so that no
            // report follows the answer to anything the client asks after it.
            { CMutexLock sending(m_StatsSendMutex); }
            break;
        }
        default:
            // 1038, 1050, 1051, 1052, 1063 and anything unknown: logged above, no answer.
            break;
    }
}

std::string CAgentSimulator::Control(const std::string& line) {
    const std::vector<std::string> words = Words(line);
    if (words.empty())
        return "ERR empty line";
    const std::string& command = words[0];
    unsigned long value = 0;

    if (command == "state") {
        if (words.size() != 2 || !ParseUnsigned(words[1], value) || value > 0xFF) {
            return "ERR usage: state <byte>";
        }
        const uint8_t byte = static_cast<uint8_t>(value);
        return "OK sent=" + std::to_string(Broadcast(COMM_MSG_ICON_APLUS_STATE, &byte, 1));
    }
    if (command == "proxy") {
        ProxyCredRequest request;
        memset(&request, 0, sizeof(request));
        std::string host = "10.0.0.1", auth = "Basic", realm = "corp";
        unsigned long port = 8080;
        if (words.size() > 1)
            host = words[1];
        if (words.size() > 2 && (!ParseUnsigned(words[2], port) || port > 0xFFFFFFFFul)) {
            return "ERR usage: proxy [host port auth realm]";
        }
        if (words.size() > 3)
            auth = words[3];
        if (words.size() > 4)
            realm = Rest(line, 4);
        snprintf(request.szProxyHost, sizeof(request.szProxyHost), "%s", host.c_str());
        request.nProxyPort = static_cast<uint32_t>(port);
        snprintf(request.szAuthType, sizeof(request.szAuthType), "%s", auth.c_str());
        snprintf(request.szRealm, sizeof(request.szRealm), "%s", realm.c_str());
        return "OK sent=" +
               std::to_string(Broadcast(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request)));
    }
    if (command == "info") {
        if (words.size() < 2)
            return "ERR usage: info <type> <text>";
        const std::string text = words[1] + "#" + Rest(line, 2);
        // The terminator travels with the text: the client reads it with strlen.
        return "OK sent=" + std::to_string(Broadcast(COMM_MSG_INFO_MESSAGE, text.c_str(),
                                                     static_cast<uint32_t>(text.size() + 1)));
    }
    if (command == "activate") {
        if (words.size() != 2)
            return "ERR usage: activate <tower>";
        {
            CMutexLock lock(m_Mutex);
            m_Options.activeTower = words[1];
        }
        return "OK sent=" + std::to_string(Broadcast(COMM_MSG_DCT_TOWER_ACTIVATED, words[1].data(),
                                                     static_cast<uint32_t>(words[1].size())));
    }
    if (command == "towers") {
        if (words.size() < 2 || words.size() > 3)
            return "ERR usage: towers <a,b,c> [active]";
        CMutexLock lock(m_Mutex);
        m_Options.towers = SplitTowers(words[1]);
        if (words.size() == 3)
            m_Options.activeTower = words[2];
        return "OK towers=" + std::to_string(m_Options.towers.size());
    }
    if (command == "stats-burst") {
        if (words.size() != 2 || !ParseUnsigned(words[1], value)) {
            return "ERR usage: stats-burst <n>";
        }
        unsigned long sent = 0;
        for (unsigned long i = 0; i < value; ++i) {
            const ServiceStatistics stats = NextStatistics();
            sent += static_cast<unsigned long>(
                Broadcast(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats)));
        }
        return "OK sent=" + std::to_string(sent);
    }
    if (command == "stats") {
        const bool on = words.size() >= 2 && words[1] == "on";
        if (words.size() < 2 || (!on && words[1] != "off") || (!on && words.size() != 2) ||
            words.size() > 3 ||
            (words.size() == 3 &&
             (!ParseUnsigned(words[2], value) || value == 0 || value > 3600000))) {
            return "ERR usage: stats on [ms] | stats off";
        }
        {
            CMutexLock lock(m_Mutex);
            m_bStatsPaused = !on;
            if (words.size() == 3)
                m_Options.statsIntervalMs = static_cast<int>(value);
        }
        // Waits out a round of sends that chose its sessions before the pause.
        { CMutexLock sending(m_StatsSendMutex); }
        return on ? "OK stats=on" : "OK stats=off";
    }
    if (command == "send") {
        if (words.size() < 2 || words.size() > 3 || !ParseUnsigned(words[1], value) ||
            value > 0xFFFFFFFFul) {
            return "ERR usage: send <id> [hex bytes]";
        }
        std::vector<uint8_t> data;
        if (words.size() == 3) {
            const std::string& hex = words[2];
            if (hex.size() % 2 != 0)
                return "ERR odd number of hex digits";
            for (size_t i = 0; i < hex.size(); i += 2) {
                unsigned long byte = 0;
                if (!ParseUnsigned("0x" + hex.substr(i, 2), byte))
                    return "ERR bad hex digits";
                data.push_back(static_cast<uint8_t>(byte));
            }
        }
        return "OK sent=" +
               std::to_string(Broadcast(static_cast<eCOMM_MESSAGE_ID>(value), data.data(),
                                        static_cast<uint32_t>(data.size())));
    }
    if (command == "start-service") {
        SetService(SimServiceState::kRunning);
        return "OK service=running";
    }
    if (command == "stop-service") {
        SetService(SimServiceState::kStopped);
        return "OK service=stopped";
    }
    if (command == "fail-service") {
        SetService(SimServiceState::kFailed);
        return "OK service=failed";
    }
    if (command == "drop") {
        std::vector<uint16_t> sessions;
        {
            CMutexLock lock(m_Mutex);
            for (const auto& client : m_Clients)
                sessions.push_back(client.first);
        }
        int dropped = 0;
        for (uint16_t session : sessions) {
            if (m_pServer && m_pServer->DisconnectPeer(session) == 0)
                ++dropped;
        }
        return "OK dropped=" + std::to_string(dropped);
    }
    if (command == "clients")
        return "OK clients=" + std::to_string(ClientCount());
    if (command == "exit") {
        CMutexLock lock(m_Mutex);
        m_bExit = true;
        return "OK exiting";
    }
    if (command == "help")
        return "OK see --help";
    return "ERR unknown command: " + command;
}
