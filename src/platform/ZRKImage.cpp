#include "zrk/ZRKImage.h"
#include "platform/ZRKImageCodec.h"
#include "platform/ZRKResampler.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <mutex>

namespace zrk {

using detail::RGBAImage;

struct ZRKImage::State {
  enum class Encoding { none, jpeg, png };

  // Fixed at construction. The encoded bytes are the caller's string or,
  // for a file, a buffer read without zero-filling it first.
  Encoding encoding = Encoding::none;
  std::string encodedString;
  detail::PixelBuffer encodedFile;
  std::string_view encoded;
  int width = 0;
  int height = 0;
  double scale = 1;
  ZRKImageOrientation orientation = ZRKImageOrientation::up;

  // An encoded image decodes once, on first need; every later reader gets
  // the same outcome, failure included. Pixels decoded or scaled here stay
  // in a PixelBuffer; a vector is made of them only when the application
  // asks for one.
  mutable std::mutex mutex;
  mutable bool decodeAttempted = false;                               // GUARDED_BY(mutex)
  mutable std::shared_ptr<const std::vector<std::uint8_t>> pixels;    // GUARDED_BY(mutex)
  mutable std::shared_ptr<const detail::PixelBuffer> buffer;          // GUARDED_BY(mutex)

  // The pixels, and what keeps them alive; null when they cannot be had.
  struct Pixels {
    std::shared_ptr<const void> owner;
    const std::uint8_t* data = nullptr;
  };

  // REQUIRES: mutex is held.
  void decodeOnce() const {
    if (decodeAttempted) return;
    decodeAttempted = true;
    std::optional<RGBAImage> image =
        encoding == Encoding::jpeg ? detail::decodeJPEG(encoded) : detail::decodePNG(encoded);
    if (image && image->width == width && image->height == height) {
      buffer = std::make_shared<const detail::PixelBuffer>(std::move(image->pixels));
    }
  }

  Pixels pixelData() const {
    std::lock_guard lock(mutex);
    decodeOnce();
    if (pixels) return {pixels, pixels->data()};
    if (buffer) return {buffer, buffer->data()};
    return {};
  }

  std::shared_ptr<const std::vector<std::uint8_t>> decodedPixels() const {
    std::lock_guard lock(mutex);
    decodeOnce();
    if (!pixels && buffer) {
      pixels = std::make_shared<const std::vector<std::uint8_t>>(buffer->data(), buffer->data() + buffer->size());
      buffer.reset();  // readers that still hold it keep it alive
    }
    return pixels;
  }

  bool hasDecoded() const {
    std::lock_guard lock(mutex);
    return decodeAttempted;
  }
};

namespace {

double normalizedScale(double scale) { return std::isfinite(scale) && scale > 0 ? scale : 1; }

// A side as C truncates it into an unsigned, with what C leaves undefined
// (negative, NaN, beyond 32 bits) made 0 or too large.
std::int64_t truncatedSide(double value) {
  if (!(value >= 0)) return 0;
  if (value >= 4294967296.0) return std::int64_t{1} << 32;
  return static_cast<std::int64_t>(static_cast<std::uint32_t>(value));
}

// An image of pixels made here, held as they were made.
std::shared_ptr<ZRKImage> imageWithPixelBuffer(detail::PixelBuffer pixels, int width, int height,
                                               ZRKImageOrientation orientation) {
  auto state = std::make_shared<ZRKImage::State>();
  state->width = width;
  state->height = height;
  state->orientation = orientation;
  state->decodeAttempted = true;
  state->buffer = std::make_shared<const detail::PixelBuffer>(std::move(pixels));
  return std::make_shared<ZRKImage>(std::move(state));
}

// Size and orientation from the header of state.encoded; null when it is
// neither a JPEG nor a PNG within the limits.
std::shared_ptr<ZRKImage> imageWithEncoded(std::shared_ptr<ZRKImage::State> state, double scale) {
  using Encoding = ZRKImage::State::Encoding;
  std::optional<detail::EncodedImageInfo> info;
  if (detail::looksLikeJPEG(state->encoded)) {
    info = detail::readJPEGInfo(state->encoded);
    state->encoding = Encoding::jpeg;
  } else if (detail::looksLikePNG(state->encoded)) {
    info = detail::readPNGInfo(state->encoded);
    state->encoding = Encoding::png;
  }
  if (!info) return nullptr;
  state->width = info->width;
  state->height = info->height;
  state->scale = normalizedScale(scale);
  state->orientation = info->orientation;
  return std::make_shared<ZRKImage>(std::move(state));
}

}  // namespace

ZRKImage::ZRKImage(std::shared_ptr<State> state) : state_(std::move(state)) {}
ZRKImage::~ZRKImage() = default;

std::shared_ptr<ZRKImage> ZRKImage::imageWithRGBAPixels(std::vector<std::uint8_t> pixels, int width, int height,
                                                         double scale, ZRKImageOrientation orientation) {
  if (width <= 0 || height <= 0 ||
      pixels.size() != static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) * 4) {
    return nullptr;
  }
  auto state = std::make_shared<State>();
  state->width = width;
  state->height = height;
  state->scale = normalizedScale(scale);
  state->orientation = orientation;
  state->decodeAttempted = true;
  state->pixels = std::make_shared<const std::vector<std::uint8_t>>(std::move(pixels));
  return std::make_shared<ZRKImage>(std::move(state));
}

