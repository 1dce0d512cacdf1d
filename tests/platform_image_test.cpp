#include <gtest/gtest.h>
#include <spng.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "platform/ZRKImageCodec.h"
#include "zrk/ZRKImage.h"

namespace zrk {
namespace {

using Pixels = std::vector<std::uint8_t>;
using O = ZRKImageOrientation;

// Smooth colours, which JPEG keeps well, with an alpha that must not matter;
// or red top-left, green top-right and blue bottom half, to see where each went.
Pixels picture(int w, int h, bool blocks = false) {
  Pixels p;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int block = y >= h / 2 ? 2 : x >= w / 2;
      const auto v = [&](int c, int smooth) { return std::uint8_t(blocks ? (c == 3 || c == block) * 255 : smooth); };
      p.insert(p.end(), {v(0, x * 255 / w), v(1, y * 255 / h), v(2, 128 + 64 * std::sin(x * 0.05)), v(3, x + y)});
    }
  return p;
}

std::string jpegOf(Pixels pixels, int width, int height) {
  return *ZRKImageJPEGRepresentation(*ZRKImage::imageWithRGBAPixels(std::move(pixels), width, height), 0.9);
}

// 0, 1 or 2 for a clearly red, green or blue pixel; -1 otherwise.
int colourAt(const ZRKImage& image, int x, int y) {
  const std::uint8_t* px = &(*image.RGBAPixels())[(static_cast<std::size_t>(y) * image.pixelWidth() + x) * 4];
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
std::string exif(bool little, int orientation, int type = 3, int ifd = 8, int count = 1) {
  const auto b = [little](std::uint32_t v, int n) { return bytes(v, n, little); };
  return std::string("Exif\0\0", 6) + (little ? "II" : "MM") + b(42, 2) + b(ifd, 4) + b(count, 2) + b(0x0112, 2) +
         b(type, 2) + b(1, 4) + b(orientation, 2) + std::string(6, '\0');
}

std::string withSegment(std::string jpeg, const std::string& payload, char marker = '\xE1') {
  return jpeg.insert(2, "\xFF" + std::string(1, marker) + bytes(payload.size() + 2, 2) + payload);
}

TEST(ImageJPEG, RoundTripsAtTheChosenQualityAndDecodesCMYKAndCutStreams) {
  const Pixels original = picture(64, 48);
  const std::string jpeg = jpegOf(original, 64, 48);
  const auto decoded = ZRKImage::imageWithData(jpeg, 0);  // a scale of 0 counts as 1
  ASSERT_EQ(decoded ? decoded->size() : ZRKSize{}, (ZRKSize{64, 48}));
  const auto pixels = decoded->RGBAPixels();
  double error = 0;
  for (std::size_t i = 0; i < original.size(); ++i) error += i % 4 == 3 ? 0 : std::abs((*pixels)[i] - original[i]);
  EXPECT_LT(error / (64 * 48 * 3), 3.0);
  const auto image = ZRKImage::imageWithRGBAPixels(original, 64, 48);
  EXPECT_LT(ZRKImageJPEGRepresentation(*image, 0.0)->size(), ZRKImageJPEGRepresentation(*image, 1.0)->size());
  EXPECT_EQ(ZRKImageJPEGRepresentation(*image, 1.0), ZRKImageJPEGRepresentation(*image, 7.0));

  const std::size_t scan = jpeg.find("\xFF\xDA");
  const auto cut = ZRKImage::imageWithData(jpeg.substr(0, scan + (jpeg.size() - scan) / 2));
  EXPECT_TRUE(cut && cut->RGBAPixels());  // decodes as far as it goes

  Pixels red(16 * 16 * 4, 0);  // inks stored inverted, as Adobe writes them
  for (std::size_t i = 0; i < red.size(); i += 4) red[i] = red[i + 3] = 255;
  tjhandle tj = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(tjCompress2(tj, red.data(), 16, 0, 16, TJPF_CMYK, &out, &size, TJSAMP_444, 95, 0), 0);
  const auto cmyk = ZRKImage::imageWithData(std::string(reinterpret_cast<char*>(out), size));
  tjFree(out), tjDestroy(tj);
  EXPECT_EQ(cmyk ? colourAt(*cmyk, 8, 8) : -2, 0);
}

TEST(ImageJPEG, AFileReadsAsItsBytesAndAnEmptyOrMissingOneAsNothing) {
  const std::string jpeg = jpegOf(picture(64, 48), 64, 48), path = testing::TempDir() + "zrk-image-file.jpg";
  std::ofstream(path, std::ios::binary) << jpeg;
  const auto fromFile = ZRKImage::imageWithContentsOfFile(path);
  ASSERT_TRUE(fromFile);
  EXPECT_EQ(*fromFile->RGBAPixels(), *ZRKImage::imageWithData(jpeg)->RGBAPixels());
  std::ofstream(path, std::ios::trunc).close();
  EXPECT_FALSE(ZRKImage::imageWithContentsOfFile(path));
  std::remove(path.c_str());
  EXPECT_FALSE(ZRKImage::imageWithContentsOfFile(path));
  EXPECT_FALSE(ZRKImage::imageWithContentsOfFile(testing::TempDir()));
}

TEST(ImagePNG, DecodesLosslessly) {
  const Pixels original = picture(200, 150);
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_ihdr ihdr{200, 150, 8, SPNG_COLOR_TYPE_TRUECOLOR_ALPHA, 0, 0, 0};
  std::size_t length = 0;
  int error = spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1) || spng_set_ihdr(ctx, &ihdr) ||
              spng_encode_image(ctx, original.data(), original.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  char* png = static_cast<char*>(spng_get_png_buffer(ctx, &length, &error));
  const auto image = ZRKImage::imageWithData(std::string(png, length), 2);
  std::free(png), spng_ctx_free(ctx);
  ASSERT_TRUE(image && !error);
  EXPECT_EQ(image->size(), (ZRKSize{100, 75}));
  EXPECT_EQ(*image->RGBAPixels(), original);
}

TEST(ImageOrientation, EXIFSixSwapsTheSizeScalesSidewaysAndEncodesUpright) {
  const std::string blocks = jpegOf(picture(48, 32, true), 48, 32);
  for (bool little : {true, false}) {
    const auto image = ZRKImage::imageWithData(withSegment(blocks, exif(little, 6)));
    ASSERT_TRUE(image);
    EXPECT_EQ(std::pair(image->imageOrientation(), image->size()), std::pair(O::right, ZRKSize{32, 48}));
    const auto scaled = zrk_imageScaledToFitSize(*image, {16, 24});
    ASSERT_TRUE(scaled);
    EXPECT_EQ(std::tuple(scaled->imageOrientation(), scaled->pixelWidth(), scaled->pixelHeight()),
              std::tuple(O::right, 24, 16));
    // Upright: the stored red top-left ends top right, green bottom right, blue on the left.
    const auto upright = ZRKImage::imageWithData(*ZRKImageJPEGRepresentation(*image, 0.9));
    EXPECT_EQ(upright->pixelWidth(), 32);
    EXPECT_EQ(std::tuple(colourAt(*upright, 28, 4), colourAt(*upright, 28, 44), colourAt(*upright, 4, 24)),
              std::tuple(0, 1, 2));
  }
}

TEST(ImageOrientation, TurnsEveryOrientationUprightAndReadsMalformedEXIFAsUp) {
  // Stored "abc/def"; each expectation is the picture as displayed, in EXIF's order.
  const Pixels stored = {'a', 0, 0, 0, 'b', 0, 0, 0, 'c', 0, 0, 0, 'd', 0, 0, 0, 'e', 0, 0, 0, 'f', 0, 0, 0};
  const std::pair<O, std::string> cases[] = {
      {O::up, "abc/def"},           {O::upMirrored, "cba/fed"},    {O::down, "fed/cba"},
      {O::downMirrored, "def/abc"}, {O::leftMirrored, "ad/be/cf"}, {O::right, "da/eb/fc"},
      {O::rightMirrored, "fc/eb/da"}, {O::left, "cf/be/ad"}};
  const std::string jpeg = jpegOf(picture(8, 8), 8, 8);
  for (int i = 0; i < 8; ++i) {
    const auto& [orientation, expected] = cases[i];
    EXPECT_EQ(ZRKImage::imageWithData(withSegment(jpeg, exif(i % 2, i + 1)))->imageOrientation(), orientation);
    const auto out = *detail::orientedUpright(stored.data(), 3, 2, orientation);
    std::string seen;
    for (int j = 0; j < out.width * out.height; ++j)
      seen += std::string(j && j % out.width == 0, '/') + char(out.pixels[4 * j]);
    EXPECT_EQ(seen, expected) << i + 1;
  }
  // Found behind another segment and fill bytes, as cameras write it.
  const std::string filled = withSegment(jpeg, exif(true, 8)).insert(2, "\xFF\xFF");
  EXPECT_EQ(detail::jpegEXIFOrientation(withSegment(filled, "JFIF", '\xE0')), 8);
  const std::string good = exif(true, 6);
  for (const std::string& payload : {exif(true, 0), exif(true, 6, 4), exif(true, 6, 3, 4000), exif(true, 6, 3, 8, 0),
                                     good.substr(0, 20), good.substr(0, 6), "Exig" + good.substr(4)})
    EXPECT_EQ(ZRKImage::imageWithData(withSegment(jpeg, payload))->imageOrientation(), O::up);
  std::string overrun = withSegment(jpeg, good);
  overrun[4] = '\x7F';  // the segment claims more than the file holds
  EXPECT_EQ(detail::jpegEXIFOrientation(overrun), 1);
}

TEST(ImageScaling, TruncatesEachSideBeforeAndAfterTheScaleAndDecodesJPEGReduced) {
  const auto image = ZRKImage::imageWithRGBAPixels(picture(101, 80), 101, 80);
  const auto fitted = zrk_imageScaledToFitSize(*image, {100, 79.9});
  EXPECT_EQ(std::pair(fitted->pixelWidth(), fitted->pixelHeight()), std::pair(100, 79));
  EXPECT_EQ(zrk_imageScaledToFitSize(*image, {10.9, 10.9}, 2)->pixelWidth(), 20);
  const auto retina = ZRKImage::imageWithRGBAPixels(picture(120, 120), 120, 120, 2);
  EXPECT_EQ(retina->size(), (ZRKSize{60, 60}));
  const auto doubled = zrk_imageScaledToFitSize(*retina, {60, 60}, 2);
  EXPECT_EQ(std::pair(doubled->pixelWidth(), doubled->scale()), std::pair(120, 1.0));

  // The strongest reduction that keeps twice the target: 1/4 leaves 1008x756 of 4032x3024.
  const int reductions[][3] = {{1000, 750, 2}, {504, 378, 4}, {505, 10, 2}, {252, 189, 8}, {2017, 10, 1}, {9, 1513, 1}};
  for (const auto& [w, h, denominator] : reductions)
    EXPECT_EQ(detail::jpegReductionFor(4032, 3024, w, h), (detail::JPEGScale{1, denominator})) << w << "x" << h;
  const auto jpeg = ZRKImage::imageWithData(jpegOf(picture(256, 192, true), 256, 192));
  const auto reduced = zrk_imageScaledToFitSize(*jpeg, {32, 24});
  ASSERT_TRUE(reduced);
  EXPECT_EQ(std::pair(colourAt(*reduced, 4, 4), colourAt(*reduced, 16, 20)), std::pair(0, 2));
}

TEST(ImageLimits, ASideOf16384IsAllowedButNotMoreNorAHundredMillionPixels) {
  const std::string jpeg = jpegOf(picture(40, 30), 40, 30);
  const auto sized = [&, frame = jpeg.find("\xFF\xC0") + 5](int w, int h) {
    return ZRKImage::imageWithData(std::string(jpeg).replace(frame, 4, bytes(h, 2) + bytes(w, 2)));
  };
  EXPECT_TRUE(sized(16384, 1));
  EXPECT_FALSE(sized(16385, 1));
  EXPECT_FALSE(sized(16384, 16384));
  for (std::size_t size : {15, 17}) EXPECT_FALSE(ZRKImage::imageWithRGBAPixels(Pixels(size), 2, 2));
  for (ZRKSize bad : {ZRKSize{0.9, 10}, ZRKSize{-5, 10}, ZRKSize{NAN, 10}, ZRKSize{1e12, 10}, ZRKSize{20000, 20000}})
    EXPECT_FALSE(zrk_imageScaledToFitSize(*sized(40, 30), bad)) << bad.width << "x" << bad.height;
  EXPECT_FALSE(zrk_imageScaledToFitSize(*sized(40, 30), {10, 10}, 0));
}

}  // namespace
}  // namespace zrk
