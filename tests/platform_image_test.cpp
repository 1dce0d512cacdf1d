#include <gtest/gtest.h>
#include <spng.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstdlib>
#include <fstream>

#include "platform/ZRKImageCodec.h"
#include "zrk/ZRKImage.h"

namespace zrk {
namespace {

using Pixels = std::vector<std::uint8_t>;

// Smooth colours, which JPEG keeps well, with an alpha that must not matter;
// or red top-left, green top-right and blue bottom half, to see where each went.
Pixels picture(int width, int height, bool blocks = false) {
  Pixels p(static_cast<std::size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      std::uint8_t* px = &p[(static_cast<std::size_t>(y) * width + x) * 4];
      const int block = y >= height / 2 ? 2 : x >= width / 2;
      px[0] = static_cast<std::uint8_t>(blocks ? 255 * (block == 0) : x * 255 / width);
      px[1] = static_cast<std::uint8_t>(blocks ? 255 * (block == 1) : y * 255 / height);
      px[2] = static_cast<std::uint8_t>(blocks ? 255 * (block == 2) : 128 + 64 * std::sin(x * 0.05));
      px[3] = static_cast<std::uint8_t>(blocks ? 255 : x + y);
    }
  return p;
}

std::string jpegOf(Pixels pixels, int width, int height) {
  return *ZRKImageJPEGRepresentation(*ZRKImage::imageWithRGBAPixels(std::move(pixels), width, height), 0.9);
}

// 0, 1 or 2 for a clearly red, green or blue pixel; -1 otherwise.
int colourAt(const Pixels& p, int width, int x, int y) {
  const std::uint8_t* px = &p[(static_cast<std::size_t>(y) * width + x) * 4];
  for (int c = 0; c < 3; ++c)
    if (px[c] > 200 && px[(c + 1) % 3] < 60 && px[(c + 2) % 3] < 60) return c;
  return -1;
}

std::string bytes(std::uint32_t v, int n, bool little = false) {
  std::string s;
  for (int i = 0; i < n; ++i) s += static_cast<char>(little ? v >> (8 * i) : v >> (8 * (n - 1 - i)));
  return s;
}

// An EXIF block whose IFD0 holds one entry, each part overridable to break it.
std::string exif(bool little, std::uint16_t orientation, std::uint16_t type = 3, std::uint32_t ifd = 8,
                 std::uint16_t count = 1) {
  return std::string("Exif\0\0", 6) + (little ? "II" : "MM") + bytes(42, 2, little) + bytes(ifd, 4, little) +
         bytes(count, 2, little) + bytes(0x0112, 2, little) + bytes(type, 2, little) + bytes(1, 4, little) +
         bytes(orientation, 2, little) + std::string(6, '\0');
}

std::string withSegment(std::string jpeg, const std::string& payload, char marker = '\xE1') {
  return jpeg.insert(2, "\xFF" + std::string(1, marker) + bytes(payload.size() + 2, 2) + payload);
}

TEST(ImageJPEG, RoundTripKeepsPixelsCloseAndDropsAlpha) {
  const Pixels original = picture(64, 48);
  const auto decoded = ZRKImage::imageWithData(jpegOf(original, 64, 48));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->size(), (ZRKSize{64, 48}));
  const auto pixels = decoded->RGBAPixels();
  ASSERT_EQ(pixels->size(), original.size());
  double error = 0;
  for (std::size_t i = 0; i < original.size(); i += 4) {
    for (int c = 0; c < 3; ++c) error += std::abs((*pixels)[i + c] - original[i + c]);
    EXPECT_EQ((*pixels)[i + 3], 255);
  }
  EXPECT_LT(error / (64 * 48 * 3), 3.0);

