#include "recognition/RecognitionFeatures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace zrk::emulator::detail {

namespace {

constexpr float kRatio = 0.8f;
constexpr double kReprojectionError = 5.0;

// The nearest and second-nearest trigger descriptor of each photo
// descriptor. OpenCV's matcher measures pair by pair through a dispatch and
// trace layer that costs more than the four popcounts a pair needs.
struct Nearest {
  int index = -1;
  int best = std::numeric_limits<int>::max();
  int second = std::numeric_limits<int>::max();
};

using Row = std::array<std::uint64_t, 4>;

std::vector<Row> rows(const cv::Mat& descriptors) {
  std::vector<Row> out(static_cast<std::size_t>(descriptors.rows));
  for (int i = 0; i < descriptors.rows; ++i)
    std::memcpy(out[static_cast<std::size_t>(i)].data(), descriptors.ptr(i), 32);
  return out;
}

[[gnu::always_inline]] inline void nearestTwoBody(const std::vector<Row>& photo, const std::vector<Row>& trigger,
                                                  std::vector<Nearest>& out) {
  for (std::size_t q = 0; q < photo.size(); ++q) {
    const Row& a = photo[q];
    Nearest n;
    for (std::size_t t = 0; t < trigger.size(); ++t) {
      const Row& b = trigger[t];
      const int d = __builtin_popcountll(a[0] ^ b[0]) + __builtin_popcountll(a[1] ^ b[1]) +
                    __builtin_popcountll(a[2] ^ b[2]) + __builtin_popcountll(a[3] ^ b[3]);
      if (d < n.best) {
        n.second = n.best;
        n.best = d;
        n.index = static_cast<int>(t);
      } else if (d < n.second) {
        n.second = d;
      }
    }
    out[q] = n;
  }
}

// Both vectors belong to the calling thread, so ThreadSanitizer has nothing
// to find in the hottest loop of a query; instrumented, it halves the speed
// of the whole sanitizer run.
#define ZRK_LOCAL_DATA_ONLY __attribute__((no_sanitize("thread")))

#if defined(__x86_64__)
// Debian's baseline x86-64 has no popcount instruction; nearly every CPU
// that runs it does.
[[gnu::target("popcnt")]] ZRK_LOCAL_DATA_ONLY void nearestTwoWithPopcnt(const std::vector<Row>& photo,
                                                                        const std::vector<Row>& trigger,
                                                                        std::vector<Nearest>& out) {
  nearestTwoBody(photo, trigger, out);
}
#endif

ZRK_LOCAL_DATA_ONLY void nearestTwoPortable(const std::vector<Row>& photo, const std::vector<Row>& trigger,
                                            std::vector<Nearest>& out) {
  nearestTwoBody(photo, trigger, out);
}

std::vector<Nearest> nearestTwo(const cv::Mat& photo, const cv::Mat& trigger) {
  const auto a = rows(photo), b = rows(trigger);
  std::vector<Nearest> out(a.size());
#if defined(__x86_64__)
  static const bool popcnt = __builtin_cpu_supports("popcnt");
  if (popcnt) {
    nearestTwoWithPopcnt(a, b, out);
    return out;
  }
#endif
  nearestTwoPortable(a, b, out);
  return out;
}

double area(const std::array<cv::Point2f, 4>& quad) {
  double twice = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const auto& a = quad[i];
    const auto& b = quad[(i + 1) % 4];
    twice += static_cast<double>(a.x) * b.y - static_cast<double>(b.x) * a.y;
  }
  return twice / 2;
}

