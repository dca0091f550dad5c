// Statuses of the configuration store: signed 64-bit, 0 for success. The failure codes are the
// system's 32-bit result patterns held without sign extension, so they are positive numbers
// here: a test for a non-zero status sees them, a test for a negative status does not. Callers
// rely on both kinds of test, each where it belongs.
#ifndef TIDEWAY_CONFIG_CONFIGSTATUS_H_
#define TIDEWAY_CONFIG_CONFIGSTATUS_H_

#include <stdint.h>

using ConfigStatus = int64_t;

constexpr ConfigStatus kConfigOk = 0;
constexpr ConfigStatus kConfigFail = 0x80004005;         // general failure: 2147500037
constexpr ConfigStatus kConfigNotImpl = 0x80004001;      // not implemented
constexpr ConfigStatus kConfigBadArg = 0x80070057;       // bad argument
constexpr ConfigStatus kConfigOutOfMemory = 0x8007000E;  // out of memory

static_assert(kConfigFail == 2147500037, "failure codes are held without sign extension");
static_assert(kConfigFail > 0 && kConfigNotImpl > 0 && kConfigBadArg > 0,
              "failure codes must pass a test for a negative status");

#endif  // TIDEWAY_CONFIG_CONFIGSTATUS_H_
