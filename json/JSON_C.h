/* The plain-function interface to JSON messages, for callers that do not use the classes:
 * allocate a message, parse a text into it, read values by ordinal, name or dotted path, free
 * it. Valid C as well as C++. A handle belongs to one thread at a time: even the getters build
 * the message's lookup indexes. */
#ifndef JSON_JSON_C_H_
#define JSON_JSON_C_H_

#include "common/QVExport.h"
/* The rest of the plain-function interface: JSON_EscapeString into a fixed buffer and the
 * number formatters. */
#include "json/JSONEscape.h"
#include "json/JSONNumbers.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A message handle is a JSON::Message* passed untyped. Every function but JSON_FreeMessage
 * needs a live handle from JSON_AllocMessage. */

/* A new, empty message (copy mode: it parses into its own copy of the text). */
QV_API void* JSON_AllocMessage(void);
/* Destroys the message and its tree; null is ignored. */
QV_API void JSON_FreeMessage(void* msg);
/* Parses the NUL-terminated text; 1 when its root object or array was read completely. */
QV_API int JSON_ParseMessage(void* msg, const char* text);
/* Number of members or elements of the root; 0 without a tree. */
QV_API int JSON_MessageSize(void* msg);

/* By ordinal: member or element i of the root in insertion order. By name: a member of the
 * root object (on a root array the name is read as a decimal ordinal). By path: a dotted path
 * from the root ("b.2"). A miss reads as a value of no type: null string, 0, 0.0. */

/* 1 for an explicit JSON null; 0 otherwise, a missing value included. */
QV_API int JSON_IsOrdinalNull(void* msg, int ordinal);
QV_API int JSON_IsNameNull(void* msg, const char* name);
QV_API int JSON_IsPathNull(void* msg, const char* path);

/* The text of a string value, else null. It stays valid until the message is parsed again,
 * the value is changed or the message is freed; the caller neither changes nor frees it. */
QV_API const char* JSON_GetOrdinalAsString(void* msg, int ordinal);
QV_API const char* JSON_GetNameAsString(void* msg, const char* name);
QV_API const char* JSON_GetPathAsString(void* msg, const char* path);

/* Integers read in base 10 (saturated to int), reals truncated toward zero (saturated),
 * booleans 1 or 0; anything else 0. */
QV_API int JSON_GetOrdinalAsInt(void* msg, int ordinal);
QV_API int JSON_GetNameAsInt(void* msg, const char* name);
QV_API int JSON_GetPathAsInt(void* msg, const char* path);

/* Reals and integers as double, booleans 1.0 or 0.0; anything else 0.0. */
QV_API double JSON_GetOrdinalAsDouble(void* msg, int ordinal);
QV_API double JSON_GetNameAsDouble(void* msg, const char* name);
QV_API double JSON_GetPathAsDouble(void* msg, const char* path);

/* Integers read as signed 64-bit and taken as unsigned (-1 gives the largest value; beyond
 * the signed range they saturate); reals truncated (saturated to 0..2^64-1 for values out of
 * range, a negative real wraps as its signed 64-bit truncation); booleans 1 or 0; else 0. */
QV_API unsigned long long JSON_GetOrdinalAsUnsignedLong64(void* msg, int ordinal);
QV_API unsigned long long JSON_GetNameAsUnsignedLong64(void* msg, const char* name);

#ifdef __cplusplus
}
#endif

#endif /* JSON_JSON_C_H_ */
