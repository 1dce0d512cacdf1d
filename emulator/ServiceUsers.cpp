// End-user accounts: register, update, retrieve, log in, log out.
#include "HttpHelpers.h"
#include "Passwords.h"
#include "Service.h"

namespace zrk::emulator {

namespace {

struct Fields {
  std::optional<std::string> email, name, password, birthdate, gender, avatar;
};

// The account fields of a body; nothing after answering 400 for a field of
// the wrong type.
std::optional<Fields> readFields(const nlohmann::json& body, httplib::Response& response) {
  Fields fields;
  const std::pair<const char*, std::optional<std::string>*> slots[] = {
      {"email", &fields.email},         {"name", &fields.name},     {"password", &fields.password},
      {"birthdate", &fields.birthdate}, {"gender", &fields.gender}, {"avatar", &fields.avatar}};
  for (const auto& [key, slot] : slots) {
    const auto found = body.find(key);
    if (found == body.end() || found->is_null()) continue;
    if (!found->is_string()) {
      sendError(response, 400, std::string("\"") + key + "\" must be a string", {{"field", key}});
      return std::nullopt;
    }
    *slot = found->get<std::string>();
  }
  return fields;
}

bool plausibleEmail(const std::string& email) {
  const auto at = email.find('@');
  return at != std::string::npos && at > 0 && at + 1 < email.size() && email.size() <= 254 &&
         email.find_first_of(" \t\r\n") == std::string::npos;
}

// False after answering 400 for a required field that is missing or unusable.
bool requireFields(const Fields& fields, bool needName, httplib::Response& response) {
  std::vector<std::string> missing;
  if (!fields.email || fields.email->empty()) missing.push_back("email");
  if (needName && (!fields.name || fields.name->empty())) missing.push_back("name");
  if (!fields.password || fields.password->empty()) missing.push_back("password");
  if (!missing.empty()) {
    sendError(response, 400, "Missing required fields", {{"fields", missing}});
    return false;
  }
  if (!plausibleEmail(*fields.email)) {
    sendError(response, 400, "\"email\" is not an e-mail address", {{"field", "email"}});
    return false;
  }
  return true;
}

// Applies the fields that are present; the password is hashed anew.
void apply(const Fields& fields, UserRecord& user) {
  if (fields.email) user.email = *fields.email;
  if (fields.name) user.name = *fields.name;
  if (fields.password) user.passwordHash = hashPassword(*fields.password);
  if (fields.birthdate) user.birthdate = fields.birthdate;
  if (fields.gender) user.gender = fields.gender;
  if (fields.avatar) user.avatar = fields.avatar;
}

std::string userTokenHeader(const httplib::Request& request) {
  return headerEither(request, "ZRK-User-Token", "Pelmor-User-Token").value_or("");
}

}  // namespace

nlohmann::json Service::userJson(const UserRecord& user, const std::optional<std::string>& token) const {
  nlohmann::json json = {
      {"object", "user"}, {"id", std::to_string(user.id)}, {"email", user.email}, {"name", user.name}};
  if (user.birthdate) json["birthdate"] = *user.birthdate;
  if (user.gender) json["gender"] = *user.gender;
  if (user.avatar) json["avatar"] = *user.avatar;
  if (token) json["token"] = *token;
  return json;
}

void Service::registerUser(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  const auto body = jsonBody(request, response);
  if (!body) return;
  const auto fields = readFields(*body, response);
  if (!fields || !requireFields(*fields, true, response)) return;

  if (auto existing = storage_.userByEmail(caller->appKey, *fields->email)) {
    // The client changes an avatar by posting the account again; that is an
    // update when it comes from the account's own session.
    const auto sessionUser = tokens_.userForToken(userTokenHeader(request));
    if (sessionUser != existing->id) {
      sendError(response, 409, "A user with this e-mail is already registered", {{"field", "email"}});
      return;
    }
    apply(*fields, *existing);
    storage_.updateUser(*existing);
    sendJson(response, 200, userJson(*existing, std::nullopt));
    return;
  }
  UserRecord user;
  user.appKey = caller->appKey;
  apply(*fields, user);
  const auto id = storage_.insertUser(user);
  if (!id) {  // registered by a concurrent request in the meantime
    sendError(response, 409, "A user with this e-mail is already registered", {{"field", "email"}});
    return;
  }
  user.id = *id;
  sendJson(response, 201, userJson(user, tokens_.issueUserToken(user.id)));
}

void Service::updateUser(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  auto user = requireUser(*caller, userTokenHeader(request), response);
  if (!user) return;
  const auto body = jsonBody(request, response);
  if (!body) return;
  const auto fields = readFields(*body, response);
  if (!fields) return;
  if ((fields->email && !plausibleEmail(*fields->email)) || (fields->name && fields->name->empty()) ||
      (fields->password && fields->password->empty())) {
    sendError(response, 400, "email, name and password cannot be emptied");
    return;
  }
  apply(*fields, *user);
  if (!storage_.updateUser(*user)) {
    sendError(response, 409, "A user with this e-mail is already registered", {{"field", "email"}});
    return;
  }
  sendJson(response, 200, userJson(*user, std::nullopt));
}

void Service::retrieveUser(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  // The client names the account in the query (both spellings) or, when
  // logged in, in its headers.
  std::string token = request.get_param_value("ZRK-User-Token");
  if (token.empty()) token = request.get_param_value("Pelmor-User-Token");
  if (token.empty()) token = userTokenHeader(request);
  const auto user = requireUser(*caller, token, response);
  if (!user) return;
  sendJson(response, 200, userJson(*user, std::nullopt));
}

void Service::login(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  const auto body = jsonBody(request, response);
  if (!body) return;
  const auto fields = readFields(*body, response);
  if (!fields || !requireFields(*fields, false, response)) return;
  const auto user = storage_.userByEmail(caller->appKey, *fields->email);
  // An unknown e-mail costs as much as a wrong password, so timing tells nothing.
  static const std::string decoy = hashPassword("decoy");
  if (!verifyPassword(*fields->password, user ? user->passwordHash : decoy) || !user) {
    sendError(response, 401, "Wrong e-mail or password");
    return;
  }
  sendJson(response, 200, userJson(*user, tokens_.issueUserToken(user->id)));
}

void Service::logout(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  const std::string email = request.get_param_value("email");
  const std::string password = request.get_param_value("password");
  if (email.empty() || password.empty()) {
    sendError(response, 400, "Logging out wants \"email\" and \"password\" in the query");
    return;
  }
  const auto user = storage_.userByEmail(caller->appKey, email);
  if (!user || !verifyPassword(password, user->passwordHash)) {
    sendError(response, 401, "Wrong e-mail or password");
    return;
  }
  // The session's own token when it sent one, else every session of the account.
  const std::string token = userTokenHeader(request);
  if (!token.empty() && tokens_.userForToken(token) == user->id) {
    tokens_.revoke(token);
  } else {
    storage_.deleteUserTokens(user->id);
  }
  sendJson(response, 200, userJson(*user, std::nullopt));
}

}  // namespace zrk::emulator
