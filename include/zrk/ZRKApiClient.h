// The client: credentials, base URL, end-user attributes and the URL session
// on which every request runs.
//
// Applications use the shared client (sharedClient), configured through the
// class operations; the endpoint operations are members of the client.
// Requests run on the client's session, whose completions and redirect
// decisions run on the main queue (ZRKMainQueue.h). Every member is safe to
// call from any thread: the fields are guarded, and a request built while a
// setter runs sees each field either before or after the change.
#ifndef ZRK_ZRKAPICLIENT_H
#define ZRK_ZRKAPICLIENT_H

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKAppConfiguration.h"
#include "zrk/ZRKJson.h"
#include "zrk/ZRKURL.h"
#include "zrk/ZRKURLRequest.h"
#include "zrk/ZRKURLSession.h"

namespace zrk {

class ZRKImage;
class ZRKScanAPIResponse;

// Called with the match or the error; runs on the main thread, except for
// the missing-image error of an image scan (see scanImage).
using ZRKScanCompletion = std::function<void(std::shared_ptr<ZRKScanAPIResponse> result, std::optional<ZRKError> error)>;

// Codes of userGender; every other value is sent as "other".
enum ZRKUserGender : ZRKUInteger { ZRKUserGenderOther = 1, ZRKUserGenderFemale = 2, ZRKUserGenderMale = 3 };

// The service's address when the application sets none.
inline constexpr const char* ZRKDefaultBaseURL = "https://api.zrk.cloud";

class ZRKApiClient : public ZRKURLSessionDelegate, public std::enable_shared_from_this<ZRKApiClient> {
 public:
  static void initialize() {}
  static std::string apiVersion() { return "v1"; }

  // Sets key and secret on the shared configuration, clears the token cache
  // and returns the shared client.
  static std::shared_ptr<ZRKApiClient> initializeWithAppKey(std::optional<std::string> appKey,
                                                            std::optional<std::string> appSecret);
  // Sets key, secret and user id; the token cache is cleared (and a new token
  // fetched) only when the user id changes.
  static std::shared_ptr<ZRKApiClient> initializeWithAppKey(std::optional<std::string> appKey,
                                                            std::optional<std::string> appSecret,
                                                            std::optional<std::string> userId);
  // The process's client, created on first use with the shared configuration.
  static std::shared_ptr<ZRKApiClient> sharedClient();
  static void setUserAge(ZRKInteger age);
  static void setUserGender(ZRKUInteger gender);
  static void setUserLocationLatitude(float latitude, float longitude);
  // A string that is no URL leaves the base unset; requests then fail with
  // ZRKURLErrorBadURL.
  static void setBaseUrl(std::string_view baseUrl);
  // The configuration every client's session is made with, created once.
  static std::shared_ptr<ZRKURLSessionConfiguration> sharedUrlSessionConfiguration();

  // A client with the shared configuration.
  static std::shared_ptr<ZRKApiClient> init();
  // A client that holds the configuration by reference, with the default base
  // URL, a new session on the main queue, no location, age 0 and gender 1.
  static std::shared_ptr<ZRKApiClient> initWithConfiguration(std::shared_ptr<ZRKAppConfiguration> configuration);

  // The configuration's key and secret, "" when unset.
  std::string appKey() const;
  std::string appSecret() const;

  // A new request for the URL carrying every default header.
  ZRKURLRequest configuredRequestForURL(const std::optional<ZRKURL>& url) const;
  // The headers every request carries, computed anew on each call.
  std::map<std::string, std::string> defaultHeaders() const;
  // The hardware name (uname's machine).
  std::string deviceModel() const;
  // Calls the completion (if any) at once when the cached token is valid;
  // otherwise POSTs key and secret to "app/v1/auth", stores the token that
  // comes back and then calls the completion on the main thread.
  void authWithCompletion(ZRKAuthCompletion completion);

  // Follows every redirect with all header fields of the task's first
  // request copied onto the new request, whatever the host.
  void willPerformHTTPRedirection(ZRKURLSession& session, ZRKURLSessionDataTask& task,
                                  const ZRKHTTPURLResponse& response, ZRKURLRequest request,
                                  std::function<void(std::optional<ZRKURLRequest>)> completionHandler) override;

  // "appKey (<key>) appSecret (<secret>)".
  std::string description() const;

  float userLat() const;
  void setUserLat(float latitude);
  float userLng() const;
  void setUserLng(float longitude);
  std::shared_ptr<ZRKAppConfiguration> configuration() const;
  // Stores a copy of the configuration (see ZRKAppConfiguration::copy).
  void setConfiguration(const std::shared_ptr<ZRKAppConfiguration>& configuration);
  std::optional<ZRKURL> apiURL() const;
  void setApiURL(std::optional<ZRKURL> url);
  std::shared_ptr<ZRKURLSession> urlSession() const;
  ZRKInteger userAge() const;
  // The instance setters of age and gender carry "Value" because the class
  // operations setUserAge and setUserGender already take those names.
  void setUserAgeValue(ZRKInteger age);
  ZRKUInteger userGender() const;
  void setUserGenderValue(ZRKUInteger gender);

  // Scanning. Each public scan first makes sure of the app token (through
  // the shared client) and then sends its request whether or not that
  // succeeded: a refused token shows as the scan's own error. A collection
  // that is absent or "" scans the whole app; otherwise it goes into the path
  // "app/v1/scan/<collection>" as it is, unescaped.
  //
  // The image's address: a URL (its text), or a JSON string (itself); any
  // other JSON value sends no "fileUrl". The options ("collectionId",
  // "fileUrl") travel as the JSON body. A call that yields neither result nor
  // error does not call the completion.
  void scanWithUrl(const std::optional<ZRKURL>& url, ZRKScanCompletion completion);
  void scanWithUrl(const std::optional<ZRKURL>& url, const std::optional<std::string>& collection,
                   ZRKScanCompletion completion);
  void scanWithUrl(const ZRKJson& url, ZRKScanCompletion completion);
  void scanWithUrl(const ZRKJson& url, const std::optional<std::string>& collection, ZRKScanCompletion completion);
  // A photo, reduced so that neither side exceeds 1000 pixels and uploaded
  // as a JPEG of quality 100 in a multipart body.
  void scanWithImage(std::shared_ptr<const ZRKImage> image, ZRKScanCompletion completion);
  void scanWithImage(std::shared_ptr<const ZRKImage> image, const std::optional<std::string>& collection,
                     ZRKScanCompletion completion);
  // The two requests themselves, without the token step.
  void scanUrlWithOptions(const ZRKJson& options, ZRKScanCompletion completion);
  // Without an image the completion (when there is one) gets error 1000 at
  // once, on the calling thread, and nothing is sent. An answer's error body
  // wins over a transport error.
  void scanImage(std::shared_ptr<const ZRKImage> image, const ZRKJson& options, ZRKScanCompletion completion);

  // User accounts.

  // Collections and scan history.

  ZRKApiClient(const ZRKApiClient&) = delete;
  ZRKApiClient& operator=(const ZRKApiClient&) = delete;
  ~ZRKApiClient() override;

 private:
  ZRKApiClient();
  void sendImageScan(const ZRKImage& image, const std::string& endpoint, ZRKScanCompletion completion);
  struct Fields;
  std::unique_ptr<Fields> fields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKAPICLIENT_H
