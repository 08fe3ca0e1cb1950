// The thirteen relay calls of the fake: each logs its decoded arguments, takes its scripted status
// (1 when none is queued) and does the least a real library would, so that tests see exactly what
// the module passed and control exactly what it gets back.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "fake_state.h"

namespace fakerelay {

namespace {
const ZOVRELAY_Status kOutOfMemory = -4;

const char* const kCalls[] = {"Startup",        "Shutdown",      "GetVersion",      "GetStatusMessage", "CreateContext",
                              "DestroyContext", "SetOption",     "SetStringOption", "SubscribeEvent",   "GetInformation",
                              "Duplicate",      "DestroyData",   "ExportComponent"};
} // namespace

State& state() {
    // Destroyed when the library is unloaded (lua_close) or at exit; no call comes in after that,
    // and leak checkers see the process end clean.
    static State s;
    return s;
}

bool knownCall(const char* name) {
    for (const char* c : kCalls)
        if (std::strcmp(c, name) == 0) return true;
    return false;
}

bool takesRecord(const char* name) {
    return std::strcmp(name, "GetInformation") == 0 || std::strcmp(name, "Duplicate") == 0;
}

int outstandingRecords() {
    int n = 0;
    for (const auto& r : state().records)
        if (r.second.number != 0) ++n;
    return n;
}

namespace {

// Appends the call's log entry; the reference stays valid while later entries are appended.
Value& logCall(const char* name) {
    State& s = state();
    Value entry = record();
    entry.set("name", text(name));
    s.log.push_back(std::move(entry));
    return s.log.back();
}

bool takeScript(const char* name, Script* out) {
    State& s = state();
    auto it = s.scripts.find(name);
    if (it == s.scripts.end() || it->second.empty()) return false;
    *out = std::move(it->second.front());
    it->second.pop_front();
    return true;
}

ZOVRELAY_Status scriptedStatus(const char* name, ZOVRELAY_Status otherwise = 1) {
    Script script;
    return takeScript(name, &script) ? script.status : otherwise;
}

unsigned long contextNumber(ZOVRELAY_Context* context) {
    return context && state().contexts.count(context) ? context->number : 0;
}

void* allocate(std::vector<void*>& blocks, size_t count, size_t size) {
    void* p = std::calloc(count, size);
    if (!p) throw std::bad_alloc();
    blocks.push_back(p);
    return p;
}

void release(std::map<ZOVRELAY_Information*, Record>::iterator it) {
    for (void* block : it->second.blocks) std::free(block);
    state().records.erase(it);
}

// Allocates the scripted record, registered but not yet handed out.
ZOVRELAY_Information* craft(const Script& script) {
    std::vector<void*> blocks;
    try {
        auto* info = static_cast<ZOVRELAY_Information*>(allocate(blocks, 1, sizeof(ZOVRELAY_Information)));
        size_t n = script.products.size();
        if (n) info->products = static_cast<ZOVRELAY_Product*>(allocate(blocks, n, sizeof(ZOVRELAY_Product)));
        info->productCount = n;
        for (size_t i = 0; i < n; ++i) {
            const CraftedProduct& crafted = script.products[i];
            ZOVRELAY_Product& p = info->products[i];
            p.entity = crafted.entity;
            size_t real = crafted.components.size();
            if (real) {
                p.components = static_cast<ZOVRELAY_EntityItem*>(allocate(blocks, real, sizeof(ZOVRELAY_EntityItem)));
                std::memcpy(p.components, crafted.components.data(), real * sizeof(ZOVRELAY_EntityItem));
            }
            p.componentCount = crafted.declaredCount;
        }
        state().records[info].blocks = std::move(blocks);
        return info;
    } catch (...) {
        for (void* block : blocks) std::free(block);
        throw;
    }
}

// What an operation carries across its callbacks: trivially destructible, since a callback that
// unwinds without returning must find nothing to destroy in our frames.
struct Pending {
    size_t entry;
    unsigned long generation;
    ZOVRELAY_Status status;
    ZOVRELAY_Information* record;
};

Value* pendingEntry(const Pending& p) {
    State& s = state();
    return p.generation == s.generation && p.entry < s.log.size() ? &s.log[p.entry] : nullptr;
}

bool beginOperation(const char* name, ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                    size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                    ZOVRELAY_Information** information, Pending* pending) noexcept {
    try {
        State& s = state();
        Value& e = logCall(name);
        e.set("context", natural(contextNumber(context)));
        e.set("product_count", natural(productCount));
        if (products) e.set("products", fakerelay::products(products, productCount));
        e.set("source_count", natural(sourceCount));
        if (sources) e.set("sources", fakerelay::sources(sources, sourceCount));
        if (information) e.set("out_was_null", boolean(*information == nullptr));
        e.set("answers", list());
        pending->entry = s.log.size() - 1;
        pending->generation = s.generation;

        Script script;
        bool scripted = takeScript(name, &script);
        pending->status = scripted ? script.status : 1;
        pending->record = scripted && script.hasRecord && script.status > 0 ? craft(script) : nullptr;
        return true;
    } catch (...) {
        return false;
    }
}

bool findSubscription(ZOVRELAY_Context* context, int32_t type, Subscription* out) {
    if (!context || !state().contexts.count(context) || context->subscriptions.empty()) return false;
    for (const Subscription& sub : context->subscriptions) {
        if (sub.type == type) {
            *out = sub;
            return true;
        }
    }
    *out = context->subscriptions.front();
    return true;
}

void recordAnswer(const Pending& pending, int answer) noexcept {
    try {
        if (Value* e = pendingEntry(pending))
            if (Value* answers = e->find("answers")) answers->items.push_back(integer(answer));
    } catch (...) {
    }
}

// Raises the queued events in order. Events queued by a callback wait for the next operation;
// every event is raised whatever the answers.
void raiseEvents(ZOVRELAY_Context* context, const Pending& pending) noexcept {
    State& s = state();
    try {
        s.raising.push_back(std::move(s.events));
    } catch (...) {
        return;
    }
    s.events.clear();
    size_t depth = s.raising.size() - 1;
    for (size_t i = 0; i < s.raising[depth].size(); ++i) {
        // Indexed afresh each time: a nested operation may have grown s.raising meanwhile.
        const Event& event = s.raising[depth][i];
        Subscription sub;
        if (!findSubscription(context, event.type, &sub)) continue;
        ZOVRELAY_EventMessage message;
        message.information = event.hasInformation ? const_cast<wchar_t*>(event.information.data()) : nullptr;
        message.total = event.total;
        message.finished = event.finished;
        int answer = sub.callback(static_cast<ZOVRELAY_EventType>(event.type), event.hasMessage ? &message : nullptr,
                                  sub.userData);
        recordAnswer(pending, answer);
    }
    s.raising.erase(s.raising.begin() + static_cast<std::ptrdiff_t>(depth), s.raising.end());
}

ZOVRELAY_Status finishOperation(const Pending& pending, ZOVRELAY_Information** information) noexcept {
    State& s = state();
    unsigned long handedOut = 0;
    if (pending.record) {
        auto it = s.records.find(pending.record);
        if (information) {
            *information = pending.record;
            handedOut = it->second.number = ++s.recordsHandedOut;
        } else {
            release(it);
        }
    }
    try {
        if (Value* e = pendingEntry(pending)) {
            e->set("status", integer(pending.status));
            if (handedOut) e->set("record", natural(handedOut));
        }
    } catch (...) {
    }
    return pending.status;
}

ZOVRELAY_Status operation(const char* name, ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                          size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                          ZOVRELAY_Information** information) noexcept {
    Pending pending;
    if (!beginOperation(name, context, products, productCount, sources, sourceCount, information, &pending))
        return kOutOfMemory;
    raiseEvents(context, pending);
    return finishOperation(pending, information);
}

} // namespace
} // namespace fakerelay

