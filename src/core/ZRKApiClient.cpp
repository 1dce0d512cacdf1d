#include "zrk/ZRKApiClient.h"

#include <cstdint>
#include <mutex>

#include "core/ZRKBase64.h"
#include "core/ZRKNumberText.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKDevice.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {

struct ZRKApiClient::Fields {
  mutable std::mutex mutex;
  float userLat = 0;                                   // guarded by mutex
  float userLng = 0;                                   // guarded by mutex
  std::shared_ptr<ZRKAppConfiguration> configuration;  // guarded by mutex
  std::optional<ZRKURL> apiURL;                        // guarded by mutex
  std::shared_ptr<ZRKURLSession> urlSession;           // set once at creation
  ZRKInteger userAge = 0;                              // guarded by mutex
  ZRKUInteger userGender = ZRKUserGenderOther;         // guarded by mutex
};

ZRKApiClient::ZRKApiClient() : fields_(std::make_unique<Fields>()) {}
ZRKApiClient::~ZRKApiClient() = default;

std::shared_ptr<ZRKApiClient> ZRKApiClient::initializeWithAppKey(std::optional<std::string> appKey,
                                                                 std::optional<std::string> appSecret) {
  const auto configuration = ZRKAppConfiguration::sharedConfiguration();
  configuration->setAppKey(std::move(appKey));
  configuration->setAppSecret(std::move(appSecret));
  ZRKApiAuthToken::clear();
  return sharedClient();
}

std::shared_ptr<ZRKApiClient> ZRKApiClient::initializeWithAppKey(std::optional<std::string> appKey,
                                                                 std::optional<std::string> appSecret,
                                                                 std::optional<std::string> userId) {
  const auto configuration = ZRKAppConfiguration::sharedConfiguration();
  configuration->setAppKey(std::move(appKey));
  configuration->setAppSecret(std::move(appSecret));
  // The user-id setter resets the token only when the id changes.
  configuration->setAppUserId(std::move(userId));
  return sharedClient();
}

std::shared_ptr<ZRKApiClient> ZRKApiClient::sharedClient() {
  static const std::shared_ptr<ZRKApiClient> client = initWithConfiguration(ZRKAppConfiguration::sharedConfiguration());
  return client;
}

void ZRKApiClient::setUserAge(ZRKInteger age) { sharedClient()->setUserAgeValue(age); }
void ZRKApiClient::setUserGender(ZRKUInteger gender) { sharedClient()->setUserGenderValue(gender); }

void ZRKApiClient::setUserLocationLatitude(float latitude, float longitude) {
  const auto client = sharedClient();
  client->setUserLat(latitude);
  client->setUserLng(longitude);
}

void ZRKApiClient::setBaseUrl(std::string_view baseUrl) {
  // "" is a URL reference but no base: requests then fail as with any other non-URL.
  sharedClient()->setApiURL(baseUrl.empty() ? std::nullopt : ZRKURL::URLWithString(baseUrl));
}

std::shared_ptr<ZRKURLSessionConfiguration> ZRKApiClient::sharedUrlSessionConfiguration() {
  static const auto configuration = ZRKURLSessionConfiguration::defaultSessionConfiguration();
  return configuration;
}

std::shared_ptr<ZRKApiClient> ZRKApiClient::init() {
  return initWithConfiguration(ZRKAppConfiguration::sharedConfiguration());
}

std::shared_ptr<ZRKApiClient> ZRKApiClient::initWithConfiguration(std::shared_ptr<ZRKAppConfiguration> configuration) {
  std::shared_ptr<ZRKApiClient> client(new ZRKApiClient);
  Fields& f = *client->fields_;
  f.apiURL = ZRKURL::URLWithString(ZRKDefaultBaseURL);
  f.configuration = std::move(configuration);
  // The session holds its delegate weakly and each task in flight strongly:
  // a client that is let go still sees its redirects, then is destroyed.
  f.urlSession = ZRKURLSession::sessionWithConfiguration(sharedUrlSessionConfiguration(), client,
                                                         &ZRKMainQueue::mainQueue());
  return client;
}

std::string ZRKApiClient::appKey() const {
  const auto configuration = this->configuration();
  return configuration ? configuration->appKey().value_or("") : "";
}

std::string ZRKApiClient::appSecret() const {
  const auto configuration = this->configuration();
  return configuration ? configuration->appSecret().value_or("") : "";
}

ZRKURLRequest ZRKApiClient::configuredRequestForURL(const std::optional<ZRKURL>& url) const {
  ZRKURLRequest request(url);
  for (auto& [name, value] : defaultHeaders()) request.setValue(value, name);
  return request;
}

