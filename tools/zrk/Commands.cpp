#include "Commands.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <variant>

#include "FolderScan.h"
#include "ScanSources.h"
#include "Waiting.h"
#include "zrk/ZRKApi.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKURL.h"
#include "zrk/ZRKUser.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::tool {
namespace {

std::chrono::milliseconds timeoutOf(const Invocation& in) {
  // Bounded so that a huge value cannot overflow the clock arithmetic.
  const double seconds = std::min(in.timeoutSeconds, 1e7);
  return std::chrono::milliseconds(std::llround(seconds * 1000));
}

// Every setting the library reads while it builds a request goes in before
// the first request can start: the three-argument initialisation may start
// a token request at once.
void configureLibrary(const Invocation& in) {
  ZRKApiClient::setBaseUrl(in.baseUrl);
  if (in.age) ZRKApiClient::setUserAge(*in.age);
  if (in.gender) ZRKApiClient::setUserGender(*in.gender);
  if (in.lat || in.lng) ZRKApiClient::setUserLocationLatitude(in.lat.value_or(0), in.lng.value_or(0));
  if (in.userId) {
    ZRKApi::initializeWithAppKey(in.key, in.secret, in.userId);
  } else {
    ZRKApi::initializeWithAppKey(in.key, in.secret);
  }
}

// Lets the main queue run until a completion settles the outcome.
ExitStatus awaitAnswer(const Invocation& in, const Console& console, Outcome& outcome) {
  const ExitStatus status = outcome.wait(timeoutOf(in));
  if (status == kNoAnswer) {
    // Some calls end in silence by design (a user operation whose token
    // step failed), so this is no transport time-out.
    std::ostringstream seconds;
    seconds << in.timeoutSeconds;
    console.problem("no answer within " + seconds.str() + " s");
  }
  return status;
}

// A completion that prints the result, or the error, and settles the outcome.
template <typename Result, typename Render>
auto answer(std::shared_ptr<Outcome> outcome, Console& console, Render render) {
  return [outcome, &console, render](Result result, std::optional<ZRKError> error) {
    if (outcome->settled()) return;
    if (error) {
      console.error(*error);
      outcome->settle(kServiceError);
    } else if (result) {
      console.print(render(*result));
      outcome->settle(kSuccess);
    }
  };
}

ExitStatus runScan(const Invocation& in, Console& console, const std::shared_ptr<ZRKApiClient>& client,
                   const std::shared_ptr<Outcome>& outcome) {
  auto completion = answer<std::shared_ptr<ZRKScanAPIResponse>>(
      outcome, console, [](const ZRKScanAPIResponse& scan) { return report(scan); });
  const std::string& source = in.sources.front();
  if (isWebAddress(source)) {
    const auto url = ZRKURL::URLWithString(source);
    if (!url) {
      console.problem("not a valid URL: " + source);
      return kUsageError;
    }
    client->scanWithUrl(url, in.collection, completion);
  } else {
    const auto image = ZRKImage::imageWithContentsOfFile(source);
    if (!image) {
      console.problem(source + " is neither an http(s) URL nor a readable JPEG or PNG file");
      return kUsageError;
    }
    client->scanWithImage(image, in.collection, completion);
  }
  return awaitAnswer(in, console, *outcome);
}

std::shared_ptr<ZRKUser> userOf(const UserFields& fields) {
  auto user = std::make_shared<ZRKUser>();
  user->setZRKUserEmail(fields.email);
  user->setZRKUserPassword(fields.password);
  user->setZRKUserName(fields.name);
  user->setZRKUserBirthdate(fields.birthdate);
  user->setZRKUserGender(fields.gender);
  user->setZRKUserAvatar(fields.avatar);
  return user;
}

auto accountAnswer(const std::shared_ptr<Outcome>& outcome, Console& console, std::string headline) {
  return answer<std::shared_ptr<ZRKUserAPIResponse>>(
      outcome, console, [headline](const ZRKUserAPIResponse& account) { return report(&account, headline); });
}

ExitStatus runUserCommand(const Invocation& in, Console& console, const std::shared_ptr<ZRKApiClient>& client,
                          const std::shared_ptr<Outcome>& outcome) {
  const auto user = userOf(in.user);
  try {
    switch (in.command) {
      case Command::userRegister:
        client->registerUser(user, accountAnswer(outcome, console, "registered"));
        break;
      case Command::userUpdate:
        client->updateUserProfile(user, accountAnswer(outcome, console, "updated"));
        break;
      case Command::userLogin:
        client->loginUser(user, accountAnswer(outcome, console, "logged in"));
        break;
      case Command::userLogout:
        // The first call, before logoutUser returns, only says the logout is
        // under way (no result, no error); the service's answer comes second.
        client->logoutUser(user, [outcome, &console](std::shared_ptr<ZRKUserAPIResponse> account,
                                                     std::optional<ZRKError> error) {
          if (outcome->settled() || (!account && !error)) return;
          if (error) {
            console.error(*error);
            outcome->settle(kServiceError);
          } else {
            console.print(report(account.get(), "logged out"));
            outcome->settle(kSuccess);
          }
        });
        break;
      case Command::userGet:
        if (in.userToken.empty()) {
          console.problem("--token must not be empty");
          return kUsageError;
        }
        client->retrieveUser(in.userToken, accountAnswer(outcome, console, "account"));
        break;
      default:
        return kUsageError;
    }
  } catch (const std::invalid_argument&) {
    // The library refuses a user without a mandatory field before sending anything.
    console.problem("the user lacks a mandatory field (email, name or password)");
    return kUsageError;
  }
  return awaitAnswer(in, console, *outcome);
}

ExitStatus runPrepare(const Invocation& in, Console& console) {
  const auto image = ZRKImage::imageWithContentsOfFile(in.image);
  if (!image) {
    console.problem(in.image + " is not a readable JPEG or PNG file");
    return kUsageError;
  }
  auto jpeg = ZRKScanUploadJPEG(*image);  // exactly what a scan uploads
  if (!jpeg) {
    console.problem(in.image + " cannot be decoded");
    return kUsageError;
  }
  std::ofstream file(in.output, std::ios::binary | std::ios::trunc);
  file.write(jpeg->data(), static_cast<std::streamsize>(jpeg->size()));
  file.close();
  if (!file) {
    console.problem("cannot write " + in.output);
    return kUsageError;
  }
  // The bytes are written: the image reading their header may keep them.
  const std::size_t bytes = jpeg->size();
  const auto written = ZRKImage::imageWithData(std::move(*jpeg));
  const int width = written ? written->pixelWidth() : 0;
  const int height = written ? written->pixelHeight() : 0;
  console.print({{{"output", in.output}, {"width", width}, {"height", height}, {"bytes", bytes}},
                 "wrote " + in.output + ": " + std::to_string(width) + "x" + std::to_string(height) + " JPEG, " +
                     std::to_string(bytes) + " bytes\n"});
  return kSuccess;
}

}  // namespace

