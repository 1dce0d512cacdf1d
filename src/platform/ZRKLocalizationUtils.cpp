#include "zrk/ZRKLocalizationUtils.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "platform/ZRKLanguages.h"

namespace zrk {
namespace {

// Any object inside the library's binary will do for asking the loader.
const char anchor = 0;

// The directory of the binary this code was linked into.
std::string ownBinaryDirectory() {
  Dl_info info{};
  std::string path;
  if (::dladdr(&anchor, &info) != 0 && info.dli_fname) path = info.dli_fname;
  // For the program itself the loader may report argv[0], which need not
  // hold a directory; the kernel knows better.
  if (path.find('/') == std::string::npos) path = "/proc/self/exe";
  char resolved[PATH_MAX];
  if (!::realpath(path.c_str(), resolved)) return {};
  std::string full(resolved);
  const std::size_t slash = full.rfind('/');
  return slash == std::string::npos ? std::string() : full.substr(0, slash == 0 ? 1 : slash);
}

std::shared_ptr<const ZRKBundle> locateResourcesBundle() {
  const auto languages = detail::userLanguages(detail::LocaleEnvironment::current());
  if (auto bundle = detail::directoryBundle("ZRKResource.bundle", languages)) return bundle;
  if (const std::string directory = ownBinaryDirectory(); !directory.empty()) {
    if (auto bundle = detail::directoryBundle(directory + "/ZRKApi.bundle", languages)) return bundle;
  }
#ifdef ZRK_INSTALL_LOCALEDIR
  if (auto bundle = detail::directoryBundle(ZRK_INSTALL_LOCALEDIR, languages)) return bundle;
#endif
  return ZRKBundle::mainBundle();
}

}  // namespace

std::shared_ptr<const ZRKBundle> ZRKBundleLocator::ZRKResourcesBundle() {
  static const std::shared_ptr<const ZRKBundle> bundle = locateResourcesBundle();
  return bundle;
}

std::string ZRKLocalizationUtils::localizedStringForKey(std::string_view key) {
  static const bool useMainBundle = [] {
    const auto& ours = ZRKBundleLocator::ZRKResourcesBundle()->preferredLocalizations();
    const auto& application = ZRKBundle::mainBundle()->preferredLocalizations();
    return ours.empty() || application.empty() || ours.front() != application.front();
  }();
  const auto bundle = useMainBundle ? ZRKBundle::mainBundle() : ZRKBundleLocator::ZRKResourcesBundle();
  return bundle->localizedStringForKey(key);
}

}  // namespace zrk
