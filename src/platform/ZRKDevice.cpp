#include "zrk/ZRKDevice.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>

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

std::string formatUUID(std::uint64_t high, std::uint64_t low) {
  // Version 8 (custom) and the RFC 4122 variant, so the text is a valid UUID.
  high = (high & ~0xF000ULL) | 0x8000ULL;
  low = (low & ~(3ULL << 62)) | (2ULL << 62);
  char text[37];
  std::snprintf(text, sizeof text, "%08llX-%04llX-%04llX-%04llX-%012llX",
                static_cast<unsigned long long>(high >> 32), static_cast<unsigned long long>((high >> 16) & 0xFFFF),
                static_cast<unsigned long long>(high & 0xFFFF), static_cast<unsigned long long>(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

}  // namespace

std::string ZRKDevice::systemVersion() {
  std::ifstream in("/etc/os-release");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VERSION_ID=", 0) == 0) {
      std::string value = line.substr(11);
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
      if (!value.empty()) return value;
    }
  }
  struct utsname names {};
  if (::uname(&names) == 0) return names.release;
  return "0";
}

std::string ZRKDevice::machine() {
  struct utsname names {};
  if (::uname(&names) != 0) return "unknown";
  return names.machine;
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
      std::random_device random;
      const std::uint64_t high = (std::uint64_t{random()} << 32) | random();
      const std::uint64_t low = (std::uint64_t{random()} << 32) | random();
      return formatUUID(high, low);
    }
    // Salted with the program's name so that two apps on one machine differ,
    // and hashed so that the machine id itself never leaves the machine.
    const std::string program = firstLine("/proc/self/comm");
    const std::string material = "zrkapi:" + machineId + ":" + program;
    return formatUUID(fnv1a(material, 0xcbf29ce484222325ULL), fnv1a(material, 0x84222325cbf29ce4ULL));
  }();
  return id;
}

}  // namespace zrk
