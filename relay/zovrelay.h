/* The relay library's interface: records laid out byte for byte for x86-64 Linux (LP64,
 * little-endian, natural alignment, 32-bit wchar_t) and the thirteen calls. Declarations only;
 * the module, the local relay and the fake relay all include this one header. */
#ifndef ZOVRELAY_H
#define ZOVRELAY_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#define ZOVRELAY_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t ZOVRELAY_Status;

/* A fixed 32-bit type: relays may raise types outside 0-5, which must stay valid values. */
typedef enum ZOVRELAY_EventType : int32_t {
    ZOVRELAY_EVENT_DOWNLOAD = 0,
    ZOVRELAY_EVENT_PROGRESS = 1,
    ZOVRELAY_EVENT_REMOVEBEGIN = 2,
    ZOVRELAY_EVENT_REMOVEFAILED = 3,
    ZOVRELAY_EVENT_DOWNLOADBEGIN = 4,
    ZOVRELAY_EVENT_DOWNLOADEND = 5
} ZOVRELAY_EventType;

typedef struct ZOV_Version {
    unsigned long major;
    unsigned long minor;    /* a four-place decimal fraction: ".5" is 5000, ".0025" is 25 */
    unsigned long build;
    unsigned long revision; /* never printed by the identifier writers */
} ZOV_Version;

typedef struct ZOVRELAY_EntityItem {
    int32_t klass;
    int32_t type;
    int32_t language; /* -1 when an identifier leaves it out; -10 hides the entity */
    int32_t platform;
    int32_t region;
    int32_t oem;
    ZOV_Version version;
} ZOVRELAY_EntityItem;

typedef struct ZOVRELAY_Product {
    ZOVRELAY_EntityItem entity;      /* first, so a product serves wherever an entity is expected */
    ZOVRELAY_EntityItem* components; /* componentCount records, stride 56 */
    unsigned long componentCount;
} ZOVRELAY_Product;

typedef struct ZOVRELAY_Information {
    ZOVRELAY_Product* products;
    unsigned long productCount;
} ZOVRELAY_Information;

typedef struct ZOVRELAY_Proxy {
    int32_t type; /* 0 HTTP, 1 SOCKS5 */
    uint32_t padding0;
    wchar_t* host;
    uint16_t port;
    uint8_t padding1[6];
    wchar_t* user;
    wchar_t* password;
} ZOVRELAY_Proxy;

typedef struct ZOVRELAY_Source {
    wchar_t* url;
    uint64_t reserved[2]; /* never set by the module: always zero */
    ZOVRELAY_Proxy* proxy;
} ZOVRELAY_Source;

typedef struct ZOVRELAY_EventMessage {
    wchar_t* information;
    unsigned long total;
    unsigned long finished;
} ZOVRELAY_EventMessage;

typedef struct ZOVRELAY_Context ZOVRELAY_Context;

typedef int (*ZOVRELAY_Callback)(ZOVRELAY_EventType type, ZOVRELAY_EventMessage* message, void* userData);

/* The form shared by ZOVRELAY_GetInformation, ZOVRELAY_Duplicate and the module's filtered
 * operations. The caller sets *information to null first; a status above 0 may leave a record
 * there, to be freed with ZOVRELAY_DestroyData. */
typedef ZOVRELAY_Status (*RelayOperation)(ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                          size_t productCount, const ZOVRELAY_Source* sources,
                                          size_t sourceCount, ZOVRELAY_Information** information);

ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_Startup(void* reserved);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_Shutdown(void);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_GetVersion(ZOV_Version* version);
/* Writes at most 64 wide characters, the terminator included. */
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_GetStatusMessage(wchar_t* buffer, ZOVRELAY_Status status);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_CreateContext(ZOVRELAY_Context** context, const wchar_t* repository);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_DestroyContext(ZOVRELAY_Context* context);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_SetOption(ZOVRELAY_Context* context, int option, int64_t value);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_SetStringOption(ZOVRELAY_Context* context, int option, const wchar_t* value);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_SubscribeEvent(ZOVRELAY_Context* context, ZOVRELAY_EventType type,
                                                     ZOVRELAY_Callback callback, void* userData);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_GetInformation(ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                                     size_t productCount, const ZOVRELAY_Source* sources,
                                                     size_t sourceCount, ZOVRELAY_Information** information);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_Duplicate(ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                                size_t productCount, const ZOVRELAY_Source* sources,
                                                size_t sourceCount, ZOVRELAY_Information** information);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_DestroyData(ZOVRELAY_Information* information);