std::map<std::string, std::string> ZRKApiClient::defaultHeaders() const {
  std::map<std::string, std::string> headers;
  // Both families always travel together with one value.
  const auto pair = [&headers](const std::string& suffix, const std::optional<std::string>& value) {
    if (!value) return;
    headers["ZRK-" + suffix] = *value;
    headers["Pelmor-" + suffix] = *value;
  };
  const auto token = ZRKApiAuthToken::token()->tokenString().value_or("");
  headers["Authorization"] = "Bearer " + detail::base64Encode(token);

  pair("User-Id", ZRKAppConfiguration::sharedConfiguration()->appUserId());
  const ZRKUInteger gender = userGender();
  pair("User-Gender", gender == ZRKUserGenderFemale ? "female" : gender == ZRKUserGenderMale ? "male" : "other");
  const auto session = ZRKUserSession::currentSession();
  if (session->valid()) pair("User-Token", session->userToken());
  pair("User-Type", "ios");
  pair("User-Version", detail::formatFixed(detail::leadingFloat(ZRKDevice::systemVersion())));
  pair("User-Model", deviceModel());
  pair("App-Version", ZRKDevice::appBuildVersion());
  // The age goes out as a 32-bit number, but the gate sees all of it.
  const ZRKInteger age = userAge();
  if (age > 0) pair("User-Age", std::to_string(static_cast<std::int32_t>(static_cast<std::uint32_t>(age))));
  // Gated on the longitude alone, so the western hemisphere sends no location.
  const float latitude = userLat();
  const float longitude = userLng();
  if (longitude > 0) {
    pair("User-Lat", detail::formatFixed(latitude));
    pair("User-Lng", detail::formatFixed(longitude));
  }
  return headers;
}

std::string ZRKApiClient::deviceModel() const { return ZRKDevice::machine(); }

void ZRKApiClient::authWithCompletion(ZRKAuthCompletion completion) {
  if (ZRKApiAuthToken::token()->isValid()) {
    if (completion) completion(true, std::nullopt);
    return;
  }
  const ZRKJson parameters = {{"key", appKey()}, {"secret", appSecret()}};
  ZRKApiRequest::postWithAPIClient(
      shared_from_this(), "app/v1/auth", parameters, std::make_shared<ZRKApiAuthToken>(),
      [completion = std::move(completion)](std::shared_ptr<ZRKApiResponseDecodable> object,
                                           std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError> error) {
        if (auto token = std::dynamic_pointer_cast<ZRKApiAuthToken>(object)) ZRKApiAuthToken::setToken(token);
        if (completion) completion(!error, std::move(error));
      });
}

void ZRKApiClient::willPerformHTTPRedirection(ZRKURLSession&, ZRKURLSessionDataTask& task, const ZRKHTTPURLResponse&,
                                              ZRKURLRequest request,
                                              std::function<void(std::optional<ZRKURLRequest>)> completionHandler) {
  // Every header of the first request, the credential included, follows the
  // redirect whatever the host: the service's redirects rely on it.
  for (const auto& [name, value] : task.originalRequest().allHTTPHeaderFields().fields()) {
    request.setValue(value, name);
  }
  completionHandler(std::move(request));
}

std::string ZRKApiClient::description() const {
  return "appKey (" + appKey() + ") appSecret (" + appSecret() + ")";
}

float ZRKApiClient::userLat() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->userLat;
}
void ZRKApiClient::setUserLat(float latitude) {
  std::lock_guard lock(fields_->mutex);
  fields_->userLat = latitude;
}
float ZRKApiClient::userLng() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->userLng;
}
void ZRKApiClient::setUserLng(float longitude) {
  std::lock_guard lock(fields_->mutex);
  fields_->userLng = longitude;
}
std::shared_ptr<ZRKAppConfiguration> ZRKApiClient::configuration() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->configuration;
}
void ZRKApiClient::setConfiguration(const std::shared_ptr<ZRKAppConfiguration>& configuration) {
  // Copy outside the lock: the copy's user-id setter may start a refresh.
  auto copy = configuration ? configuration->copy() : nullptr;
  std::lock_guard lock(fields_->mutex);
  fields_->configuration = std::move(copy);
}
std::optional<ZRKURL> ZRKApiClient::apiURL() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->apiURL;
}
void ZRKApiClient::setApiURL(std::optional<ZRKURL> url) {
  std::lock_guard lock(fields_->mutex);
  fields_->apiURL = std::move(url);
}
std::shared_ptr<ZRKURLSession> ZRKApiClient::urlSession() const { return fields_->urlSession; }
ZRKInteger ZRKApiClient::userAge() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->userAge;
}
void ZRKApiClient::setUserAgeValue(ZRKInteger age) {
  std::lock_guard lock(fields_->mutex);
  fields_->userAge = age;
}
ZRKUInteger ZRKApiClient::userGender() const {
  std::lock_guard lock(fields_->mutex);
  return fields_->userGender;
}
void ZRKApiClient::setUserGenderValue(ZRKUInteger gender) {
  std::lock_guard lock(fields_->mutex);
  fields_->userGender = gender;
}

}  // namespace zrk
