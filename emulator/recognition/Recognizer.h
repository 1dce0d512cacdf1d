// Finds which reference image (trigger) a photo shows. The emulator's only
// use of computer vision; the client library never links it.
#ifndef ZRK_EMULATOR_RECOGNIZER_H
#define ZRK_EMULATOR_RECOGNIZER_H

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zrk::emulator {

struct RecognitionPoint {
  double x = 0;
  double y = 0;
};

struct RecognitionMatch {
  std::string triggerId;
  double score = 0;  // 0-100, higher is surer; only matches above the threshold are returned
  // Where the trigger lies in the photo, in the photo's own pixels: the
  // homography from the trigger's pixels to the photo's (row-major), the
  // trigger's corners under it (top-left, top-right, bottom-right,
  // bottom-left), and the photo's points that agree with it.
  std::array<double, 9> homography{};
  std::array<RecognitionPoint, 4> outline{};
  std::vector<RecognitionPoint> inliers;
};

class Recognizer {
 public:
  Recognizer();
  ~Recognizer();
  Recognizer(const Recognizer&) = delete;
  Recognizer& operator=(const Recognizer&) = delete;

  // Adds a trigger from its encoded JPEG or PNG bytes. Throws
  // std::invalid_argument when the bytes are no image or too plain to
  // recognise. Not safe to call concurrently with match().
  void addTrigger(const std::string& triggerId, const std::string& collectionId,
                  std::span<const unsigned char> encodedImage);

  // The best trigger shown in the encoded JPEG or PNG photo, looking only
  // within the collection when one is given; nothing when no trigger is
  // shown or the bytes are no image. Safe to call from several threads.
  std::optional<RecognitionMatch> match(std::span<const unsigned char> encodedImage,
                                        const std::optional<std::string>& collectionId) const;

  // False when no trigger has that id. Not safe to call concurrently with match().
  bool removeTrigger(const std::string& triggerId);

  std::size_t size() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The photo (JPEG or PNG) as a JPEG of at most maxSide pixels a side, with
// the match drawn on it when there is one: the trigger's outline and the
// agreeing points. "" when the bytes are no image.
std::string drawMatch(std::span<const unsigned char> encodedPhoto, const std::optional<RecognitionMatch>& match,
                      int maxSide = 800);

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_RECOGNIZER_H
