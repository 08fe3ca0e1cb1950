// The fake relay: each of the thirteen calls logs what the module passed, as a Lua table
// constructor that fakerelay.so reads back, and answers what the test scripted (1 when nothing is
// queued). Contexts and records are real allocations, counted, so that every leak shows.
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fake_control.h"

struct ZOVRELAY_Context {
    unsigned long number;
    std::vector<std::pair<int32_t, std::pair<ZOVRELAY_Callback, void*>>> handlers;  // in subscription order
};

namespace {

struct Script {
    ZOVRELAY_Status status;
    bool hasRecord;
    std::vector<ZOVRELAY_Product> products;  // components point into components
    std::deque<std::vector<ZOVRELAY_EntityItem>> components;
};

struct Event {
    int32_t type;
    bool hasMessage, hasInformation;
    std::wstring information;
    ZOVRELAY_EventMessage message;
};

struct State {
    std::vector<std::string> log;
    std::map<std::string, std::deque<Script>> scripts;
    std::vector<Event> events;
    std::map<ZOVRELAY_Status, std::wstring> messages;
    ZOV_Version version{1, 2, 3, 4};
    ZOVRELAY_Status versionStatus = 1;
    std::map<ZOVRELAY_Context*, unsigned long> contexts;
    unsigned long contextsMade = 0;
    std::map<ZOVRELAY_Information*, unsigned long> records;  // handed out and not destroyed
    unsigned long recordsMade = 0;
};

State& state() {
    static State s;
    return s;
}

std::string codes(const wchar_t* text) {
    if (text == nullptr) return "nil";
    std::string out = "{";
    for (; *text != 0; ++text) out += std::to_string(static_cast<uint32_t>(*text)) + ",";
    return out + "}";
}

std::string entity(const ZOVRELAY_EntityItem& e) {
    char text[300];
    std::snprintf(text, sizeof text,
                  "klass=%d,type=%d,language=%d,platform=%d,region=%d,oem=%d,major=%lu,minor=%lu,build=%lu,revision=%lu",
                  e.klass, e.type, e.language, e.platform, e.region, e.oem, e.version.major, e.version.minor,
                  e.version.build, e.version.revision);
    return text;
}

unsigned long number(ZOVRELAY_Context* context) {
    auto it = state().contexts.find(context);
    return it != state().contexts.end() ? it->second : 0;
}

// Appends {name = NAME, FIELDS} and returns its index.
size_t log(const char* name, const std::string& fields = "") {
    state().log.push_back(std::string("{name='") + name + "'," + fields + "}");
    return state().log.size() - 1;
}

Script take(const char* name) {
    std::deque<Script>& queue = state().scripts[name];
    if (queue.empty()) return Script{1, false, {}, {}};
    Script script = std::move(queue.front());
    queue.pop_front();
    return script;
}

ZOVRELAY_Status status(const char* name) { return take(name).status; }

std::string arguments(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                      const ZOVRELAY_Source* sources, size_t sourceCount, ZOVRELAY_Information** information) {
    std::string out = "context=" + std::to_string(number(context)) + ",product_count=" + std::to_string(productCount) +
                      ",source_count=" + std::to_string(sourceCount);
    if (products != nullptr) {
        out += ",products={";
        for (size_t i = 0; i < productCount; ++i) {
            const ZOVRELAY_Product& p = products[i];
            out += "{" + entity(p.entity) + ",component_count=" + std::to_string(p.componentCount);
            if (p.components != nullptr) {
                out += ",components={";
                for (size_t j = 0; j < p.componentCount; ++j) out += "{" + entity(p.components[j]) + "},";
                out += "}";
            }
            out += "},";
        }
        out += "}";
    }
    if (sources != nullptr) {
        out += ",sources={";
        for (size_t i = 0; i < sourceCount; ++i) {
            const ZOVRELAY_Source& s = sources[i];
            bool zeroed = s.reserved[0] == 0 && s.reserved[1] == 0;
            out += "{url=" + codes(s.url);
            if (const ZOVRELAY_Proxy* p = s.proxy) {
                zeroed = zeroed && p->padding0 == 0 && std::memcmp(p->padding1, "\0\0\0\0\0\0", 6) == 0;
                out += ",proxy={type=" + std::to_string(p->type) + ",port=" + std::to_string(p->port) +
                       ",host=" + codes(p->host) + ",user=" + codes(p->user) + ",password=" + codes(p->password) + "}";
            }
            out += std::string(",zeroed=") + (zeroed ? "true" : "false") + "},";
        }
        out += "}";
    }
    if (information != nullptr) out += std::string(",out_was_null=") + (*information == nullptr ? "true" : "false");
    return out;
}

// One allocation per array, as a real library's records would have.
ZOVRELAY_Information* craft(const Script& script) {
    auto* record = new ZOVRELAY_Information{new ZOVRELAY_Product[script.products.size()], script.products.size()};
    for (size_t i = 0; i < script.products.size(); ++i) {
        const ZOVRELAY_Product& p = script.products[i];
        const size_t held = script.components[i].size();
        record->products[i] = {p.entity, held != 0 ? new ZOVRELAY_EntityItem[held] : nullptr, p.componentCount};
        if (held != 0) std::memcpy(record->products[i].components, p.components, held * sizeof(ZOVRELAY_EntityItem));
    }
    state().records[record] = ++state().recordsMade;
    return record;
}

// Raises the queued events (those queued meanwhile wait for the next operation), hands out the
// scripted record, and completes the log entry with the handlers' answers and the outcome.
ZOVRELAY_Status operation(const char* name, ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                          size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                          ZOVRELAY_Information** information) {
    State& s = state();
    const size_t entry = log(name, arguments(context, products, productCount, sources, sourceCount, information));
    const Script script = take(name);
    std::vector<Event> events;
    events.swap(s.events);
    std::string answers;
    for (Event& event : events) {
        if (number(context) == 0 || context->handlers.empty()) continue;
        auto handler = context->handlers.front().second;
        for (const auto& h : context->handlers)
            if (h.first == event.type) handler = h.second;
        event.message.information = event.hasInformation ? &event.information[0] : nullptr;
        const int answer = handler.first(static_cast<ZOVRELAY_EventType>(event.type),
                                         event.hasMessage ? &event.message : nullptr, handler.second);
        answers += std::to_string(answer) + ",";
    }
    std::string outcome = ",answers={" + answers + "},status=" + std::to_string(script.status);
    if (script.status > 0 && script.hasRecord && information != nullptr) {
        *information = craft(script);
        outcome += ",record=" + std::to_string(s.records[*information]);
    }
    if (entry < s.log.size()) s.log[entry].insert(s.log[entry].size() - 1, outcome);
    return script.status;
}

}  // namespace

