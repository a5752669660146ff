#pragma once
// The lease-expiry window's rows without the window: which process has a row for which
// credential, when each row's process is ended, and what each row says. The window draws these
// and lists their keys; the status view copies them.
//
// Threads: Add and Remove from the lease monitor's poller and the COM thread; Listed from the COM
// thread for the status view; Find, Rows, Erase, Clear and Empty from those and the window's
// thread; Text and Texts on the window's thread while it runs (they read the programs' titles,
// which the window's tick keeps current), or on any one thread without it. The rows are guarded
// by the model's own lock; the clock and the holders' windows are never asked under it.

#include "common/CriticalSection.h"
#include "common/WinHandles.h"
#include "sharedid/ListedRow.h"
#include "sharedid/SharedId.h"
#include "ui/ProcessInfo.h"

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

class LeaseRows {
public:
    using Clock = std::function<__time64_t()>;
    // Milliseconds of elapsed time that stand still while the machine sleeps and ignore changes of
    // the wall clock; QueryUnbiasedInterruptTime when empty.
    using Ticks = std::function<ULONGLONG()>;
    using Row = std::shared_ptr<ProcessInfo>;
    // The words around a row's values, from the message library; empty ones leave the value bare.
    struct Labels {
        std::wstring process;  // before the program's name
        std::wstring time;     // before the time left
        std::wstring remain;   // after the time left
    };

    // `now` is the clock the countdowns run on, _time64 when empty; a row ends no earlier than
    // `graceSeconds` after it appears.
    LeaseRows(Clock now, unsigned graceSeconds, Ticks ticks = {});
    LeaseRows(const LeaseRows&) = delete;
    LeaseRows& operator=(const LeaseRows&) = delete;

    // A row for the process and the credential (the handle is a duplicate the row keeps), ending
    // at the moment fixed when the credential's first row appeared, or, for its first, at the
    // later of its lease expiry and now plus the grace time. Its key, or below 0 when the process
    // has a row for that credential already.
    int Add(DWORD processId, NS_Utils::UniqueHandle process, const std::weak_ptr<CSharedId>& credential);
    // Takes out the row of that process for that credential; its key, or below 0 when there was none.
    int Remove(DWORD processId, const std::weak_ptr<CSharedId>& credential);
    bool Erase(int key);
    void Clear();
    bool Empty() const;
    // Keys only grow, so a key taken out never names a later row.
    Row Find(int key) const;
    // Every row by key, in the order the rows were added.
    std::vector<std::pair<int, Row>> Rows() const;
    // Every row as the status view reports it.
    std::vector<LMListedRow> Listed() const;

    __time64_t Now() const;
    // At every tick of the window, before the rows' ends are looked at. When the wall clock went
    // further than elapsed time since the last call (a resume from sleep, a clock set forward),
    // the rows whose end it brought within the grace time are carried: they end no earlier than
    // the grace time after the first call at which `userCanSee` (the session is not locked), so
    // that the user gets the whole warning after such a jump. True while rows are carried.
    bool FollowClock(bool userCanSee);
    void SetLabels(Labels labels);
    // The program on the first line, the time left on the second.
    std::wstring Text(const ProcessInfo& row) const;
    std::map<int, std::wstring> Texts() const;

private:
    Labels CurrentLabels() const;
    static std::wstring Text(const ProcessInfo& row, const Labels& labels, __time64_t now);
    // Under the lock; a key below 0 when there is none.
    int FindKey(DWORD processId, const std::weak_ptr<CSharedId>& credential) const;

    ULONGLONG ElapsedMs() const;

    const Clock m_clock;
    const unsigned m_graceSeconds;
    const Ticks m_ticks;
    mutable NS_Utils::CriticalSection m_lock;
    std::map<int, Row> m_rows;
    // The last FollowClock's readings of the two clocks (none before the first), and the rows
    // carried over a jump until the user can see them.
    bool m_followed = false;
    __time64_t m_lastWall = 0;
    ULONGLONG m_lastElapsedMs = 0;
    std::set<int> m_carried;
    int m_nextKey = 0;
    Labels m_labels;
};
