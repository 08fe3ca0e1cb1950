// The fake relay: each call logs what the module passed, as a Lua table constructor, and answers
// what the test scripted (1 when nothing is queued); contexts and records are counted allocations.
// The library is also the Lua module `fakerelay` (fakerelay.so links to it), with the host's Lua.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <lua.hpp>

#include "zovrelay.h"

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
                      const ZOVRELAY_Source* sources, size_t sourceCount) {
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
    const size_t entry = log(name, arguments(context, products, productCount, sources, sourceCount));
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
    const ZOVRELAY_Status result = state().versionStatus;
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

// The Lua module. A Lua error unwinds these frames, so they hold plain data only, in userdata on
// the Lua stack, until the state is changed at their end.
namespace {

// 64 bits from a number (negatives wrap) or a decimal string, for values past 2^53.
uint64_t bits(lua_State* L, int index, uint64_t otherwise) {
    if (lua_type(L, index) == LUA_TSTRING) return std::strtoull(lua_tostring(L, index), nullptr, 10);
    if (lua_type(L, index) != LUA_TNUMBER) return otherwise;
    const lua_Number value = lua_tonumber(L, index);
    return value < 0 ? static_cast<uint64_t>(static_cast<int64_t>(value)) : static_cast<uint64_t>(value);
}

uint64_t field(lua_State* L, int table, const char* key, uint64_t otherwise) {
    lua_getfield(L, table, key);
    const uint64_t value = bits(L, -1, otherwise);
    lua_pop(L, 1);
    return value;
}

/* [-0, +0]: the entity fields of the table at index; absent ones 0, or -1 for the four below class and type */
ZOVRELAY_EntityItem entityOf(lua_State* L, int index) {
    const uint64_t none = ~0ull;
    return ZOVRELAY_EntityItem{
        static_cast<int32_t>(field(L, index, "klass", 0)),      static_cast<int32_t>(field(L, index, "type", 0)),
        static_cast<int32_t>(field(L, index, "language", none)), static_cast<int32_t>(field(L, index, "platform", none)),
        static_cast<int32_t>(field(L, index, "region", none)),   static_cast<int32_t>(field(L, index, "oem", none)),
        {field(L, index, "major", 0), field(L, index, "minor", 0), field(L, index, "build", 0),
         field(L, index, "revision", 0)}};
}

/* [-0, +1]: the string (a code point a byte) or array of code points at index as a terminated wide
   string in a userdata; null when nil */
const wchar_t* wide(lua_State* L, int index) {
    if (lua_isnoneornil(L, index)) {
        lua_pushnil(L);
        return nullptr;
    }
    const bool text = lua_type(L, index) == LUA_TSTRING;
    const size_t n = lua_rawlen(L, index);
    wchar_t* out = static_cast<wchar_t*>(lua_newuserdata(L, (n + 1) * sizeof(wchar_t)));
    for (size_t i = 0; i < n; ++i) {
        if (text) {
            out[i] = static_cast<unsigned char>(lua_tostring(L, index)[i]);
        } else {
            lua_rawgeti(L, index, static_cast<int>(i + 1));
            out[i] = static_cast<wchar_t>(bits(L, -1, 0));
            lua_pop(L, 1);
        }
    }
    out[n] = 0;
    return out;
}

// script(name, status [, {products = {product, ...}}]): a product is an entity with components =
// {entity, ...} and optionally componentCount, the count the record then declares.
int script(lua_State* L) {
    const char* name = luaL_checkstring(L, 1);
    const ZOVRELAY_Status status = static_cast<ZOVRELAY_Status>(bits(L, 2, 1));
    if (lua_istable(L, 3)) lua_getfield(L, 3, "products");  // 4; without a record, none is handed out
    else lua_pushnil(L);
    const size_t n = lua_istable(L, 4) ? lua_rawlen(L, 4) : 0;
    lua_settop(L, 4);
    luaL_checkstack(L, static_cast<int>(n) + 8, "too many products");
    struct Product {
        ZOVRELAY_EntityItem entity;
        const ZOVRELAY_EntityItem* components;
        size_t held;
        unsigned long declared;
    };
    auto* products = static_cast<Product*>(lua_newuserdata(L, (n + 1) * sizeof(Product)));
    for (size_t i = 0; i < n; ++i) {
        lua_rawgeti(L, 4, static_cast<int>(i + 1));
        const int product = lua_gettop(L);
        lua_getfield(L, product, "components");
        const size_t count = lua_istable(L, -1) ? lua_rawlen(L, -1) : 0;
        auto* components = static_cast<ZOVRELAY_EntityItem*>(lua_newuserdata(L, (count + 1) * sizeof(ZOVRELAY_EntityItem)));
        for (size_t j = 0; j < count; ++j) {
            lua_rawgeti(L, product + 1, static_cast<int>(j + 1));
            components[j] = entityOf(L, lua_gettop(L));
            lua_pop(L, 1);
        }
        products[i] = {entityOf(L, product), components, count, field(L, product, "componentCount", count)};
        lua_replace(L, product);  // keeps the components' userdata alive until the script is queued
        lua_pop(L, 1);
    }
    Script script{status, lua_istable(L, 3), {}, {}};
    for (size_t i = 0; i < n; ++i) {
        script.components.emplace_back(products[i].components, products[i].components + products[i].held);
        script.products.push_back({products[i].entity, script.components.back().data(), products[i].declared});
    }
    state().scripts[name].push_back(std::move(script));
    return 0;
}

// event(type [, {information = string | code points, total = n, finished = n}])
int event(lua_State* L) {
    const int32_t type = static_cast<int32_t>(bits(L, 1, 0));
    const bool hasMessage = lua_istable(L, 2);
    if (hasMessage) lua_getfield(L, 2, "information");
    const wchar_t* information = hasMessage ? wide(L, 3) : nullptr;
    const ZOVRELAY_EventMessage message{nullptr, hasMessage ? field(L, 2, "total", 0) : 0,
                                        hasMessage ? field(L, 2, "finished", 0) : 0};
    state().events.push_back(Event{type, hasMessage, information != nullptr, information ? information : L"", message});
    return 0;
}

// message(status, text | code points | nil): what GetStatusMessage writes, cut to 63 characters
int message(lua_State* L) {
    const ZOVRELAY_Status status = static_cast<ZOVRELAY_Status>(bits(L, 1, 0));
    if (const wchar_t* text = wide(L, 2)) state().messages[status] = std::wstring(text).substr(0, 63);
    else state().messages.erase(status);
    return 0;
}

// version({major =, minor =, build =, revision =} | nil [, status = 1])
int version(lua_State* L) {
    if (lua_istable(L, 1))
        state().version = {field(L, 1, "major", 0), field(L, 1, "minor", 0), field(L, 1, "build", 0),
                           field(L, 1, "revision", 0)};
    state().versionStatus = static_cast<ZOVRELAY_Status>(bits(L, 2, 1));
    return 0;
}

// Forgets log, scripts, events and messages, restores the version; live contexts and records stay.
int reset(lua_State*) {
    State fresh;
    fresh.contexts.swap(state().contexts);
    fresh.records.swap(state().records);
    state() = std::move(fresh);
    return 0;
}

int counts(lua_State* L) {
    lua_createtable(L, 0, 2);
    lua_pushinteger(L, static_cast<lua_Integer>(state().contexts.size()));
    lua_setfield(L, -2, "contexts");
    lua_pushinteger(L, static_cast<lua_Integer>(state().records.size()));
    lua_setfield(L, -2, "records");
    return 1;
}

// calls(): the log, each entry a table with `name` and the call's decoded arguments.
int calls(lua_State* L) {
    const size_t n = state().log.size();
    lua_createtable(L, static_cast<int>(n), 0);
    for (size_t i = 0; i < n; ++i) {
        lua_pushfstring(L, "return %s", state().log[i].c_str());
        if (luaL_loadstring(L, lua_tostring(L, -1)) != LUA_OK) return lua_error(L);
        lua_call(L, 0, 1);
        lua_rawseti(L, -3, static_cast<int>(i + 1));
        lua_pop(L, 1);
    }
    return 1;
}

const luaL_Reg kFunctions[] = {{"reset", reset},     {"script", script}, {"event", event}, {"message", message},
                               {"version", version}, {"counts", counts}, {"calls", calls}, {nullptr, nullptr}};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_fakerelay(lua_State* L) {
    luaL_newlib(L, kFunctions);
    return 1;
}
