#include "api/extensions.h"
#include "api/runmode.h"
#include "base/events.h"

#include <cstdlib>
#include <cstring>

namespace localrelay {
namespace {

thread_local int runMode = 0;
thread_local std::string* lastPlan = nullptr;  // owned; freed when taken or replaced

}  // namespace

bool PlanOnly() noexcept { return (runMode & ZOVRELAY_LOCAL_PLAN_ONLY) != 0; }
bool ReadBackAll() noexcept { return (runMode & ZOVRELAY_LOCAL_READ_BACK) != 0; }
bool KeepsPlan() noexcept { return (runMode & (ZOVRELAY_LOCAL_READ_BACK | ZOVRELAY_LOCAL_KEEP_PLAN)) != 0; }

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
    char* text = static_cast<char*>(std::malloc(lastPlan->size() + 1));
    if (text != nullptr) std::memcpy(text, lastPlan->c_str(), lastPlan->size() + 1);
    delete lastPlan;
    lastPlan = nullptr;
    return text;
}

void ZOVRELAY_LocalFreeText(char* text) { std::free(text); }

void ZOVRELAY_LocalRequestStop(void) { RequestStop(); }

}  // extern "C"
