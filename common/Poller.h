#pragma once
// Does a piece of work at once and then once per interval on a thread of its own, until its stop
// event or one of its extra handles is signalled, or it has polled the maximum number of times.
// A poll that runs out of memory is logged and made again after a short pause (the interval when
// shorter): the thread goes on.

#include "common/Thread.h"
#include "common/WinHandles.h"

#include <atomic>
#include <vector>

namespace NS_THREAD_UTILS {

class CPoller : public CThread {
public:
    CPoller();
    // With the event that stops it (a fresh one by default); without one it is never started.
    explicit CPoller(NS_Utils::UniqueHandle stopEvent);
    ~CPoller() override;

    // False when the stop event could not be made: such a poller could never be stopped, so it
    // must not be started.
    bool CanStart() const noexcept { return static_cast<bool>(m_stopEvent); }
    // Ends one waiting loop (the stop event resets itself). Any thread may call it.
    void Stop() noexcept;

    // Configuration; set before Start (checked: the thread reads it unguarded).
    void SetMaxPolls(DWORD maxPolls) noexcept;
    void SetInterval(DWORD intervalMs) noexcept;
    // Not owned: the caller keeps the handle open while the poller runs.
    void AddWaitHandle(HANDLE handle);
    // Owned; reset and closed when the loop ends.
    void SetAuxiliaryEvent(NS_Utils::UniqueHandle event) noexcept { m_auxEvent.store(event.release()); }

protected:
    unsigned ThreadMain(void* args) override;

    virtual void Run(void* args);
    virtual void OnStart(void* /*args*/) {}
    virtual void OnEnd() {}
    virtual void Poll(DWORD count) = 0;

private:
    void EndLoop();

    std::atomic<HANDLE> m_auxEvent{nullptr};
    DWORD m_maxPolls = 0;
    DWORD m_intervalMs = 1000;
    std::vector<HANDLE> m_extraHandles;
    NS_Utils::UniqueHandle m_stopEvent;
};

}  // namespace NS_THREAD_UTILS
