// A kemsd critical section as the standard library's lock guards take it.
#pragma once

#include <kemsd/sync.h>

#include "text.h"

namespace sqlhost {

class CriticalSection {
public:
    CriticalSection()
    {
        if (KemSdCritSecInit(nullptr, &section_) != 0) throw Failure("cannot make a critical section");
    }
    ~CriticalSection() { KemSdCritSecDelete(nullptr, &section_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void lock() { KemSdCritSecEnter(nullptr, &section_); }
    void unlock() { KemSdCritSecExit(nullptr, &section_); }

private:
    KEM_CRITSECHDL_T section_;
};

} // namespace sqlhost
