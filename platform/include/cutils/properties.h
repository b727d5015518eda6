/*
 * System properties as the module sees them on the device. On the host the
 * store is a directory of one file per key (AVMANAGER_PROPERTY_DIR), shared
 * by every process that names the same directory.
 */
#ifndef AVM_PLATFORM_PROPERTIES_H
#define AVM_PLATFORM_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/* Copies the value (or default_value when unset, or "" when that is null)
 * into value, which holds PROPERTY_VALUE_MAX bytes. Returns its length. */
int property_get(const char *key, char *value, const char *default_value);

/* Sets key to value. A value of PROPERTY_VALUE_MAX characters or more is
 * refused. 0 on success, negative on failure. */
int property_set(const char *key, const char *value);

#ifdef __cplusplus
}
#endif

#endif
