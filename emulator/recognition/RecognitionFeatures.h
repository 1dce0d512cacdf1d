// The two halves of recognition: describing a picture by its keypoints, and
// checking that a photo's keypoints land on a trigger's in a way one plane
// seen by a camera allows. Recognizer keeps the triggers and picks the best.
#ifndef ZRK_EMULATOR_RECOGNITION_FEATURES_H
#define ZRK_EMULATOR_RECOGNITION_FEATURES_H

#include <opencv2/core.hpp>
#include <optional>
#include <span>
#include <vector>

namespace zrk::emulator::detail {

struct Features {
  cv::Size size;                    // of the normalised picture the points refer to
  double scale = 1;                 // normalised pixels per original pixel
  std::vector<cv::Point2f> points;  // one per descriptor row
  cv::Mat descriptors;              // binary, CV_8U, 32 bytes a row
};

// A trigger fills its picture; in a photo it may take a third of the frame
// among clutter, so photos are described larger and with more points.
struct Sampling {
  int longSide;
  int features;
};
inline constexpr Sampling kTriggerSampling{480, 500};
inline constexpr Sampling kPhotoSampling{800, 1000};

// Decodes a JPEG or PNG and describes it; nothing when the bytes are no
// image. Pictures are brought to one size first so that thresholds hold
// whatever the camera's resolution.
std::optional<Features> describeEncoded(std::span<const unsigned char> encoded, Sampling sampling);
Features describe(const cv::Mat& grey, Sampling sampling);

// Pairs of points whose descriptors are each other's clear nearest: the
// second-nearest trigger descriptor is markedly farther (Lowe's ratio test).
struct Correspondences {
  std::vector<cv::Point2f> trigger;
  std::vector<cv::Point2f> photo;
  std::size_t size() const { return trigger.size(); }
};
Correspondences correspond(const Features& trigger, const Features& photo);

// How many correspondences one homography from the trigger to the photo
// explains, and whether that homography is one a camera could produce.
struct Verification {
  int inliers = 0;
  bool plausible = false;
  cv::Mat homography;                // trigger to photo, in normalised pixels
  std::vector<unsigned char> inlier;  // one flag per correspondence
};
Verification verify(const Correspondences& pairs, cv::Size trigger, cv::Size photo);

// Maps inliers to the 0-100 score the service reports.
double scoreFor(int inliers);

// Over a few hundred unrelated generated pictures no trigger kept more than
// 16 inliers; altered copies and photographs of a trigger kept 30 or more.
inline constexpr int kMinimumInliers = 20;
// Fewer keypoints than this and a trigger is a plain colour or a gradient.
inline constexpr int kMinimumKeypoints = 40;

}  // namespace zrk::emulator::detail

#endif  // ZRK_EMULATOR_RECOGNITION_FEATURES_H
