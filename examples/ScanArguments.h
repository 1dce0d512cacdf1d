// The command line shared by the scanner examples:
//
//   <program> [--url URL] [--key KEY] [--secret SECRET] [--collection ID]
//             [--timeout SECONDS] IMAGE
//
// URL, KEY and SECRET default to $ZRK_BASE_URL, $ZRK_APP_KEY and
// $ZRK_APP_SECRET; without them, to the service itself and no credentials.
#ifndef ZRK_EXAMPLES_SCANARGUMENTS_H
#define ZRK_EXAMPLES_SCANARGUMENTS_H

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKApi.h"
#include "zrk/ZRKError.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"

namespace example {

struct ScanArguments {
  std::string baseUrl;
  std::string key;
  std::string secret;
  std::optional<std::string> collection;
  std::chrono::seconds timeout{30};
  std::string image;
};

inline std::string fromEnvironment(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value && *value ? value : fallback;
}

// nullopt (after printing the usage) when the command line is wrong.
inline std::optional<ScanArguments> parseScanArguments(int argc, char** argv) {
  ScanArguments arguments;
  arguments.baseUrl = fromEnvironment("ZRK_BASE_URL", zrk::ZRKDefaultBaseURL);
  arguments.key = fromEnvironment("ZRK_APP_KEY", "");
  arguments.secret = fromEnvironment("ZRK_APP_SECRET", "");
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    const bool hasValue = i + 1 < argc;
    if (option == "--url" && hasValue) {
      arguments.baseUrl = argv[++i];
    } else if (option == "--key" && hasValue) {
      arguments.key = argv[++i];
    } else if (option == "--secret" && hasValue) {
      arguments.secret = argv[++i];
    } else if (option == "--collection" && hasValue) {
      arguments.collection = argv[++i];
    } else if (option == "--timeout" && hasValue) {
      arguments.timeout = std::chrono::seconds(std::atoi(argv[++i]));
    } else if (arguments.image.empty() && !option.starts_with("--")) {
      arguments.image = option;
    } else {
      arguments.image.clear();
      break;
    }
  }
  if (arguments.image.empty()) {
    std::fprintf(stderr,
                 "usage: %s [--url URL] [--key KEY] [--secret SECRET] [--collection ID] [--timeout SECONDS] IMAGE\n",
                 argv[0]);
    return std::nullopt;
  }
  return arguments;
}

// Sets up the shared client as the arguments say.
inline void configureClient(const ScanArguments& arguments) {
  zrk::ZRKApi::initializeWithAppKey(arguments.key, arguments.secret);
  zrk::ZRKApiClient::setBaseUrl(arguments.baseUrl);
}

// The photo to scan; nothing (after saying why) when the file is no image.
inline std::shared_ptr<zrk::ZRKImage> loadPhoto(const ScanArguments& arguments) {
  auto photo = zrk::ZRKImage::imageWithContentsOfFile(arguments.image);
  if (!photo) std::fprintf(stderr, "%s: not a JPEG or PNG file\n", arguments.image.c_str());
  return photo;
}

// Prints the outcome of a scan; the program's exit status.
inline int reportScan(const std::shared_ptr<zrk::ZRKScanAPIResponse>& scan, const std::optional<zrk::ZRKError>& error) {
  if (error) {
    std::fprintf(stderr, "scan failed: %s (%s %ld)\n", error->localizedDescription().c_str(), error->domain.c_str(),
                 error->code);
    return 1;
  }
  if (!scan) {
    std::fprintf(stderr, "scan failed: no answer\n");
    return 1;
  }
  std::printf("scan %s: trigger %s (%s), score %ld\n", scan->scanId().value_or("-").c_str(),
              scan->triggerId().value_or("-").c_str(), scan->triggerName().value_or("-").c_str(),
              static_cast<long>(scan->score()));
  return 0;
}

}  // namespace example

#endif  // ZRK_EXAMPLES_SCANARGUMENTS_H
