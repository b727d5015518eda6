/*
 * Hardware module header as the platform's module loader defines it.
 * The module exports one record named HAL_MODULE_INFO_SYM_AS_STR whose first
 * member is a hw_module_t; the loader checks its tag and id.
 */
#ifndef AVM_PLATFORM_HARDWARE_H
#define AVM_PLATFORM_HARDWARE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MAKE_TAG_CONSTANT(A, B, C, D) (((A) << 24) | ((B) << 16) | ((C) << 8) | (D))
#define HARDWARE_MODULE_TAG MAKE_TAG_CONSTANT('H', 'W', 'M', 'T')
#define HARDWARE_DEVICE_TAG MAKE_TAG_CONSTANT('H', 'W', 'D', 'T')

#define HARDWARE_MAKE_API_VERSION(maj, min) ((((maj) & 0xff) << 8) | ((min) & 0xff))
#define HARDWARE_HAL_API_VERSION HARDWARE_MAKE_API_VERSION(1, 0)

#define HAL_MODULE_INFO_SYM HMI
#define HAL_MODULE_INFO_SYM_AS_STR "HMI"

struct hw_module_t;
struct hw_device_t;

typedef struct hw_module_methods_t {
    int (*open)(const struct hw_module_t *module, const char *id, struct hw_device_t **device);
} hw_module_methods_t;

typedef struct hw_module_t {
    uint32_t tag;
    uint16_t module_api_version;
    uint16_t hal_api_version;
    const char *id;
    const char *name;
    const char *author;
    struct hw_module_methods_t *methods;
    void *dso;
#ifdef __LP64__
    uint64_t reserved[32 - 7];
#else
    uint32_t reserved[32 - 7];
#endif
} hw_module_t;

typedef struct hw_device_t {
    uint32_t tag;
    uint32_t version;
    struct hw_module_t *module;
#ifdef __LP64__
    uint64_t reserved[12];
#else
    uint32_t reserved[12];
#endif
    int (*close)(struct hw_device_t *device);
} hw_device_t;

/* Load the module with this id: finds "<id>.default.so", resolves HMI and
 * checks its tag and id. 0 on success, negative errno otherwise. */
int hw_get_module(const char *id, const struct hw_module_t **module);

#ifdef __cplusplus
}
#endif

#endif
