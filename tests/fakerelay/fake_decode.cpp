// Turns the records the module hands to the relay into log values: every field decoded, and
// every record's raw bytes as well, so that padding and reserved words can be checked too.
#include <cstring>

#include "fake_state.h"

void FakeRelay_Value::set(const char* key, FakeRelay_Value value) {
    for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i] == key) {
            items[i] = std::move(value);
            return;
        }
    }
    keys.emplace_back(key);
    items.push_back(std::move(value));
}

FakeRelay_Value* FakeRelay_Value::find(const char* key) {
    for (size_t i = 0; i < keys.size(); ++i)
        if (keys[i] == key) return &items[i];
    return nullptr;
}

namespace fakerelay {

namespace {
Value make(FakeRelay_Kind kind) {
    Value v;
    v.kind = kind;
    return v;
}
} // namespace

Value boolean(bool b) {
    Value v = make(FAKERELAY_BOOLEAN);
    v.integer = b ? 1 : 0;
    return v;
}

Value integer(int64_t i) {
    Value v = make(FAKERELAY_INTEGER);
    v.integer = i;
    return v;
}

Value natural(uint64_t u) {
    Value v = make(FAKERELAY_UNSIGNED);
    v.natural = u;
    return v;
}

Value text(std::string s) {
    Value v = make(FAKERELAY_TEXT);
    v.text = std::move(s);
    return v;
}

Value pointer(void* p) {
    Value v = make(FAKERELAY_POINTER);
    v.pointer = p;
    return v;
}

Value list() { return make(FAKERELAY_LIST); }

Value record() { return make(FAKERELAY_RECORD); }

std::string hex(const void* bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    std::string out;
    out.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        out.push_back(digits[p[i] >> 4]);
        out.push_back(digits[p[i] & 15]);
    }
    return out;
}

void setCodes(Value& record, const char* key, const wchar_t* string) {
    if (!string) return;
    Value v = make(FAKERELAY_CODES);
    for (const wchar_t* c = string; *c; ++c) v.codes.push_back(static_cast<uint32_t>(*c));
    record.set(key, std::move(v));
}

namespace {
void setEntityFields(Value& v, const ZOVRELAY_EntityItem& e) {
    v.set("klass", integer(e.klass));
    v.set("type", integer(e.type));
    v.set("language", integer(e.language));
    v.set("platform", integer(e.platform));
    v.set("region", integer(e.region));
    v.set("oem", integer(e.oem));
    v.set("major", natural(e.version.major));
    v.set("minor", natural(e.version.minor));
    v.set("build", natural(e.version.build));
    v.set("revision", natural(e.version.revision));
}

Value proxy(const ZOVRELAY_Proxy& p) {
    Value v = record();
    v.set("bytes", text(hex(&p, sizeof p)));
    v.set("type", integer(p.type));
    v.set("port", natural(p.port));
    setCodes(v, "host", p.host);
    setCodes(v, "user", p.user);
    setCodes(v, "password", p.password);
    return v;
}
} // namespace

Value entity(const ZOVRELAY_EntityItem& item) {
    Value v = record();
    setEntityFields(v, item);
    v.set("bytes", text(hex(&item, sizeof item)));
    return v;
}

Value products(const ZOVRELAY_Product* products, size_t count) {
    Value all = list();
    for (size_t i = 0; i < count; ++i) {
        const ZOVRELAY_Product& p = products[i];
        Value v = record();
        setEntityFields(v, p.entity);
        v.set("bytes", text(hex(&p, sizeof p)));
        v.set("component_count", natural(p.componentCount));
        if (p.components) {
            Value components = list();
            for (unsigned long j = 0; j < p.componentCount; ++j) components.items.push_back(entity(p.components[j]));
            v.set("components", std::move(components));
        }
        all.items.push_back(std::move(v));
    }
    return all;
}

Value sources(const ZOVRELAY_Source* sources, size_t count) {
    Value all = list();
    for (size_t i = 0; i < count; ++i) {
        const ZOVRELAY_Source& s = sources[i];
        Value v = record();
        v.set("bytes", text(hex(&s, sizeof s)));
        setCodes(v, "url", s.url);
        if (s.proxy) v.set("proxy", proxy(*s.proxy));
        all.items.push_back(std::move(v));
    }
    return all;
}

} // namespace fakerelay
