#include "core/Thread.h"

#include <limits.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <future>
#include <new>

struct ThreadHandle {
    pthread_t thread;
};

namespace {
// Callers ask for stack sizes as small as 10240 octets, which they mean as a commit size on
// top of a larger reservation. The protocol threads keep 64 KiB datagram buffers and deep
// decode calls on their stacks, so never go below 1 MiB. The C library carves the static
// thread-local storage out of the same region (under a thread checker that alone is some
// 800 KiB), hence the second MiB of headroom.
const size_t kMinimumStack = 0x200000;

struct StartBlock {
    thread_entry entry;
    void* pArgument;
    std::string strName;
    std::promise<uint32_t> threadId;
};

void* Trampoline(void* pRaw) {
    StartBlock* pBlock = static_cast<StartBlock*>(pRaw);
    // Name before the entry runs, so the thread never runs unnamed.
    pthread_setname_np(pthread_self(), pBlock->strName.substr(0, 15).c_str());
    pBlock->threadId.set_value(static_cast<uint32_t>(syscall(SYS_gettid)));
    thread_entry entry = pBlock->entry;
    void* pArgument = pBlock->pArgument;
    delete pBlock;
    entry(pArgument);
    return nullptr;
}

size_t EffectiveStackSize(uint32_t uiRequested) {
    size_t size = uiRequested;
    const long lMinimum = sysconf(_SC_THREAD_STACK_MIN);
    if (lMinimum > 0 && size < static_cast<size_t>(lMinimum)) size = static_cast<size_t>(lMinimum);
    if (size < kMinimumStack) size = kMinimumStack;
    const long lPage = sysconf(_SC_PAGESIZE);
    if (lPage > 0) size = (size + lPage - 1) / lPage * lPage;
    return size;
}
}  // namespace

Thread::Thread() : m_pHandle(nullptr), m_StackSize(0x100000), m_ThreadId(0) {}

Thread::Thread(const std::string& strName)
    : m_pHandle(nullptr), m_strName(strName), m_StackSize(10240), m_ThreadId(0) {}

Thread::~Thread() {
    delete m_pHandle;
}

int Thread::Start(thread_entry entry, void* pArgument, int iPriority, const std::string& strName) {
    (void)iPriority;  // see the header: priorities are not applied

    StartBlock* pBlock = new (std::nothrow) StartBlock;
    if (pBlock == nullptr) return 1;
    pBlock->entry = entry;
    pBlock->pArgument = pArgument;
    pBlock->strName = strName.empty() ? m_strName : strName;
    std::future<uint32_t> threadId = pBlock->threadId.get_future();

    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        delete pBlock;
        return 1;
    }
    pthread_attr_setstacksize(&attr, EffectiveStackSize(m_StackSize));
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);

    pthread_t thread;
    const int iResult = pthread_create(&thread, &attr, Trampoline, pBlock);
    pthread_attr_destroy(&attr);
    if (iResult != 0) {
        delete pBlock;
        return 1;
    }

    if (m_pHandle == nullptr) m_pHandle = new (std::nothrow) ThreadHandle;
    if (m_pHandle != nullptr) m_pHandle->thread = thread;
    // The new thread reports its id before it runs the entry, so this wait is short.
    m_ThreadId = threadId.get();
    return 0;
}

std::string Thread::CurrentName() {
    char szName[16] = {0};
    if (pthread_getname_np(pthread_self(), szName, sizeof(szName)) != 0) return std::string();
    return std::string(szName);
}
