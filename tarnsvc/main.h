#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

// Process entry: the argument table, the run modes, the settings reader and the path roots. All of
// it runs on the main thread, but for the readers of paths and of ProcessStarted, which any thread
// may use once _maind has filled the argument table.

inline constexpr int kArgumentSlots = 8;
inline constexpr int kPathBytes = 1024;  // every path and settings value, with its terminating zero

// The command-line arguments, zero-terminated and cut at 1023 bytes; unused slots are empty texts.
extern char lpCmdLineData[kArgumentSlots][kPathBytes];

// The running flag. True at start; cleared by SIGTERM or "kill" in the service, and in a drive
// process when its drive is unmounted or the service is gone.
extern std::atomic<bool> ProcessStarted;

// Runs the mode that the first argument names and returns when its work has ended.
void _maind(int count, const char* const* arguments);
void ServiceMainProc();

// The daemon mode: system log, /dev/null as standard streams, then the service. Returns 0.
int init_deamon();
int ExecuteSubProcess();

// Entry points of service control, which this platform does not have: they do nothing.
void Install(const char* name, const char* display_name);
void UnInstall(const char* name);
void KillService(const char* name);
void RunService(const char* name);

// Reads one value of an INI file: the first `key` in the first `section`, both compared without
// regard to case. Returns whether it was found; else `out` holds the default, or is untouched when
// the file cannot be opened. `size` is the size of `out` in bytes; longer values are cut.
bool GetPrivateProfileString(const char* section, const char* key, const char* default_value,
                             char* out, int size, const char* file);

// Copies `source` without the spaces at both ends; `out` may be the same buffer.
void strip(const char* source, char* out);

// The folder of the running executable, without a trailing "/". Empty where it cannot be told or
// does not fit. Returns 0.
int GetCurrentPath(char* out, int size);

// The application-data folder under the home folder, into a buffer of kPathBytes. Returns its
// length; 0, and an empty text, where it does not fit.
int GetAppDataPath(char* out);

// The service name of the SDK settings, into a buffer of kPathBytes; empty where there is none.
// Returns `out`.
char* GetServiceName(char* out);

// Makes a folder with mode 0755; not the ones above it. True when it exists now.
bool CreateDirectory(const char* path, void* reserved);

namespace tarn {

// GetServiceName as a text.
std::string ServiceName();

// `first` + `rest` when that fits kPathBytes with its terminating zero and `first` is not empty.
std::optional<std::string> JoinPath(std::string_view first, std::string_view rest);

// The service's data folder followed by `rest` ("" or "/" and a name); nothing where it does not
// fit.
std::optional<std::string> DataPath(std::string_view rest);

}  // namespace tarn
