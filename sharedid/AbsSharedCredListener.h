#pragma once
// Told when a process starts or stops holding a shared credential.

#include <windows.h>

class AbsSharedCredListener {
public:
    virtual ~AbsSharedCredListener() = default;
    virtual void OnUserAdded(DWORD processId) = 0;
    virtual void OnUserRemoved(DWORD processId) = 0;
};
