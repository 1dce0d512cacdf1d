#include "emulator/EmulatorTestSupport.h"

#include <spng.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace zrk::test {

std::vector<unsigned char> posterPixels(unsigned seed, int width, int height) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> colour(0, 255);
  std::vector<unsigned char> rgb(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3, 255);
  auto fill = [&](int x0, int y0, int x1, int y1, int r, int g, int b) {
    for (int y = std::max(0, y0); y < std::min(height, y1); ++y) {
      for (int x = std::max(0, x0); x < std::min(width, x1); ++x) {
        unsigned char* pixel =
            &rgb[(static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * 3];
        pixel[0] = static_cast<unsigned char>(r);
        pixel[1] = static_cast<unsigned char>(g);
        pixel[2] = static_cast<unsigned char>(b);
      }
    }
  };
  std::uniform_int_distribution<int> xs(0, width), ys(0, height), size(8, 60);
  for (int k = 0; k < 160; ++k) {
    const int x = xs(random), y = ys(random);
    fill(x, y, x + size(random), y + size(random), colour(random), colour(random), colour(random));
  }
  return rgb;
}

std::string encodeJpeg(const std::vector<unsigned char>& rgb, int width, int height, int quality) {
  tjhandle handle = tjInitCompress();
  unsigned char* data = nullptr;
  unsigned long size = 0;
  const int failed = tjCompress2(handle, rgb.data(), width, 0, height, TJPF_RGB, &data, &size, TJSAMP_444, quality, 0);
  std::string bytes = failed ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
  tjFree(data);
  tjDestroy(handle);
  if (bytes.empty()) throw std::runtime_error("JPEG encoding failed");
  return bytes;
}

std::string encodePng(const std::vector<unsigned char>& rgb, int width, int height) {
  spng_ctx* context = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(context, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr header{};
  header.width = static_cast<std::uint32_t>(width);
  header.height = static_cast<std::uint32_t>(height);
  header.bit_depth = 8;
  header.color_type = SPNG_COLOR_TYPE_TRUECOLOR;
  spng_set_ihdr(context, &header);
  int error = spng_encode_image(context, rgb.data(), rgb.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  std::size_t size = 0;
  void* data = error ? nullptr : spng_get_png_buffer(context, &size, &error);
  std::string bytes = data ? std::string(static_cast<const char*>(data), size) : std::string();
  free(data);
  spng_ctx_free(context);
  if (bytes.empty()) throw std::runtime_error("PNG encoding failed");
  return bytes;
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zrk-emulator-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string base64(const std::string& bytes) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 2]);
    out += alphabet[(group >> 18) & 63];
    out += alphabet[(group >> 12) & 63];
    out += i + 1 < bytes.size() ? alphabet[(group >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? alphabet[group & 63] : '=';
  }
  return out;
}

std::string RawClient::bearer(const std::string& key, const std::string& secret) {
  const auto answer =
      client_.Post("/app/v1/auth", ZRKJson{{"key", key}, {"secret", secret}}.dump(), "application/json");
  if (!answer) throw std::runtime_error("no answer from app/v1/auth");
  const ZRKJson body = ZRKJson::parse(answer->body, nullptr, false);
  if (!body.is_object() || !body.contains("token")) throw std::runtime_error("no token: " + answer->body);
  return "Bearer " + base64(body["token"].get<std::string>());
}

httplib::Result RawClient::send(const std::string& method, const std::string& path, const httplib::Headers& headers,
                                const std::string& body, const std::string& contentType) {
  if (method == "GET") return client_.Get(path, headers);
  if (method == "POST") return client_.Post(path, headers, body, contentType);
  if (method == "PATCH") return client_.Patch(path, headers, body, contentType);
  if (method == "PUT") return client_.Put(path, headers, body, contentType);
  if (method == "DELETE") return client_.Delete(path, headers, body, contentType);
  throw std::invalid_argument("method " + method);
}

ZRKJson RawClient::requestLog() {
  const auto answer = client_.Get("/__emulator/requests");
  if (!answer) return ZRKJson();
  return ZRKJson::parse(answer->body, nullptr, false);
}

}  // namespace zrk::test
