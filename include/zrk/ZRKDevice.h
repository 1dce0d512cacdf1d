// What the library tells the service about the device and the app.
// Safe from any thread.
#ifndef ZRK_ZRKDEVICE_H
#define ZRK_ZRKDEVICE_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>

namespace zrk {

class ZRK_API ZRKDevice {
 public:
  // The operating system's version: VERSION_ID of os-release, else the
  // kernel release; read once per process.
  static std::string systemVersion();
  // The hardware name that uname reports ("x86_64", "aarch64", ...); read
  // once per process.
  static std::string machine();
  // The host application's build version; absent unless the host sets it.
  static std::optional<std::string> appBuildVersion();
  static void setAppBuildVersion(std::optional<std::string> version);
  // A stable identifier of this app on this machine, as an upper-case UUID:
  // derived from the machine id and the program's name, or random (for the
  // process's life) where the machine has no id.
  static std::string defaultUserId();
};

}  // namespace zrk

#endif  // ZRK_ZRKDEVICE_H
