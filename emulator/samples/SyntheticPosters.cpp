#include "samples/SyntheticPosters.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace zrk::emulator::samples {

SeededRandom::SeededRandom(std::uint32_t seed) : state_(0x9E3779B97F4A7C15ull ^ (std::uint64_t{seed} << 17 | seed)) {}

// splitmix64: tiny, and every 64-bit state gives a well-mixed output.
std::uint32_t SeededRandom::next() {
  std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return static_cast<std::uint32_t>((z ^ (z >> 31)) >> 32);
}

double SeededRandom::uniform(double low, double high) { return low + (high - low) * (next() / 4294967296.0); }

int SeededRandom::integer(int low, int high) {
  return low + static_cast<int>(next() % static_cast<std::uint32_t>(high - low + 1));
}

bool SeededRandom::chance(double probability) { return uniform(0, 1) < probability; }

cv::Scalar SeededRandom::colour() { return {uniform(0, 255), uniform(0, 255), uniform(0, 255)}; }

std::string randomWord(SeededRandom& random, int minLength, int maxLength) {
  std::string word(static_cast<std::size_t>(random.integer(minLength, maxLength)), 'A');
  for (char& c : word) c = static_cast<char>('A' + random.integer(0, 25));
  return word;
}

namespace {

void linearGradient(cv::Mat& image, SeededRandom& random) {
  const cv::Vec3f from(random.uniform(0, 255), random.uniform(0, 255), random.uniform(0, 255));
  const cv::Vec3f to(random.uniform(0, 255), random.uniform(0, 255), random.uniform(0, 255));
  const double angle = random.uniform(0, 2 * std::numbers::pi);
  const double dx = std::cos(angle), dy = std::sin(angle);
  const double span = std::abs(dx) * image.cols + std::abs(dy) * image.rows;
  const double origin = std::min(0.0, dx * image.cols) + std::min(0.0, dy * image.rows);
  const auto step = static_cast<float>(dx / span);
  for (int y = 0; y < image.rows; ++y) {
    auto* row = image.ptr<cv::Vec3b>(y);
    auto t = static_cast<float>((dy * y - origin) / span);
    for (int x = 0; x < image.cols; ++x, t += step) row[x] = cv::Vec3b(from + (to - from) * t);
  }
}

// Smooth blotches: a coarse random grid enlarged with cubic interpolation,
// laid over the ground like paper grain or clouds.
void cloudTexture(cv::Mat& image, SeededRandom& random) {
  cv::Mat coarse(random.integer(4, 14), random.integer(4, 14), CV_16SC3);
  for (int y = 0; y < coarse.rows; ++y)
    for (int x = 0; x < coarse.cols; ++x)
      coarse.at<cv::Vec3s>(y, x) =
          cv::Vec3s(static_cast<short>(random.integer(-40, 40)), static_cast<short>(random.integer(-40, 40)),
                    static_cast<short>(random.integer(-40, 40)));
  // Sixteen-bit throughout: full-size float images cost more in page faults
  // than in arithmetic.
  cv::Mat smooth;
  cv::resize(coarse, smooth, image.size(), 0, 0, cv::INTER_CUBIC);
  cv::add(image, smooth, image, cv::noArray(), CV_8U);
}

// A band of small marks (dots, dashes, checks): the fine detail that printed
// posters carry in their pictures.
void patternPatch(cv::Mat& image, SeededRandom& random) {
  const int w = random.integer(image.cols / 5, image.cols / 2);
  const int h = random.integer(image.rows / 8, image.rows / 3);
  const cv::Rect area(random.integer(0, image.cols - w), random.integer(0, image.rows - h), w, h);
  const int step = random.integer(10, 22);
  const int kind = random.integer(0, 2);
  const cv::Scalar ink = random.colour();
  for (int y = area.y; y < area.y + area.height; y += step)
    for (int x = area.x; x < area.x + area.width; x += step) {
      if (!random.chance(0.7)) continue;
      const cv::Point at(x + random.integer(0, step / 3), y + random.integer(0, step / 3));
      const int r = random.integer(2, step / 2);
      if (kind == 0) {
        cv::circle(image, at, r, ink, cv::FILLED, cv::LINE_AA);
      } else if (kind == 1) {
        cv::line(image, at, at + cv::Point(random.integer(-r, r) * 2, random.integer(-r, r)), ink, 2, cv::LINE_AA);
      } else {
        cv::rectangle(image, cv::Rect(at, cv::Size(r, r)), random.chance(0.5) ? ink : random.colour(), cv::FILLED);
      }
    }
}

void polygon(cv::Mat& image, SeededRandom& random, const cv::Scalar& colour) {
  const cv::Point centre(random.integer(0, image.cols), random.integer(0, image.rows));
  const int corners = random.integer(3, 7);
  const bool star = random.chance(0.4);
  const double radius = random.uniform(25, image.cols / 4.0);
  const double turn = random.uniform(0, std::numbers::pi);
  std::vector<cv::Point> points;
  for (int i = 0; i < corners * (star ? 2 : 1); ++i) {
    const double r = star && i % 2 ? radius * 0.45 : radius * random.uniform(0.8, 1.0);
    const double a = turn + i * std::numbers::pi * 2 / (corners * (star ? 2 : 1));
    points.emplace_back(centre + cv::Point(static_cast<int>(r * std::cos(a)), static_cast<int>(r * std::sin(a))));
  }
  cv::fillPoly(image, std::vector<std::vector<cv::Point>>{points}, colour, cv::LINE_AA);
}

void shape(cv::Mat& image, SeededRandom& random) {
  cv::Mat layer = image.clone();
  const cv::Scalar colour = random.colour();
  const cv::Point at(random.integer(0, image.cols), random.integer(0, image.rows));
  const int size = random.integer(20, image.cols / 4);
  switch (random.integer(0, 5)) {
    case 0:
      cv::circle(layer, at, size, colour, cv::FILLED, cv::LINE_AA);
      break;
    case 1:
      cv::circle(layer, at, size, colour, random.integer(4, 14), cv::LINE_AA);
      break;
    case 2: {
      const cv::RotatedRect box(at,
                                cv::Size2f(static_cast<float>(size * 2), static_cast<float>(random.integer(15, size))),
                                static_cast<float>(random.uniform(0, 180)));
      std::array<cv::Point2f, 4> corners;
      box.points(corners.data());
      std::vector<cv::Point> points(corners.begin(), corners.end());
      cv::fillConvexPoly(layer, points, colour, cv::LINE_AA);
      break;
    }
    case 3:
      cv::line(layer, at, cv::Point(random.integer(0, image.cols), random.integer(0, image.rows)), colour,
               random.integer(3, 16), cv::LINE_AA);
      break;
    case 4:
      cv::ellipse(layer, at, cv::Size(size, size / 2 + 5), random.uniform(0, 180), 0, random.uniform(120, 360), colour,
                  cv::FILLED, cv::LINE_AA);
      break;
    default:
      polygon(layer, random, colour);
      break;
  }
  const double opacity = random.chance(0.3) ? random.uniform(0.45, 0.8) : 1.0;
  cv::addWeighted(layer, opacity, image, 1 - opacity, 0, image);
}

// Text as large as fits the width, with a contrasting outline so it stays
// readable on any ground.
void centredText(cv::Mat& image, const std::string& text, int font, int y, double maxScale, int thickness,
                 const cv::Scalar& ink, const cv::Scalar& outline) {
  int baseline = 0;
  const cv::Size unit = cv::getTextSize(text, font, 1.0, thickness, &baseline);
  const double scale = std::min(maxScale, image.cols * 0.88 / std::max(1, unit.width));
  const cv::Size size = cv::getTextSize(text, font, scale, thickness, &baseline);
  const cv::Point origin((image.cols - size.width) / 2, y);
  cv::putText(image, text, origin, font, scale, outline, thickness + 4, cv::LINE_AA);
  cv::putText(image, text, origin, font, scale, ink, thickness, cv::LINE_AA);
}

cv::Scalar contrasting(const cv::Mat& image) {
  const cv::Scalar mean = cv::mean(image);
  const double light = 0.114 * mean[0] + 0.587 * mean[1] + 0.299 * mean[2];
  return light > 128 ? cv::Scalar(20, 20, 20) : cv::Scalar(245, 245, 245);
}

}  // namespace

