// The module's Lua functions called with values built from the fuzzer's bytes, inside a real Lua
// state, against the fake relay scripted from the same bytes. Every call must return or raise a
// Lua error, and afterwards no relay context or record may be left.
//
// The target works inside a temporary directory it creates: repository paths are always short
// relative names there, since the clean-up after a mirror deletes archives under them.
#include <fuzzer/FuzzedDataProvider.h>
#include <lua.hpp>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

extern "C" int luaopen_update(lua_State* L);
extern "C" int luaopen_fakerelay(lua_State* L);

namespace {

lua_State* L = nullptr;

const char* const kFunctions[] = {"list",        "everything", "patterns", "patternsExceptKerno", "components",
                                  "extract",     "removeke",   "tocomponent", "toproduct",        "ok",
                                  "version",     "startup"};

const char* const kKeys[] = {"url", "proxy", "type", "host", "port", "user", "password", "extract",
                             "maxbandwidth", "buildpatch", "maxmerge", "keepcount", "httpslevel",
                             "file_type_blacklist", "enable_check_file_type_blacklist", "download",
                             "progress", "downloadbegin", "unknown", "ke", "removeke", "Maxbandwidth"};

const char* const kPieces[] = {"c", "t", "3", "4", "22", "2213", "v", ".", "1230", "123456", "l", "p", "r",
                               "o", "-", "1", "-10", "4294967297", "x", " ", "\xe9"};

// Helpers kept in the registry: handlers that answer, raise, or return nothing.
const char kPrelude[] = R"lua(
  local raise = setmetatable({}, {__index = function() error("index") end, __len = function() error("len") end})
  return {
    function() return true end, function() error("handler") end, function() end,
    function(path) return path end, raise,
  }
)lua";
int helpers = LUA_NOREF;
int fake = LUA_NOREF;  // the fake relay's Lua module

void pushValue(FuzzedDataProvider& data, int depth);

void pushIdentifier(FuzzedDataProvider& data) {
    std::string text;
    for (int n = data.ConsumeIntegralInRange(0, 8); n > 0; --n) text += data.PickValueInArray(kPieces);
    lua_pushlstring(L, text.data(), text.size());
}

void pushTable(FuzzedDataProvider& data, int depth) {
    int entries = data.ConsumeIntegralInRange(0, 4);
    lua_createtable(L, entries, 0);
    for (int i = 1; i <= entries; ++i) {
        if (data.ConsumeBool()) {
            pushValue(data, depth + 1);
            lua_rawseti(L, -2, i);
        } else {
            lua_pushstring(L, data.PickValueInArray(kKeys));
            pushValue(data, depth + 1);
            lua_rawset(L, -3);
        }
    }
    if (data.ConsumeIntegralInRange(0, 7) == 0) {
        lua_rawgeti(L, LUA_REGISTRYINDEX, helpers);
        lua_rawgeti(L, -1, 5);
        lua_getmetatable(L, -1);
        lua_setmetatable(L, -4);
        lua_pop(L, 2);
    }
}

/* [-0, +1] */
void pushValue(FuzzedDataProvider& data, int depth) {
    static const double kNumbers[] = {0.0, -1.0, 80.9, 70000.0, 2147483648.0, -2147483649.0, 1e300, 9007199254740993.0};
    switch (depth >= 3 ? data.ConsumeIntegralInRange(0, 5) : data.ConsumeIntegralInRange(0, 8)) {
        case 0: lua_pushnil(L); break;
        case 1: lua_pushboolean(L, data.ConsumeBool()); break;
        case 2: {
            switch (data.ConsumeIntegralInRange(0, 3)) {
                case 0: lua_pushnumber(L, __builtin_nan("")); break;
                case 1: lua_pushnumber(L, data.ConsumeBool() ? __builtin_inf() : -__builtin_inf()); break;
                case 2: lua_pushnumber(L, data.PickValueInArray(kNumbers)); break;
                default: lua_pushnumber(L, data.ConsumeFloatingPoint<double>()); break;
            }
            break;
        }
        case 3: {
            std::string text = data.ConsumeRandomLengthString(24);
            lua_pushlstring(L, text.data(), text.size());
            break;
        }
        case 4: pushIdentifier(data); break;
        case 5: {
            lua_rawgeti(L, LUA_REGISTRYINDEX, helpers);
            lua_rawgeti(L, -1, data.ConsumeIntegralInRange(1, 4));
            lua_remove(L, -2);
            break;
        }
        default: pushTable(data, depth); break;
    }
}

