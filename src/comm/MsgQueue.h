// An unbounded first-in, first-out queue of MSG_QUEUE_MSG records between threads, with a
// waiting read. The queue stores deep copies and hands out deep copies, so no pointer into a
// record crosses a thread.
//
// Owned by whoever made it (the communicator and its thread data). PutMessage, PopMessage,
// GetMessage and Clear may run on any threads at once: m_Mutex guards m_Messages and is never
// held across a wait. m_Event is signalled under m_Mutex, so m_Mutex comes before the event's
// own locks.
#ifndef TIDEWAY_COMM_MSGQUEUE_H_
#define TIDEWAY_COMM_MSGQUEUE_H_

#include <stdint.h>

#include <list>
#include <memory>
#include <string>

#include "comm/MsgQueueMsg.h"
#include "comm/SyncEvent.h"
#include "common/Mutex.h"

class CMsgQueue {
  public:
    // `name` is kept for diagnosis only ("VN$COMMUNICATOR", "VN$COMM$SENDER", ...).
    explicit CMsgQueue(const std::string& name);
    // Releases the messages still queued.
    virtual ~CMsgQueue();
    CMsgQueue(const CMsgQueue&) = delete;
    CMsgQueue& operator=(const CMsgQueue&) = delete;

    // Appends a deep copy of `message` (the caller keeps its own) and signals the reader. False
    // for a null message, and with an ERR line when the copy cannot be made.
    bool PutMessage(const MSG_QUEUE_MSG* message);

    // The front message as a copy the caller owns, or null. Without `wait` it returns at once.
    // With `wait` and an empty queue it waits up to `timeoutMs` for the queue's event and reads
    // once more; the event is not reset by a read that finds a message straight away, so a later
    // read may wake at once and return null, which readers take as a time-out.
    std::unique_ptr<MSG_QUEUE_MSG> GetMessage(bool wait, uint32_t timeoutMs);

    // The non-blocking read. `status` (may be null) is 0, or kCommOutOfMemory when the copy
    // could not be made; the message then stays at the front.
    std::unique_ptr<MSG_QUEUE_MSG> PopMessage(uint32_t* status);

    // Drops and releases every queued message.
    void Clear();

    const std::string& GetName() const { return m_Name; }
    // Messages queued now; for diagnosis.
    size_t GetCount();

  private:
    CSyncEvent m_Event;                                        // manual reset
    CMutex m_Mutex;                                            // never re-entered: plain
    std::list<MSG_QUEUE_MSG*> m_Messages GUARDED_BY(m_Mutex);  // owned
    std::string m_Name;
};

#endif  // TIDEWAY_COMM_MSGQUEUE_H_
