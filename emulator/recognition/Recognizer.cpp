#include "recognition/Recognizer.h"

#include <algorithm>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
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
    best = RecognitionMatch{candidate.trigger->id, detail::scoreFor(verdict.inliers)};
  }
  return best;
}

std::size_t Recognizer::size() const { return impl_->triggers.size(); }

}  // namespace zrk::emulator
