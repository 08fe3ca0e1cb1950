// The calling thread's run mode, set through the local relay's own calls (extensions.h).
#ifndef LOCALRELAY_RUNMODE_H
#define LOCALRELAY_RUNMODE_H

#include "base/events.h"

#include <optional>
#include <string>

namespace localrelay {

bool PlanOnly() noexcept;
bool ReadBackAll() noexcept;
bool KeepsPlan() noexcept;  // an executed mirror keeps its plan as well
bool NoAnswer() noexcept;   // a mirror hands out no products
// The keys the thread gave with ZOVRELAY_LocalKeys (nullopt: none given).
const std::optional<std::string>& GivenSigningKey() noexcept;
const std::optional<std::string>& GivenTrustedKeys() noexcept;
// Keeps the plan of the thread's last plan-only or executed run for ZOVRELAY_LocalTakePlan.
void KeepPlan(std::string plan);

}  // namespace localrelay

#endif
