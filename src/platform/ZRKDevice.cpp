#include "zrk/ZRKDevice.h"
#include "platform/ZRKUUID.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <mutex>

#include <sys/utsname.h>

namespace zrk {
namespace {

std::mutex buildVersionMutex;
std::optional<std::string> buildVersion;  // guarded by buildVersionMutex

std::string firstLine(const char* path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::uint64_t fnv1a(std::string_view bytes, std::uint64_t hash) {
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

}  // namespace

// Both are read once: every request states them, and neither changes while
// the process runs.
std::string ZRKDevice::systemVersion() {
  static const std::string version = [] {
    std::ifstream in("/etc/os-release");
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("VERSION_ID=", 0) == 0) {
        std::string value = line.substr(11);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        if (!value.empty()) return value;
      }
    }
    struct utsname names {};
    if (::uname(&names) == 0) return std::string(names.release);
    return std::string("0");
  }();
  return version;
}

std::string ZRKDevice::machine() {
  static const std::string name = [] {
    struct utsname names {};
    if (::uname(&names) != 0) return std::string("unknown");
    return std::string(names.machine);
  }();
  return name;
}

std::optional<std::string> ZRKDevice::appBuildVersion() {
  std::lock_guard lock(buildVersionMutex);
  return buildVersion;
}

void ZRKDevice::setAppBuildVersion(std::optional<std::string> version) {
  std::lock_guard lock(buildVersionMutex);
  buildVersion = std::move(version);
}

std::string ZRKDevice::defaultUserId() {
  static const std::string id = [] {
    std::string machineId = firstLine("/etc/machine-id");
    if (machineId.empty()) machineId = firstLine("/var/lib/dbus/machine-id");
    if (machineId.empty()) {
      return detail::randomUUIDString();
    }
    // Salted with the program's name so that two apps on one machine differ,
    // and hashed so that the machine id itself never leaves the machine.
    const std::string program = firstLine("/proc/self/comm");
    const std::string material = "zrkapi:" + machineId + ":" + program;
    // Version 8: a custom, name-derived layout.
    return detail::formatUUID(fnv1a(material, 0xcbf29ce484222325ULL), fnv1a(material, 0x84222325cbf29ce4ULL), 8);
  }();
  return id;
}

}  // namespace zrk