std::shared_ptr<ZRKImage> ZRKImage::imageWithData(std::string data, double scale) {
  auto state = std::make_shared<State>();
  state->encodedString = std::move(data);
  state->encoded = state->encodedString;
  return imageWithEncoded(std::move(state), scale);
}

std::shared_ptr<ZRKImage> ZRKImage::imageWithContentsOfFile(const std::string& path) {
  // One read of the whole file into memory that is not zero-filled first: a
  // photo is megabytes, and a byte-wise copy costs more than decoding its
  // header.
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) return nullptr;
  const std::streamoff size = file.tellg();
  if (size <= 0) return nullptr;
  auto state = std::make_shared<State>();
  state->encodedFile = detail::PixelBuffer::allocate(static_cast<std::size_t>(size));
  if (state->encodedFile.empty()) return nullptr;
  file.seekg(0);
  if (!file.read(reinterpret_cast<char*>(state->encodedFile.data()), size)) return nullptr;
  state->encoded = std::string_view(reinterpret_cast<const char*>(state->encodedFile.data()), state->encodedFile.size());
  return imageWithEncoded(std::move(state), 1);
}

ZRKSize ZRKImage::size() const {
  const State& s = *state_;
  const double width = s.width / s.scale, height = s.height / s.scale;
  return detail::isSideways(s.orientation) ? ZRKSize{height, width} : ZRKSize{width, height};
}

double ZRKImage::scale() const { return state_->scale; }
ZRKImageOrientation ZRKImage::imageOrientation() const { return state_->orientation; }
int ZRKImage::pixelWidth() const { return state_->width; }
int ZRKImage::pixelHeight() const { return state_->height; }

std::shared_ptr<const std::vector<std::uint8_t>> ZRKImage::RGBAPixels() const { return state_->decodedPixels(); }

std::shared_ptr<ZRKImage> zrk_imageScaledToFitSize(const ZRKImage& image, ZRKSize size) {
  return zrk_imageScaledToFitSize(image, size, 1.0);
}

std::shared_ptr<ZRKImage> zrk_imageScaledToFitSize(const ZRKImage& image, ZRKSize size, double scale) {
  std::int64_t width = truncatedSide(static_cast<double>(truncatedSide(size.width)) * scale);
  std::int64_t height = truncatedSide(static_cast<double>(truncatedSide(size.height)) * scale);
  if (!detail::isWithinImageLimits(width, height)) return nullptr;
  const ZRKImage::State& state = image.state();
  if (detail::isSideways(state.orientation)) std::swap(width, height);
  const int dstWidth = static_cast<int>(width), dstHeight = static_cast<int>(height);

  // A JPEG not yet decoded in full is decoded straight at a reduced size:
  // far less memory and time for a phone photo that becomes 1000 px.
  std::optional<RGBAImage> reduced;
  if (state.encoding == ZRKImage::State::Encoding::jpeg && !state.hasDecoded()) {
    const detail::JPEGScale reduction = detail::jpegReductionFor(state.width, state.height, dstWidth, dstHeight);
    if (reduction != detail::JPEGScale{}) {
      reduced = detail::decodeJPEG(state.encoded, reduction);
      if (!reduced) return nullptr;
    }
  }
  ZRKImage::State::Pixels full;
  detail::PixelView src;
  if (reduced) {
    src = {reduced->pixels.data(), reduced->width, reduced->height, std::ptrdiff_t{reduced->width} * 4, 4};
  } else {
    full = state.pixelData();
    if (!full.data) return nullptr;
    src = {full.data, state.width, state.height, std::ptrdiff_t{state.width} * 4, 4};
  }

  // Every byte is written below: by the copy or by the resampler.
  detail::PixelBuffer pixels = detail::PixelBuffer::allocate(static_cast<std::size_t>(dstWidth) * dstHeight * 4);
  if (pixels.empty()) return nullptr;
  const detail::MutablePixelView dst{pixels.data(), dstWidth, dstHeight, std::ptrdiff_t{dstWidth} * 4, 4};
  if (!detail::resample(src, dst)) return nullptr;
  reduced.reset();  // the next allocation may reuse its pages
  return imageWithPixelBuffer(std::move(pixels), dstWidth, dstHeight, state.orientation);
}

std::optional<std::string> ZRKImageJPEGRepresentation(const ZRKImage& image, double compressionQuality) {
  const ZRKImage::State& state = image.state();
  const ZRKImage::State::Pixels pixels = state.pixelData();
  if (!pixels.data) return std::nullopt;
  const double rounded = std::round(compressionQuality * 100);
  const int quality = std::isnan(rounded) ? 1 : static_cast<int>(std::clamp(rounded, 1.0, 100.0));
  if (state.orientation == ZRKImageOrientation::up) {
    return detail::encodeJPEG(pixels.data, state.width, state.height, quality);
  }
  const auto upright = detail::orientedUpright(pixels.data, state.width, state.height, state.orientation);
  if (!upright) return std::nullopt;
  return detail::encodeJPEG(upright->pixels.data(), upright->width, upright->height, quality);
}

}  // namespace zrk
