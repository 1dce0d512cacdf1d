#include "zrk/ZRKImage.h"

namespace zrk {
namespace {

constexpr double kLongestSide = 1000;

}  // namespace

std::optional<std::string> ZRKScanUploadJPEG(const ZRKImage& image) {
  // The longer side becomes 1000 pixels; ties take the height. A side of
  // exactly 1000 is left alone.
  const ZRKSize points = image.size();
  const double width = points.width * image.scale();
  const double height = points.height * image.scale();
  if (height > kLongestSide || width > kLongestSide) {
    const double factor = height >= width ? kLongestSide / height : kLongestSide / width;
    const auto scaled = zrk_imageScaledToFitSize(image, ZRKSize{width * factor, height * factor});
    // A failed scaling is not checked further: the part then has no content.
    if (!scaled) return std::nullopt;
    return ZRKImageJPEGRepresentation(*scaled, 1.0);
  }
  return ZRKImageJPEGRepresentation(image, 1.0);
}

}  // namespace zrk
