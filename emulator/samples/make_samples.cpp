// zrk-make-samples: draws the emulator's sample seed (collections of poster
// triggers with their payloads) and a few photographs of those posters, then
// checks with the recognizer that every photo finds its own poster and no
// other. The committed emulator/samples/seed and photos come from here:
//
//   zrk-make-samples emulator/samples
//
// With --photos N it writes N phone-sized photographs instead, most of a
// seed poster and a fifth of a poster the seed does not hold, for
// benchmarks that need a folder of photos:
//
//   zrk-make-samples --photos 200 DIR
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "recognition/Recognizer.h"
#include "samples/SyntheticPosters.h"

namespace {

namespace fs = std::filesystem;
namespace samples = zrk::emulator::samples;

struct Trigger {
  std::string id;
  std::string name;
  std::uint32_t seed;
  std::vector<std::string> smallPrint;
  std::string payloadUrl;
  std::string payloadData;
};

struct Collection {
  std::string id;
  std::string name;
  std::vector<Trigger> triggers;
};

const std::vector<Collection> kCollections{
    {"city-festival",
     "City Festival",
     {{"jazz-night",
       "Jazz Night",
       11,
       {"HARBOUR STAGE", "SATURDAY 8 PM"},
       "https://example.com/festival/jazz-night",
       "Harbour Stage, Saturday 20:00. Doors open 19:00."},
      {"food-market",
       "Food Market",
       12,
       {"OLD TOWN SQUARE", "EVERY SUNDAY"},
       "https://example.com/festival/food-market",
       "Old Town Square, Sundays 10:00-16:00."},
      {"lantern-parade",
       "Lantern Parade",
       13,
       {"RIVER WALK", "FRIDAY AT DUSK"},
       "https://example.com/festival/lantern-parade",
       "Starts at the river bridge at dusk."}}},
    {"science-museum",
     "Science Museum",
     {{"dinosaur-hall",
       "Dinosaur Hall",
       21,
       {"WEST WING", "LEVEL 1"},
       "https://example.com/museum/dinosaur-hall",
       "Audio guide track 4: the long-necked giants."},
      {"star-dome",
       "Star Dome",
       22,
       {"PLANETARIUM SHOWS", "EVERY HOUR"},
       "https://example.com/museum/star-dome",
       "Next show on the hour; 30 minutes."},
      {"robot-lab",
       "Robot Lab",
       23,
       {"HANDS-ON WORKSHOP", "AGES 8 AND UP"},
       "https://example.com/museum/robot-lab",
       "Workshop slots at 11:00 and 15:00."}}},
    {"product-launch",
     "Product Launch",
     {{"trail-shoe",
       "Trail Shoe X2",
       31,
       {"GRIP FOR EVERY PATH", "IN STORES NOW"},
       "https://example.com/launch/trail-shoe",
       "Sizes 36-47, three colours."},
      {"coffee-grinder",
       "Burr Grinder",
       32,
       {"FORTY GRIND SETTINGS", "FRESH EVERY MORNING"},
       "https://example.com/launch/coffee-grinder",
       "Launch offer: free descaling kit."}}},
};

struct Shot {
  std::string triggerId;
  std::uint32_t seed;
  samples::ShotOptions options;
};

std::vector<Shot> shots() {
  samples::ShotOptions wide;
  wide.coverage = 0.5;
  wide.rotationDegrees = -3;
  samples::ShotOptions steep;
  steep.coverage = 0.6;
  steep.perspective = 0.16;
  steep.rotationDegrees = 5;
  steep.lighting = 0.75;
  samples::ShotOptions near;
  near.size = {720, 960};
  near.coverage = 0.7;
  near.rotationDegrees = 2;
  near.noise = 8;
  samples::ShotOptions dim;
  dim.coverage = 0.45;
  dim.lighting = 0.65;
  dim.rotationDegrees = -5;
  return {{"jazz-night", 101, wide}, {"dinosaur-hall", 102, steep}, {"trail-shoe", 103, near}, {"star-dome", 104, dim}};
}

std::vector<unsigned char> jpeg(const cv::Mat& image, int quality) {
  std::vector<unsigned char> bytes;
  cv::imencode(".jpg", image, bytes, {cv::IMWRITE_JPEG_QUALITY, quality, cv::IMWRITE_JPEG_OPTIMIZE, 1});
  return bytes;
}

void write(const fs::path& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

void write(const fs::path& path, const nlohmann::json& json) {
  std::ofstream out(path);
  out << json.dump(2) << '\n';
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// 12-megapixel photos, landscape and portrait. Drawing a room at that size
// takes seconds, so 25 shots are drawn (framed, turned and lit each its own
// way) and every photo is one of them cropped, shifted and lit a little
// differently; the same N gives the same files.
int writePhotoSet(int count, const fs::path& folder) {
  std::vector<cv::Mat> posters;
  for (const auto& collection : kCollections) {
    for (const auto& trigger : collection.triggers) {
      posters.push_back(samples::makePoster(trigger.seed, upper(trigger.name), trigger.smallPrint));
    }
  }
  constexpr int kShots = 25;
  std::vector<cv::Mat> shots;
  for (int i = 0; i < std::min(count, kShots); ++i) {
    samples::SeededRandom random(static_cast<std::uint32_t>(7000 + i));
    samples::ShotOptions options;
    options.size = i % 3 == 2 ? cv::Size(3024, 4032) : cv::Size(4032, 3024);
    options.coverage = random.uniform(0.4, 0.7);
    options.rotationDegrees = random.uniform(-5, 5);
    options.perspective = random.uniform(0, 0.14);
    options.lighting = random.uniform(0.75, 1.0);
    options.noise = random.uniform(3, 7);
    const cv::Mat poster = i % 5 == 4 ? samples::makePoster(random.next(), samples::randomWord(random, 4, 9))
                                      : posters[static_cast<std::size_t>(i) % posters.size()];
    shots.push_back(samples::photograph(poster, random.next(), options));
  }
  fs::create_directories(folder);
  for (int i = 0; i < count; ++i) {
    samples::SeededRandom random(static_cast<std::uint32_t>(9000 + i));
    const cv::Mat& shot = shots[static_cast<std::size_t>(i) % shots.size()];
    const int dx = random.integer(0, shot.cols / 25), dy = random.integer(0, shot.rows / 25);
    cv::Mat photo;
    cv::resize(shot(cv::Rect(dx, dy, shot.cols - shot.cols / 25, shot.rows - shot.rows / 25)), photo, shot.size(), 0,
               0, cv::INTER_LINEAR);
    photo.convertTo(photo, -1, random.uniform(0.9, 1.1), random.uniform(-8, 8));
    char name[32];
    std::snprintf(name, sizeof name, "photo-%03d.jpg", i);
    write(folder / name, jpeg(photo, random.integer(86, 92)));
  }
  std::printf("%d photos in %s\n", count, folder.string().c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--photos") {
    try {
      const int count = std::stoi(argv[2]);
      if (count < 1) throw std::invalid_argument("N must be 1 or more");
      return writePhotoSet(count, argv[3]);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "zrk-make-samples: %s\n", error.what());
      return 2;
    }
  }
  if (argc > 2 || (argc == 2 && (std::string(argv[1]) == "-h" || std::string(argv[1]) == "--help"))) {
    std::fprintf(stderr,
                 "usage: zrk-make-samples [OUTPUT_DIR]\nwrites OUTPUT_DIR/seed and OUTPUT_DIR/photos\n"
                 "   or: zrk-make-samples --photos N DIR\nwrites N phone-sized photos of posters to DIR\n");
    return 2;
  }
  try {
    const fs::path root = argc == 2 ? fs::path(argv[1]) : fs::current_path();
    zrk::emulator::Recognizer recognizer;
    std::map<std::string, std::pair<const Collection*, cv::Mat>> posters;
    for (const auto& collection : kCollections) {
      const fs::path folder = root / "seed" / collection.id;
      fs::create_directories(folder);
      write(folder / "collection.json", nlohmann::json{{"name", collection.name}});
      for (const auto& trigger : collection.triggers) {
        const cv::Mat poster = samples::makePoster(trigger.seed, upper(trigger.name), trigger.smallPrint);
        const auto bytes = jpeg(poster, 85);
        write(folder / (trigger.id + ".jpg"), bytes);
        write(folder / (trigger.id + ".json"), nlohmann::json{{"name", trigger.name},
                                                              {"type", 0},
                                                              {"payloadUrl", trigger.payloadUrl},
                                                              {"payloadData", trigger.payloadData}});
        recognizer.addTrigger(trigger.id, collection.id, bytes);
        posters[trigger.id] = {&collection, poster};
        std::printf("seed/%s/%s.jpg  %zu bytes\n", collection.id.c_str(), trigger.id.c_str(), bytes.size());
      }
    }

    fs::create_directories(root / "photos");
    bool allFound = true;
    for (const auto& shot : shots()) {
      const auto& [collection, poster] = posters.at(shot.triggerId);
      const auto bytes = jpeg(samples::photograph(poster, shot.seed, shot.options), 82);
      write(root / "photos" / (shot.triggerId + "-photo.jpg"), bytes);
      const auto anywhere = recognizer.match(bytes, std::nullopt);
      const auto own = recognizer.match(bytes, collection->id);
      const bool right = anywhere && anywhere->triggerId == shot.triggerId && own && own->triggerId == shot.triggerId;
      bool elsewhere = false;
      for (const auto& other : kCollections) {
        if (&other != collection && recognizer.match(bytes, other.id)) elsewhere = true;
      }
      std::printf("photos/%s-photo.jpg  %zu bytes  %s score %.1f%s\n", shot.triggerId.c_str(), bytes.size(),
                  anywhere ? anywhere->triggerId.c_str() : "nothing", anywhere ? anywhere->score : 0.0,
                  elsewhere ? "  ALSO MATCHES ANOTHER COLLECTION" : "");
      allFound = allFound && right && !elsewhere;
    }
    if (!allFound) {
      std::fprintf(stderr, "zrk-make-samples: a photo does not find its own poster alone\n");
      return 1;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zrk-make-samples: %s\n", error.what());
    return 1;
  }
  return 0;
}
