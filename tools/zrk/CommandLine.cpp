#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdlib>
#include <utility>
#include <vector>

#include "ExitStatus.h"
#include "zrk/ZRKApi.h"

namespace zrk::tool {
namespace {

void scanOptions(CLI::App& app, Invocation& in) {
  app.add_option("source", in.sources, "http(s) URLs of images, JPEG or PNG files, or folders of them")->required();
  app.add_option("--collection", in.collection, "Scan only against this collection");
  app.add_option("--jobs", in.jobs, "Scans in flight at once when there are several")
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  app.add_option("--expect", in.expect, "A CSV of source,trigger: the summary then judges the answers");
}

void historyOptions(CLI::App& app, Invocation& in) {
  app.add_option("--count", in.count, "Entries per page (0 asks for 20)")->capture_default_str();
  app.add_option("--offset", in.offset, "Entries to skip")->capture_default_str();
}

void credentialOptions(CLI::App& app, Invocation& in) {
  app.add_option("--email", in.user.email, "The user's email address")->required();
  app.add_option("--password", in.user.password, "The user's password")->required();
}

void accountOptions(CLI::App& app, Invocation& in) {
  credentialOptions(app, in);
  app.add_option("--name", in.user.name, "The user's name")->required();
  app.add_option("--birthdate", in.user.birthdate, "Birth date, sent as given");
  app.add_option("--gender", in.user.gender, "Gender, sent as given");
  app.add_option("--avatar", in.user.avatar, "Address of the avatar image");
}

void tokenOptions(CLI::App& app, Invocation& in) {
  app.add_option("--token", in.userToken, "The user token that login or register printed")->required();
}

void prepareOptions(CLI::App& app, Invocation& in) {
  app.add_option("image", in.image, "A JPEG or PNG file")->required();
  app.add_option("-o,--output", in.output, "Where to write the JPEG")->required();
}

void noOptions(CLI::App&, Invocation&) {}

struct CommandEntry {
  const char* group;  // "user" for the account commands, or nullptr
  const char* name;
  const char* synopsis;
  const char* summary;
  Command command;
  void (*addOptions)(CLI::App&, Invocation&);
};

constexpr CommandEntry kCommands[] = {
    {nullptr, "scan", "scan SOURCE... [--collection ID] [--jobs N] [--expect FILE]",
     "Scan images given by URL, as JPEG or PNG files, or as folders of them",
     Command::scan, scanOptions},
    {nullptr, "collections", "collections", "List the app's collections", Command::collections, noOptions},
    {nullptr, "history", "history [--count N] [--offset N]", "Page through the scan history", Command::history,
     historyOptions},
    {"user", "register",
     "user register --email E --password P --name N [--birthdate D] [--gender G] [--avatar URL]",
     "Register an end user; prints the account and its user token", Command::userRegister, accountOptions},
    {"user", "update", "user update --email E --password P --name N [--birthdate D] [--gender G] [--avatar URL]",
     "Update an end user's profile", Command::userUpdate, accountOptions},
    {"user", "login", "user login --email E --password P", "Log an end user in; prints the user token",
     Command::userLogin, credentialOptions},
    {"user", "logout", "user logout --email E --password P", "Log an end user out and wait for the service's answer",
     Command::userLogout, credentialOptions},
    {"user", "get", "user get --token TOKEN", "Show the account a user token belongs to", Command::userGet,
     tokenOptions},
    {nullptr, "prepare", "prepare IMAGE -o OUT.jpg", "Write the JPEG an image scan would upload; sends nothing",
     Command::prepare, prepareOptions},
};

std::string footer() {
  std::string text = "Commands:\n";
  for (const CommandEntry& entry : kCommands) {
    text += std::string("  zrk [options] ") + entry.synopsis + "\n      " + entry.summary + "\n";
  }
  text +=
      "\nSOURCE is scanned by URL when it starts with http:// or https://, otherwise uploaded as a photo\n"
      "(reduced to at most 1000 pixels a side); a folder is searched for .jpg, .jpeg and .png files,\n"
      "subfolders included. Several sources print one line each, in order, then a summary.\n"
      "\nExit status: 0 success; 1 the service or the transport reported an error (any failed scan);\n"
      "2 usage error; 3 no answer within the time-out; 130 stopped by Ctrl-C.\n"
      "Run 'zrk COMMAND --help' for a command's options.";
  return text;
}

}  // namespace

std::optional<ZRKUInteger> genderCode(const std::string& text) {
  if (text == "female") return ZRKUserGenderFemale;
  if (text == "male") return ZRKUserGenderMale;
  if (text == "other") return ZRKUserGenderOther;
  ZRKUInteger code = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), code);
  if (text.empty() || failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return code;
}

std::variant<Invocation, int> parseCommandLine(int argc, const char* const* argv, const Console& console) {
  Invocation in;
  in.baseUrl = ZRKDefaultBaseURL;
  std::string gender;

  CLI::App app("Command-line client of the zrk image-recognition service", "zrk");
  app.require_subcommand(1);
  app.footer(footer());
  app.set_version_flag("--version", "zrk " ZRK_TOOL_VERSION " (zrkapi " + ZRKApi::sdkVersion() + ")",
                       "Print the program's and the library's version");
  app.add_option("--base-url", in.baseUrl, "The service's base URL")->envname("ZRK_BASE_URL")->capture_default_str();
  app.add_option("--key", in.key, "App key")->envname("ZRK_APP_KEY");
  app.add_option("--secret", in.secret, "App secret")->envname("ZRK_APP_SECRET");
  app.add_option("--user-id", in.userId, "The end user's id (instead of the device's)");
  app.add_option("--age", in.age, "End-user age in years");
  app.add_option("--gender", gender, "End-user gender: female, male, other or a numeric code");
  // CLI11 takes the value after an option as it is, so "--lat -33.9" works.
  app.add_option("--lat", in.lat, "End-user latitude in degrees")->check(CLI::Range(-90.0, 90.0));
  app.add_option("--lng", in.lng, "End-user longitude in degrees (sent only when above 0)")
      ->check(CLI::Range(-180.0, 180.0));
  app.add_option("--timeout", in.timeoutSeconds, "Seconds to wait for the answer (to each scan of several)")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_flag("--json", in.json, "Print the result as JSON");

  CLI::App* users = nullptr;
  std::vector<std::pair<CLI::App*, Command>> commands;
  for (const CommandEntry& entry : kCommands) {
    if (entry.group && !users) {
      users = app.add_subcommand(entry.group, "End-user accounts: register, update, login, logout, get");
      users->require_subcommand(1);
    }
    CLI::App* parent = entry.group ? users : &app;
    CLI::App* command = parent->add_subcommand(entry.name, entry.summary);
    entry.addOptions(*command, in);
    commands.emplace_back(command, entry.command);
  }

  try {
    app.parse(argc, argv);
    if (app.count("--gender") > 0) {
      in.gender = genderCode(gender);
      if (!in.gender) throw CLI::ValidationError("--gender", "expected female, male, other or a number, got " + gender);
    }
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    console.problem(std::string(e.what()) + "\nRun 'zrk --help' for the commands and their options.");
    return kUsageError;
  }
  for (const auto& [command, which] : commands) {
    if (command->parsed()) in.command = which;
  }
  return in;
}

}  // namespace zrk::tool
