// prepare: the upload JPEG written locally, byte for byte what an image scan
// sends.
#include <gtest/gtest.h>
#include <spng.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CliTest.h"
#include "support/RawRecorder.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKJson.h"

namespace zrk::test {
namespace {

std::vector<std::uint8_t> pattern(int width, int height) {
  std::vector<std::uint8_t> rgba(static_cast<std::size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = &rgba[(static_cast<std::size_t>(y) * width + x) * 4];
      p[0] = static_cast<std::uint8_t>(x * 255 / width);
      p[1] = static_cast<std::uint8_t>(y * 255 / height);
      p[2] = static_cast<std::uint8_t>(((x / 40 + y / 40) % 2) * 200);
      p[3] = 255;
    }
  }
  return rgba;
}

std::string jpegFile(int width, int height) {
  const auto image = ZRKImage::imageWithRGBAPixels(pattern(width, height), width, height);
  return ZRKImageJPEGRepresentation(*image, 0.9).value();
}

std::string pngFile(int width, int height) {
  std::vector<std::uint8_t> rgba = pattern(width, height);
  std::unique_ptr<spng_ctx, decltype(&spng_ctx_free)> ctx(spng_ctx_new(SPNG_CTX_ENCODER), spng_ctx_free);
  spng_set_option(ctx.get(), SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr header{};
  header.width = static_cast<std::uint32_t>(width);
  header.height = static_cast<std::uint32_t>(height);
  header.bit_depth = 8;
  header.color_type = SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
  spng_set_ihdr(ctx.get(), &header);
  if (spng_encode_image(ctx.get(), rgba.data(), rgba.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE) != 0) return {};
  std::size_t size = 0;
  int error = 0;
  void* buffer = spng_get_png_buffer(ctx.get(), &size, &error);
  std::string png(static_cast<const char*>(buffer), size);
  free(buffer);
  return png;
}

struct Source {
  const char* name;
  int width;
  int height;
  bool png;
};

// Wider, taller, exactly at the limit, and small.
const Source kSources[] = {
    {"wide.jpg", 2400, 1600, false},
    {"tall.png", 1200, 3000, true},
    {"limit.jpg", 1000, 1000, false},
    {"small.png", 300, 200, true},
};

std::string writeSource(const Source& source) {
  const std::string path = temporaryPath(source.name);
  writeFile(path, source.png ? pngFile(source.width, source.height) : jpegFile(source.width, source.height));
  return path;
}

TEST_F(CliTest, PrepareWritesAJpegOfAtMostAThousandPixels) {
  for (const Source& source : kSources) {
    SCOPED_TRACE(source.name);
    const std::string output = temporaryPath(std::string(source.name) + ".out.jpg");
    const ZrkRun run = zrk({"--json", "prepare", writeSource(source), "-o", output});
    ASSERT_EQ(run.status, 0) << run.err;

    const std::string jpeg = readFile(output);
    ASSERT_GT(jpeg.size(), 3u);
    EXPECT_EQ(jpeg.substr(0, 3), "\xFF\xD8\xFF");
    const auto written = ZRKImage::imageWithData(jpeg);
    ASSERT_TRUE(written);
    const int longer = std::max(written->pixelWidth(), written->pixelHeight());
    const int shorter = std::min(written->pixelWidth(), written->pixelHeight());
    const int sourceLonger = std::max(source.width, source.height);
    const int sourceShorter = std::min(source.width, source.height);
    EXPECT_EQ(longer, std::min(sourceLonger, 1000));
    EXPECT_NEAR(shorter, sourceShorter * static_cast<double>(longer) / sourceLonger, 1.0);
    EXPECT_EQ(written->pixelWidth() >= written->pixelHeight(), source.width >= source.height);

    EXPECT_EQ(ZRKJson::parse(run.out), (ZRKJson{{"output", output},
                                                 {"width", written->pixelWidth()},
                                                 {"height", written->pixelHeight()},
                                                 {"bytes", jpeg.size()}}));
  }
  EXPECT_EQ(server.count(), 0u);  // prepare is offline
}

// The JPEG inside the one-part multipart body of a raw request.
std::string uploadedJpeg(const std::string& request) {
  const std::size_t body = request.find("\r\n\r\n");
  const std::size_t part = request.find("\r\n\r\n", body + 4);
  const std::size_t end = request.rfind("\r\n--");
  if (body == std::string::npos || part == std::string::npos || end == std::string::npos || end < part) return {};
  return request.substr(part + 4, end - part - 4);
}

TEST(CliScan, AnImageScanUploadsWhatPrepareWrites) {
  for (const Source& source : kSources) {
    SCOPED_TRACE(source.name);
    const std::string path = writeSource(source);
    const std::string output = temporaryPath(std::string(source.name) + ".prepared.jpg");
    ASSERT_EQ(runZrk({"prepare", path, "-o", output}).status, 0);

    // Every request gets "{}": the token step fails, and the scan goes out anyway.
    RawRecorder service;
    const ZrkRun scan = runZrk({"--base-url", service.url(), "--key", "k", "--secret", "sss", "--json", "scan", path,
                                "--collection", "c9"});
    EXPECT_EQ(scan.status, 0) << scan.err;
    const auto requests = service.requests(2);
    const auto upload = std::find_if(requests.begin(), requests.end(), [](const std::string& request) {
      return request.starts_with("POST /app/v1/scan/c9 HTTP/1.1\r\n");
    });
    ASSERT_NE(upload, requests.end());
    EXPECT_TRUE(uploadedJpeg(*upload) == readFile(output));
  }
}

}  // namespace
}  // namespace zrk::test
