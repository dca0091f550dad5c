#include "comm/MsgQueue.h"

#include <errno.h>

#include <new>

#include "common/VNTrace.h"

namespace {

const char kOutOfMemoryText[] = "MQ : Failed to allocate memory, System OUT OF MEMORY!!!";

// True when `copy` holds everything `original` had: a copy whose data array could not be made
// would silently carry the message without its data.
bool IsWholeCopy(const MSG_QUEUE_MSG& copy, const MSG_QUEUE_MSG& original) {
    return original.m_pData == nullptr || original.m_DataLength == 0 || copy.m_pData != nullptr;
}

}  // namespace

CMsgQueue::CMsgQueue(const std::string& name) : m_Event(false), m_Name(name) {}

CMsgQueue::~CMsgQueue() {
    Clear();
}

bool CMsgQueue::PutMessage(const MSG_QUEUE_MSG* message) {
    if (message == nullptr)
        return false;
    try {
        // The copy is made before the lock is taken.
        std::unique_ptr<MSG_QUEUE_MSG> copy(new MSG_QUEUE_MSG(*message));
        if (!IsWholeCopy(*copy, *message))
            throw std::bad_alloc();
        CMutexLock guard(m_Mutex);
        m_Messages.push_back(copy.get());
        copy.release();
        m_Event.SetEvent();
        return true;
    } catch (const std::bad_alloc&) {
        VNTRACE(TL_ERR, "%s", kOutOfMemoryText);
    } catch (...) {
        VNTRACE(TL_ERR, "DCTDlg : Unknown exception occurred. Code : 0x%08x",
                static_cast<unsigned>(errno));
    }
    return false;
}

std::unique_ptr<MSG_QUEUE_MSG> CMsgQueue::PopMessage(uint32_t* status) {
    if (status != nullptr)
        *status = 0;
    CMutexLock guard(m_Mutex);
    if (m_Messages.empty())
        return nullptr;
    MSG_QUEUE_MSG* const front = m_Messages.front();
    std::unique_ptr<MSG_QUEUE_MSG> copy(new (std::nothrow) MSG_QUEUE_MSG(COMM_MSG_NONE, 0, 1, 0));
    if (copy != nullptr)
        copy->CopyFrom(*front);
    if (copy == nullptr || !IsWholeCopy(*copy, *front)) {
        if (status != nullptr)
            *status = kCommOutOfMemory;
        VNTRACE(TL_ERR, "%s", kOutOfMemoryText);
        return nullptr;
    }
    m_Messages.pop_front();
    delete front;
    return copy;
}

std::unique_ptr<MSG_QUEUE_MSG> CMsgQueue::GetMessage(bool wait, uint32_t timeoutMs) {
    uint32_t status = 0;
    std::unique_ptr<MSG_QUEUE_MSG> message = PopMessage(&status);
    if (message != nullptr)
        return message;
    if (status != 0) {
        VNTRACE(TL_ERR, "MQ : Failed to get message. Code : %d", static_cast<int>(status));
        return nullptr;
    }
    if (!wait)
        return nullptr;
    CSyncEvent* events[] = {&m_Event};
    if (WaitForObjects(1, events, false, timeoutMs) != 0)
        return nullptr;
    m_Event.ResetEvent();
    return PopMessage(nullptr);
}

void CMsgQueue::Clear() {
    CMutexLock guard(m_Mutex);
    for (MSG_QUEUE_MSG* message : m_Messages)
        delete message;
    m_Messages.clear();
}

size_t CMsgQueue::GetCount() {
    CMutexLock guard(m_Mutex);
    return m_Messages.size();
}