cv::Mat makePoster(std::uint32_t seed, const std::string& title, const std::vector<std::string>& lines, cv::Size size) {
  SeededRandom random(seed);
  cv::Mat poster(size, CV_8UC3);
  linearGradient(poster, random);
  cloudTexture(poster, random);
  for (int i = random.integer(1, 2); i > 0; --i) patternPatch(poster, random);
  for (int i = random.integer(7, 13); i > 0; --i) shape(poster, random);

  const std::array fonts{cv::FONT_HERSHEY_DUPLEX, cv::FONT_HERSHEY_TRIPLEX, cv::FONT_HERSHEY_COMPLEX,
                         cv::FONT_HERSHEY_SIMPLEX};
  const cv::Scalar ink = contrasting(poster);
  const cv::Scalar outline = ink[0] > 128 ? cv::Scalar(0, 0, 0) : cv::Scalar(255, 255, 255);
  if (!title.empty()) {
    const int font = fonts[static_cast<std::size_t>(random.integer(0, 3))];
    centredText(poster, title, font, static_cast<int>(size.height * random.uniform(0.14, 0.3)), size.width / 160.0,
                std::max(2, size.width / 100), ink, outline);
  }
  std::vector<std::string> print = lines;
  if (print.empty()) {
    for (int line = random.integer(2, 3); line > 0; --line) {
      std::string words = randomWord(random, 3, 7);
      for (int n = random.integer(1, 3); n > 0; --n) words += " " + randomWord(random, 2, 6);
      print.push_back(words);
    }
  }
  int y = static_cast<int>(size.height * 0.78);
  for (const auto& line : print) {
    centredText(poster, line, cv::FONT_HERSHEY_SIMPLEX, y, size.width / 520.0, std::max(1, size.width / 300), ink,
                outline);
    y += size.height / 14;
  }
  cv::rectangle(poster, cv::Rect({0, 0}, size), random.colour(), std::max(4, size.width / 50));
  return poster;
}

