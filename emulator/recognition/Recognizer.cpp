#include "recognition/Recognizer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <vector>

#include "recognition/RecognitionFeatures.h"

namespace zrk::emulator {

namespace {

constexpr std::size_t kShortlist = 3;

// OpenCV's own worker pool and OpenCL runtime would start threads that the
// sanitizers cannot see into; the emulator parallelises by request instead.
void keepOpenCvOnCallingThreads() {
  static std::once_flag once;
  std::call_once(once, [] {
    cv::setNumThreads(0);
    cv::ocl::setUseOpenCL(false);
  });
}

// The match in the photo's own pixels: the homography found between the
// normalised pictures, brought back to both originals.
RecognitionMatch located(std::string triggerId, double score, const detail::Features& trigger,
                         const detail::Features& photo, const detail::Verification& verdict,
                         const detail::Correspondences& pairs) {
  RecognitionMatch match{std::move(triggerId), score, {}, {}, {}};
  const cv::Matx33d toNormalised(trigger.scale, 0, 0, 0, trigger.scale, 0, 0, 0, 1);
  const cv::Matx33d fromNormalised(1 / photo.scale, 0, 0, 0, 1 / photo.scale, 0, 0, 0, 1);
  cv::Matx33d homography = fromNormalised * cv::Matx33d(verdict.homography) * toNormalised;
  homography *= 1 / homography(2, 2);
  std::copy(homography.val, homography.val + 9, match.homography.begin());
  const double width = trigger.size.width / trigger.scale, height = trigger.size.height / trigger.scale;
  const cv::Vec3d corners[4] = {{0, 0, 1}, {width, 0, 1}, {width, height, 1}, {0, height, 1}};
  for (std::size_t i = 0; i < 4; ++i) {
    const cv::Vec3d seen = homography * corners[i];
    match.outline[i] = {seen[0] / seen[2], seen[1] / seen[2]};
  }
  for (std::size_t i = 0; i < pairs.size() && i < verdict.inlier.size(); ++i) {
    if (verdict.inlier[i]) match.inliers.push_back({pairs.photo[i].x / photo.scale, pairs.photo[i].y / photo.scale});
  }
  return match;
}

}  // namespace

struct Recognizer::Impl {
  struct Trigger {
    std::string id;
    std::string collectionId;
    detail::Features features;
  };
  std::vector<Trigger> triggers;
};

Recognizer::Recognizer() : impl_(std::make_unique<Impl>()) { keepOpenCvOnCallingThreads(); }

Recognizer::~Recognizer() = default;

void Recognizer::addTrigger(const std::string& triggerId, const std::string& collectionId,
                            std::span<const unsigned char> encodedImage) {
  auto features = detail::describeEncoded(encodedImage, detail::kTriggerSampling);
  if (!features) throw std::invalid_argument("trigger " + triggerId + " is no JPEG or PNG image");
  if (features->descriptors.rows < detail::kMinimumKeypoints) {
    throw std::invalid_argument("trigger " + triggerId + " has too little detail to be recognised");
  }
  for (auto& trigger : impl_->triggers) {
    if (trigger.id == triggerId) {
      trigger = {triggerId, collectionId, std::move(*features)};
      return;
    }
  }
  impl_->triggers.push_back({triggerId, collectionId, std::move(*features)});
}

std::optional<RecognitionMatch> Recognizer::match(std::span<const unsigned char> encodedImage,
                                                  const std::optional<std::string>& collectionId) const {
  const auto photo = detail::describeEncoded(encodedImage, detail::kPhotoSampling);
  if (!photo || photo->descriptors.empty()) return std::nullopt;
  // RANSAC draws from OpenCV's per-thread generator; starting it afresh
  // gives one photo the same score on every request.
  cv::theRNG() = cv::RNG(0x5eed);
  // Fitting a homography costs far more than counting descriptor pairs, so
  // only the triggers with the most pairs are fitted; the one shown is
  // among them unless the photo is shared by several.
  struct Candidate {
    const Impl::Trigger* trigger;
    detail::Correspondences pairs;
  };
  std::vector<Candidate> candidates;
  for (const auto& trigger : impl_->triggers) {
    if (collectionId && trigger.collectionId != *collectionId) continue;
    auto pairs = detail::correspond(trigger.features, *photo);
    if (static_cast<int>(pairs.size()) >= detail::kMinimumInliers) candidates.push_back({&trigger, std::move(pairs)});
  }
  const auto shortlist = std::min(candidates.size(), kShortlist);
  std::partial_sort(candidates.begin(), candidates.begin() + static_cast<std::ptrdiff_t>(shortlist), candidates.end(),
                    [](const Candidate& a, const Candidate& b) { return a.pairs.size() > b.pairs.size(); });
  std::optional<RecognitionMatch> best;
  int bestInliers = 0;
  for (std::size_t i = 0; i < shortlist; ++i) {
    const auto& candidate = candidates[i];
    const auto verdict = detail::verify(candidate.pairs, candidate.trigger->features.size, photo->size);
    if (!verdict.plausible || verdict.inliers < detail::kMinimumInliers || verdict.inliers <= bestInliers) continue;
    bestInliers = verdict.inliers;
    best = located(candidate.trigger->id, detail::scoreFor(verdict.inliers), candidate.trigger->features, *photo,
                   verdict, candidate.pairs);
  }
  return best;
}

bool Recognizer::removeTrigger(const std::string& triggerId) {
  return std::erase_if(impl_->triggers, [&](const Impl::Trigger& trigger) { return trigger.id == triggerId; }) > 0;
}

std::size_t Recognizer::size() const { return impl_->triggers.size(); }

std::string drawMatch(std::span<const unsigned char> encodedPhoto, const std::optional<RecognitionMatch>& match,
                      int maxSide) {
  if (encodedPhoto.empty() || encodedPhoto.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    return "";
  cv::Mat photo;
  try {
    const cv::Mat bytes(1, static_cast<int>(encodedPhoto.size()), CV_8UC1,
                        const_cast<unsigned char*>(encodedPhoto.data()));
    photo = cv::imdecode(bytes, cv::IMREAD_COLOR);
  } catch (const cv::Exception&) {
    return "";
  }
  if (photo.empty()) return "";
  const double scale = std::min(1.0, static_cast<double>(maxSide) / std::max(photo.cols, photo.rows));
  if (scale < 1) cv::resize(photo, photo, cv::Size(), scale, scale, cv::INTER_AREA);
  if (match) {
    // Lines a few pixels wide whatever the picture's size; drawn with 4 bits
    // of sub-pixel precision.
    const int thickness = std::max(2, std::max(photo.cols, photo.rows) / 200);
    const auto at = [scale](const RecognitionPoint& point) {
      return cv::Point(static_cast<int>(std::lround(point.x * scale * 16)),
                       static_cast<int>(std::lround(point.y * scale * 16)));
    };
    for (const RecognitionPoint& point : match->inliers)
      cv::circle(photo, at(point), thickness * 16, cv::Scalar(0, 200, 255), cv::FILLED, cv::LINE_AA, 4);
    std::vector<cv::Point> outline;
    for (const RecognitionPoint& corner : match->outline) outline.push_back(at(corner));
    cv::polylines(photo, outline, true, cv::Scalar(60, 220, 60), thickness, cv::LINE_AA, 4);
  }
  std::vector<unsigned char> jpeg;
  cv::imencode(".jpg", photo, jpeg, {cv::IMWRITE_JPEG_QUALITY, 85});
  return std::string(jpeg.begin(), jpeg.end());
}

}  // namespace zrk::emulator