FAKERELAY_API void FakeRelay_Reset(void) {
    State& s = state();
    s.log.clear();
    s.scripts.clear();
    s.events.clear();
    s.messages.clear();
    s.version = ZOV_Version{1, 2, 3, 4};
    s.versionStatus = 1;
    s.contextsMade = s.recordsMade = 0;
}

FAKERELAY_API void FakeRelay_Script(const char* call, ZOVRELAY_Status status, const FakeRelay_Product* products,
                                    size_t count, int hasRecord) {
    Script script{status, hasRecord != 0, {}, {}};
    for (size_t i = 0; i < count; ++i) {
        script.components.emplace_back(products[i].components, products[i].components + products[i].componentCount);
        script.products.push_back({products[i].entity, script.components.back().data(), products[i].declaredCount});
    }
    state().scripts[call].push_back(std::move(script));
}

FAKERELAY_API void FakeRelay_QueueEvent(int32_t type, int hasMessage, const wchar_t* information, uint64_t total,
                                        uint64_t finished) {
    state().events.push_back(Event{type, hasMessage != 0, information != nullptr, information ? information : L"",
                                   ZOVRELAY_EventMessage{nullptr, total, finished}});
}

FAKERELAY_API void FakeRelay_SetMessage(ZOVRELAY_Status status, const wchar_t* text) {
    if (text != nullptr) state().messages[status] = std::wstring(text).substr(0, 63);
    else state().messages.erase(status);
}

FAKERELAY_API void FakeRelay_SetVersion(const ZOV_Version* version, ZOVRELAY_Status status) {
    if (version != nullptr) state().version = *version;
    state().versionStatus = status;
}

FAKERELAY_API int FakeRelay_OpenContexts(void) { return static_cast<int>(state().contexts.size()); }
FAKERELAY_API int FakeRelay_OutstandingRecords(void) { return static_cast<int>(state().records.size()); }

FAKERELAY_API const char* FakeRelay_Call(size_t index) {
    return index < state().log.size() ? state().log[index].c_str() : nullptr;
}

