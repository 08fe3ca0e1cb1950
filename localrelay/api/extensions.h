// Calls of the local relay beyond the relay interface, for the project's own tools (the command's
// companion module `localrelay`); the module never uses them, so it runs on any relay library.
// They set how the calling thread's next operations run and hand out what those left.
#ifndef LOCALRELAY_EXTENSIONS_H
#define LOCALRELAY_EXTENSIONS_H

#include "zovrelay.h"

#ifdef __cplusplus
extern "C" {
#endif

// Bits of the run mode.
enum {
    ZOVRELAY_LOCAL_PLAN_ONLY = 1,  // ZOVRELAY_Duplicate plans and writes nothing: no lock, no file,
                                   // no event; a context does not create its repository
    ZOVRELAY_LOCAL_READ_BACK = 2,  // every held archive is read back in full, due or not
    ZOVRELAY_LOCAL_KEEP_PLAN = 4,  // a mirror that runs keeps its plan for ZOVRELAY_LocalTakePlan too
    ZOVRELAY_LOCAL_NO_ANSWER = 8,  // ZOVRELAY_Duplicate hands out no products (its caller reads the
                                   // report): the module's table of 20,000 components costs several
                                   // times a quiet night
};

// Sets the calling thread's run mode (0: as the interface says) and answers the one before.
ZOVRELAY_API int ZOVRELAY_LocalRunMode(int mode);

// The plan of the calling thread's last ZOVRELAY_Duplicate, as JSON text, or null when there is
// none; the caller frees it with ZOVRELAY_LocalFreeText. Taking it forgets it.
ZOVRELAY_API char* ZOVRELAY_LocalTakePlan(void);
ZOVRELAY_API void ZOVRELAY_LocalFreeText(char* text);

// The calling thread's last failure's message in full when `status` is that failure (the one
// ZOVRELAY_GetStatusMessage cuts to 63 characters: whole addresses, the proxy beside the source),
// or null; the caller frees it with ZOVRELAY_LocalFreeText.
ZOVRELAY_API char* ZOVRELAY_LocalLastMessage(ZOVRELAY_Status status);

// Keys for the calling thread's next operations. `signingKey`: the path of the PEM private key the
// repository signs its catalogs with (null: the file UPDATE_SIGNING_KEY names, if set; "": none).
// `trustedKeys`: text in the format of <repository>/.trusted-keys, trusted beside that file (null:
// nothing more). Answers 0, or -1 when out of memory.
ZOVRELAY_API int ZOVRELAY_LocalKeys(const char* signingKey, const char* trustedKeys);

// Asks every running operation of the process to stop as a cancelled one does, keeping what
// was downloaded for a later run to continue. Safe in a signal handler.
ZOVRELAY_API void ZOVRELAY_LocalRequestStop(void);

#ifdef __cplusplus
}
#endif

#endif
