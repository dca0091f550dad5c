// The IPC client replaced for the communicator: records connects and sends, fails sends on
// demand, and plays the library's callbacks. `mutex` guards State but the atomics and `callback`.
#ifndef TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_
#define TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "comm/ChannelPacket.h"
#include "comm/ClientSideCommunicator.h"
#include "ipc/IPCClient.h"

class FakeIPCClient : public IIPCClient {
  public:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        IIPCCallback* callback = nullptr;
        int created = 0, connects = 0;
        std::vector<uint32_t> sentIds;
        std::vector<std::vector<uint8_t>> sentData;
        std::atomic<bool> failSend{false};
        std::function<void()> inSend;  // runs in each SendData once failSend was read

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
        void Notify(const std::function<void()>& write) {
            Locked(write);
            changed.notify_all();
        }
        // Plays the library on the calling thread: a peer event, a built packet, raw bytes.
        void PeerState(uint32_t peer, uint32_t session, uint32_t state) {
            callback->OnPeerStateChanged(peer, session, state);
        }
        void Deliver(eCOMM_MESSAGE_ID id, const void* data = nullptr, uint32_t length = 0) {
            MSG_QUEUE_MSG message(id, 0, 1, 0);
            if (length != 0)
                message.SetData(data, length);
            CWirePacket packet;
            MakeWirePacket(&message, packet);
            callback->OnReqMsgRecv(&packet.m_Buffer);
        }
        void DeliverRaw(void* bytes, uint32_t size) {
            IPCBuffer buffer = RequestBuffer(bytes, size);
            callback->OnReqMsgRecv(&buffer);
        }
    };

    explicit FakeIPCClient(std::shared_ptr<State> state) : state_(std::move(state)) {}

    BR_STATUSCODE ConnectAsync(uint32_t, uint32_t, uint32_t, uint16_t) override {
        state_->Notify([&] { ++state_->connects; });
        return 0;
    }
    BR_STATUSCODE SendData(IPCBuffer* buffer) override {
        const bool failed = state_->failSend;
        if (state_->inSend)
            state_->inSend();
        MSG_QUEUE_MSG m(COMM_MSG_NONE, 0, 1, 0);
        if (failed || !ParsePacket(buffer->m_pData, buffer->m_Length, m))
            return failed ? 8 : 0;
        state_->Notify([&] {
            state_->sentIds.push_back(m.m_MessageId);
            state_->sentData.emplace_back(m.m_pData, m.m_pData + (m.m_pData ? m.m_DataLength : 0));
        });
        return 0;
    }
    BR_STATUSCODE ReservedSlot2() override { return 16; }
    BR_STATUSCODE ReservedSlot3() override { return 16; }
    BR_STATUSCODE TearDown() override { return 0; }
    BR_STATUSCODE ReservedSlot5() override { return 16; }
    BR_STATUSCODE ReservedSlot6() override { return 16; }

    // A factory for a communicator (or API) that makes fakes sharing `state`.
    static IPCClientFactory Factory(std::shared_ptr<State> state) {
        return [state](uint32_t, IIPCCallback* callback) -> IIPCClient* {
            state->Notify([&] {
                state->callback = callback;
                ++state->created;
            });
            return new FakeIPCClient(state);
        };
    }

  private:
    std::shared_ptr<State> state_;
};

#endif  // TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_
