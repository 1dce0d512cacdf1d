#include "platform/ZRKImageCodec.h"

#include <spng.h>
#include <turbojpeg.h>

#include <cstring>
#include <memory>

namespace zrk::detail {
namespace {

struct TJDestroy {
  void operator()(void* handle) const { tjDestroy(handle); }
};
using TJHandle = std::unique_ptr<void, TJDestroy>;

struct SPNGFree {
  void operator()(spng_ctx* ctx) const { spng_ctx_free(ctx); }
};
using SPNGContext = std::unique_ptr<spng_ctx, SPNGFree>;

const unsigned char* bytes(std::string_view s) { return reinterpret_cast<const unsigned char*>(s.data()); }

std::uint16_t read16(const unsigned char* p, bool littleEndian) {
  return littleEndian ? static_cast<std::uint16_t>(p[0] | p[1] << 8) : static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

std::uint32_t read32(const unsigned char* p, bool littleEndian) {
  const std::uint32_t a = p[0], b = p[1], c = p[2], d = p[3];
  return littleEndian ? (a | b << 8 | c << 16 | d << 24) : (a << 24 | b << 16 | c << 8 | d);
}

// The orientation tag of IFD0 in a TIFF structure, or 0.
int tiffOrientation(const unsigned char* tiff, std::size_t size) {
  if (size < 8) return 0;
  bool little;
  if (tiff[0] == 'I' && tiff[1] == 'I') {
    little = true;
  } else if (tiff[0] == 'M' && tiff[1] == 'M') {
    little = false;
  } else {
    return 0;
  }
  if (read16(tiff + 2, little) != 42) return 0;
  const std::uint32_t ifd = read32(tiff + 4, little);
  if (ifd < 8 || ifd > size || size - ifd < 2) return 0;
  const std::size_t count = read16(tiff + ifd, little);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t entry = ifd + 2 + 12 * i;
    if (entry + 12 > size) return 0;
    if (read16(tiff + entry, little) != 0x0112) continue;
    const std::uint16_t type = read16(tiff + entry + 2, little);
    const std::uint32_t values = read32(tiff + entry + 4, little);
    if (type != 3 || values != 1) return 0;  // SHORT, one value, held in the entry itself
    const int value = read16(tiff + entry + 8, little);
    return value >= 1 && value <= 8 ? value : 0;
  }
  return 0;
}

SPNGContext pngDecoder(std::string_view png) {
  SPNGContext ctx(spng_ctx_new(0));
  if (!ctx) return nullptr;
  // Ancillary chunks (text, ICC profiles) may inflate far beyond their size;
  // cap what libspng keeps of them. A bad CRC there costs the chunk, not the image.
  if (spng_set_image_limits(ctx.get(), kMaxImageSide, kMaxImageSide) != 0 ||
      spng_set_chunk_limits(ctx.get(), std::size_t{1} << 24, std::size_t{1} << 26) != 0 ||
      spng_set_crc_action(ctx.get(), SPNG_CRC_ERROR, SPNG_CRC_DISCARD) != 0 ||
      spng_set_png_buffer(ctx.get(), png.data(), png.size()) != 0) {
    return nullptr;
  }
  return ctx;
}

}  // namespace

bool isWithinImageLimits(std::int64_t width, std::int64_t height) {
  return width > 0 && height > 0 && width <= kMaxImageSide && height <= kMaxImageSide &&
         static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) <= kMaxImagePixels;
}

bool looksLikeJPEG(std::string_view data) {
  return data.size() >= 3 && bytes(data)[0] == 0xFF && bytes(data)[1] == 0xD8 && bytes(data)[2] == 0xFF;
}

bool looksLikePNG(std::string_view data) { return data.substr(0, 8) == std::string_view("\x89PNG\r\n\x1a\n", 8); }

int jpegEXIFOrientation(std::string_view jpeg) {
  const unsigned char* p = bytes(jpeg);
  const std::size_t n = jpeg.size();
  if (n < 2 || p[0] != 0xFF || p[1] != 0xD8) return 1;
  std::size_t i = 2;
  while (i + 1 < n) {
    if (p[i] != 0xFF) return 1;
    const unsigned char marker = p[i + 1];
    if (marker == 0xFF) {  // fill byte before a marker
      ++i;
      continue;
    }
    i += 2;
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) continue;  // markers without a length
    if (marker == 0xDA || marker == 0xD9) return 1;  // EXIF always precedes the image data
    if (i + 2 > n) return 1;
    const std::size_t length = read16(p + i, false);
    if (length < 2 || length > n - i) return 1;
    static constexpr char kExif[] = {'E', 'x', 'i', 'f', 0, 0};
    if (marker == 0xE1 && length >= 2 + sizeof kExif && std::memcmp(p + i + 2, kExif, sizeof kExif) == 0) {
      const int orientation = tiffOrientation(p + i + 2 + sizeof kExif, length - 2 - sizeof kExif);
      return orientation != 0 ? orientation : 1;
    }
    i += length;
  }
  return 1;
}