  const auto image = ZRKImage::imageWithRGBAPixels(original, 64, 48);
  EXPECT_LT(ZRKImageJPEGRepresentation(*image, 0.0)->size(), ZRKImageJPEGRepresentation(*image, 1.0)->size());
  EXPECT_EQ(ZRKImageJPEGRepresentation(*image, 1.0), ZRKImageJPEGRepresentation(*image, 7.0));
}

TEST(ImageJPEG, DecodesAdobeCMYKAsRGB) {
  Pixels red(16 * 16 * 4, 0);  // inks stored inverted, as Adobe writes them
  for (std::size_t i = 0; i < red.size(); i += 4) red[i] = red[i + 3] = 255;
  tjhandle tj = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(tjCompress2(tj, red.data(), 16, 0, 16, TJPF_CMYK, &out, &size, TJSAMP_444, 95, 0), 0);
  const auto image = ZRKImage::imageWithData(std::string(reinterpret_cast<char*>(out), size));
  tjFree(out);
  tjDestroy(tj);
  ASSERT_TRUE(image);
  EXPECT_EQ(colourAt(*image->RGBAPixels(), 16, 8, 8), 0);
}

TEST(ImagePNG, DecodesLosslesslyAndScalesToTheUploadSize) {
  const Pixels original = picture(2000, 1500);
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_set_option(ctx, SPNG_IMG_COMPRESSION_LEVEL, 1);
  spng_ihdr ihdr{2000, 1500, 8, SPNG_COLOR_TYPE_TRUECOLOR_ALPHA, 0, 0, 0};
  spng_set_ihdr(ctx, &ihdr);
  ASSERT_EQ(spng_encode_image(ctx, original.data(), original.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE), 0);
  std::size_t length = 0;
  int error = 0;
  char* png = static_cast<char*>(spng_get_png_buffer(ctx, &length, &error));
  const auto image = ZRKImage::imageWithData(std::string(png, length), 2);
  std::free(png);
  spng_ctx_free(ctx);

  ASSERT_TRUE(image);
  EXPECT_EQ(image->size(), (ZRKSize{1000, 750}));
  EXPECT_EQ(*image->RGBAPixels(), original);
  const auto scaled = zrk_imageScaledToFitSize(*image, {1000, 750});
  ASSERT_TRUE(scaled);
  const auto info = detail::readJPEGInfo(*ZRKImageJPEGRepresentation(*scaled, 1.0));
  ASSERT_TRUE(info);
  EXPECT_EQ(std::pair(info->width, info->height), std::pair(1000, 750));
}

TEST(ImageOrientation, EXIFSixSwapsTheSizeAndEncodesUpright) {
  for (bool little : {true, false}) {
    const auto image = ZRKImage::imageWithData(withSegment(jpegOf(picture(48, 32, true), 48, 32), exif(little, 6)));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->imageOrientation(), ZRKImageOrientation::right);
    EXPECT_EQ(image->size(), (ZRKSize{32, 48}));

    const auto upright = ZRKImage::imageWithData(*ZRKImageJPEGRepresentation(*image, 0.9));
    ASSERT_EQ(upright->pixelWidth(), 32);
    const Pixels& p = *upright->RGBAPixels();
    EXPECT_EQ(colourAt(p, 32, 28, 4), 0);   // stored top-left ends top-right
    EXPECT_EQ(colourAt(p, 32, 28, 44), 1);  // stored top-right ends bottom-right
    EXPECT_EQ(colourAt(p, 32, 4, 24), 2);   // stored bottom ends on the left

    const auto scaled = zrk_imageScaledToFitSize(*image, {16, 24});
    ASSERT_TRUE(scaled);
    EXPECT_EQ(scaled->imageOrientation(), ZRKImageOrientation::right);
    EXPECT_EQ(std::pair(scaled->pixelWidth(), scaled->pixelHeight()), std::pair(24, 16));
  }
}

