// An abstract stream socket with a read-ahead buffer that hands out text by lines. A subclass
// supplies the transport (connect, send, receive, close...); this class adds the line, header
// and peek reads over it, and the hand-over of buffered bytes to a second socket.
//
// Thread model: one object belongs to one thread at a time (REQUIRES: external
// synchronization). The buffer is reset (erased, both numbers zeroed, 1024 bytes reserved)
// whenever the read offset reaches the length of what is held. The handle is the subclass's:
// this class never closes it.
#ifndef TIDEWAY_COMMON_DNVSOCKET_H_
#define TIDEWAY_COMMON_DNVSOCKET_H_

#include <stdint.h>
#include <sys/socket.h>

#include <string>

class CDnVSocket {
  public:
    static constexpr int32_t kBufferReserve = 1024;  // reserved size and receive block
    static constexpr int32_t kWaitRead = 1;          // WaitForSocket modes
    static constexpr int32_t kWaitWrite = 2;
    static constexpr int32_t kWaitTimedOut = 60;  // WaitForSocket's time-out result

    explicit CDnVSocket(int32_t handle = -1);
    virtual ~CDnVSocket();

    // The transport, supplied by a subclass. Send and Receive behave as send(2) and recv(2):
    // a count, 0 for a closed peer (Receive), -1 with errno set on failure.
    virtual int32_t Send(const char* buffer, int32_t length, int32_t flags) = 0;
    virtual int32_t Receive(char* buffer, int32_t length, int32_t flags) = 0;
    virtual int32_t Connect(const sockaddr* address, socklen_t addressLength) = 0;
    virtual int32_t Close() = 0;
    virtual int32_t Shutdown(int32_t how) = 0;
    virtual int32_t Attach(int32_t handle) = 0;

    // Optional transport features: 0x80004001 (not implemented) unless a subclass has them.
    virtual int32_t SetReceiveTimeout(int32_t milliseconds);
    virtual int32_t SetSendTimeout(int32_t milliseconds);
    virtual int32_t SetNoDelay(int32_t enable);
    virtual int32_t SetKeepAlive(int32_t enable);
    virtual int32_t GetTransportError();
    virtual void ResetTransport();

    // Connects the handle in non-blocking mode and waits up to timeoutSeconds for it to
    // complete, then makes the handle blocking again. 0, an errno, or WaitForSocket's result.
    // After a failure the handle may be left non-blocking.
    int32_t ConnectWithTimeout(const sockaddr* address, socklen_t addressLength,
                               int32_t timeoutSeconds);
    // select on `handle` for read (mode 1) or write (mode 2): 0 when ready, 60 on time-out,
    // 0x80070057 for another mode, else an errno (logged).
    int32_t WaitForSocket(int32_t handle, int32_t mode, int32_t seconds, int32_t microseconds);

    // The next line, line feed included, into `output`: 0. 1 when the peer closed first or
    // memory ran out; the errno of a failed receive. Bytes of an unfinished line stay buffered.
    int32_t ReceiveLine(std::string& output);
    // Reads until a line feed is buffered, the time runs out or *cancelFlag is set, and returns
    // the first line (line feed included) without consuming it; otherwise all that is buffered.
    // Each round receives up to `size` bytes; the first receive blocks.
    std::string PeekLine(int32_t size, int32_t timeoutMilliseconds, const char* cancelFlag);
    // Reads byte by byte up to and including the first empty line (carriage returns do not
    // count as content); every byte read goes to `output`. 0; 1 when the peer closed first or
    // memory ran out; the errno of a failed receive.
    int32_t ReadHeader(std::string& output);
    // Buffered bytes first, else one receive: a count, 0 for a closed peer, -1 on failure.
    int32_t Read(char* buffer, int32_t length);
    // Appends bytes to the buffer, to be read before the socket's own. False for null data or
    // a length below 1.
    bool PushBack(const char* data, int32_t length);
    // Sends the unread buffered bytes through otherSocket's Send: their count (buffer reset),
    // 0 with nothing buffered or no socket, -1 when a send fails (unsent bytes stay buffered).
    // `flag` is accepted for the callers' sake and changes nothing.
    int32_t FlushBuffer(CDnVSocket* otherSocket, int32_t flags, int32_t flag);
    // The peer's IPv4 address as text: 0; -1 when getpeername fails; an errno otherwise
    // (EAFNOSUPPORT for a peer that is not IPv4).
    int32_t GetPeerAddress(std::string& output);
    // Unread buffered bytes if any, else what the handle has ready (0 if that is unknown).
    int32_t BytesAvailable();

    int32_t GetHandle() const { return m_Socket; }

  protected:
    void ResetBuffer();
    // Unread bytes held.
    int32_t Buffered() const { return m_BufferLength - m_ReadOffset; }
    // Drops bytes already handed out, so a long exchange of lines does not grow the buffer.
    void CompactBuffer();
    // Appends received bytes; false when the buffer would pass what its counters can hold.
    bool AppendToBuffer(const char* data, int32_t length);

    int32_t m_Socket;
    std::string m_Buffer;
    int32_t m_BufferLength;  // bytes held
    int32_t m_ReadOffset;    // where the next line begins
};

#endif  // TIDEWAY_COMMON_DNVSOCKET_H_