ZRKImageOrientation orientationFromEXIF(int exifOrientation) {
  switch (exifOrientation) {
    case 2: return ZRKImageOrientation::upMirrored;
    case 3: return ZRKImageOrientation::down;
    case 4: return ZRKImageOrientation::downMirrored;
    case 5: return ZRKImageOrientation::leftMirrored;
    case 6: return ZRKImageOrientation::right;
    case 7: return ZRKImageOrientation::rightMirrored;
    case 8: return ZRKImageOrientation::left;
    default: return ZRKImageOrientation::up;
  }
}

bool isSideways(ZRKImageOrientation orientation) {
  switch (orientation) {
    case ZRKImageOrientation::left:
    case ZRKImageOrientation::right:
    case ZRKImageOrientation::leftMirrored:
    case ZRKImageOrientation::rightMirrored:
      return true;
    default:
      return false;
  }
}

std::optional<EncodedImageInfo> readJPEGInfo(std::string_view jpeg) {
  TJHandle tj(tjInitDecompress());
  if (!tj) return std::nullopt;
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj.get(), bytes(jpeg), jpeg.size(), &width, &height, &subsampling, &colorspace) != 0 ||
      !isWithinImageLimits(width, height)) {
    return std::nullopt;
  }
  return EncodedImageInfo{width, height, orientationFromEXIF(jpegEXIFOrientation(jpeg))};
}

std::optional<EncodedImageInfo> readPNGInfo(std::string_view png) {
  SPNGContext ctx = pngDecoder(png);
  spng_ihdr ihdr{};
  if (!ctx || spng_get_ihdr(ctx.get(), &ihdr) != 0 || !isWithinImageLimits(ihdr.width, ihdr.height)) {
    return std::nullopt;
  }
  return EncodedImageInfo{static_cast<int>(ihdr.width), static_cast<int>(ihdr.height), ZRKImageOrientation::up};
}

JPEGScale jpegReductionFor(int width, int height, int targetWidth, int targetHeight) {
  int count = 0;
  const tjscalingfactor* factors = tjGetScalingFactors(&count);
  const auto available = [&](JPEGScale s) {
    for (int i = 0; factors && i < count; ++i) {
      if (factors[i].num == s.num && factors[i].denom == s.denom) return true;
    }
    return false;
  };
  const std::int64_t minWidth = 2 * std::int64_t{targetWidth}, minHeight = 2 * std::int64_t{targetHeight};
  for (JPEGScale s : {JPEGScale{1, 8}, JPEGScale{1, 4}, JPEGScale{1, 2}}) {
    const tjscalingfactor f{s.num, s.denom};
    if (available(s) && TJSCALED(width, f) >= minWidth && TJSCALED(height, f) >= minHeight) return s;
  }
  return {};
}

std::optional<RGBAImage> decodeJPEG(std::string_view jpeg, JPEGScale scale) {
  TJHandle tj(tjInitDecompress());
  if (!tj) return std::nullopt;
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(tj.get(), bytes(jpeg), jpeg.size(), &width, &height, &subsampling, &colorspace) != 0 ||
      !isWithinImageLimits(width, height) || scale.num <= 0 || scale.denom <= 0) {
    return std::nullopt;
  }
  const tjscalingfactor factor{scale.num, scale.denom};
  RGBAImage image;
  image.width = TJSCALED(width, factor);
  image.height = TJSCALED(height, factor);
  if (!isWithinImageLimits(image.width, image.height)) return std::nullopt;
  // After a warning (a damaged or cut stream) the decoder still writes every
  // row, with what it could not read as mid grey, so no fill is needed.
  image.pixels = PixelBuffer::allocate(static_cast<std::size_t>(image.width) * image.height * 4);
  if (image.pixels.empty()) return std::nullopt;

  // libjpeg has no CMYK-to-RGB conversion: take the inks and convert here.
  const bool cmyk = colorspace == TJCS_CMYK || colorspace == TJCS_YCCK;
  // A progressive stream with thousands of scans is a known way to make a
  // few kilobytes cost minutes; the scan limit refuses those.
  if (tjDecompress2(tj.get(), bytes(jpeg), jpeg.size(), image.pixels.data(), image.width, 0, image.height,
                    cmyk ? TJPF_CMYK : TJPF_RGBA, TJFLAG_LIMITSCANS) != 0 &&
      tjGetErrorCode(tj.get()) != TJERR_WARNING) {
    return std::nullopt;
  }
  if (cmyk) {
    // Adobe writes the inks inverted, so each stored value is already "1 - ink".
    for (std::size_t i = 0; i < image.pixels.size(); i += 4) {
      std::uint8_t* px = &image.pixels[i];
      const unsigned k = px[3];
      px[0] = static_cast<std::uint8_t>((px[0] * k + 127) / 255);
      px[1] = static_cast<std::uint8_t>((px[1] * k + 127) / 255);
      px[2] = static_cast<std::uint8_t>((px[2] * k + 127) / 255);
      px[3] = 255;
    }
  }
  return image;
}

