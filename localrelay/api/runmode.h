// The calling thread's run mode, set through the local relay's own calls (extensions.h).
#ifndef LOCALRELAY_RUNMODE_H
#define LOCALRELAY_RUNMODE_H

#include "base/events.h"

#include <string>

namespace localrelay {

bool PlanOnly() noexcept;
bool ReadBackAll() noexcept;
bool KeepsPlan() noexcept;  // an executed mirror keeps its plan as well
// Keeps the plan of the thread's last plan-only or executed run for ZOVRELAY_LocalTakePlan.
void KeepPlan(std::string plan);

}  // namespace localrelay

#endif