// A repository path: a short relative name in the working directory, or a value of another type.
void pushPath(FuzzedDataProvider& data) {
    switch (data.ConsumeIntegralInRange(0, 3)) {
        case 0: lua_pushfstring(L, "r%d", data.ConsumeIntegralInRange(0, 3)); break;
        case 1: lua_pushfstring(L, "r%d/", data.ConsumeIntegralInRange(0, 3)); break;
        case 2: lua_pushinteger(L, data.ConsumeIntegralInRange(0, 3)); break;
        default: pushValue(data, 3); break;
    }
    if (lua_type(L, -1) == LUA_TSTRING && strchr(lua_tostring(L, -1), '/') == lua_tostring(L, -1)) lua_pushnil(L);
}

void pushDecimal(uint64_t value) {  // 64-bit fields as decimal strings, which the fake reads exactly
    char text[24];
    snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(value));
    lua_pushstring(L, text);
}

/* [-0, +1]: an entity table for the fake relay */
void pushEntity(FuzzedDataProvider& data) {
    static const int32_t kFields[] = {-1, -10, 0, 1, 2, 4, 7};
    static const int32_t kKinds[][2] = {{3, 4}, {3, 2048}, {22, 2213}, {22, 2212}, {2, 1207960066}, {2, 7}, {1, 5}};
    const int32_t* kind = kKinds[data.ConsumeIntegralInRange<size_t>(0, 6)];
    const int32_t fields[] = {kind[0], kind[1], data.PickValueInArray(kFields), data.PickValueInArray(kFields)};
    const char* const names[] = {"klass", "type", "language", "oem"};
    lua_createtable(L, 0, 7);
    for (int i = 0; i < 4; ++i) {
        lua_pushinteger(L, fields[i]);
        lua_setfield(L, -2, names[i]);
    }
    pushDecimal(data.ConsumeIntegral<uint64_t>());
    lua_setfield(L, -2, "major");
    pushDecimal(data.ConsumeIntegralInRange<uint64_t>(0, 20000));
    lua_setfield(L, -2, "minor");
    pushDecimal(data.ConsumeBool() ? 0 : data.ConsumeIntegral<uint64_t>());
    lua_setfield(L, -2, "build");
}

