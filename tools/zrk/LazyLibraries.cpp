// libcurl and Highway, loaded when zrk first calls them rather than when it
// starts. libcurl brings some thirty shared libraries (TLS, Kerberos, LDAP,
// ...) whose loading and relocation was half of `zrk --version`, and
// libhwy's start-up measures its timer for a few milliseconds: neither is
// needed by --help, --version or `prepare` (which loads only Highway).
//
// These definitions take the place of the libraries' own at link time
// (with --as-needed the linker then drops the libraries from the program's
// dependencies) and forward each call to the library, opened on first use.
// A function the library gains later and that is missing here links against
// the library directly, which costs the start-up again but breaks nothing.
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>
#include <dlfcn.h>
#include <hwy/aligned_allocator.h>
#include <hwy/targets.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

void* openLibrary(const char* soname) {
  void* handle = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    // What the dynamic loader would have said at start-up, and its status.
    std::fprintf(stderr, "zrk: error while loading shared libraries: %s\n", dlerror());
    std::_Exit(127);
  }
  return handle;
}

template <typename Function>
Function lookUp(void* library, const char* name) {
  void* symbol = dlsym(library, name);
  if (!symbol) {
    std::fprintf(stderr, "zrk: symbol lookup error: %s\n", dlerror());
    std::_Exit(127);
  }
  return reinterpret_cast<Function>(symbol);
}

void* curlLibrary() {
  static void* const library = openLibrary("libcurl.so.4");
  return library;
}

void* hwyLibrary() {
  static void* const library = openLibrary("libhwy.so.1");
  return library;
}

}  // namespace

#define ZRK_CURL(name) static const auto real = lookUp<decltype(&::name)>(curlLibrary(), #name)

extern "C" {

CURLcode curl_global_init(long flags) {
  ZRK_CURL(curl_global_init);
  return real(flags);
}

CURL* curl_easy_init() {
  ZRK_CURL(curl_easy_init);
  return real();
}

void curl_easy_cleanup(CURL* handle) {
  ZRK_CURL(curl_easy_cleanup);
  real(handle);
}

// The value's type follows from the option's number, as libcurl reads it.
CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  ZRK_CURL(curl_easy_setopt);
  va_list args;
  va_start(args, option);
  CURLcode result;
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    result = real(handle, option, va_arg(args, long));
  } else if (option < CURLOPTTYPE_FUNCTIONPOINT) {
    result = real(handle, option, va_arg(args, void*));
  } else if (option < CURLOPTTYPE_OFF_T) {
    result = real(handle, option, va_arg(args, void (*)()));
  } else if (option < CURLOPTTYPE_BLOB) {
    result = real(handle, option, va_arg(args, curl_off_t));
  } else {
    result = real(handle, option, va_arg(args, void*));
  }
  va_end(args);
  return result;
}

// Every CURLINFO takes a pointer to where the answer goes.
CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  ZRK_CURL(curl_easy_getinfo);
  va_list args;
  va_start(args, info);
  const CURLcode result = real(handle, info, va_arg(args, void*));
  va_end(args);
  return result;
}

const char* curl_easy_strerror(CURLcode code) {
  ZRK_CURL(curl_easy_strerror);
  return real(code);
}

void curl_free(void* pointer) {
  ZRK_CURL(curl_free);
  real(pointer);
}

CURLM* curl_multi_init() {
  ZRK_CURL(curl_multi_init);
  return real();
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* handle) {
  ZRK_CURL(curl_multi_add_handle);
  return real(multi, handle);
}

CURLMcode curl_multi_remove_handle(CURLM* multi, CURL* handle) {
  ZRK_CURL(curl_multi_remove_handle);
  return real(multi, handle);
}

CURLMsg* curl_multi_info_read(CURLM* multi, int* queued) {
  ZRK_CURL(curl_multi_info_read);
  return real(multi, queued);
}

CURLMcode curl_multi_perform(CURLM* multi, int* running) {
  ZRK_CURL(curl_multi_perform);
  return real(multi, running);
}

CURLMcode curl_multi_poll(CURLM* multi, struct curl_waitfd extra[], unsigned int count, int timeoutMs, int* ready) {
  ZRK_CURL(curl_multi_poll);
  return real(multi, extra, count, timeoutMs, ready);
}

CURLMcode curl_multi_wakeup(CURLM* multi) {
  ZRK_CURL(curl_multi_wakeup);
  return real(multi);
}

struct curl_slist* curl_slist_append(struct curl_slist* list, const char* text) {
  ZRK_CURL(curl_slist_append);
  return real(list, text);
}

void curl_slist_free_all(struct curl_slist* list) {
  ZRK_CURL(curl_slist_free_all);
  real(list);
}

CURLU* curl_url() {
  ZRK_CURL(curl_url);
  return real();
}

void curl_url_cleanup(CURLU* url) {
  ZRK_CURL(curl_url_cleanup);
  real(url);
}

CURLUcode curl_url_get(CURLU* url, CURLUPart part, char** text, unsigned int flags) {
  ZRK_CURL(curl_url_get);
  return real(url, part, text, flags);
}

CURLUcode curl_url_set(CURLU* url, CURLUPart part, const char* text, unsigned int flags) {
  ZRK_CURL(curl_url_set);
  return real(url, part, text, flags);
}

}  // extern "C"

#undef ZRK_CURL

// Highway's functions are C++: looked up by their LP64 mangled names.
#if defined(__LP64__)
#define ZRK_HWY(type, mangled) static const auto real = lookUp<type>(hwyLibrary(), mangled)

namespace hwy {

ChosenTarget& GetChosenTarget() {
  ZRK_HWY(ChosenTarget& (*)(), "_ZN3hwy15GetChosenTargetEv");
  return real();
}

int64_t SupportedTargets() {
  ZRK_HWY(int64_t (*)(), "_ZN3hwy16SupportedTargetsEv");
  return real();
}

void SetSupportedTargetsForTest(int64_t targets) {
  ZRK_HWY(void (*)(int64_t), "_ZN3hwy26SetSupportedTargetsForTestEl");
  real(targets);
}

void* AllocateAlignedBytes(size_t bytes, AllocPtr allocate, void* opaque) {
  ZRK_HWY(void* (*)(size_t, AllocPtr, void*), "_ZN3hwy20AllocateAlignedBytesEmPFPvS0_mES0_");
  return real(bytes, allocate, opaque);
}

void FreeAlignedBytes(const void* pointer, FreePtr free, void* opaque) {
  ZRK_HWY(void (*)(const void*, FreePtr, void*), "_ZN3hwy16FreeAlignedBytesEPKvPFvPvS2_ES2_");
  real(pointer, free, opaque);
}

}  // namespace hwy

#undef ZRK_HWY
#endif  // __LP64__
