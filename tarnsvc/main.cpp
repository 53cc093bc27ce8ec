#include "tarnsvc/main.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <libxml/parser.h>
#include <memory>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "common/folders.h"
#include "tarnsvc/Child.h"
#include "tarnsvc/Parent.h"

char lpCmdLineData[kArgumentSlots][kPathBytes] = {};
std::atomic<bool> ProcessStarted{true};
static_assert(std::atomic<bool>::is_always_lock_free, "the SIGTERM handler stores into it");

namespace {

constexpr int kLineBytes = 2048;

struct CloseFile {
  void operator()(FILE* file) const { (void)std::fclose(file); }  // read only: nothing to lose
};
using File = std::unique_ptr<FILE, CloseFile>;

// Copies a text, cut to the buffer.
void CopyText(std::string_view text, char* out, size_t size) {
  if (size == 0) {
    return;
  }
  const size_t length = std::min(text.size(), size - 1);
  std::memmove(out, text.data(), length);
  out[length] = '\0';
}

// Puts /dev/null in place of standard descriptors that are closed, or of all three, so that no
// socket or FIFO ever gets one of their numbers.
void FillStandardDescriptors(bool replace_open_ones) {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (!replace_open_ones && ::fcntl(fd, F_GETFD) >= 0) {
      continue;
    }
    const int null_device = ::open("/dev/null", O_RDWR);  // not close-on-exec: children inherit it
    if (null_device >= 0 && null_device != fd) {
      (void)::dup2(null_device, fd);
      ::close(null_device);
    }
  }
}

using Line = std::array<char, kLineBytes>;

bool ReadLine(FILE* file, Line& line) {
  line.fill('\0');
  return std::fgets(line.data(), kLineBytes, file) != nullptr;
}

std::string_view WithoutLineEnd(const Line& line) {
  std::string_view text = line.data();
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool SkipToSection(FILE* file, const std::string& header) {
  Line line;
  while (ReadLine(file, line)) {
    if (EqualsIgnoringCase(WithoutLineEnd(line), header)) {
      return true;
    }
  }
  return false;
}

bool MatchesKey(std::string_view text, const char* key) {
  std::array<char, kPathBytes> name;
  CopyText(text, name.data(), name.size());
  strip(name.data(), name.data());
  return ::strcasecmp(name.data(), key) == 0;
}

// Finds the key between here and the next section header; the value starts after "=" and spaces.
bool FindValue(FILE* file, const char* key, std::string& value) {
  Line line;
  while (ReadLine(file, line)) {
    if (line[0] == '[') {
      return false;
    }
    const std::string_view text = WithoutLineEnd(line);
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos || !MatchesKey(text.substr(0, equals), key)) {
      continue;
    }
    const std::string_view after = text.substr(equals + 1);
    value = after.substr(std::min(after.find_first_not_of(' '), after.size()));
    return true;
  }
  return false;
}

}  // namespace

void _maind(int count, const char* const* arguments) {
  FillStandardDescriptors(false);
  for (int i = 0; i < std::min(count, kArgumentSlots); ++i) {
    CopyText(arguments[i], lpCmdLineData[i], kPathBytes);
  }
  xmlInitGlobals();
  (void)curl_global_init(CURL_GLOBAL_ALL);  // a later request reports what is missing
  ServiceMainProc();
}

void ServiceMainProc() {
  const char* const mode = lpCmdLineData[1];
  if (::strcasecmp(mode, "-d") == 0) {
    StartParent(nullptr);
  } else if (::strcasecmp(mode, "-c") == 0) {
    StartChild(lpCmdLineData[2], lpCmdLineData[3]);
  } else {
    (void)ExecuteSubProcess();  // always 0
  }
}

int ExecuteSubProcess() {
  return init_deamon();
}

int init_deamon() {
  setlogmask(LOG_UPTO(LOG_NOTICE));
  openlog("tarnsvc", LOG_PID | LOG_CONS | LOG_NDELAY | LOG_PERROR, LOG_USER);
  syslog(LOG_INFO, "Entering Daemon");
  FillStandardDescriptors(true);
  StartParent(nullptr);
  closelog();
  return 0;
}

void Install(const char* /*name*/, const char* /*display_name*/) {}
void UnInstall(const char* /*name*/) {}
void KillService(const char* /*name*/) {}
void RunService(const char* /*name*/) {}

bool GetPrivateProfileString(const char* section, const char* key, const char* default_value,
                             char* out, int size, const char* file) {
  const File ini(std::fopen(file, "re"));
  if (!ini) {
    return false;
  }
  std::string value;
  const bool found = SkipToSection(ini.get(), "[" + std::string(section) + "]") &&
                     FindValue(ini.get(), key, value);
  CopyText(found ? std::string_view(value) : std::string_view(default_value), out,
           static_cast<size_t>(std::max(size, 0)));
  return found;
}

void strip(const char* source, char* out) {
  std::string_view text = source;
  while (!text.empty() && text.front() == ' ') {
    text.remove_prefix(1);
  }
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  CopyText(text, out, text.size() + 1);
}

int GetCurrentPath(char* out, int size) {
  std::array<char, PATH_MAX> resolved;
  std::string_view path;
  if (::realpath(lpCmdLineData[0], resolved.data()) != nullptr) {
    path = resolved.data();
    path = path.substr(0, path.rfind('/'));
  }
  const bool fits = path.size() < static_cast<size_t>(std::max(size, 0));
  CopyText(fits ? path : "", out, static_cast<size_t>(std::max(size, 0)));
  return 0;
}

int GetAppDataPath(char* out) {
  const auto path = tarn::JoinPath(tarn::HomeFolder(), "/Library/Application Support");
  CopyText(path.value_or(""), out, kPathBytes);
  return static_cast<int>(path.value_or("").size());
}

char* GetServiceName(char* out) {
  std::array<char, kPathBytes> name = {};
  std::array<char, kPathBytes> folder = {};
  GetCurrentPath(folder.data(), static_cast<int>(folder.size()));
  if (const auto settings = tarn::JoinPath(folder.data(), "/tarnapi.ini")) {
    (void)GetPrivateProfileString("SDK", "NAME", "", name.data(), static_cast<int>(name.size()),
                                  settings->c_str());  // missing: the name stays empty
  }
  CopyText(name.data(), out, kPathBytes);
  return out;
}

bool CreateDirectory(const char* path, void* /*reserved*/) {
  return ::mkdir(path, 0755) == 0 || errno == EEXIST;
}

namespace tarn {

std::string ServiceName() {
  std::array<char, kPathBytes> name = {};
  return GetServiceName(name.data());
}

std::optional<std::string> JoinPath(std::string_view first, std::string_view rest) {
  if (first.empty() || first.size() + rest.size() >= static_cast<size_t>(kPathBytes)) {
    return std::nullopt;
  }
  return std::string(first).append(rest);
}

std::optional<std::string> DataPath(std::string_view rest) {
  std::array<char, kPathBytes> folder = {};
  if (GetAppDataPath(folder.data()) == 0) {
    return std::nullopt;
  }
  return JoinPath(folder.data(), "/" + ServiceName() + std::string(rest));
}

}  // namespace tarn
