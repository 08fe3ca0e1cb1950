/* Control interface of the fake relay (build/fake/libzovrelay.so): script the next calls, queue
 * events, set messages and version, read the call log. Process-wide state, one thread. */
#ifndef FAKERELAY_CONTROL_H
#define FAKERELAY_CONTROL_H

#include <stddef.h>
#include <stdint.h>

#include "zovrelay.h"

#define FAKERELAY_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* A product of a crafted information record. The record declares componentCount real components
 * unless overrideCount is set, in which case it declares declaredCount and still holds only the
 * real ones (for the module's overflow handling, which must never read them). */
typedef struct FakeRelay_CraftedProduct {
    ZOVRELAY_EntityItem entity;
    const ZOVRELAY_EntityItem* components; /* copied; may be null when componentCount is 0 */
    size_t componentCount;
    int overrideCount;
    unsigned long declaredCount;
} FakeRelay_CraftedProduct;

/* Forgets log, scripts, queued events, messages and version, and restarts handle and record
 * numbering. Open contexts and outstanding records stay counted: they are still live. */
FAKERELAY_API void FakeRelay_Reset(void);

/* Queues the status of the next call of that short name ("CreateContext", ...). Return 0 when
 * the name is not one of the thirteen calls (nothing is queued), else 1. */
FAKERELAY_API int FakeRelay_ScriptStatus(const char* call, ZOVRELAY_Status status);
/* The same with a crafted record, for "GetInformation" and "Duplicate" only; the record is
 * allocated when handed out, which happens only when status is above 0. */
FAKERELAY_API int FakeRelay_ScriptInformation(const char* call, ZOVRELAY_Status status,
                                              const FakeRelay_CraftedProduct* products, size_t productCount);
/* klass 0, type 0, language/platform/region/oem -1, version 0.0.0.0. */
FAKERELAY_API ZOVRELAY_EntityItem FakeRelay_DefaultEntity(void);

/* Queues an event for the next GetInformation or Duplicate. hasMessage 0 passes a null message;
 * information null passes a null information string, else informationLength code points. */
FAKERELAY_API void FakeRelay_QueueEvent(int32_t type, int hasMessage, const uint32_t* information,
                                        size_t informationLength, uint64_t total, uint64_t finished);
/* The text GetStatusMessage writes for status (cut to 63 characters); text null restores
 * "status N". */
FAKERELAY_API void FakeRelay_SetMessage(ZOVRELAY_Status status, const uint32_t* text, size_t length);
/* What GetVersion reports; version null keeps the current one. Above 0 it fills the record. */
FAKERELAY_API void FakeRelay_SetVersion(const ZOV_Version* version, ZOVRELAY_Status status);

FAKERELAY_API int FakeRelay_OpenContexts(void);
FAKERELAY_API int FakeRelay_OutstandingRecords(void);

/* The call log. A value is a tree: every entry is a record with "name" and its decoded
 * arguments; an absent key stands for a null pointer. Pointers stay valid until the next relay
 * call or FakeRelay_Reset. All accessors accept null and then answer 0 or null. */
typedef struct FakeRelay_Value FakeRelay_Value;
typedef enum FakeRelay_Kind {
    FAKERELAY_BOOLEAN,
    FAKERELAY_INTEGER,  /* signed: statuses, option values, 32-bit entity fields */
    FAKERELAY_UNSIGNED, /* counts, handle and record numbers, version fields, ports */
    FAKERELAY_TEXT,     /* names and lowercase hex */
    FAKERELAY_CODES,    /* a wide string as 32-bit code points, terminator excluded */
    FAKERELAY_POINTER,
    FAKERELAY_LIST,
    FAKERELAY_RECORD,
    FAKERELAY_ABSENT /* the kind of a null value: an absent key, a null pointer */
} FakeRelay_Kind;

FAKERELAY_API size_t FakeRelay_CallCount(void);
FAKERELAY_API const char* FakeRelay_CallName(size_t index); /* 0-based; null past the end */
FAKERELAY_API const FakeRelay_Value* FakeRelay_Call(size_t index);

FAKERELAY_API FakeRelay_Kind FakeRelay_KindOf(const FakeRelay_Value* value);
FAKERELAY_API const FakeRelay_Value* FakeRelay_Field(const FakeRelay_Value* record, const char* key);
/* Entries of a list or record, code points of codes, bytes of text. */
FAKERELAY_API size_t FakeRelay_Length(const FakeRelay_Value* value);
FAKERELAY_API const FakeRelay_Value* FakeRelay_Item(const FakeRelay_Value* value, size_t index);
FAKERELAY_API const char* FakeRelay_Key(const FakeRelay_Value* record, size_t index);
FAKERELAY_API int FakeRelay_Boolean(const FakeRelay_Value* value);
FAKERELAY_API int64_t FakeRelay_Integer(const FakeRelay_Value* value);   /* also reads unsigned */
FAKERELAY_API uint64_t FakeRelay_Unsigned(const FakeRelay_Value* value); /* also reads integer */
FAKERELAY_API const char* FakeRelay_Text(const FakeRelay_Value* value);
FAKERELAY_API const uint32_t* FakeRelay_Codes(const FakeRelay_Value* value);
FAKERELAY_API void* FakeRelay_Pointer(const FakeRelay_Value* value);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* FAKERELAY_CONTROL_H */
