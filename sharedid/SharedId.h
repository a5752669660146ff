#pragma once
// One checked-out shared credential, as a client registered it.

#include "common/CriticalSection.h"
#include "common/SecretString.h"
#include "common/WinHandles.h"
#include "sharedid/AbsSharedCredListener.h"

#include <windows.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

// The credential file, and beside it its holder list, kept open by the instance that answers for
// the credential for as long as it does: another instance starting meanwhile (a second desktop of
// the same user shares the folder) sees the open file and leaves it alone, and the list is
// rewritten in place through its handle. Move-only: a claim is one instance's, never a copy's.
class CFileClaim {
public:
    CFileClaim() = default;
    explicit CFileClaim(NS_Utils::UniqueHandle file) noexcept : m_file(std::move(file)) {}
    CFileClaim(const CFileClaim&) = delete;
    CFileClaim& operator=(const CFileClaim&) = delete;
    CFileClaim(CFileClaim&&) noexcept = default;
    CFileClaim& operator=(CFileClaim&&) noexcept = default;

    bool Held() const noexcept { return m_file.valid(); }
    HANDLE Handle() const noexcept { return m_file.get(); }
    // The holder list's open handle (none until the list was written or opened), and how many
    // bytes the list file holds: a rewrite in place covers at least as many.
    HANDLE HoldersHandle() const noexcept { return m_holders.get(); }
    DWORD HoldersBytes() const noexcept { return m_holdersBytes; }
    void KeepHolders(NS_Utils::UniqueHandle list, DWORD bytes) noexcept {
        m_holders = std::move(list);
        m_holdersBytes = bytes;
        m_mayHaveList = true;
    }
    // A file taken up at start that had no list beside it: its deletion need not look for one,
    // which costs a scan of the whole folder on some file systems. Any list written later undoes it.
    void KnowNoList() noexcept { m_mayHaveList = false; }
    bool MayHaveList() const noexcept { return m_mayHaveList; }
    void SetHoldersBytes(DWORD bytes) noexcept { m_holdersBytes = bytes; }
    // The mark that tells another instance meeting the open file that a live one claims it
    // (sharedid/ClaimMark.h); it goes with the claim.
    void KeepMark(NS_Utils::UniqueHandle mark) noexcept { m_mark = std::move(mark); }
    void Release() noexcept {
        m_holders.reset();
        m_file.reset();
        m_mark.reset();
    }

private:
    NS_Utils::UniqueHandle m_mark;  // destroyed after the file: an open file is never seen unmarked
    NS_Utils::UniqueHandle m_file;
    NS_Utils::UniqueHandle m_holders;
    DWORD m_holdersBytes = 0;
    bool m_mayHaveList = true;
};

// The order of a record's holder-list writes. A write is numbered where its holders are read
// (under the registry lock) and done under this lock, without the registry's: one numbered
// before a write already on the disk is left out, so the list on the disk is always the newest
// of those written, whatever order the writing threads come in. A record's copy starts afresh.
class CListWrites {
public:
    CListWrites() = default;
    CListWrites(CListWrites&&) noexcept = default;
    CListWrites& operator=(CListWrites&&) noexcept = default;

    NS_Utils::CriticalSection& Lock() const noexcept { return *m_lock; }
    ULONGLONG Next() noexcept { return ++m_numbered; }                    // under the registry lock
    bool Outdated(ULONGLONG n) const noexcept { return n <= m_written; }  // under Lock()
    void Written(ULONGLONG n) noexcept { m_written = n; }                 // under Lock()

private:
    std::unique_ptr<NS_Utils::CriticalSection> m_lock = std::make_unique<NS_Utils::CriticalSection>();
    ULONGLONG m_numbered = 0;
    ULONGLONG m_written = 0;
};

// Threads: a record that the registry holds is read and changed (holders, listeners, expiry text,
// file) only under the registry lock; once released it belongs to the collector's worker alone.
// Copies are plain values of whichever thread made them: a copy carries the texts, holders and
// listeners, never the claim on the files (that stays with the record the registry holds).
class CSharedId {
public:
    CSharedId() = default;
    // Texts in the order the COM interface passes them; the enterprise identity is the caller's
    // to set (the service asks the agent for it).
    CSharedId(const std::wstring& corvinAuthSvcUrl, const std::wstring& corvinAuthSrvId, const std::wstring& auxText1,
              const std::wstring& authSvcId, const std::wstring& sharedId, const std::wstring& auxText2,
              const std::wstring& roleId, const std::wstring& auxText4, const std::wstring& leaseDN,
              const std::wstring& leaseExpiry, bool flag, const std::wstring& auxText3, const std::wstring& auxText6);
    // A look-up key: only the three texts of the signature, no enterprise identity.
    static CSharedId SignatureKey(const std::wstring& corvinAuthSvcUrl, const std::wstring& authSvcId,
                                  const std::wstring& roleId);

