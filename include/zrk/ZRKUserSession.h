// The end user's session: the user token that login stores, logout clears
// and every request sends. One per process; safe from any thread.
#ifndef ZRK_ZRKUSERSESSION_H
#define ZRK_ZRKUSERSESSION_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

namespace zrk {

class ZRK_API ZRKUserSession {
 public:
  static std::shared_ptr<ZRKUserSession> currentSession();
  // Sets the shared session's token to "".
  static void clearSession();
  // Sets the shared session's token. (Named apart from the instance setter,
  // which C++ would not tell from it.)
  static void setCurrentUserToken(std::optional<std::string> userToken);

  ZRKUserSession();
  ~ZRKUserSession();
  // False only when the token is "": an unset token counts as valid.
  bool valid() const;
  std::optional<std::string> userToken() const;
  void setUserToken(std::optional<std::string> userToken);

 private:
  struct Fields;
  std::unique_ptr<Fields> fields_;
};

}  // namespace zrk

#endif  // ZRK_ZRKUSERSESSION_H