namespace {

// A wall with furniture-like blocks and a few objects: detail that belongs
// to no poster, to tempt the matcher.
cv::Mat room(cv::Size size, SeededRandom& random) {
  cv::Mat scene(size, CV_8UC3);
  linearGradient(scene, random);
  cv::Mat muted;
  scene.convertTo(muted, -1, 0.5, 60);
  scene = muted;
  cloudTexture(scene, random);
  for (int i = random.integer(6, 10); i > 0; --i) {
    const cv::Rect block(random.integer(-50, size.width), random.integer(size.height / 3, size.height),
                         random.integer(40, size.width / 3), random.integer(20, size.height / 2));
    const cv::Scalar tone = random.colour() * 0.6;
    cv::rectangle(scene, block, tone, cv::FILLED);
    cv::rectangle(scene, block, tone * 0.6, 3);
  }
  for (int i = random.integer(3, 6); i > 0; --i) {
    cv::circle(scene, cv::Point(random.integer(0, size.width), random.integer(0, size.height)), random.integer(8, 40),
               random.colour(), cv::FILLED, cv::LINE_AA);
  }
  return scene;
}

}  // namespace

cv::Mat photograph(const cv::Mat& poster, std::uint32_t seed, const ShotOptions& options) {
  SeededRandom random(seed);
  cv::Mat scene = room(options.size, random);

  const double height = options.size.height * options.coverage;
  const double width = height * poster.cols / poster.rows;
  const cv::Point2d centre(options.size.width * random.uniform(0.4, 0.6),
                           options.size.height * random.uniform(0.42, 0.55));
  // The far side of the poster is the one that shrinks; which side is far
  // is part of the seed.
  const double near = 1 + options.perspective / 2, far = 1 - options.perspective / 2;
  const bool leftFar = random.chance(0.5);
  const double leftScale = leftFar ? far : near, rightScale = leftFar ? near : far;
  std::array<cv::Point2d, 4> corners{
      cv::Point2d(-width / 2, -height / 2 * leftScale), cv::Point2d(width / 2, -height / 2 * rightScale),
      cv::Point2d(width / 2, height / 2 * rightScale), cv::Point2d(-width / 2, height / 2 * leftScale)};
  const double turn = options.rotationDegrees * std::numbers::pi / 180;
  std::vector<cv::Point2f> target, source{{0, 0},
                                          {static_cast<float>(poster.cols), 0},
                                          {static_cast<float>(poster.cols), static_cast<float>(poster.rows)},
                                          {0, static_cast<float>(poster.rows)}};
  for (const auto& c : corners) {
    target.emplace_back(static_cast<float>(centre.x + c.x * std::cos(turn) - c.y * std::sin(turn)),
                        static_cast<float>(centre.y + c.x * std::sin(turn) + c.y * std::cos(turn)));
  }
  const cv::Mat homography = cv::getPerspectiveTransform(source, target);
  cv::Mat warped, mask;
  cv::warpPerspective(poster, warped, homography, options.size, cv::INTER_AREA);
  cv::warpPerspective(cv::Mat(poster.size(), CV_8UC1, cv::Scalar(255)), mask, homography, options.size,
                      cv::INTER_LINEAR);
  warped.copyTo(scene, mask > 128);

  // Light falls off from a lamp somewhere in the frame, and the whole shot
  // is a little dark. The falloff is smooth, so a coarse map enlarged does.
  const cv::Size coarse(options.size.width / 16 + 1, options.size.height / 16 + 1);
  const cv::Point2d lamp(random.uniform(0, coarse.width), random.uniform(0, coarse.height));
  const double reach = std::hypot(coarse.width, coarse.height);
  cv::Mat light(coarse, CV_32FC1);
  for (int y = 0; y < coarse.height; ++y)
    for (int x = 0; x < coarse.width; ++x)
      light.at<float>(y, x) =
          static_cast<float>(options.lighting * (1.1 - 0.35 * std::hypot(x - lamp.x, y - lamp.y) / reach));
  cv::resize(light, light, options.size, 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(light, light, cv::COLOR_GRAY2BGR);
  cv::Mat gain;
  light.convertTo(gain, CV_8UC3, 128);
  cv::Mat shot;
  cv::multiply(scene, gain, shot, 1.0 / 128);
  cv::GaussianBlur(shot, shot, cv::Size(0, 0), 0.8);
  cv::Mat noise(shot.size(), CV_16SC3);
  cv::RNG rng(seed);
  rng.fill(noise, cv::RNG::NORMAL, 0, options.noise);
  cv::add(shot, noise, shot, cv::noArray(), CV_8U);
  return shot;
}

}  // namespace zrk::emulator::samples
