/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Configuration: the property table, the INI file, the command line and the program's directories.
 *
 * Every setting is a property: a small key (0..287) used by code, a case-insensitive name used by
 * the INI file and the command line, a default, flags and a description written into the INI
 * file. A value comes from the command line, else the INI file, else the default.
 *
 * Conventions of this family:
 *  - The module is reference-counted: pair upnp_ini_file_init with upnp_ini_file_release. Before
 *    the first init (and after the last release) every accessor gives its "missing" result.
 *  - Strings returned by the getters (values, names, list items, paths) stay owned by the table:
 *    never free them, and do not keep them across a change of the same property.
 *  - Keys are unsigned; 288 and above, or a key without a property, is "missing".
 *  - All calls are thread-safe (one configuration lock inside); none needs the global lock.
 *    Init and release themselves belong to the host's start-up and shut-down thread.
 */
#ifndef TARNWICK_CONFIG_H
#define TARNWICK_CONFIG_H

#include <stddef.h>
#include <stdint.h>

#include "tarnwick/export.h"
#include "tarnwick/types.h"

TW_EXTERN_C_BEGIN

/* Keys of the built-in properties. Keys 10 and 11 and everything from 18 up belong to the host. */
#define UPNP_INI_KEY_FRIENDLYNAME 0u
#define UPNP_INI_KEY_IP 1u
#define UPNP_INI_KEY_NICRESTART 2u
#define UPNP_INI_KEY_V 3u
#define UPNP_INI_KEY_PLATFORM 4u
#define UPNP_INI_KEY_HTTPPORT 5u
#define UPNP_INI_KEY_ININAME 6u
#define UPNP_INI_KEY_INIPATH 7u
#define UPNP_INI_KEY_READ_ONLY 8u
#define UPNP_INI_KEY_SSDPTTL 9u
#define UPNP_INI_KEY_LOGFILE 12u
#define UPNP_INI_KEY_APPDATA 13u
#define UPNP_INI_KEY_CLEARCLIENTSONRESTART 14u
#define UPNP_INI_KEY_DISABLELOCALSSDP 15u
#define UPNP_INI_KEY_ENABLETLS 16u
#define UPNP_INI_KEY_NMCMODE 17u
/* Keys run from 0 to UPNP_INI_MAX_KEYS - 1; at most UPNP_INI_MAX_PROPERTIES properties exist. */
#define UPNP_INI_MAX_KEYS 288u
#define UPNP_INI_MAX_PROPERTIES 287

/* Results of upnp_ini_file_create_property. */
#define UPNP_INI_OK 0
#define UPNP_INI_KEY_IN_USE 1
#define UPNP_INI_NAME_IN_USE 2
#define UPNP_INI_OUT_OF_MEMORY 3
#define UPNP_INI_KEY_INVALID 4 /* key 288 or above */
#define UPNP_INI_NAME_EMPTY 5
#define UPNP_INI_NO_LOCK 6
#define UPNP_INI_TABLE_FULL 7

/* Where a property's current value came from (upnp_ini_file_get_property_origin). */
#define UPNP_INI_ORIGIN_MISSING (-1)   /* no such property */
#define UPNP_INI_ORIGIN_DEFAULT 0      /* nothing set: the default applies */
#define UPNP_INI_ORIGIN_INI_FILE 1     /* read from the INI file */
#define UPNP_INI_ORIGIN_COMMAND_LINE 2 /* an option of upnp_ini_file_parse_cmdline */
/* upnp_ini_file_setPropertyByKey, or settled by the library: appdata and inipath in
 * upnp_ini_file_init_DATA_Dir. */
#define UPNP_INI_ORIGIN_PROGRAM 3

/* ---- Lifecycle ---------------------------------------------------------------------------- */
/* Counts up; the first call creates the lock and the built-in properties (with defaults). */
TW_API void upnp_ini_file_init(void) TW_NOEXCEPT;
/* Counts down; the last call frees the whole table, its caches and lists, and the lock. */
TW_API void upnp_ini_file_release(void) TW_NOEXCEPT;
/* 1 while initialised, else 0. */
TW_API int32_t upnp_ini_file_is_initialized(void) TW_NOEXCEPT;

/* ---- Declaring ---------------------------------------------------------------------------- */
/* Adds a property (strings are copied; the flags are set when non-zero). Returns UPNP_INI_OK or
 * one of the UPNP_INI_* codes above; the name is compared without regard to case. */
TW_API int32_t upnp_ini_file_create_property(uint32_t key, const char* name,
                                             const char* default_value, const char* description,
                                             int32_t is_list, int32_t hidden, int32_t disabled,
                                             int32_t restart_required) TW_NOEXCEPT;

