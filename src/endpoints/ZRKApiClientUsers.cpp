#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"
#include "zrk/ZRKUserSession.h"

namespace zrk {
namespace {

constexpr const char* kUserEndpoint = "app/v1/user";
constexpr const char* kUserAuthEndpoint = "app/v1/user/auth";

using Verb = ZRKApiRequest::Task (*)(const std::shared_ptr<ZRKApiClient>&, std::string_view, const ZRKJson&,
                                     ZRKDeserializer, ZRKApiRequestCompletion);

// Registration sends the optional fields only when there are any; with no
// user at all there are no parameters, hence no body.
ZRKJson registrationParameters(const ZRKUser* user) {
  if (!user) return ZRKJson();
  ZRKJson parameters = user->requiredParameters();
  const ZRKJson optional = user->optionalParameters();
  if (!optional.empty()) parameters.update(optional);
  return parameters;
}

std::shared_ptr<ZRKUserAPIResponse> asUser(const std::shared_ptr<ZRKApiResponseDecodable>& object) {
  return std::dynamic_pointer_cast<ZRKUserAPIResponse>(object);
}

ZRKApiRequestCompletion forwarding(ZRKUserCompletion completion) {
  return [completion = std::move(completion)](std::shared_ptr<ZRKApiResponseDecodable> object,
                                              std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError> error) {
    if (completion) completion(asUser(object), std::move(error));
  };
}

// Unlike a scan, an account request is not sent on a refused token: the
// call ends there and the completion is never called.
void sendWhenAuthenticated(std::shared_ptr<ZRKApiClient> client, Verb verb, std::string endpoint, ZRKJson parameters,
                           ZRKApiRequestCompletion completion) {
  ZRKApiAuthToken::refresh([client = std::move(client), verb, endpoint = std::move(endpoint),
                            parameters = std::move(parameters),
                            completion = std::move(completion)](bool success, std::optional<ZRKError>) mutable {
    if (!success) return;
    verb(client, endpoint, parameters, std::make_shared<ZRKUserAPIResponse>(), std::move(completion));
  });
}

}  // namespace

void ZRKApiClient::registerUser(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion) {
  if (!user) return;
  createUserAPIPostRequest(std::move(user), std::move(completion));
}

void ZRKApiClient::updateUserProfile(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion) {
  if (!user) return;
  createUserAPIPatchRequest(std::move(user), std::move(completion));
}

void ZRKApiClient::updateUserAvatar(std::shared_ptr<const ZRKUser> user, std::shared_ptr<const ZRKImage>,
                                    ZRKUserCompletion completion) {
  if (!user) return;
  createUserAPIPostRequest(std::move(user), std::move(completion));
}

void ZRKApiClient::retrieveUser(const std::optional<std::string>& userToken, ZRKUserCompletion completion) {
  if (!userToken || userToken->empty()) return;
  // Both families travel together, as with the headers.
  ZRKJson parameters = {{"ZRK-User-Token", *userToken}, {"Pelmor-User-Token", *userToken}};
  sendWhenAuthenticated(shared_from_this(), &ZRKApiRequest::getWithAPIClient, kUserEndpoint, std::move(parameters),
                        forwarding(std::move(completion)));
}

void ZRKApiClient::loginUser(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion) {
  if (!user) return;
  ZRKJson parameters = user->loginParameters();
  sendWhenAuthenticated(
      shared_from_this(), &ZRKApiRequest::postWithAPIClient, kUserAuthEndpoint, std::move(parameters),
      [completion = std::move(completion)](std::shared_ptr<ZRKApiResponseDecodable> object,
                                           std::shared_ptr<const ZRKHTTPURLResponse>, std::optional<ZRKError> error) {
        // The token is kept only for a caller that hears about the login.
        if (!completion) return;
        auto response = asUser(object);
        if (response && response->token()) ZRKUserSession::setCurrentUserToken(*response->token());
        completion(std::move(response), std::move(error));
      });
}

void ZRKApiClient::logoutUser(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion) {
  if (!user || !user->ZRKUserPassword() || !user->ZRKUserEmail()) {
    const ZRKJson body = {{"code", "10001"}, {"message", "Invalid user"}};
    if (completion) completion(nullptr, zrk_errorFromAPIResponse(&body));
    return;
  }
  ZRKJson parameters = user->loginParameters();
  sendWhenAuthenticated(
      shared_from_this(), &ZRKApiRequest::deleteWithAPIClient, kUserAuthEndpoint, std::move(parameters),
      [completion](std::shared_ptr<ZRKApiResponseDecodable> object, std::shared_ptr<const ZRKHTTPURLResponse>,
                   std::optional<ZRKError> error) {
        if (!completion) return;
        // The user is logged out locally even when the service refused.
        ZRKUserSession::clearSession();
        completion(asUser(object), std::move(error));
      });
  // Tells the caller at once that the logout is under way; the answer
  // comes as a second call.
  if (completion) completion(nullptr, std::nullopt);
}

void ZRKApiClient::createUserAPIGetRequest(std::shared_ptr<const ZRKUser>, ZRKUserCompletion completion) {
  sendWhenAuthenticated(shared_from_this(), &ZRKApiRequest::getWithAPIClient, kUserEndpoint, ZRKJson::object(),
                        forwarding(std::move(completion)));
}

void ZRKApiClient::createUserAPIPostRequest(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion) {
  ZRKJson parameters = registrationParameters(user.get());
  sendWhenAuthenticated(shared_from_this(), &ZRKApiRequest::postWithAPIClient, kUserEndpoint, std::move(parameters),
                        forwarding(std::move(completion)));
}

void ZRKApiClient::createUserAPIPatchRequest(std::shared_ptr<const ZRKUser> user, ZRKUserCompletion completion) {
  ZRKJson parameters = user ? user->allParameters() : ZRKJson();
  sendWhenAuthenticated(shared_from_this(), &ZRKApiRequest::patchWithAPIClient, kUserEndpoint, std::move(parameters),
                        forwarding(std::move(completion)));
}

}  // namespace zrk