ZOVRELAY_API ZOVRELAY_Status ZOVRELAY_ExportComponent(ZOVRELAY_Context* context, const wchar_t* destination,
                                                      ZOVRELAY_EntityItem entity);

#ifdef __cplusplus
} /* extern "C" */

static_assert(sizeof(wchar_t) == 4, "wide characters are 32 bits");
static_assert(sizeof(unsigned long) == 8 && sizeof(void*) == 8, "LP64");
static_assert(sizeof(ZOVRELAY_Status) == 4 && sizeof(ZOVRELAY_EventType) == 4, "32-bit status and event type");

static_assert(sizeof(ZOV_Version) == 32, "ZOV_Version");
static_assert(offsetof(ZOV_Version, major) == 0 && offsetof(ZOV_Version, minor) == 8 &&
              offsetof(ZOV_Version, build) == 16 && offsetof(ZOV_Version, revision) == 24, "ZOV_Version");

static_assert(sizeof(ZOVRELAY_EntityItem) == 56, "ZOVRELAY_EntityItem");
static_assert(offsetof(ZOVRELAY_EntityItem, klass) == 0 && offsetof(ZOVRELAY_EntityItem, type) == 4 &&
              offsetof(ZOVRELAY_EntityItem, language) == 8 && offsetof(ZOVRELAY_EntityItem, platform) == 12 &&
              offsetof(ZOVRELAY_EntityItem, region) == 16 && offsetof(ZOVRELAY_EntityItem, oem) == 20 &&
              offsetof(ZOVRELAY_EntityItem, version) == 24, "ZOVRELAY_EntityItem");

static_assert(sizeof(ZOVRELAY_Product) == 72, "ZOVRELAY_Product");
static_assert(offsetof(ZOVRELAY_Product, entity) == 0 && offsetof(ZOVRELAY_Product, components) == 56 &&
              offsetof(ZOVRELAY_Product, componentCount) == 64, "ZOVRELAY_Product");

static_assert(sizeof(ZOVRELAY_Information) == 16, "ZOVRELAY_Information");
static_assert(offsetof(ZOVRELAY_Information, products) == 0 && offsetof(ZOVRELAY_Information, productCount) == 8,
              "ZOVRELAY_Information");

static_assert(sizeof(ZOVRELAY_Source) == 32, "ZOVRELAY_Source");
static_assert(offsetof(ZOVRELAY_Source, url) == 0 && offsetof(ZOVRELAY_Source, reserved) == 8 &&
              offsetof(ZOVRELAY_Source, proxy) == 24, "ZOVRELAY_Source");

static_assert(sizeof(ZOVRELAY_Proxy) == 40, "ZOVRELAY_Proxy");
static_assert(offsetof(ZOVRELAY_Proxy, type) == 0 && offsetof(ZOVRELAY_Proxy, padding0) == 4 &&
              offsetof(ZOVRELAY_Proxy, host) == 8 && offsetof(ZOVRELAY_Proxy, port) == 16 &&
              offsetof(ZOVRELAY_Proxy, padding1) == 18 && offsetof(ZOVRELAY_Proxy, user) == 24 &&
              offsetof(ZOVRELAY_Proxy, password) == 32, "ZOVRELAY_Proxy");

static_assert(sizeof(ZOVRELAY_EventMessage) == 24, "ZOVRELAY_EventMessage");
static_assert(offsetof(ZOVRELAY_EventMessage, information) == 0 && offsetof(ZOVRELAY_EventMessage, total) == 8 &&
              offsetof(ZOVRELAY_EventMessage, finished) == 16, "ZOVRELAY_EventMessage");
#endif

#endif /* ZOVRELAY_H */
