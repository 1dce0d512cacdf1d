#include "Passwords.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <charconv>
#include <stdexcept>
#include <vector>

namespace zrk::emulator {

namespace {

// About 50 ms a hash on a current core: slow for a guesser, bearable for tests.
constexpr int kIterations = 100000;
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kHashBytes = 32;
constexpr std::string_view kScheme = "pbkdf2-sha256";

std::string hex(const unsigned char* data, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    out += digits[data[i] >> 4];
    out += digits[data[i] & 15];
  }
  return out;
}

bool unhex(std::string_view text, std::vector<unsigned char>& out) {
  if (text.size() % 2 != 0) return false;
  out.clear();
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data() + i, text.data() + i + 2, value, 16);
    if (error != std::errc() || end != text.data() + i + 2) return false;
    out.push_back(static_cast<unsigned char>(value));
  }
  return true;
}

std::vector<unsigned char> derive(const std::string& password, const std::vector<unsigned char>& salt, int iterations,
                                  std::size_t length) {
  std::vector<unsigned char> key(length);
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(), static_cast<int>(salt.size()),
                        iterations, EVP_sha256(), static_cast<int>(length), key.data()) != 1) {
    throw std::runtime_error("PBKDF2 failed");
  }
  return key;
}

}  // namespace

std::string randomHex(std::size_t bytes) {
  std::vector<unsigned char> data(bytes);
  if (RAND_bytes(data.data(), static_cast<int>(bytes)) != 1) throw std::runtime_error("no random bytes");
  return hex(data.data(), data.size());
}

std::string hashPassword(const std::string& password) {
  std::vector<unsigned char> salt(kSaltBytes);
  if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) throw std::runtime_error("no random bytes");
  const auto key = derive(password, salt, kIterations, kHashBytes);
  return std::string(kScheme) + "$" + std::to_string(kIterations) + "$" + hex(salt.data(), salt.size()) + "$" +
         hex(key.data(), key.size());
}

bool verifyPassword(const std::string& password, const std::string& record) {
  std::string_view rest = record;
  std::string_view parts[4];
  for (int i = 0; i < 4; ++i) {
    const auto dollar = rest.find('$');
    parts[i] = i == 3 ? rest : rest.substr(0, dollar);
    if (i < 3) {
      if (dollar == std::string_view::npos) return false;
      rest.remove_prefix(dollar + 1);
    }
  }
  int iterations = 0;
  const auto [end, error] = std::from_chars(parts[1].data(), parts[1].data() + parts[1].size(), iterations);
  std::vector<unsigned char> salt, expected;
  // The bounds keep a damaged record from costing minutes or nothing.
  if (parts[0] != kScheme || error != std::errc() || end != parts[1].data() + parts[1].size() || iterations < 1000 ||
      iterations > 10000000 || !unhex(parts[2], salt) || !unhex(parts[3], expected) || expected.empty() ||
      expected.size() > 64) {
    return false;
  }
  const auto key = derive(password, salt, iterations, expected.size());
  return CRYPTO_memcmp(key.data(), expected.data(), key.size()) == 0;
}

}  // namespace zrk::emulator
