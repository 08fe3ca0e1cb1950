// Reading a package of a local source into its part. Internal to the transfer layer.
#ifndef LOCALRELAY_LOCAL_H
#define LOCALRELAY_LOCAL_H

#include "transfer/budget.h"
#include "transfer/outcomes.h"

namespace localrelay {

// Reads the job's package, in full, and settles it; answers what stops the run.
ZOVRELAY_Status ReadLocal(Job& job, Outcomes& outcomes, Budget& budget);

}  // namespace localrelay

#endif
