// Control interface of the fake relay (build/fake/libzovrelay.so): script the next calls, queue
// events, set messages and version, read the call log. Process-wide state, one thread.
#ifndef FAKERELAY_CONTROL_H
#define FAKERELAY_CONTROL_H

#include <stddef.h>
#include <stdint.h>

#include "zovrelay.h"

#define FAKERELAY_API extern "C" __attribute__((visibility("default")))

// A product of a scripted listing. The record holds componentCount components but declares
// declaredCount, so that the module's overflow handling can be driven without huge arrays.
struct FakeRelay_Product {
    ZOVRELAY_EntityItem entity;
    const ZOVRELAY_EntityItem* components;
    size_t componentCount;
    unsigned long declaredCount;
};

// Forgets log, scripts, events and messages, restores the version; live contexts and records stay.
FAKERELAY_API void FakeRelay_Reset(void);
// Queues the status of the next call of that name ("CreateContext", ...). With products (even
// none), GetInformation and Duplicate hand out a record built from them when status is above 0.
FAKERELAY_API void FakeRelay_Script(const char* call, ZOVRELAY_Status status, const FakeRelay_Product* products,
                                    size_t count, int hasRecord);
// Raised by the next GetInformation or Duplicate to the context's handler of that type, else to
// its first one. hasMessage 0 passes a null message; information may be null.
FAKERELAY_API void FakeRelay_QueueEvent(int32_t type, int hasMessage, const wchar_t* information, uint64_t total,
                                        uint64_t finished);
// What GetStatusMessage writes for status, cut to 63 characters; null restores "status N".
FAKERELAY_API void FakeRelay_SetMessage(ZOVRELAY_Status status, const wchar_t* text);
// What GetVersion reports (it fills the record when status is above 0); null keeps the version.
FAKERELAY_API void FakeRelay_SetVersion(const ZOV_Version* version, ZOVRELAY_Status status);
FAKERELAY_API int FakeRelay_OpenContexts(void);
FAKERELAY_API int FakeRelay_OutstandingRecords(void);
// Log entry index (from 0) as a Lua table constructor, or null past the end. Wide strings are
// arrays of code points; a null pointer is an absent key.
FAKERELAY_API const char* FakeRelay_Call(size_t index);

#endif