ExitStatus runCommand(const Invocation& in, Console& console) {
  if (in.command == Command::prepare) return runPrepare(in, console);

  if (!in.key || in.key->empty() || !in.secret || in.secret->empty()) {
    console.problem("an app key and secret are needed: --key and --secret, or ZRK_APP_KEY and ZRK_APP_SECRET");
    return kUsageError;
  }
  const auto base = ZRKURL::URLWithString(in.baseUrl);
  if (!base || !isWebAddress(in.baseUrl)) {
    console.problem("--base-url must be an http:// or https:// URL: " + in.baseUrl);
    return kUsageError;
  }
  std::optional<FolderScanPlan> folderScan;
  if (in.command == Command::scan && isFolderScan(in)) {
    auto plan = planFolderScan(in);
    if (const auto* problem = std::get_if<std::string>(&plan)) {
      console.problem(*problem);
      return kUsageError;
    }
    folderScan = std::move(std::get<FolderScanPlan>(plan));
  }
  configureLibrary(in);

  const auto client = ZRKApi::sharedApiClient();
  if (folderScan) return runFolderScan(in, *folderScan, console, client, timeoutOf(in));
  const auto outcome = Outcome::make();
  switch (in.command) {
    case Command::scan:
      return runScan(in, console, client, outcome);
    case Command::collections:
      client->retrieveCollectionsWithCompletion(answer<std::optional<ZRKCollectionList>>(
          outcome, console, [](const ZRKCollectionList& list) { return report(list); }));
      return awaitAnswer(in, console, *outcome);
    case Command::history:
      client->retrieveScanHistoryWithCount(
          in.count, in.offset,
          answer<std::optional<ZRKScanHistoryList>>(outcome, console,
                                                    [](const ZRKScanHistoryList& list) { return report(list); }));
      return awaitAnswer(in, console, *outcome);
    default:
      return runUserCommand(in, console, client, outcome);
  }
}

}  // namespace zrk::tool
