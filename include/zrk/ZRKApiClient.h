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

#include "zrk/ZRKExport.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKAppConfiguration.h"
#include "zrk/ZRKJson.h"
#include "zrk/ZRKURL.h"
#include "zrk/ZRKURLRequest.h"
#include "zrk/ZRKURLSession.h"

namespace zrk {

class ZRKCollection;
class ZRKImage;
class ZRKScanAPIResponse;
class ZRKScanHistory;
class ZRKUser;
class ZRKUserAPIResponse;

// Called with the match or the error; runs on the main thread, except for
// the missing-image error of an image scan (see scanImage).
using ZRKScanCompletion = std::function<void(std::shared_ptr<ZRKScanAPIResponse> result, std::optional<ZRKError> error)>;

// Called with the decoded account or the error.
using ZRKUserCompletion = std::function<void(std::shared_ptr<ZRKUserAPIResponse> result, std::optional<ZRKError> error)>;
// Called with the list inside the answer or the error.
using ZRKCollectionsCompletion = std::function<void(std::optional<std::vector<std::shared_ptr<ZRKCollection>>> collections,
                                                    std::optional<ZRKError> error)>;
using ZRKScanHistoryCompletion = std::function<void(std::optional<std::vector<std::shared_ptr<ZRKScanHistory>>> result,
                                                    std::optional<ZRKError> error)>;

// Codes of userGender; every other value is sent as "other".
enum ZRKUserGender : ZRKUInteger { ZRKUserGenderOther = 1, ZRKUserGenderFemale = 2, ZRKUserGenderMale = 3 };

// The service's address when the application sets none.
inline constexpr const char* ZRKDefaultBaseURL = "https://api.zrk.cloud";

class ZRK_API ZRKApiClient : public ZRKURLSessionDelegate, public std::enable_shared_from_this<ZRKApiClient> {
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
  // A string that is no URL, or is empty, leaves the base unset; requests
  // then fail with ZRKURLErrorBadURL.
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
  // "app/v1/scan/<collection>" as one path segment: an ordinary id goes as
  // it is, and "/", "?", "#", "%", controls and dot segments are
  // percent-encoded so that no id can reach another path.
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
  //
  // Each operation builds its parameters before it returns, so a user that
  // lacks a mandatory field throws std::invalid_argument there and nothing
  // is sent (ZRKUser.h). It then makes sure of the app token; when that
  // fails, the call ends in silence: nothing is sent and the completion is
  // never called. Otherwise one request goes out and the completion gets the
  // decoded account or the error, on the main thread; nothing is retried.
  // Without a user (or, for retrieveUser, without a token or with "") an
  // operation does nothing at all. An empty completion is never called.

  // POST "app/v1/user": email, name and password, plus birthdate, gender
  // and avatar where the user has them.
  void registerUser(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);
  // PATCH "app/v1/user" with the same fields.
  void updateUserProfile(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);
  // Sends exactly what registerUser sends: the avatar travels as the user's
  // avatar address, and the image is not used.
  void updateUserAvatar(std::shared_ptr<const ZRKUser> user, std::shared_ptr<const ZRKImage> image,
                        ZRKUserCompletion completion);
  // GET "app/v1/user" with the token in the query under both
  // "ZRK-User-Token" and "Pelmor-User-Token".
  void retrieveUser(const std::optional<std::string>& userToken, ZRKUserCompletion completion);
  // POST "app/v1/user/auth" with email and password. Only when there is a
  // completion does a token in the answer become the session's user token
  // (ZRKUserSession.h), just before the completion runs; without one the
  // session is left as it is.
  void loginUser(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);
  // DELETE "app/v1/user/auth" with email and password in the query. The
  // completion runs twice: before this returns, on the calling thread, with
  // (nullptr, nullopt) to say the logout is under way; then with the answer,
  // once the session has been cleared whatever the answer. Without a
  // completion the session is left as it is. No user, or one without
  // password or email, gets error 10001 "Invalid user" once, on the calling
  // thread, and nothing is sent.
  void logoutUser(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);
  // The requests behind the operations above, without their guards: a null
  // user sends no parameters. The GET does not use its user.
  void createUserAPIGetRequest(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);
  void createUserAPIPostRequest(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);
  void createUserAPIPatchRequest(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion);

  // Collections and scan history.
  //
  // Each listing makes sure of the app token and then sends one GET whether
  // or not that succeeded: a refused token shows as the listing's own error.
  // The completion gets the list inside the answer (ZRKCollection.h,
  // ZRKScanHistory.h), not the answer, or the error, on the main thread;
  // nothing is retried. An answer that decodes without a list and without an
  // error ends in silence (this library's decoders always give a list); an
  // empty completion is never called.

  // GET "app/v1/collection" with no parameters.
  void retrieveCollectionsWithCompletion(ZRKCollectionsCompletion completion);
  // GET "app/v1/history?count=<count>&offset=<offset>". A count of 0 asks
  // for 20; every other count, negative ones too, and every offset are sent
  // as given.
  void retrieveScanHistoryWithCount(ZRKInteger count, ZRKInteger offset, ZRKScanHistoryCompletion completion);
  // The two requests themselves, without the token step. The options go
  // into the query unchanged.
  void send(ZRKCollectionsCompletion completion);
  void sendWithOptions(const ZRKJson& options, ZRKScanHistoryCompletion completion);

  ZRKApiClient(const ZRKApiClient&) = delete;
  ZRKApiClient& operator=(const ZRKApiClient&) = delete;
  ~ZRKApiClient() override;

 private:
  ZRKApiClient();
  struct Fields;
  std::unique_ptr<Fields> fields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKAPICLIENT_H
