// The fake relay's process-wide state and the value tree of its call log; internal to the library.
#ifndef FAKERELAY_STATE_H
#define FAKERELAY_STATE_H

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fake_control.h"

struct FakeRelay_Value {
    FakeRelay_Kind kind = FAKERELAY_RECORD;
    int64_t integer = 0; // BOOLEAN, INTEGER
    uint64_t natural = 0; // UNSIGNED
    void* pointer = nullptr;
    std::string text;
    std::vector<uint32_t> codes;
    std::vector<std::string> keys; // RECORD: keys[i] names items[i]
    std::vector<FakeRelay_Value> items;

    // Records keep insertion order so that a dump reads like the call.
    void set(const char* key, FakeRelay_Value value);
    FakeRelay_Value* find(const char* key);
};

namespace fakerelay {

using Value = FakeRelay_Value;

struct Subscription {
    int32_t type;
    ZOVRELAY_Callback callback;
    void* userData;
};

} // namespace fakerelay

// The opaque handle of the interface, given a body here.
struct ZOVRELAY_Context {
    unsigned long number;
    std::vector<fakerelay::Subscription> subscriptions; // in subscription order
};

namespace fakerelay {

struct CraftedProduct {
    ZOVRELAY_EntityItem entity;
    std::vector<ZOVRELAY_EntityItem> components;
    unsigned long declaredCount;
};

struct Script {
    ZOVRELAY_Status status = 1;
    bool hasRecord = false;
    std::vector<CraftedProduct> products;
};

struct Event {
    int32_t type;
    bool hasMessage;
    bool hasInformation;
    std::vector<wchar_t> information; // terminated
    uint64_t total;
    uint64_t finished;
};

// Every block of a crafted record, so that DestroyData frees what was allocated even if the
// module scribbled over the record's pointers.
struct Record {
    unsigned long number = 0; // 0 until handed out
    std::vector<void*> blocks;
};

struct State {
    std::deque<Value> log; // a deque, so entries do not move while later calls append
    unsigned long generation = 0; // bumped by reset, so a running operation notices its entry is gone
    std::map<std::string, std::deque<Script>> scripts;
    std::vector<Event> events;
    // Events being raised, one batch per running operation: kept here rather than on the stack
    // because callbacks may re-enter the fake, and no destructor-bearing local should sit in a
    // frame under a callback.
    std::vector<std::vector<Event>> raising;
    std::map<ZOVRELAY_Status, std::vector<uint32_t>> messages;
    ZOV_Version version{1, 2, 3, 4};
    ZOVRELAY_Status versionStatus = 1;
    std::set<ZOVRELAY_Context*> contexts;
    unsigned long contextsMade = 0;
    std::map<ZOVRELAY_Information*, Record> records;
    unsigned long recordsHandedOut = 0;
};

State& state();
bool knownCall(const char* name);
bool takesRecord(const char* name);
int outstandingRecords();

Value boolean(bool b);
Value integer(int64_t i);
Value natural(uint64_t u);
Value text(std::string s);
Value pointer(void* p);
Value list();
Value record();

// Decoders of the records the module passes in (fake_decode.cpp).
std::string hex(const void* bytes, size_t size);
void setCodes(Value& record, const char* key, const wchar_t* string); // leaves key absent when null
Value entity(const ZOVRELAY_EntityItem& item);
Value products(const ZOVRELAY_Product* products, size_t count);
Value sources(const ZOVRELAY_Source* sources, size_t count);

} // namespace fakerelay

#endif // FAKERELAY_STATE_H
