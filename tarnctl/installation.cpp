#include "tarnctl/installation.h"

#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <memory>
#include <pwd.h>
#include <string_view>
#include <strings.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

#include "common/posix.h"

namespace tarn {

namespace {

constexpr size_t kLargestIniBytes = 65536;
constexpr int kHighestPort = 65535;

std::string RunningProgram() {
#if defined(__APPLE__)
  std::array<char, PATH_MAX> name{};
  uint32_t size = name.size();
  const char* path = ::_NSGetExecutablePath(name.data(), &size) == 0 ? name.data() : "";
#else
  const char* path = "/proc/self/exe";
#endif
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path, nullptr), &std::free);
  return real != nullptr ? real.get() : "";
}

std::string HomeFolder() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') {
    return home;
  }
  const passwd* account = ::getpwuid(::getuid());  // one thread only, at the start
  return account != nullptr ? account->pw_dir : "";
}

bool IsSameName(std::string_view left, std::string_view right) {
  return left.size() == right.size() && ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

// Takes the next line off the text, without its line end.
std::string_view NextLine(std::string_view& text) {
  const size_t length = std::min(text.find('\n'), text.size());
  std::string_view line = text.substr(0, length);
  text.remove_prefix(std::min(length + 1, text.size()));
  while (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return line;
}

std::string_view WithoutLeadingBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

std::string_view WithoutBlanks(std::string_view text) {
  const size_t last = text.find_last_not_of(' ');
  return last == std::string_view::npos ? std::string_view()
                                        : WithoutLeadingBlanks(text.substr(0, last + 1));
}

}  // namespace

std::string ReadIniValue(const std::string& path, const std::string& section,
                         const std::string& key) {
  std::string content;
  if (!ReadFile(path, kLargestIniBytes, content)) {
    return {};
  }
  std::string_view rest = content;
  const std::string header = "[" + section + "]";
  while (!rest.empty() && !IsSameName(NextLine(rest), header)) {
  }
  while (!rest.empty()) {
    const std::string_view line = NextLine(rest);
    if (line.starts_with('[')) {
      break;
    }
    const size_t equals = line.find('=');
    if (equals != std::string_view::npos &&
        IsSameName(WithoutBlanks(line.substr(0, equals)), key)) {
      return std::string(WithoutLeadingBlanks(line.substr(equals + 1)));
    }
  }
  return {};
}

Installation InstallationIn(const std::string& program_folder, const std::string& home) {
  return {program_folder, home, ReadIniValue(program_folder + "/tarnapi.ini", "SDK", "NAME")};
}

Installation FindInstallation() {
  const std::string program = RunningProgram();
  return InstallationIn(program.substr(0, program.rfind('/')), HomeFolder());
}

int ReadPort(const Installation& installation) {
  const std::string text = ReadIniValue(installation.PortRecord(), "NET", "PORT");
  int port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  const bool is_port = error == std::errc() && port > 0 && port <= kHighestPort;
  return is_port ? port : 0;
}

}  // namespace tarn
