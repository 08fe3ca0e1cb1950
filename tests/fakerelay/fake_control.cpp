// The C control interface: scripting, events, messages, version, counters and the log reader.
// Nothing here throws to the caller; an allocation failure drops the request.
#include "fake_state.h"

using namespace fakerelay;

void FakeRelay_Reset(void) {
    State& s = state();
    s.log.clear();
    ++s.generation;
    s.scripts.clear();
    s.events.clear();
    s.messages.clear();
    s.version = ZOV_Version{1, 2, 3, 4};
    s.versionStatus = 1;
    s.contextsMade = 0;
    s.recordsHandedOut = 0;
}

int FakeRelay_ScriptStatus(const char* call, ZOVRELAY_Status status) {
    if (!call || !knownCall(call)) return 0;
    try {
        Script script;
        script.status = status;
        state().scripts[call].push_back(std::move(script));
        return 1;
    } catch (...) {
        return 0;
    }
}

int FakeRelay_ScriptInformation(const char* call, ZOVRELAY_Status status, const FakeRelay_CraftedProduct* products,
                                size_t productCount) {
    if (!call || !takesRecord(call) || (!products && productCount)) return 0;
    try {
        Script script;
        script.status = status;
        script.hasRecord = true;
        for (size_t i = 0; i < productCount; ++i) {
            const FakeRelay_CraftedProduct& p = products[i];
            CraftedProduct crafted;
            crafted.entity = p.entity;
            if (p.components) crafted.components.assign(p.components, p.components + p.componentCount);
            crafted.declaredCount = p.overrideCount ? p.declaredCount : crafted.components.size();
            script.products.push_back(std::move(crafted));
        }
        state().scripts[call].push_back(std::move(script));
        return 1;
    } catch (...) {
        return 0;
    }
}

ZOVRELAY_EntityItem FakeRelay_DefaultEntity(void) {
    ZOVRELAY_EntityItem e{};
    e.language = e.platform = e.region = e.oem = -1;
    return e;
}

void FakeRelay_QueueEvent(int32_t type, int hasMessage, const uint32_t* information, size_t informationLength,
                          uint64_t total, uint64_t finished) {
    try {
        Event event{type, hasMessage != 0, information != nullptr, {}, total, finished};
        if (information) {
            for (size_t i = 0; i < informationLength; ++i) event.information.push_back(static_cast<wchar_t>(information[i]));
            event.information.push_back(L'\0');
        }
        state().events.push_back(std::move(event));
    } catch (...) {
    }
}

void FakeRelay_SetMessage(ZOVRELAY_Status status, const uint32_t* text, size_t length) {
    try {
        if (text)
            state().messages[status].assign(text, text + length);
        else
            state().messages.erase(status);
    } catch (...) {
    }
}

void FakeRelay_SetVersion(const ZOV_Version* version, ZOVRELAY_Status status) {
    if (version) state().version = *version;
    state().versionStatus = status;
}

int FakeRelay_OpenContexts(void) { return static_cast<int>(state().contexts.size()); }

int FakeRelay_OutstandingRecords(void) { return outstandingRecords(); }

size_t FakeRelay_CallCount(void) { return state().log.size(); }

const FakeRelay_Value* FakeRelay_Call(size_t index) {
    State& s = state();
    return index < s.log.size() ? &s.log[index] : nullptr;
}

const char* FakeRelay_CallName(size_t index) { return FakeRelay_Text(FakeRelay_Field(FakeRelay_Call(index), "name")); }

FakeRelay_Kind FakeRelay_KindOf(const FakeRelay_Value* value) { return value ? value->kind : FAKERELAY_ABSENT; }

const FakeRelay_Value* FakeRelay_Field(const FakeRelay_Value* record, const char* key) {
    if (!record || !key || record->kind != FAKERELAY_RECORD) return nullptr;
    return const_cast<FakeRelay_Value*>(record)->find(key);
}

size_t FakeRelay_Length(const FakeRelay_Value* value) {
    if (!value) return 0;
    switch (value->kind) {
    case FAKERELAY_LIST:
    case FAKERELAY_RECORD: return value->items.size();
    case FAKERELAY_CODES: return value->codes.size();
    case FAKERELAY_TEXT: return value->text.size();
    default: return 0;
    }
}

const FakeRelay_Value* FakeRelay_Item(const FakeRelay_Value* value, size_t index) {
    if (!value || (value->kind != FAKERELAY_LIST && value->kind != FAKERELAY_RECORD)) return nullptr;
    return index < value->items.size() ? &value->items[index] : nullptr;
}

const char* FakeRelay_Key(const FakeRelay_Value* record, size_t index) {
    if (!record || record->kind != FAKERELAY_RECORD || index >= record->keys.size()) return nullptr;
    return record->keys[index].c_str();
}

int FakeRelay_Boolean(const FakeRelay_Value* value) {
    return value && value->kind == FAKERELAY_BOOLEAN ? static_cast<int>(value->integer) : 0;
}

int64_t FakeRelay_Integer(const FakeRelay_Value* value) {
    if (!value) return 0;
    if (value->kind == FAKERELAY_UNSIGNED) return static_cast<int64_t>(value->natural);
    return value->kind == FAKERELAY_INTEGER ? value->integer : 0;
}

uint64_t FakeRelay_Unsigned(const FakeRelay_Value* value) {
    if (!value) return 0;
    if (value->kind == FAKERELAY_INTEGER) return static_cast<uint64_t>(value->integer);
    return value->kind == FAKERELAY_UNSIGNED ? value->natural : 0;
}

const char* FakeRelay_Text(const FakeRelay_Value* value) {
    return value && value->kind == FAKERELAY_TEXT ? value->text.c_str() : nullptr;
}

const uint32_t* FakeRelay_Codes(const FakeRelay_Value* value) {
    return value && value->kind == FAKERELAY_CODES ? value->codes.data() : nullptr;
}

void* FakeRelay_Pointer(const FakeRelay_Value* value) {
    return value && value->kind == FAKERELAY_POINTER ? value->pointer : nullptr;
}
