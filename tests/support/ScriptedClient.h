// A test client for the agent's side of the channel: connects with the module's IPC identity,
// sends messages and collects what arrives, so a test can script a conversation step by step.
#ifndef TIDEWAY_TESTS_SUPPORT_SCRIPTEDCLIENT_H_
#define TIDEWAY_TESTS_SUPPORT_SCRIPTEDCLIENT_H_

#include <stdint.h>
#include <string.h>

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
    uint32_t id = 0;
    std::vector<uint8_t> data;
    std::string Text() const { return std::string(data.begin(), data.end()); }
};

class ScriptedClient : private IIPCCallback {
  public:
    explicit ScriptedClient(uint32_t identity = 6) {
        BR_STATUSCODE status = 0;
        m_pClient.reset(CIPCFactory::CreateIPCClient(identity, this, status, 0));
    }
    ~ScriptedClient() {
        if (m_pClient)
            m_pClient->TearDown();
    }

    // Connects and waits for the state-2 event.
    bool Connect(uint16_t port, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (!m_pClient || m_pClient->ConnectAsync(8, 0, 5, port) != 0)
            return false;
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [this] { return m_bConnected; });
    }
    bool WaitDisconnected(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [this] { return m_Closed > 0; });
    }

    bool Send(eCOMM_MESSAGE_ID id, const void* data = nullptr, uint32_t length = 0) {
        MSG_QUEUE_MSG message(id, 0, 1, 0);
        if (length != 0 && message.SetData(data, length) != 0)
            return false;
        uint32_t size = 0;
        std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
        IPCBuffer buffer;
        memset(&buffer, 0, sizeof(buffer));
        buffer.m_Kind = 1;
        buffer.m_Length = size;
        buffer.m_pData = packet.get();
        return m_pClient->SendData(&buffer) == 0;
    }

    // Waits for the next message; false on time-out. Messages are taken in arrival order.
    bool Next(ReceivedMessage& out, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (!m_Changed.wait_for(lock, timeout, [this] { return !m_Messages.empty(); })) {
            return false;
        }
        out = std::move(m_Messages.front());
        m_Messages.pop_front();
        return true;
    }
    // Waits for the next message with `id`, dropping others before it.
    bool NextWithId(uint32_t id, ReceivedMessage& out,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !Next(out, left))
                return false;
            if (out.id == id)
                return true;
        }
    }
    size_t Pending() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Messages.size();
    }

  private:
    void OnPeerStateChanged(uint32_t, uint32_t, uint32_t state) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (state == 2)
            m_bConnected = true;
        if (state == 0)
            ++m_Closed;
        m_Changed.notify_all();
    }
    void OnReqMsgRecv(IPCBuffer* buffer) override {
        MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
        if (!ParsePacket(buffer->m_pData, buffer->m_Length, message))
            return;
        ReceivedMessage received;
        received.id = message.m_MessageId;
        if (message.m_pData != nullptr) {
            received.data.assign(message.m_pData, message.m_pData + message.m_DataLength);
        }
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Messages.push_back(std::move(received));
        m_Changed.notify_all();
    }
    void OnRespMsgRecv(IPCBuffer*) override {}

    std::unique_ptr<IIPCClient> m_pClient;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::deque<ReceivedMessage> m_Messages;
    bool m_bConnected = false;
    int m_Closed = 0;
};

#endif  // TIDEWAY_TESTS_SUPPORT_SCRIPTEDCLIENT_H_
