#pragma once

#include <string>

namespace tarn {

// Where the service that belongs to this program stands and where it keeps its files.
struct Installation {
  std::string program_folder;  // holds tarnctl, tarnsvc and tarnapi.ini
  std::string home;
  std::string service_name;  // also the key that clients introduce themselves with

  [[nodiscard]] std::string LibraryFolder() const { return home + "/Library"; }
  [[nodiscard]] std::string SupportFolder() const {
    return LibraryFolder() + "/Application Support";
  }
  [[nodiscard]] std::string LogsFolder() const { return LibraryFolder() + "/Logs"; }
  [[nodiscard]] std::string PortRecord() const {
    return SupportFolder() + "/" + service_name + "/tarnsvc.ini";
  }
  [[nodiscard]] std::string LogFile() const {
    return LogsFolder() + "/" + service_name + "/tarnsvclog";
  }
};

// The installation of the running program, for the user's home folder: HOME, else the account's.
[[nodiscard]] Installation FindInstallation();

// The installation in a given folder, for a given home.
[[nodiscard]] Installation InstallationIn(const std::string& program_folder,
                                          const std::string& home);

// The port that the service recorded at its last start; 0 when there is no record of one.
[[nodiscard]] int ReadPort(const Installation& installation);

// The value of a key in a section of an INI file; the empty text when there is none. Sections end
// at the next line that begins with "["; names match without regard to case; blanks around a key
// and before a value do not count.
[[nodiscard]] std::string ReadIniValue(const std::string& path, const std::string& section,
                                       const std::string& key);

}  // namespace tarn