// fake.script and fake.event from the fuzzer's bytes, through the fake relay's Lua module.
void scriptRelay(FuzzedDataProvider& data) {
    lua_rawgeti(L, LUA_REGISTRYINDEX, fake);
    lua_getfield(L, -1, "reset");
    lua_call(L, 0, 0);
    for (const char* call : {"CreateContext", "GetInformation", "Duplicate", "ExportComponent"}) {
        int status = data.ConsumeIntegralInRange(-11, 3);
        if (status == 0) status = 1;
        const bool listing = call[0] == 'G' || call[0] == 'D';
        if (!listing && !data.ConsumeBool()) continue;
        lua_getfield(L, -1, "script");
        lua_pushstring(L, call);
        lua_pushinteger(L, status);
        if (listing) {
            lua_createtable(L, 0, 1);
            const int count = data.ConsumeIntegralInRange(0, 3);
            lua_createtable(L, count, 0);
            for (int p = 1; p <= count; ++p) {
                const int n = data.ConsumeIntegralInRange(0, 4);
                lua_createtable(L, n, 0);
                for (int c = 1; c <= n; ++c) {
                    pushEntity(data);
                    lua_rawseti(L, -2, c);
                }
                pushEntity(data);
                lua_insert(L, -2);
                lua_setfield(L, -2, "components");
                if (data.ConsumeIntegralInRange(0, 15) == 0) {  // declares 2^61 components
                    pushDecimal(~0ul / 8);
                    lua_setfield(L, -2, "componentCount");
                }
                lua_rawseti(L, -2, p);
            }
            lua_setfield(L, -2, "products");
        }
        lua_call(L, listing ? 3 : 2, 0);
    }
    for (int n = data.ConsumeIntegralInRange(0, 3); n > 0; --n) {
        lua_getfield(L, -1, "event");
        lua_pushinteger(L, data.ConsumeIntegralInRange(-1, 7));
        if (data.ConsumeBool()) {
            lua_createtable(L, 0, 3);
            if (data.ConsumeBool()) {  // code points beyond a byte, one of them a sign-extended byte
                const lua_Number codes[] = {233, 4294967273.0, 97};
                lua_createtable(L, 3, 0);
                for (int i = 0; i < 3; ++i) lua_pushnumber(L, codes[i]), lua_rawseti(L, -2, i + 1);
                lua_setfield(L, -2, "information");
            }
            pushDecimal(data.ConsumeIntegral<uint64_t>());
            lua_setfield(L, -2, "total");
            pushDecimal(data.ConsumeIntegral<uint64_t>());
            lua_setfield(L, -2, "finished");
        } else {
            lua_pushnil(L);
        }
        lua_call(L, 2, 0);
    }
    lua_pop(L, 1);
}

/* [-0, +0]: open contexts plus records handed out and not destroyed */
lua_Integer outstanding() {
    lua_rawgeti(L, LUA_REGISTRYINDEX, fake);
    lua_getfield(L, -1, "counts");
    lua_call(L, 0, 1);
    lua_getfield(L, -1, "contexts");
    lua_getfield(L, -2, "records");
    const lua_Integer n = lua_tointeger(L, -1) + lua_tointeger(L, -2);
    lua_pop(L, 4);
    return n;
}

}  // namespace

// Records that declare 2^61 components make the result table's allocation fail: as in production,
// the allocator must answer null (Lua then raises a memory error) rather than abort.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

char workDirectory[] = "/tmp/update-fuzz-XXXXXX";

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// Removes the working directory, which holds only what this target made.
void removeWorkDirectory() { nftw(workDirectory, removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char* directory = workDirectory;
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0 || mkdir("r0", 0700) != 0 ||
        mkdir("r0/packages", 0700) != 0)
        abort();
    atexit(removeWorkDirectory);
    L = luaL_newstate();
    luaL_openlibs(L);
    luaL_requiref(L, "fakerelay", luaopen_fakerelay, 0);
    fake = luaL_ref(L, LUA_REGISTRYINDEX);
    luaopen_update(L);
    lua_setglobal(L, "update");
    if (luaL_dostring(L, kPrelude) != LUA_OK) abort();
    helpers = luaL_ref(L, LUA_REGISTRYINDEX);
    return 0;
}

namespace {

// r0 is a repository whose archives the clean-up may delete; they come back for every input.
void makeRepository() {
    static const char* const kFiles[] = {"r0/server.ini", "r0/packages/c3t4_16.zip", "r0/packages/c3t4_merged.zip"};
    for (const char* name : kFiles) {
        if (FILE* file = fopen(name, "w")) fclose(file);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    makeRepository();
    scriptRelay(data);
    lua_getglobal(L, "update");
    lua_getfield(L, -1, data.PickValueInArray(kFunctions));
    int arguments = data.ConsumeIntegralInRange(0, 5);
    for (int i = 1; i <= arguments; ++i) {
        if (i == 1)
            pushPath(data);
        else
            pushValue(data, 0);
    }
    lua_pcall(L, arguments, LUA_MULTRET, 0);
    lua_settop(L, 0);
    if (outstanding() != 0) __builtin_trap();
    lua_gc(L, LUA_GCSTEP, 0);
    return 0;
}
