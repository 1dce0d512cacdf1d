// zrk's command line: the options before the command, the command table and
// each command's own options, parsed with CLI11.
#ifndef ZRK_TOOLS_COMMANDLINE_H
#define ZRK_TOOLS_COMMANDLINE_H

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Output.h"
#include "zrk/ZRKJson.h"

namespace zrk::tool {

enum class Command { scan, collections, history, userRegister, userUpdate, userLogin, userLogout, userGet, prepare };

// The account fields of the user commands, sent as given.
struct UserFields {
  std::optional<std::string> email;
  std::optional<std::string> password;
  std::optional<std::string> name;
  std::optional<std::string> birthdate;
  std::optional<std::string> gender;
  std::optional<std::string> avatar;
};

struct Invocation {
  std::string baseUrl;
  std::optional<std::string> key;
  std::optional<std::string> secret;
  std::optional<std::string> userId;
  std::optional<ZRKInteger> age;
  std::optional<ZRKUInteger> gender;  // the ZRKUserGender code
  std::optional<float> lat;
  std::optional<float> lng;
  double timeoutSeconds = 60;
  bool json = false;

  Command command = Command::collections;
  std::vector<std::string> sources;       // scan: URLs, image files, folders
  std::optional<std::string> collection;  // scan
  int jobs = 4;                           // scan: in flight at once
  std::optional<std::string> expect;      // scan: the CSV of expected triggers
  ZRKInteger count = 20;                  // history
  ZRKInteger offset = 0;                  // history
  UserFields user;                        // register, update, login, logout
  std::string userToken;                  // user get
  std::string image;                      // prepare
  std::string output;                     // prepare
};

// "female" 2, "male" 3, "other" 1, or a number as it is; nullopt for
// anything else.
std::optional<ZRKUInteger> genderCode(const std::string& text);

// The invocation, or the exit status of a run that ends while parsing: 0
// after --help or --version (printed on stdout), kUsageError after a usage
// error (explained on stderr).
std::variant<Invocation, int> parseCommandLine(int argc, const char* const* argv, const Console& console);

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_COMMANDLINE_H
