#pragma once
// The agent's state-engine runtime, found through the site container that the agent's runtime
// library keeps in its process-wide slot table.

#include "checkin/AgentInterfaces.h"
#include "common/ComHandles.h"

namespace NS_AgentRuntime {

// Fills `runtime`, or leaves it empty (and logged) when the library, the site container, its
// first state engine or the runtime interface is missing. The runtime library is loaded by its
// full path and kept loaded for the life of the process.
void GetRuntimeFromObs(NS_Utils::ComPtr<IKelStateEngineRuntime>& runtime);

// The runtime hands out its property manager and policy provider as IDispatch, and the agent
// defines no interface id to ask for them: the object behind the pointer is the derived one.
template <typename T>
NS_Utils::ComPtr<T> AgentObjectAs(const NS_Utils::ComPtr<IDispatch>& object) {
    T* typed = static_cast<T*>(object.get());
    if (typed) typed->AddRef();
    return NS_Utils::ComPtr<T>::Attach(typed);
}

}  // namespace NS_AgentRuntime