    CSharedId(const CSharedId& other);
    // Assigning a copy would leave the target's claim on a file its new name does not name:
    // a record is made as a copy or moved, never copied over.
    CSharedId& operator=(const CSharedId&) = delete;
    CSharedId(CSharedId&&) noexcept = default;
    CSharedId& operator=(CSharedId&&) noexcept = default;

    // The six texts that a credential needs before it is registered or stored.
    bool IsComplete() const;
    // The three texts that identify a credential.
    bool HasSignature() const;
    // authSvcId:roleId:corvinAuthSvcUrl, or empty without a signature.
    std::wstring GetSignature() const;
    // The multi-line description for log lines; holds no auxiliary or memory-only text.
    std::wstring Dump() const;

    // Holders are kept once each, in the order they first registered.
    void AddHolderPid(DWORD pid);
    void RemoveHolderPid(DWORD pid);

    bool GetFlag() const { return m_flag; }
    const std::wstring& GetCorvinAuthSvcUrl() const { return m_corvinAuthSvcUrl; }
    const std::wstring& GetCorvinAuthSrvId() const { return m_corvinAuthSrvId; }
    const std::wstring& GetAuxText1() const { return m_auxText1; }
    const std::wstring& GetAuthSvcId() const { return m_authSvcId; }
    const std::wstring& GetSharedId() const { return m_sharedId; }
    const std::wstring& GetAuxText2() const { return m_auxText2.get(); }
    const std::wstring& GetRoleId() const { return m_roleId; }
    const std::wstring& GetLeaseDN() const { return m_leaseDN; }
    const std::wstring& GetAuxText3() const { return m_auxText3.get(); }
    const std::wstring& GetLeaseExpiry() const { return m_leaseExpiry; }
    const std::wstring& GetEnterpriseId() const { return m_enterpriseId; }
    const std::wstring& GetAuxText4() const { return m_auxText4; }
    const std::wstring& GetAuxText5() const { return m_auxText5; }
    const std::vector<DWORD>& GetHolderPids() const { return m_holderPids; }
    const std::vector<std::shared_ptr<AbsSharedCredListener>>& GetListeners() const { return m_listeners; }
    std::vector<std::shared_ptr<AbsSharedCredListener>>& Listeners() { return m_listeners; }
    const std::wstring& GetAuxText6() const { return m_auxText6.get(); }
    const std::wstring& GetFileName() const { return m_fileName; }

    void SetFlag(bool flag) { m_flag = flag; }
    void SetCorvinAuthSvcUrl(std::wstring v) { m_corvinAuthSvcUrl = std::move(v); }
    void SetCorvinAuthSrvId(std::wstring v) { m_corvinAuthSrvId = std::move(v); }
    void SetAuxText1(std::wstring v) { m_auxText1 = std::move(v); }
    void SetAuthSvcId(std::wstring v) { m_authSvcId = std::move(v); }
    void SetSharedId(std::wstring v) { m_sharedId = std::move(v); }
    void SetRoleId(std::wstring v) { m_roleId = std::move(v); }
    void SetLeaseDN(std::wstring v) { m_leaseDN = std::move(v); }
    void SetLeaseExpiry(std::wstring v) { m_leaseExpiry = std::move(v); }
    void SetEnterpriseId(std::wstring v) { m_enterpriseId = std::move(v); }
    void SetAuxText4(std::wstring v) { m_auxText4 = std::move(v); }
    void SetFileName(std::wstring v) { m_fileName = std::move(v); }

    // The open credential file; replacing it closes the one held before, and its list's handle.
    void ClaimFile(NS_Utils::UniqueHandle file) noexcept { m_fileClaim = CFileClaim(std::move(file)); }
    void ReleaseFileClaim() noexcept { m_fileClaim.Release(); }
    CFileClaim TakeFileClaim() noexcept { return std::exchange(m_fileClaim, CFileClaim()); }
    bool HoldsFileClaim() const noexcept { return m_fileClaim.Held(); }
    HANDLE FileClaimHandle() const noexcept { return m_fileClaim.Handle(); }
    CFileClaim& FileClaim() noexcept { return m_fileClaim; }
    // While the registry holds the record, its claim (and the holder list through it) changes
    // only under ListWrites().Lock().
    CListWrites& ListWrites() noexcept { return m_listWrites; }

private:
    bool m_flag = false;
    std::wstring m_corvinAuthSvcUrl;
    std::wstring m_corvinAuthSrvId;
    std::wstring m_auxText1;
    std::wstring m_authSvcId;
    std::wstring m_sharedId;
    NS_Utils::SecretString m_auxText2;  // memory only: never stored, never logged
    std::wstring m_roleId;
    std::wstring m_leaseDN;
    NS_Utils::SecretString m_auxText3;  // memory only
    std::wstring m_leaseExpiry;
    std::wstring m_enterpriseId;
    std::wstring m_auxText4;
    std::wstring m_auxText5;
    std::vector<DWORD> m_holderPids;
    std::vector<std::shared_ptr<AbsSharedCredListener>> m_listeners;
    NS_Utils::SecretString m_auxText6;  // memory only
    std::wstring m_fileName;
    CFileClaim m_fileClaim;
    CListWrites m_listWrites;
};
