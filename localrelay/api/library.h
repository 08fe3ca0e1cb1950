// Process-wide state of the local relay: whether ZOVRELAY_Startup is in force.
#ifndef LOCALRELAY_LIBRARY_H
#define LOCALRELAY_LIBRARY_H

namespace localrelay {

// False before ZOVRELAY_Startup and after ZOVRELAY_Shutdown; calls that need the library answer
// kNotStarted then.
bool IsStarted() noexcept;

} // namespace localrelay

#endif