std::optional<RGBAImage> decodePNG(std::string_view png) {
  SPNGContext ctx = pngDecoder(png);
  spng_ihdr ihdr{};
  std::size_t size = 0;
  if (!ctx || spng_get_ihdr(ctx.get(), &ihdr) != 0 || !isWithinImageLimits(ihdr.width, ihdr.height) ||
      spng_decoded_image_size(ctx.get(), SPNG_FMT_RGBA8, &size) != 0 ||
      size != static_cast<std::size_t>(ihdr.width) * ihdr.height * 4) {
    return std::nullopt;
  }
  RGBAImage image;
  image.width = static_cast<int>(ihdr.width);
  image.height = static_cast<int>(ihdr.height);
  image.pixels = PixelBuffer::allocate(size);  // the decoder writes every byte or fails
  if (image.pixels.empty() || spng_decode_image(ctx.get(), image.pixels.data(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS) != 0) {
    return std::nullopt;
  }
  return image;
}

std::optional<std::string> encodeJPEG(const std::uint8_t* rgba, int width, int height, int quality) {
  TJHandle tj(tjInitCompress());
  if (!tj || !rgba || width <= 0 || height <= 0) return std::nullopt;
  // The worst case for these sides, in a buffer of our own: the encoder
  // never has to grow it, and its pages come cheap (see PixelBuffer).
  const unsigned long bound = tjBufSize(width, height, TJSAMP_420);
  if (bound == static_cast<unsigned long>(-1)) return std::nullopt;
  PixelBuffer output = PixelBuffer::allocate(bound);
  if (output.empty()) return std::nullopt;
  unsigned char* raw = output.data();
  unsigned long size = bound;
  if (tjCompress2(tj.get(), rgba, width, 0, height, TJPF_RGBA, &raw, &size, TJSAMP_420, quality,
                  TJFLAG_NOREALLOC) != 0 ||
      raw != output.data() || size > bound) {
    return std::nullopt;
  }
  std::string jpeg;
  jpeg.reserve(size);
  if (size >= kPixelBufferMappedMinimum) prefaultForWriting(jpeg.data(), size);
  jpeg.assign(reinterpret_cast<const char*>(raw), size);
  return jpeg;
}

std::optional<RGBAImage> orientedUpright(const std::uint8_t* rgba, int width, int height, ZRKImageOrientation orientation) {
  using O = ZRKImageOrientation;
  const std::ptrdiff_t w = width, h = height;
  // The source pixel of destination (x, y) is start + x * dx + y * dy (in
  // pixels), read off where the stored first row and column must end up.
  std::ptrdiff_t start = 0, dx = 1, dy = w;
  switch (orientation) {
    case O::up: break;
    case O::upMirrored: start = w - 1, dx = -1, dy = w; break;
    case O::down: start = (h - 1) * w + w - 1, dx = -1, dy = -w; break;
    case O::downMirrored: start = (h - 1) * w, dx = 1, dy = -w; break;
    case O::leftMirrored: start = 0, dx = w, dy = 1; break;                    // transposed
    case O::right: start = (h - 1) * w, dx = -w, dy = 1; break;                // turned a quarter clockwise
    case O::rightMirrored: start = (h - 1) * w + w - 1, dx = -w, dy = -1; break;  // transversed
    case O::left: start = w - 1, dx = w, dy = -1; break;                       // turned a quarter anticlockwise
  }
  RGBAImage out;
  out.width = isSideways(orientation) ? height : width;
  out.height = isSideways(orientation) ? width : height;
  out.pixels = PixelBuffer::allocate(static_cast<std::size_t>(w) * h * 4);
  if (out.pixels.empty()) return std::nullopt;
  std::uint8_t* dst = out.pixels.data();
  for (int y = 0; y < out.height; ++y) {
    std::ptrdiff_t src = start + y * dy;
    for (int x = 0; x < out.width; ++x, src += dx, dst += 4) std::memcpy(dst, rgba + src * 4, 4);
  }
  return out;
}

}  // namespace zrk::detail
