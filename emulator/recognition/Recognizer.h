// Finds which reference image (trigger) a photo shows. The emulator's only
// use of computer vision; the client library never links it.
#ifndef ZRK_EMULATOR_RECOGNIZER_H
#define ZRK_EMULATOR_RECOGNIZER_H

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace zrk::emulator {

struct RecognitionMatch {
  std::string triggerId;
  double score = 0;  // 0-100, higher is surer; only matches above the threshold are returned
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

  std::size_t size() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_RECOGNIZER_H
