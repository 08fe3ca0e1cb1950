#include "api/extensions.h"
#include "api/runmode.h"
#include "base/events.h"
#include "base/failure.h"

#include <cstdlib>
#include <cstring>
#include <optional>

namespace localrelay {
namespace {

thread_local int runMode = 0;
thread_local std::string* lastPlan = nullptr;  // owned; freed when taken or replaced
thread_local std::optional<std::string> signingKey, trustedKeys;

// A C string the caller frees with ZOVRELAY_LocalFreeText; null when there is no memory.
char* Copy(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

}  // namespace

bool PlanOnly() noexcept { return (runMode & ZOVRELAY_LOCAL_PLAN_ONLY) != 0; }
bool ReadBackAll() noexcept { return (runMode & ZOVRELAY_LOCAL_READ_BACK) != 0; }
bool NoAnswer() noexcept { return (runMode & ZOVRELAY_LOCAL_NO_ANSWER) != 0; }
bool KeepsPlan() noexcept { return (runMode & (ZOVRELAY_LOCAL_READ_BACK | ZOVRELAY_LOCAL_KEEP_PLAN)) != 0; }

const std::optional<std::string>& GivenSigningKey() noexcept { return signingKey; }
const std::optional<std::string>& GivenTrustedKeys() noexcept { return trustedKeys; }

void KeepPlan(std::string plan) {
    delete lastPlan;
    lastPlan = new std::string(std::move(plan));
}

}  // namespace localrelay

using namespace localrelay;

extern "C" {

int ZOVRELAY_LocalRunMode(int mode) {
    const int before = runMode;
    runMode = mode;
    return before;
}

char* ZOVRELAY_LocalTakePlan(void) {
    if (lastPlan == nullptr) return nullptr;
    char* text = Copy(*lastPlan);
    delete lastPlan;
    lastPlan = nullptr;
    return text;
}

char* ZOVRELAY_LocalLastMessage(ZOVRELAY_Status status) {
    try {  // asking must not change the last failure
        std::string text;
        return LastFailureText(status, text, true) ? Copy(text) : nullptr;
    } catch (...) {
        return nullptr;
    }
}

void ZOVRELAY_LocalFreeText(char* text) { std::free(text); }

int ZOVRELAY_LocalKeys(const char* signing, const char* trusted) {
    try {
        signingKey = signing != nullptr ? std::optional<std::string>(signing) : std::nullopt;
        trustedKeys = trusted != nullptr ? std::optional<std::string>(trusted) : std::nullopt;
        return 0;
    } catch (...) {
        return -1;
    }
}

void ZOVRELAY_LocalRequestStop(void) { RequestStop(); }

}  // extern "C"
