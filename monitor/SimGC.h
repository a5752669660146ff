#pragma once
// The monitor's side of a credential's release: the first step that runs on the collector's
// worker, which tells the monitor to forget the credential's signature-map entry.

#include "sharedid/SharedId.h"

#include <memory>
#include <string>

class SharedIdMonitor;

namespace NS_Utils {

class IGCVisitor {
public:
    virtual ~IGCVisitor() = default;
    virtual std::wstring GetSignature() const = 0;
};

}  // namespace NS_Utils

class ShrId_GCVisitor : public NS_Utils::IGCVisitor {
public:
    explicit ShrId_GCVisitor(std::shared_ptr<CSharedId> record) : m_record(std::move(record)) {}
    std::wstring GetSignature() const override { return m_record->GetSignature(); }
    const CSharedId* Record() const { return m_record.get(); }

private:
    std::shared_ptr<CSharedId> m_record;
};

class SimGC {
public:
    explicit SimGC(std::weak_ptr<SharedIdMonitor> container) : m_container(std::move(container)) {}
    void AcceptVisitor(NS_Utils::IGCVisitor* visitor);

private:
    std::weak_ptr<SharedIdMonitor> m_container;
};
