#include "common/Thread.h"

#include <process.h>

#include <memory>

namespace NS_THREAD_UTILS {

namespace {
struct StartContext {
    CThread* thread;
    void* args;
};
}  // namespace

unsigned __stdcall CThread::Entry(void* context) {
    std::unique_ptr<StartContext> start(static_cast<StartContext*>(context));
    start->thread->m_rule.BindToCurrentThread();
    unsigned result = start->thread->ThreadMain(start->args);
    ::OutputDebugStringA("[CThread] reached business logic end point");
    ::OutputDebugStringA("[CThread] exiting");
    return result;
}

bool CThread::Start(void* args) {
    if (m_thread) return false;
    auto context = std::make_unique<StartContext>(StartContext{this, args});
    unsigned id = 0;
    uintptr_t handle = ::_beginthreadex(nullptr, 0, &CThread::Entry, context.get(), 0, &id);
    if (handle == 0) return false;
    (void)context.release();  // Entry owns it from here
    m_thread.reset(reinterpret_cast<HANDLE>(handle));
    m_rule.Bind(id);
    return true;
}

DWORD CThread::Join(DWORD timeoutMs) const {
    if (!m_thread) return WAIT_OBJECT_0;
    return ::WaitForSingleObject(m_thread.get(), timeoutMs);
}

bool CThread::Terminate(DWORD exitCode) { return m_thread && ::TerminateThread(m_thread.get(), exitCode); }

}  // namespace NS_THREAD_UTILS