using namespace fakerelay;

ZOVRELAY_Status ZOVRELAY_Startup(void* reserved) {
    try {
        logCall("Startup").set("reserved_null", boolean(reserved == nullptr));
        return scriptedStatus("Startup");
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_Shutdown(void) {
    try {
        logCall("Shutdown");
        return scriptedStatus("Shutdown");
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_GetVersion(ZOV_Version* version) {
    try {
        logCall("GetVersion");
        ZOVRELAY_Status status = scriptedStatus("GetVersion", state().versionStatus);
        if (status > 0 && version) *version = state().version;
        return status;
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_GetStatusMessage(wchar_t* buffer, ZOVRELAY_Status status) {
    try {
        logCall("GetStatusMessage").set("status", integer(status));
        ZOVRELAY_Status result = scriptedStatus("GetStatusMessage");
        if (!buffer) return result;
        const size_t room = 63; // the caller's buffer is 64 wide characters, terminator included
        auto it = state().messages.find(status);
        size_t n = 0;
        if (it != state().messages.end()) {
            for (; n < room && n < it->second.size(); ++n) buffer[n] = static_cast<wchar_t>(it->second[n]);
        } else {
            char digits[32];
            std::snprintf(digits, sizeof digits, "status %d", static_cast<int>(status));
            for (; n < room && digits[n]; ++n) buffer[n] = static_cast<wchar_t>(digits[n]);
        }
        buffer[n] = L'\0';
        return result;
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_CreateContext(ZOVRELAY_Context** context, const wchar_t* repository) {
    try {
        State& s = state();
        Value& e = logCall("CreateContext");
        setCodes(e, "path", repository);
        ZOVRELAY_Status status = scriptedStatus("CreateContext");
        if (status > 0 && context) {
            auto* made = new ZOVRELAY_Context{++s.contextsMade, {}};
            try {
                s.contexts.insert(made);
            } catch (...) {
                delete made;
                throw;
            }
            *context = made;
            e.set("context", natural(made->number));
        }
        return status;
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_DestroyContext(ZOVRELAY_Context* context) {
    State& s = state();
    unsigned long number = contextNumber(context);
    // Released whatever the scripted status says: a real library always releases here.
    if (number) {
        s.contexts.erase(context);
        delete context;
    }
    try {
        logCall("DestroyContext").set("context", natural(number));
        return scriptedStatus("DestroyContext");
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_SetOption(ZOVRELAY_Context* context, int option, int64_t value) {
    try {
        Value& e = logCall("SetOption");
        e.set("context", natural(contextNumber(context)));
        e.set("option", integer(option));
        e.set("value", integer(value));
        char digits[17];
        std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(value));
        e.set("value_hex", text(digits));
        return scriptedStatus("SetOption");
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_SetStringOption(ZOVRELAY_Context* context, int option, const wchar_t* value) {
    try {
        Value& e = logCall("SetStringOption");
        e.set("context", natural(contextNumber(context)));
        e.set("option", integer(option));
        setCodes(e, "value", value);
        return scriptedStatus("SetStringOption");
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_SubscribeEvent(ZOVRELAY_Context* context, ZOVRELAY_EventType type,
                                        ZOVRELAY_Callback callback, void* userData) {
    try {
        int32_t event;
        std::memcpy(&event, &type, sizeof event);
        Value& e = logCall("SubscribeEvent");
        e.set("context", natural(contextNumber(context)));
        e.set("event", integer(event));
        e.set("callback", boolean(callback != nullptr));
        e.set("userdata", pointer(userData));
        ZOVRELAY_Status status = scriptedStatus("SubscribeEvent");
        if (status > 0 && callback && contextNumber(context)) {
            // A second subscription for a type replaces the first and keeps its place.
            for (Subscription& sub : context->subscriptions) {
                if (sub.type == event) {
                    sub.callback = callback;
                    sub.userData = userData;
                    return status;
                }
            }
            context->subscriptions.push_back(Subscription{event, callback, userData});
        }
        return status;
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_GetInformation(ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                        size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                                        ZOVRELAY_Information** information) {
    return operation("GetInformation", context, products, productCount, sources, sourceCount, information);
}

ZOVRELAY_Status ZOVRELAY_Duplicate(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                                   const ZOVRELAY_Source* sources, size_t sourceCount,
                                   ZOVRELAY_Information** information) {
    return operation("Duplicate", context, products, productCount, sources, sourceCount, information);
}

ZOVRELAY_Status ZOVRELAY_DestroyData(ZOVRELAY_Information* information) {
    State& s = state();
    unsigned long number = 0;
    // Only a record handed out and not yet freed is freed; anything else is logged as 0 so that a
    // double or foreign free shows up in the log instead of corrupting the heap.
    auto it = information ? s.records.find(information) : s.records.end();
    if (it != s.records.end() && it->second.number != 0) {
        number = it->second.number;
        release(it);
    }
    try {
        logCall("DestroyData").set("record", natural(number));
        return scriptedStatus("DestroyData");
    } catch (...) {
        return kOutOfMemory;
    }
}

ZOVRELAY_Status ZOVRELAY_ExportComponent(ZOVRELAY_Context* context, const wchar_t* destination,
                                         ZOVRELAY_EntityItem entity) {
    try {
        Value& e = logCall("ExportComponent");
        e.set("context", natural(contextNumber(context)));
        setCodes(e, "destination", destination);
        e.set("entity", fakerelay::entity(entity));
        return scriptedStatus("ExportComponent");
    } catch (...) {
        return kOutOfMemory;
    }
}
