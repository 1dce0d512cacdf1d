// Poster-like pictures drawn from a seed, and photographs of them, so that the
// recognition tests and the sample seed need no image from anywhere else.
// The same seed and title give the same pixels on every run.
#ifndef ZRK_EMULATOR_SYNTHETIC_POSTERS_H
#define ZRK_EMULATOR_SYNTHETIC_POSTERS_H

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace zrk::emulator::samples {

// A small engine of our own: std::uniform_*_distribution differs between
// standard libraries, and the committed samples must not depend on which one
// built the generator.
class SeededRandom {
 public:
  explicit SeededRandom(std::uint32_t seed);
  double uniform(double low, double high);
  int integer(int low, int high);  // both ends included
  bool chance(double probability);
  cv::Scalar colour();
  std::uint32_t next();

 private:
  std::uint64_t state_;
};

// A portrait poster: gradient ground, shapes, a noise texture, a title and a
// few lines of small print, made-up words when none are given. `title` may
// be empty for one made of shapes only.
cv::Mat makePoster(std::uint32_t seed, const std::string& title, const std::vector<std::string>& lines = {},
                   cv::Size size = {600, 800});

// A random word of capitals, for titles and unrelated pictures.
std::string randomWord(SeededRandom& random, int minLength, int maxLength);

struct ShotOptions {
  cv::Size size{960, 720};
  double coverage = 0.45;  // share of the shot's height the poster takes
  double rotationDegrees = 4;
  double perspective = 0.08;  // how far the far edge shrinks
  double lighting = 0.85;     // gain applied to the whole shot
  double noise = 6;           // standard deviation of sensor noise
};

// The poster hung in a cluttered room and photographed: perspective, a
// slight turn, uneven light, noise and a little blur.
cv::Mat photograph(const cv::Mat& poster, std::uint32_t seed, const ShotOptions& options = {});

}  // namespace zrk::emulator::samples

#endif  // ZRK_EMULATOR_SYNTHETIC_POSTERS_H
