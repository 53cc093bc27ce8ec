#pragma once

#include "interfaces/export.h"
#include "interfaces/ilog.h"
#include "interfaces/iprotocol_v2.h"

// The C functions of a protocol module: a dynamic library lib<name>.dylib in the Frameworks folder
// beside the executable's. All but BindLogger are required.
extern "C" {

// Hands out the protocol types that the module serves, separated by ";", in memory of the module's.
TARN_EXPORT void GetSupportProtocol(char** list);

// Takes back a text that the module handed out.
TARN_EXPORT void FreeP(char* text);

// Must exist; the version of the module in a form of its own.
TARN_EXPORT int GetProtocolVersion();

// Makes a protocol object for a remote. `connection_id` is the mount request's "/data/cid", else
// its "/data/url". *protocol stays null when none could be made.
TARN_EXPORT bool GetProtocol(const char* connection_id, void* reserved, IProtocol_V2** protocol);

// Lends the process's logger to the module.
TARN_EXPORT void BindLogger(ILog* logger);
}
