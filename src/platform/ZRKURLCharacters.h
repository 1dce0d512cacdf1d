// RFC 3986 character classes, shared by the URL parser and URL components.
#ifndef ZRK_PLATFORM_ZRKURLCHARACTERS_H
#define ZRK_PLATFORM_ZRKURLCHARACTERS_H

namespace zrk::detail {

inline bool isHex(unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
inline bool isAlpha(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
inline bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
inline bool isUnreserved(unsigned char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
inline bool isSubDelim(unsigned char c) {
  switch (c) {
    case '!': case '$': case '&': case '\'': case '(': case ')':
    case '*': case '+': case ',': case ';': case '=':
      return true;
    default:
      return false;
  }
}

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKURLCHARACTERS_H