TEST(ImageOrientation, TurnsEveryOrientationUpright) {
  using O = ZRKImageOrientation;
  // Stored "abc/def"; each expectation is the picture as displayed.
  const Pixels stored = {'a', 0, 0, 0, 'b', 0, 0, 0, 'c', 0, 0, 0, 'd', 0, 0, 0, 'e', 0, 0, 0, 'f', 0, 0, 0};
  const std::pair<O, std::string> cases[] = {
      {O::up, "abc/def"},      {O::upMirrored, "cba/fed"},   {O::down, "fed/cba"},
      {O::downMirrored, "def/abc"}, {O::leftMirrored, "ad/be/cf"}, {O::right, "da/eb/fc"},
      {O::rightMirrored, "fc/eb/da"}, {O::left, "cf/be/ad"}};
  const std::string jpeg = jpegOf(picture(8, 8), 8, 8);
  int exifValue = 0;  // the cases are in EXIF's order
  for (const auto& [orientation, expected] : cases) {
    EXPECT_EQ(ZRKImage::imageWithData(withSegment(jpeg, exif(false, ++exifValue)))->imageOrientation(), orientation);
    const auto out = detail::orientedUpright(stored.data(), 3, 2, orientation);
    std::string seen;
    for (int y = 0; y < out.height; ++y) {
      if (y) seen += '/';
      for (int x = 0; x < out.width; ++x) seen += static_cast<char>(out.pixels[(y * out.width + x) * 4]);
    }
    EXPECT_EQ(seen, expected) << static_cast<int>(orientation);
  }
}

TEST(ImageOrientation, MalformedEXIFReadsAsUp) {
  const std::string base = jpegOf(picture(16, 16), 16, 16);
  // Found behind another segment and fill bytes, as cameras write it.
  const std::string filled = withSegment(base, exif(true, 8)).insert(2, "\xFF\xFF");
  EXPECT_EQ(detail::jpegEXIFOrientation(withSegment(filled, "JFIF", '\xE0')), 8);

  const std::string good = exif(true, 6);
  for (const std::string& payload :
       {exif(true, 9), exif(true, 0), exif(true, 6, 4), exif(true, 6, 3, 4000), exif(true, 6, 3, 8, 0),
        good.substr(0, 20), good.substr(0, 6), std::string("Exif\0\0XX", 8) + good.substr(8), "Exig" + good.substr(4)}) {
    const auto image = ZRKImage::imageWithData(withSegment(base, payload));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->imageOrientation(), ZRKImageOrientation::up);
  }
  std::string overrun = withSegment(base, good);
  overrun[4] = '\x7F';  // the segment claims more than the file holds
  EXPECT_EQ(detail::jpegEXIFOrientation(overrun), 1);
}

TEST(ImageScaling, TruncatesEachSideBeforeAndAfterTheScale) {
  const auto image = ZRKImage::imageWithRGBAPixels(picture(1001, 800), 1001, 800);
  const auto fitted = zrk_imageScaledToFitSize(*image, {1000, 799.2});
  ASSERT_TRUE(fitted);
  EXPECT_EQ(std::pair(fitted->pixelWidth(), fitted->pixelHeight()), std::pair(1000, 799));
  EXPECT_EQ(zrk_imageScaledToFitSize(*image, {10.9, 10.9}, 2)->pixelWidth(), 20);

  const auto retina = ZRKImage::imageWithRGBAPixels(picture(1200, 1200), 1200, 1200, 2);
  EXPECT_EQ(retina->size(), (ZRKSize{600, 600}));
  const auto doubled = zrk_imageScaledToFitSize(*retina, {600, 600}, 2);
  ASSERT_TRUE(doubled);
  EXPECT_EQ(doubled->pixelWidth(), 1200);
  EXPECT_EQ(doubled->scale(), 1);

  for (ZRKSize bad : {ZRKSize{0.9, 10}, ZRKSize{-5, 10}, ZRKSize{NAN, 10}, ZRKSize{1e12, 10}, ZRKSize{20000, 20000}})
    EXPECT_FALSE(zrk_imageScaledToFitSize(*image, bad)) << bad.width << "x" << bad.height;
  EXPECT_FALSE(zrk_imageScaledToFitSize(*image, {10, 10}, 0));
}

