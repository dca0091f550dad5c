// A stand-in for the IPC library's client, installed through the communicator's factory seam:
// it records what the module connects and sends, can be told to fail, and lets a test play the
// library's part by calling the module's callback with peer events and packets.
#ifndef TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_
#define TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_

#include <string.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "comm/ChannelPacket.h"
#include "comm/ClientSideCommunicator.h"
#include "ipc/IPCClient.h"

class FakeIPCClient : public IIPCClient {
  public:
    // Shared state that outlives the client object, which the module owns and deletes.
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        IIPCCallback* callback = nullptr;
        uint32_t identity = 0;
        int created = 0;
        int connects = 0;
        int teardowns = 0;
        uint16_t lastPort = 0;
        uint32_t lastParam = 0;
        std::vector<uint32_t> sentIds;
        std::vector<std::vector<uint8_t>> sentData;
        std::atomic<bool> failConnect{false};
        std::atomic<bool> failSend{false};

        bool WaitFor(const std::function<bool()>& done,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
            std::unique_lock<std::mutex> lock(mutex);
            return changed.wait_for(lock, timeout, done);
        }
        template <typename F>
        auto Locked(F read) {
            std::lock_guard<std::mutex> lock(mutex);
            return read();
        }
        // Plays the library: a peer event or a packet, on the calling thread.
        void PeerState(uint32_t peer, uint32_t session, uint32_t state) {
            callback->OnPeerStateChanged(peer, session, state);
        }
        void Deliver(eCOMM_MESSAGE_ID id, const void* data = nullptr, uint32_t length = 0) {
            MSG_QUEUE_MSG message(id, 0, 1, 0);
            if (length != 0)
                message.SetData(data, length);
            uint32_t size = 0;
            std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
            DeliverRaw(packet.get(), size);
        }
        void DeliverRaw(void* bytes, uint32_t size) {
            IPCBuffer buffer;
            memset(&buffer, 0, sizeof(buffer));
            buffer.m_Kind = 1;
            buffer.m_Length = size;
            buffer.m_pData = bytes;
            callback->OnReqMsgRecv(&buffer);
        }
    };

    explicit FakeIPCClient(std::shared_ptr<State> state) : state_(std::move(state)) {}

    BR_STATUSCODE ConnectAsync(uint32_t, uint32_t, uint32_t param, uint16_t port) override {
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            ++state_->connects;
            state_->lastPort = port;
            state_->lastParam = param;
        }
        state_->changed.notify_all();
        return state_->failConnect ? 2 : 0;
    }
    BR_STATUSCODE SendData(IPCBuffer* buffer) override {
        MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
        const bool parsed = ParsePacket(buffer->m_pData, buffer->m_Length, message);
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            if (parsed && !state_->failSend) {
                state_->sentIds.push_back(message.m_MessageId);
                state_->sentData.emplace_back(
                    message.m_pData,
                    message.m_pData + (message.m_pData ? message.m_DataLength : 0));
            }
        }
        state_->changed.notify_all();
        return state_->failSend ? 8 : 0;
    }
    BR_STATUSCODE ReservedSlot2() override { return 16; }
    BR_STATUSCODE ReservedSlot3() override { return 16; }
    BR_STATUSCODE TearDown() override {
        std::lock_guard<std::mutex> lock(state_->mutex);
        ++state_->teardowns;
        return 0;
    }
    BR_STATUSCODE ReservedSlot5() override { return 16; }
    BR_STATUSCODE ReservedSlot6() override { return 16; }

    // Installs the fake for communicators made from now on; returns its shared state.
    static std::shared_ptr<State> Install() {
        auto state = std::make_shared<State>();
        SetIPCClientFactoryForTesting([state](uint32_t identity, IIPCCallback* callback) {
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                state->callback = callback;
                state->identity = identity;
                ++state->created;
            }
            return new FakeIPCClient(state);
        });
        return state;
    }
    static void Uninstall() { SetIPCClientFactoryForTesting(nullptr); }

  private:
    std::shared_ptr<State> state_;
};

#endif  // TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_
