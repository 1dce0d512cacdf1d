// What zrk must never print: the app secret, passwords, the app token and a
// user token given as input. Every line the program writes passes through
// redact(), so a service that echoes a credential in a message cannot make
// the program leak it.
#ifndef ZRK_TOOLS_SECRETS_H
#define ZRK_TOOLS_SECRETS_H

#include <string>
#include <string_view>
#include <vector>

#include "zrk/ZRKJson.h"

namespace zrk::tool {

class Secrets {
 public:
  // Picks the values of the secret options out of the raw arguments (in
  // both the "--opt value" and "--opt=value" spellings) and the secret from
  // the environment, before parsing, so that even a usage error that quotes
  // an argument is redacted.
  static Secrets fromCommandLine(int argc, const char* const* argv);

  void add(std::string secret);
  // The app token as the library holds it now, and its base64 form, which
  // is how it travels in "Authorization".
  void addAppToken();

  std::string redact(std::string text) const;
  // Every string value of the JSON, however deep.
  ZRKJson redact(ZRKJson json) const;

 private:
  std::vector<std::string> secrets_;  // longest first, so no shorter one splits a longer one
};

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_SECRETS_H
