// Plays the module against an agent: sends messages and queues what arrives (under m_Mutex).
#ifndef TIDEWAY_TESTS_SUPPORT_SCRIPTEDCLIENT_H_
#define TIDEWAY_TESTS_SUPPORT_SCRIPTEDCLIENT_H_

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "comm/ChannelPacket.h"
#include "comm/MsgQueueMsg.h"
#include "ipc/IPCClient.h"

struct ReceivedMessage {
    uint32_t id = 0;  // 0: nothing arrived in time
    std::vector<uint8_t> data;
    std::string Text() const { return std::string(data.begin(), data.end()); }
};

class ScriptedClient : private IIPCCallback {
  public:
    ScriptedClient() {
        BR_STATUSCODE status = 0;
        m_pClient.reset(CIPCFactory::CreateIPCClient(6, this, status, 0));
    }
    ~ScriptedClient() { m_pClient->TearDown(); }

    bool Connect(uint16_t port) {
        return m_pClient->ConnectAsync(8, 0, 5, port) == 0 && Wait(m_bConnected);
    }
    bool WaitDisconnected() { return Wait(m_bClosed); }

    bool Send(eCOMM_MESSAGE_ID id, const void* data = nullptr, uint32_t length = 0) {
        MSG_QUEUE_MSG message(id, 0, 1, 0);
        if (length != 0 && message.SetData(data, length) != 0)
            return false;
        CWirePacket packet;
        return MakeWirePacket(&message, packet) && m_pClient->SendData(&packet.m_Buffer) == 0;
    }

    // The next message in arrival order; id 0 when none comes within `timeout`.
    ReceivedMessage Next(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        ReceivedMessage out;
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_Changed.wait_for(lock, timeout, [this] { return !m_Messages.empty(); })) {
            out = std::move(m_Messages.front());
            m_Messages.pop_front();
        }
        return out;
    }
    // Sends `id`, then skips what is still in flight until `answer` comes; false if it never does.
    bool AskPast(eCOMM_MESSAGE_ID id, uint32_t answer) {
        uint32_t got = Send(id) ? answer + 1 : 0;
        while (got != 0 && got != answer)
            got = Next().id;
        return got == answer;
    }

  private:
    bool Wait(const bool& flag) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, std::chrono::seconds(10), [&] { return flag; });
    }
    void OnPeerStateChanged(uint32_t, uint32_t, uint32_t state) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bConnected |= state == 2;
        m_bClosed |= state == 0;
        m_Changed.notify_all();
    }
    void OnReqMsgRecv(IPCBuffer* buffer) override {
        MSG_QUEUE_MSG m(COMM_MSG_NONE, 0, 1, 0);
        if (!ParsePacket(buffer->m_pData, buffer->m_Length, m))
            return;
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Messages.push_back(
            {m.m_MessageId, {m.m_pData, m.m_pData + (m.m_pData ? m.m_DataLength : 0)}});
        m_Changed.notify_all();
    }
    void OnRespMsgRecv(IPCBuffer*) override {}

    std::unique_ptr<IIPCClient> m_pClient;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::deque<ReceivedMessage> m_Messages;
    bool m_bConnected = false;
    bool m_bClosed = false;
};

#endif  // TIDEWAY_TESTS_SUPPORT_SCRIPTEDCLIENT_H_
