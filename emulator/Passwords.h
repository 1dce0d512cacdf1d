// Password storage: PBKDF2-HMAC-SHA256 with a random 16-byte salt, kept as
// "pbkdf2-sha256$<iterations>$<salt hex>$<hash hex>" so that the cost can
// grow without breaking stored accounts.
#ifndef ZRK_EMULATOR_PASSWORDS_H
#define ZRK_EMULATOR_PASSWORDS_H

#include <string>

namespace zrk::emulator {

std::string hashPassword(const std::string& password);
// False also for a record that is not of the form above.
bool verifyPassword(const std::string& password, const std::string& record);
// Random bytes as lower-case hex (2 characters a byte), from OpenSSL's generator.
std::string randomHex(std::size_t bytes);

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_PASSWORDS_H