TEST(ImageScaling, ReducedDecodeKeepsTwiceTheTarget) {
  using S = detail::JPEGScale;
  EXPECT_EQ(detail::jpegReductionFor(4032, 3024, 1000, 750), (S{1, 2}));  // 1/4 leaves 1008x756
  EXPECT_EQ(detail::jpegReductionFor(4032, 3024, 504, 378), (S{1, 4}));
  EXPECT_EQ(detail::jpegReductionFor(4032, 3024, 252, 189), (S{1, 8}));
  EXPECT_EQ(detail::jpegReductionFor(4032, 3024, 2017, 10), (S{1, 1}));
  EXPECT_EQ(detail::jpegReductionFor(4032, 3024, 10, 1513), (S{1, 1}));

  const std::string jpeg = jpegOf(picture(256, 192, true), 256, 192);
  const auto reduced = detail::decodeJPEG(jpeg, detail::jpegReductionFor(256, 192, 32, 24));
  ASSERT_TRUE(reduced);
  EXPECT_EQ(std::pair(reduced->width, reduced->height), std::pair(64, 48));
  const auto scaled = zrk_imageScaledToFitSize(*ZRKImage::imageWithData(jpeg), {32, 24});
  ASSERT_TRUE(scaled);
  EXPECT_EQ(colourAt(*scaled->RGBAPixels(), 32, 4, 4), 0);
  EXPECT_EQ(colourAt(*scaled->RGBAPixels(), 32, 16, 20), 2);
}

std::string pngHeaderOnly(std::uint32_t width, std::uint32_t height) {
  const std::string ihdr = "IHDR" + bytes(width, 4) + bytes(height, 4) + std::string("\x08\x06\0\0\0", 5);
  std::uint32_t crc = 0xFFFFFFFF;
  for (unsigned char c : ihdr) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = crc >> 1 ^ (0xEDB88320 & (0 - (crc & 1)));
  }
  return "\x89PNG\r\n\x1a\n" + bytes(13, 4) + ihdr + bytes(~crc, 4);
}

// Whatever comes in is refused or fails to decode; it never crashes or leaks.
void exercise(const std::string& data) {
  const auto image = ZRKImage::imageWithData(data);
  if (!image) return;
  if (const auto pixels = image->RGBAPixels()) {
    EXPECT_EQ(pixels->size(), static_cast<std::size_t>(image->pixelWidth()) * image->pixelHeight() * 4);
  }
  ZRKImageJPEGRepresentation(*image, 0.5);
  zrk_imageScaledToFitSize(*image, {7, 5});
}

TEST(ImageRobustness, RefusesOrSurvivesTruncatedHugeAndGarbageInput) {
  const std::string jpeg = jpegOf(picture(40, 30), 40, 30);
  for (std::size_t n = 0; n < jpeg.size(); n += 7) exercise(jpeg.substr(0, n));
  const std::size_t scan = jpeg.find("\xFF\xDA");
  const auto cut = ZRKImage::imageWithData(jpeg.substr(0, scan + (jpeg.size() - scan) / 2));
  ASSERT_TRUE(cut);
  EXPECT_TRUE(cut->RGBAPixels());  // decodes as far as it goes

  std::string huge = jpeg;
  huge.replace(huge.find("\xFF\xC0") + 5, 4, bytes(60000, 2) + bytes(60000, 2));
  EXPECT_FALSE(ZRKImage::imageWithData(huge));
  EXPECT_FALSE(ZRKImage::imageWithData(pngHeaderOnly(20000, 20000)));
  EXPECT_TRUE(ZRKImage::imageWithData(pngHeaderOnly(4, 4)));
  EXPECT_FALSE(ZRKImage::imageWithData(pngHeaderOnly(4, 4))->RGBAPixels());
  EXPECT_FALSE(ZRKImage::imageWithData(""));
  EXPECT_FALSE(ZRKImage::imageWithRGBAPixels(Pixels(15), 2, 2));
}

TEST(ImageFiles, ReadsAFileAndRefusesAMissingOne) {
  EXPECT_FALSE(ZRKImage::imageWithContentsOfFile("/nonexistent/photo.jpg"));
  const std::string path = testing::TempDir() + "zrk_image_test.jpg";
  std::ofstream(path, std::ios::binary) << jpegOf(picture(20, 10), 20, 10);
  const auto image = ZRKImage::imageWithContentsOfFile(path);
  std::remove(path.c_str());
  EXPECT_EQ(image ? image->size() : ZRKSize{}, (ZRKSize{20, 10}));
}

}  // namespace
}  // namespace zrk