/* ---- Reading ------------------------------------------------------------------------------ */
/* The value if set, else the default; null when missing or neither exists. Owned by the table. */
TW_API const char* upnp_ini_file_getString(uint32_t key) TW_NOEXCEPT;
/* atoi of upnp_ini_file_getString; 0 when that is null or empty. */
TW_API int32_t upnp_ini_file_getInt(uint32_t key) TW_NOEXCEPT;
/* 1 when the string is non-empty and does not start with '0', else 0. */
TW_API int32_t upnp_ini_file_getBoolean(uint32_t key) TW_NOEXCEPT;
/* The same as upnp_ini_file_getBoolean. */
TW_API int32_t upnp_ini_file_isSet(uint32_t key) TW_NOEXCEPT;
/* 1 when a value is set (so the default does not apply); 0 otherwise or when missing. */
TW_API int32_t upnp_ini_file_isModified(uint32_t key) TW_NOEXCEPT;
/* The property's name, owned by the table; null when missing. */
TW_API const char* upnp_ini_file_getPropParamName(uint32_t key) TW_NOEXCEPT;
/* The key of the property of that name, compared without regard to case; -1 when none. */
TW_API int32_t upnp_ini_file_getPropertyKey(const char* name) TW_NOEXCEPT;
/* 1 when the key is below 288 and has a property. */
TW_API int32_t upnp_ini_file_isValidKey(uint32_t key) TW_NOEXCEPT;
/* The flag; 1 when missing. */
TW_API int32_t upnp_ini_file_propertyIsHidden(uint32_t key) TW_NOEXCEPT;
TW_API int32_t upnp_ini_file_propertyIsDisabled(uint32_t key) TW_NOEXCEPT;
/* One line "name=value\r\n" per property (value else default, else nothing), in creation order,
 * hidden and disabled ones included. A new string (free with upnp_string_free); null when not
 * initialised or memory is short. */
TW_API upnp_string* upnp_ini_file_get_all_properties(void) TW_NOEXCEPT;
/* Item index of a comma-separated list property, blanks behind each comma skipped; owned by the
 * table's list cache until the value changes. A non-list property gives its set value for index
 * 0. Null when missing, out of range, or the item is empty at the end of the text. */
TW_API const char* upnp_ini_file_get_next_CSV(uint32_t key, int32_t index) TW_NOEXCEPT;
/* 1 when a property flagged "restart required" changed since the last reset. */
TW_API int32_t upnp_ini_file_restartPending(void) TW_NOEXCEPT;
TW_API void upnp_ini_file_reset_restartPending(void) TW_NOEXCEPT;
/* Where the current value of the property came from: one of UPNP_INI_ORIGIN_*. A value given
 * by the command line or the program keeps its origin even when it equals the default, and
 * such a property is then never taken from the INI file. */
TW_API int32_t upnp_ini_file_get_property_origin(uint32_t key) TW_NOEXCEPT;

/* ---- Writing ------------------------------------------------------------------------------ */
/* Sets a value as the program or the command line does: hidden properties included, an empty
 * string is stored, and the INI file cannot override it later. Null returns to the default.
 * Disabled properties and missing keys are ignored. */
TW_API void upnp_ini_file_setPropertyByKey(uint32_t key, const char* value) TW_NOEXCEPT;
/* Set the flag to (flag != 0); missing keys are ignored. */
TW_API void upnp_ini_file_hideProperty(uint32_t key, int32_t flag) TW_NOEXCEPT;
TW_API void upnp_ini_file_disableProperty(uint32_t key, int32_t flag) TW_NOEXCEPT;
/* Applies the INI file; a missing or unreadable file (or memory shortage) changes nothing. A file
 * starting with the bytes FF FE is UTF-16 and makes later writes UTF-16 too. */
TW_API void upnp_ini_file_read_properties(void) TW_NOEXCEPT;
/* Rewrites the INI file from the table, unless read_only is set; an unwritable path is logged. */
TW_API void upnp_ini_file_write_properties(void) TW_NOEXCEPT;
/* Deletes the file at the INI path. */
TW_API void upnp_ini_file_reset(void) TW_NOEXCEPT;
/* inipath joined with ininame (creating the inipath directories on first use); cached and owned
 * by the table until either property changes. Null when inipath is unset or not initialised. */
TW_API const char* upnp_ini_file_get_ini_path(void) TW_NOEXCEPT;

/* ---- Command line and directories ---------------------------------------------------------- */
/* Applies "-name value" options and "-inifile path", settles the data directory, copies a default
 * INI file into place when none exists, reads the INI file and clears restart pending: 0. An
 * argument containing "?" or "help" prints the usage instead and returns 1. */
TW_API int32_t upnp_ini_file_parse_cmdline(int32_t argc, char* const* argv) TW_NOEXCEPT;
/* Prints the help text to standard output. */
TW_API void usage(const char* program_name) TW_NOEXCEPT;
/* Makes parse_cmdline skip the argument equal to text (dash included); 1, or 0 when 20 are
 * stored already (or text is null). */
TW_API int32_t upnp_ini_file_add_ignored_cmdline_param(const char* text) TW_NOEXCEPT;
/* Names the application data directory, keeping at most 1022 characters; null is ignored. */
TW_API void upnp_ini_file_set_default_appname(const char* name) TW_NOEXCEPT;
/* Adds a default INI file name to try when no INI file exists yet; null is ignored. */
TW_API void upnp_ini_file_add_default_file(const char* name) TW_NOEXCEPT;
/* The first command-line argument as stored, or null. Owned by the module. */
TW_API const char* upnp_ini_file_get_EXE_Name(void) TW_NOEXCEPT;
/* The executable name cut at its last "/" ("" without one, or null when not initialised). Owned
 * by the module, computed once. */
TW_API const char* upnp_ini_file_get_EXE_Dir(void) TW_NOEXCEPT;
/* Settles appdata, created one level deep, and inipath when the command line did not give them. */
TW_API void upnp_ini_file_init_DATA_Dir(void) TW_NOEXCEPT;

TW_EXTERN_C_END

#endif /* TARNWICK_CONFIG_H */
