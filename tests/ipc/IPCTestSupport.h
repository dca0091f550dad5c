// Helpers for the IPC tests: a temporary socket root, a callback that records every event, and a
// raw-socket peer that can do what the library never does (byte-wise writes, bad records).
#ifndef TIDEWAY_TESTS_IPC_IPCTESTSUPPORT_H_
#define TIDEWAY_TESTS_IPC_IPCTESTSUPPORT_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "ipc/IPCServer.h"

namespace ipc_test {

using namespace std::chrono_literals;

constexpr uint16_t kPort = 4711;
constexpr uint32_t kModule = 6;
constexpr uint32_t kAgent = 8;

// A fresh directory as the socket root for the life of the object; hooks restored afterwards.
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    const std::string& Path() const { return m_Path; }

  private:
    std::string m_Path;
};

struct Event {
    uint32_t peer, session, state;
};
inline bool operator==(const Event& a, const Event& b) {
    return a.peer == b.peer && a.session == b.session && a.state == b.state;
}
inline std::ostream& operator<<(std::ostream& out, const Event& e) {
    return out << "{" << e.peer << "," << e.session << "," << e.state << "}";
}

// Records what a client or server reports; thread-safe. `onPacket` runs on the I/O thread, after
// the packet is recorded and outside the lock.
class Recorder : public IIPCServerCallback {
  public:
    void OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) override;
    void OnReqMsgRecv(IPCBuffer* buffer) override { OnReqMsgRecvFrom(0, buffer); }
    void OnRespMsgRecv(IPCBuffer*) override {}
    void OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) override;

    // Waits until `ready` (checked under the lock) holds; false after `timeout`.
    bool WaitUntil(const std::function<bool()>& ready, std::chrono::milliseconds timeout = 5s);
    bool WaitEvents(size_t n) {
        return WaitUntil([&] { return m_Events.size() >= n; });
    }
    bool WaitPackets(size_t n) {
        return WaitUntil([&] { return m_Packets.size() >= n; });
    }
    // Until some event with state 0 has come.
    bool WaitClosed() {
        return WaitUntil([&] {
            for (const Event& e : m_Events) {
                if (e.state == 0)
                    return true;
            }
            return false;
        });
    }
    std::vector<Event> Events();
    std::vector<std::string> Packets();
    std::vector<uint16_t> PacketSessions();

    std::function<void(uint16_t session, const std::string& bytes)> onPacket;
    std::function<void(const Event&)> onEvent;
    // Set by a test right after TearDown returned: any later callback counts as a violation.
    std::atomic<bool> closed{false};
    std::atomic<int> callsAfterClose{0};

  private:
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    std::vector<Event> m_Events;
    std::vector<std::string> m_Packets;
    std::vector<uint16_t> m_Sessions;
};

// Bytes of a packet of `size` with a recognisable pattern; the first 4 bytes hold `tag`.
std::string Payload(size_t size, uint32_t tag);
std::string Frame(const std::string& payload);
std::string HelloRecord(uint32_t identity, uint16_t session);
// A buffer over `bytes`, which must outlive it.
IPCBuffer BufferOf(const std::string& bytes);
IPCBuffer BufferOf(std::string&&) = delete;

// Raw sockets.
int RawListen(const std::string& path);  // makes the parent directories
int RawConnect(const std::string& path);
int AcceptWithin(int listenFd, std::chrono::milliseconds timeout);
bool WriteBytes(int fd, const std::string& bytes, bool oneAtATime = false);
// Reads exactly n bytes, or less when the peer closes or `timeout` passes.
std::string ReadBytes(int fd, size_t n, std::chrono::milliseconds timeout = 5s);
// True when the peer closes the connection within `timeout` (bytes before the end are skipped).
bool WaitForClose(int fd, std::chrono::milliseconds timeout = 5s);

}  // namespace ipc_test

#endif  // TIDEWAY_TESTS_IPC_IPCTESTSUPPORT_H_
