// The fake relay's C face, for programs that script it without its Lua module (the fuzz targets).
#ifndef FAKERELAY_CONTROL_H
#define FAKERELAY_CONTROL_H

#include <stddef.h>
#include <stdint.h>

#include "zovrelay.h"

#define FAKERELAY_API extern "C" __attribute__((visibility("default")))

// A product of a scripted listing: the record holds `held` components and declares `declared`.
struct FakeRelay_Product {
    ZOVRELAY_EntityItem entity;
    const ZOVRELAY_EntityItem* components;
    size_t held;
    unsigned long declared;
};

// As fake.reset(), fake.script(call, status [, {products = ...}]) and fake.event(type, message).
FAKERELAY_API void FakeRelay_Reset(void);
FAKERELAY_API void FakeRelay_Script(const char* call, ZOVRELAY_Status status, const FakeRelay_Product* products,
                                    size_t count, int hasRecord);
FAKERELAY_API void FakeRelay_QueueEvent(int32_t type, int hasMessage, const wchar_t* information, uint64_t total,
                                        uint64_t finished);
// Open contexts plus records handed out and not destroyed.
FAKERELAY_API int FakeRelay_Outstanding(void);

#endif