ZOVRELAY_Status ZOVRELAY_Startup(void* reserved) {
    log("Startup", std::string("reserved_null=") + (reserved == nullptr ? "true" : "false"));
    return status("Startup");
}

ZOVRELAY_Status ZOVRELAY_Shutdown(void) {
    log("Shutdown");
    return status("Shutdown");
}

ZOVRELAY_Status ZOVRELAY_GetVersion(ZOV_Version* version) {
    log("GetVersion");
    const ZOVRELAY_Status result = state().scripts["GetVersion"].empty() ? state().versionStatus : status("GetVersion");
    if (result > 0 && version != nullptr) *version = state().version;
    return result;
}

ZOVRELAY_Status ZOVRELAY_GetStatusMessage(wchar_t* buffer, ZOVRELAY_Status code) {
    log("GetStatusMessage", "status=" + std::to_string(code));
    if (buffer != nullptr) {
        auto it = state().messages.find(code);
        const std::wstring text = it != state().messages.end() ? it->second : L"status " + std::to_wstring(code);
        std::wcscpy(buffer, text.c_str());
    }
    return status("GetStatusMessage");
}

ZOVRELAY_Status ZOVRELAY_CreateContext(ZOVRELAY_Context** context, const wchar_t* repository) {
    const size_t entry = log("CreateContext", "path=" + codes(repository));
    const ZOVRELAY_Status result = status("CreateContext");
    if (result > 0 && context != nullptr) {
        *context = new ZOVRELAY_Context{++state().contextsMade, {}};
        state().contexts[*context] = (*context)->number;
        state().log[entry].insert(state().log[entry].size() - 1, ",context=" + std::to_string((*context)->number));
    }
    return result;
}

// Released whatever the scripted status, as a real library does; anything unknown is logged as 0.
ZOVRELAY_Status ZOVRELAY_DestroyContext(ZOVRELAY_Context* context) {
    const unsigned long n = number(context);
    if (n != 0) {
        state().contexts.erase(context);
        delete context;
    }
    log("DestroyContext", "context=" + std::to_string(n));
    return status("DestroyContext");
}

ZOVRELAY_Status ZOVRELAY_SetOption(ZOVRELAY_Context* context, int option, int64_t value) {
    log("SetOption", "context=" + std::to_string(number(context)) + ",option=" + std::to_string(option) +
                         ",value=" + std::to_string(value));
    return status("SetOption");
}

ZOVRELAY_Status ZOVRELAY_SetStringOption(ZOVRELAY_Context* context, int option, const wchar_t* value) {
    log("SetStringOption",
        "context=" + std::to_string(number(context)) + ",option=" + std::to_string(option) + ",value=" + codes(value));
    return status("SetStringOption");
}

// A second handler for a type replaces the first; a refused or null one registers nothing.
ZOVRELAY_Status ZOVRELAY_SubscribeEvent(ZOVRELAY_Context* context, ZOVRELAY_EventType type,
                                        ZOVRELAY_Callback callback, void* userData) {
    log("SubscribeEvent", "context=" + std::to_string(number(context)) + ",event=" + std::to_string(type) +
                              ",callback=" + (callback != nullptr ? "true" : "false"));
    const ZOVRELAY_Status result = status("SubscribeEvent");
    if (result <= 0 || callback == nullptr || number(context) == 0) return result;
    for (auto& h : context->handlers)
        if (h.first == type) return h.second = {callback, userData}, result;
    context->handlers.push_back({type, {callback, userData}});
    return result;
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

// Only a record handed out and not yet destroyed is freed; anything else, null included, is
// logged as record 0, so that a double or foreign free shows in the log instead of the heap.
ZOVRELAY_Status ZOVRELAY_DestroyData(ZOVRELAY_Information* information) {
    auto it = state().records.find(information);
    unsigned long n = 0;
    if (it != state().records.end()) {
        n = it->second;
        state().records.erase(it);
        for (unsigned long i = 0; i < information->productCount; ++i) delete[] information->products[i].components;
        delete[] information->products;
        delete information;
    }
    log("DestroyData", "record=" + std::to_string(n));
    return status("DestroyData");
}

ZOVRELAY_Status ZOVRELAY_ExportComponent(ZOVRELAY_Context* context, const wchar_t* destination,
                                         ZOVRELAY_EntityItem item) {
    log("ExportComponent", "context=" + std::to_string(number(context)) + ",destination=" + codes(destination) +
                               ",entity={" + entity(item) + "}");
    return status("ExportComponent");
}