// A poster seen by a camera stays a convex quadrilateral with the same
// handedness, of sensible size, not stretched beyond what a steep view
// gives. RANSAC on chance matches fits wild homographies that fail this.
bool plausible(const cv::Mat& homography, cv::Size trigger, cv::Size photo) {
  if (homography.empty()) return false;
  const std::vector<cv::Point2f> corners{{0, 0},
                                         {static_cast<float>(trigger.width), 0},
                                         {static_cast<float>(trigger.width), static_cast<float>(trigger.height)},
                                         {0, static_cast<float>(trigger.height)}};
  std::vector<cv::Point2f> seen;
  cv::perspectiveTransform(corners, seen, homography);
  std::array<cv::Point2f, 4> quad;
  std::copy(seen.begin(), seen.end(), quad.begin());
  for (std::size_t i = 0; i < 4; ++i) {
    const cv::Point2f a = quad[(i + 1) % 4] - quad[i];
    const cv::Point2f b = quad[(i + 2) % 4] - quad[(i + 1) % 4];
    if (a.cross(b) <= 0) return false;  // concave, folded or mirrored
  }
  const double share = area(quad) / (static_cast<double>(photo.width) * photo.height);
  if (share < 0.01 || share > 4) return false;
  for (std::size_t i = 0; i < 2; ++i) {
    const double one = cv::norm(quad[i + 1] - quad[i]);
    const double opposite = cv::norm(quad[(i + 3) % 4] - quad[i + 2]);
    if (one > 3 * opposite || opposite > 3 * one) return false;
  }
  return true;
}

}  // namespace

Features describe(const cv::Mat& grey, Sampling sampling) {
  Features features;
  const double scale = static_cast<double>(sampling.longSide) / std::max(grey.cols, grey.rows);
  cv::Mat normalised;
  cv::resize(grey, normalised, cv::Size(), scale, scale, scale < 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
  features.size = normalised.size();
  features.scale = scale;
  // A low FAST threshold keeps corners in dim or washed-out photos.
  const auto orb = cv::ORB::create(sampling.features, 1.2f, 10, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 12);
  std::vector<cv::KeyPoint> keypoints;
  orb->detectAndCompute(normalised, cv::noArray(), keypoints, features.descriptors);
  features.points.reserve(keypoints.size());
  for (const auto& k : keypoints) features.points.push_back(k.pt);
  return features;
}

std::optional<Features> describeEncoded(std::span<const unsigned char> encoded, Sampling sampling) {
  if (encoded.empty() || encoded.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    return std::nullopt;
  cv::Mat grey;
  try {
    // imdecode only reads the buffer; the Mat header just cannot say const.
    const cv::Mat bytes(1, static_cast<int>(encoded.size()), CV_8UC1, const_cast<unsigned char*>(encoded.data()));
    grey = cv::imdecode(bytes, cv::IMREAD_GRAYSCALE);
  } catch (const cv::Exception&) {
    return std::nullopt;
  }
  if (grey.empty() || grey.cols < 16 || grey.rows < 16) return std::nullopt;
  return describe(grey, sampling);
}

Correspondences correspond(const Features& trigger, const Features& photo) {
  Correspondences pairs;
  if (trigger.descriptors.rows < 2 || photo.descriptors.rows < 2) return pairs;
  const auto nearest = nearestTwo(photo.descriptors, trigger.descriptors);
  for (std::size_t q = 0; q < nearest.size(); ++q) {
    if (nearest[q].best >= kRatio * nearest[q].second) continue;
    pairs.trigger.push_back(trigger.points[static_cast<std::size_t>(nearest[q].index)]);
    pairs.photo.push_back(photo.points[q]);
  }
  return pairs;
}

Verification verify(const Correspondences& pairs, cv::Size trigger, cv::Size photo) {
  Verification result;
  if (pairs.size() < 4) return result;
  result.homography =
      cv::findHomography(pairs.trigger, pairs.photo, cv::RANSAC, kReprojectionError, result.inlier, 2000, 0.995);
  result.inliers = static_cast<int>(std::count(result.inlier.begin(), result.inlier.end(), 1));
  result.plausible = plausible(result.homography, trigger, photo);
  return result;
}

double scoreFor(int inliers) { return std::round(1000.0 * (1 - std::exp(-inliers / 40.0))) / 10; }

}  // namespace zrk::emulator::detail
