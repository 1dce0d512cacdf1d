// The library's image: pixels with a size in points, a scale and an
// orientation, as a photo library or camera hands them over.
//
// An image is made from 8-bit RGBA pixels in memory, or from an encoded JPEG
// or PNG (a buffer or a file). An image made from a JPEG or PNG keeps the
// encoded bytes and decodes them once, on first need; scaling a JPEG that is
// not decoded yet decodes it straight at a reduced size instead. Images are
// immutable and safe to share between threads.
//
//   auto photo = zrk::ZRKImage::imageWithContentsOfFile("photo.jpg");
//   auto small = zrk::zrk_imageScaledToFitSize(*photo, {1000, 750});
//   std::optional<std::string> jpeg = zrk::ZRKImageJPEGRepresentation(*small, 1.0);
#ifndef ZRK_ZRKIMAGE_H
#define ZRK_ZRKIMAGE_H

#include "zrk/ZRKExport.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zrk {

struct ZRK_API ZRKSize {
  double width = 0;
  double height = 0;
  friend bool operator==(const ZRKSize&, const ZRKSize&) = default;
};

// How the stored pixels are to be turned for display. The order is not
// EXIF's: EXIF 1-8 are up, upMirrored, down, downMirrored, leftMirrored,
// right, rightMirrored, left. A phone held upright writes EXIF 6, `right`:
// the stored pixels turn a quarter clockwise to stand up.
enum class ZRKImageOrientation { up, down, left, right, upMirrored, downMirrored, leftMirrored, rightMirrored };

class ZRK_API ZRKImage {
 public:
  // Non-premultiplied RGBA, 4 bytes a pixel, rows without padding; nullptr
  // when the buffer does not hold exactly width x height pixels or a side is
  // 0. A scale of 0 or less (or not finite) counts as 1.
  static std::shared_ptr<ZRKImage> imageWithRGBAPixels(std::vector<std::uint8_t> pixels, int width, int height,
                                                       double scale = 1,
                                                       ZRKImageOrientation orientation = ZRKImageOrientation::up);
  // A JPEG or PNG; nullptr when the bytes are neither, their header is
  // broken or it declares more than 16384 pixels a side or 100 megapixels.
  // A JPEG's EXIF orientation becomes the image's orientation (up when the
  // EXIF is missing or malformed); a PNG is always up. Only the header is
  // read here: broken image data shows as a null RGBAPixels(), except that a
  // JPEG cut short or with corrupt data decodes as far as it goes, the rest
  // grey, as photo viewers show it.
  static std::shared_ptr<ZRKImage> imageWithData(std::string data, double scale = 1);
  // As imageWithData with a scale of 1; nullptr also when the file cannot be read.
  static std::shared_ptr<ZRKImage> imageWithContentsOfFile(const std::string& path);

  // The size in points: the pixel size divided by the scale, with width and
  // height swapped for the four left/right orientations.
  ZRKSize size() const;
  double scale() const;
  ZRKImageOrientation imageOrientation() const;
  // The stored pixels' size, before orientation.
  int pixelWidth() const;
  int pixelHeight() const;

  // The stored pixels as RGBA (decoding an encoded image once); nullptr when
  // an encoded image turns out to be undecodable.
  std::shared_ptr<const std::vector<std::uint8_t>> RGBAPixels() const;

  ~ZRKImage();
  ZRKImage(const ZRKImage&) = delete;
  ZRKImage& operator=(const ZRKImage&) = delete;

  // The library's own; defined where the codecs live.
  struct State;
  explicit ZRKImage(std::shared_ptr<State> state);
  const State& state() const { return *state_; }

 private:
  std::shared_ptr<State> state_;
};

// A new image whose stored pixels are resampled to the target size times
// the scale (each side truncated to a whole number first, then after the
// multiplication), with the receiver's orientation and a scale of 1. The
// target is given as displayed, so for left/right orientations the stored
// pixels are resampled to the swapped size. High-quality resampling
// (Lanczos-3 class, covering every source pixel when reducing). nullptr when
// a side comes out as 0, the result would pass the limits of imageWithData,
// or the image cannot be decoded.
ZRK_API std::shared_ptr<ZRKImage> zrk_imageScaledToFitSize(const ZRKImage& image, ZRKSize size);
ZRK_API std::shared_ptr<ZRKImage> zrk_imageScaledToFitSize(const ZRKImage& image, ZRKSize size, double scale);

// The image as a baseline JPEG, turned upright, with 4:2:0 chroma, without
// EXIF and without alpha (the colour channels are written as stored).
// Quality from 0.0 to 1.0 becomes libjpeg's round(quality * 100), kept within
// 1-100. nullopt when the image cannot be decoded.
ZRK_API std::optional<std::string> ZRKImageJPEGRepresentation(const ZRKImage& image, double compressionQuality);

// The JPEG that a scan of the image uploads: turned upright, at most 1000
// pixels on its longer side, quality 100 (what `zrk prepare` writes). For
// an application that shows or keeps what it sends; nullopt when the image
// cannot be scaled or encoded.
ZRK_API std::optional<std::string> ZRKScanUploadJPEG(const ZRKImage& image);

}  // namespace zrk

#endif  // ZRK_ZRKIMAGE_H
